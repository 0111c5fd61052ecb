// kr::logsvc::LogFile: kr-log's output file, buffered and rotated by size.
//
// Lines are formatted straight into the buffer (extend()) and written out
// in large chunks: when the buffer fills, and by flush(), which the service
// calls at the end of every loop turn so that the file is never more than
// one turn behind. The same bytes can also go to a mirror descriptor
// (standard output, with --stdout).
//
//   LogFile f;
//   if (!f.open({path, 1 << 20, 3, -1}, &error)) return;
//   if (f.full(n)) f.rotate();   // before the line, never inside it
//   std::memcpy(f.extend(n), line, n);
//   f.flush();
//
// Rotation shifts kr.log.(keep-1) to kr.log.keep ... kr.log to kr.log.1 and
// starts an empty kr.log; with keep 0 the file is just emptied. A line is
// never split between two files. Event-loop thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kr/util/unique_fd.h"

namespace kr::logsvc {

class LogFile {
 public:
  struct Settings {
    std::string path;
    uint64_t maxSize = 0;  // 0: never rotate
    unsigned int keep = 0;
    int mirrorFd = -1;     // also written here, unless -1; not owned
  };

  LogFile() = default;
  ~LogFile() { flush(); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // Opens the file for appending (making its directories); what it holds
  // already counts toward its size. False, with one line, on failure.
  bool open(const Settings& settings, std::string* error);

  // Whether a line of n bytes has to start a new file: the current one
  // holds something and would grow past maxSize. A line longer than
  // maxSize still goes whole into a file of its own.
  bool full(size_t n) const { return max_ != 0 && size_ > 0 && size_ + n > max_; }
  // Writes out what is buffered, shifts the files and starts an empty one.
  // Trouble is kept for takeError(); the output then goes only to the
  // mirror until a later flush manages to open the file again.
  void rotate();

  // Room for n bytes at the end of the buffer, which the caller fills at
  // once. Valid until the next call of any method.
  char* extend(size_t n);
  // Writes the buffer to the file and the mirror.
  void flush();

  // The file's size, buffered bytes included.
  uint64_t size() const { return size_; }
  // A line about the latest failure to write, open or rename, once: true
  // and *error set the first time after each failure.
  bool takeError(std::string* error);

 private:
  bool openFile();
  void writeOut(int fd, const char* p, size_t n);
  void fail(const std::string& what);
  void shiftFiles();

  Settings settings_;
  uint64_t max_ = 0;
  UniqueFd fd_;
  uint64_t size_ = 0;
  std::unique_ptr<char[]> buf_;
  size_t used_ = 0;
  size_t cap_ = 0;
  std::string error_;
  bool failing_ = false;  // error_ was taken and nothing has worked since
};

}  // namespace kr::logsvc
