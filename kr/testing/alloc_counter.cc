#include "kr/testing/alloc_counter.h"

#include <cstdlib>
#include <new>

// The replacement pairs malloc with free on purpose, which g++ cannot see
// through.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {
bool g_counting = false;
size_t g_allocations = 0;
}  // namespace

void* operator new(size_t n) {
  if (g_counting) ++g_allocations;
  if (void* p = std::malloc(n ? n : 1)) return p;
  std::abort();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace kr::testing {

CountAllocations::CountAllocations() {
  g_allocations = 0;
  g_counting = true;
}
CountAllocations::~CountAllocations() { g_counting = false; }
size_t CountAllocations::operator()() const { return g_allocations; }

}  // namespace kr::testing
