// kr::lstream: an output stream into the system log.
//
// Each flush (std::endl, std::flush, or the stream's end) becomes one log
// record of the stream's source, the topic list given at construction. A
// trailing newline is not part of the record. A line that outgrows the
// 1024-character buffer is cut there: every 1024 characters go out as a
// record of their own. With an echo stream, every record is also written
// there, ending in a newline whether or not the logged text had one.
//
//   kr::lstream log(kTopicBus, 0);               // topics end with a 0
//   kr::lstream both(std::cerr, kTopicBus, kTopicDebug, 0);
//   if (!log.isMuted()) log << "expensive " << dump(m) << std::endl;
//
// Streams with equal topic lists share one source (kr/log/logger.h), so
// a mute order for it silences all of them. A stream binds to the process's
// Logger at its first non-empty flush; constructing one costs no I/O.
// Event-loop thread only.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <ostream>
#include <streambuf>
#include <vector>

namespace kr {

class Logger;
struct Source;

class lstreambuf : public std::streambuf {
 public:
  static constexpr size_t kBufferSize = 1024;

  // Topics from a zero-terminated array (the 0 is not a topic).
  explicit lstreambuf(const unsigned int* topics);
  // `topic`, then the va_list's unsigned ints up to a 0.
  lstreambuf(unsigned int topic, va_list more);
  // Flushes what is left.
  ~lstreambuf() override;
  lstreambuf(const lstreambuf&) = delete;
  lstreambuf& operator=(const lstreambuf&) = delete;

  void setEcho(std::ostream* echo) { echo_ = echo; }
  std::ostream* echo() const { return echo_; }
  // Null until the first non-empty flush.
  Source* source() const { return source_; }
  const std::vector<uint16_t>& topics() const { return topics_; }

 protected:
  int overflow(int c) override;
  int sync() override;

 private:
  void resetPutArea() { setp(buf_, buf_ + kBufferSize - 1); }
  bool flushBuffer();

  char buf_[kBufferSize];
  std::vector<uint16_t> topics_;  // each truncated to 16 bits
  Logger* logger_ = nullptr;
  Source* source_ = nullptr;
  std::ostream* echo_ = nullptr;
};

class lstream : virtual public std::ostream {
 public:
  // Topics from a zero-terminated array.
  explicit lstream(const unsigned int* topics);
  // At least one topic; more follow as unsigned ints up to a 0, which must
  // be there: lstream(kTopicBus, 0).
  explicit lstream(unsigned int topic, ...);
  // The same, echoing every record to `echo` (for instance std::cerr),
  // which must outlive the stream.
  explicit lstream(std::ostream& echo, unsigned int topic, ...);
  // Flushes and frees the buffer.
  ~lstream() override;
  lstream(const lstream&) = delete;
  lstream& operator=(const lstream&) = delete;

  // True only when this stream has flushed before, its source is muted
  // and it has no echo: a line composed now would go nowhere, so callers
  // may skip composing it.
  bool isMuted() const;

  lstreambuf* buffer() const { return buf_; }

 private:
  lstreambuf* buf_;
};

}  // namespace kr
