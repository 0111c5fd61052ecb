#include "kr/loop/clock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace kr {
namespace {

// The kernel starts its tick counter 30000 ticks below zero; adding them
// back counts ticks since boot.
constexpr unsigned int kJiffiesOffset = 30000;

const volatile unsigned int* g_jiffiesPage = nullptr;
const TestClock* g_testClock = nullptr;

}  // namespace

unsigned int getJiffies() {
  if (g_testClock) return g_testClock->now();
  if (g_jiffiesPage) return *g_jiffiesPage + kJiffiesOffset;
  // The coarse clock is read without a system call and its resolution (a
  // few milliseconds) is finer than a tick.
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<unsigned int>(ts.tv_sec * 100 + ts.tv_nsec / 10000000) + kJiffiesOffset;
}

unsigned int getUptime() { return getJiffies() / 100; }

void mapJiffiesPage() {
  const int fd = open("/dev/jiffies", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0);
  close(fd);
  // A later runner's mapping replaces an earlier one, which stays mapped:
  // a reader may still hold the old pointer.
  if (page != MAP_FAILED) g_jiffiesPage = static_cast<const volatile unsigned int*>(page);
}

TestClock::TestClock(unsigned int start) : now_(start) {
  if (g_testClock) std::abort();  // one at a time
  g_testClock = this;
}

TestClock::~TestClock() { g_testClock = nullptr; }

}  // namespace kr
