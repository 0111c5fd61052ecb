#include "platform/log/logfile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/common/listener.h"

namespace kr::logsvc {

namespace {

// Big enough that a busy service writes a few hundred kilobytes per call,
// small enough to stay in cache.
constexpr size_t kBufferSize = 256 * 1024;

}  // namespace

bool LogFile::open(const Settings& settings, std::string* error) {
  settings_ = settings;
  max_ = settings.maxSize;
  if (!platform::makeParentDirs(settings.path, 0755, error)) return false;
  if (!openFile()) {
    *error = error_;
    error_.clear();
    return false;
  }
  struct stat st {};
  size_ = fstat(fd_.get(), &st) == 0 ? uint64_t(st.st_size) : 0;
  return true;
}

bool LogFile::openFile() {
  fd_.reset(::open(settings_.path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  if (!fd_) fail(platform::failure("cannot open", settings_.path));
  return bool(fd_);
}

void LogFile::rotate() {
  flush();
  fd_.reset();
  if (settings_.keep == 0) {
    if (truncate(settings_.path.c_str(), 0) != 0 && errno != ENOENT)
      fail(platform::failure("cannot empty", settings_.path));
  } else {
    shiftFiles();
  }
  size_ = 0;
  openFile();
}

// Oldest first, so that nothing is overwritten before it has moved on; a
// file that is not there (fewer rotations so far) is no error.
void LogFile::shiftFiles() {
  const std::string& p = settings_.path;
  for (unsigned int i = settings_.keep; i > 0; --i) {
    const std::string from = i == 1 ? p : p + "." + std::to_string(i - 1);
    const std::string to = p + "." + std::to_string(i);
    if (::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) fail(platform::failure("cannot rename", from));
  }
}

char* LogFile::extend(size_t n) {
  if (used_ + n > cap_ && used_ > 0) flush();
  if (n > cap_) {
    cap_ = std::max(n, kBufferSize);
    buf_.reset(new char[cap_]);
  }
  char* p = buf_.get() + used_;
  used_ += n;
  size_ += n;
  return p;
}

void LogFile::flush() {
  if (used_ == 0) return;
  if (!fd_ && !openFile()) size_ = 0;  // the bytes are lost; a new file starts empty
  if (fd_) writeOut(fd_.get(), buf_.get(), used_);
  if (settings_.mirrorFd >= 0) writeOut(settings_.mirrorFd, buf_.get(), used_);
  used_ = 0;
}

void LogFile::writeOut(int fd, const char* p, size_t n) {
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      if (fd == fd_.get()) fail(platform::failure("cannot write", settings_.path));
      return;
    }
    p += w;
    n -= size_t(w);
  }
  if (fd == fd_.get()) failing_ = false;
}

void LogFile::fail(const std::string& what) {
  if (!failing_ && error_.empty()) error_ = what;
}

bool LogFile::takeError(std::string* error) {
  if (error_.empty()) return false;
  *error = std::move(error_);
  error_.clear();
  failing_ = true;
  return true;
}

}  // namespace kr::logsvc
