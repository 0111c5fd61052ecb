// The crash tail of the log: the last few kilobytes of lines a process
// logged, kept so that a crash report can show what happened just before.
//
// append() is for the event-loop thread; copy() may run inside a signal
// handler that interrupted append(), so it only reads and memcpy()s. The
// text it copies can then be torn at the point of interruption, which a
// crash report accepts.
#pragma once

#include <cstddef>

namespace kr::log_internal {

class TailRing {
 public:
  static constexpr size_t kSize = 4096;

  // Adds text and a newline, forgetting the oldest bytes beyond kSize. A
  // text longer than the ring keeps only its end.
  void append(const char* text, size_t len);
  // The contents, oldest first, into buf; at most cap bytes (the newest
  // ones when cap is short). Returns the count. Async-signal-safe.
  size_t copy(char* buf, size_t cap) const;

 private:
  void put(const char* p, size_t n);

  char ring_[kSize];
  size_t head_ = 0;   // where the next byte goes
  size_t used_ = 0;   // valid bytes, up to kSize
};

}  // namespace kr::log_internal
