// kr::Logger: the process's one client of the system log service.
//
// Lines are filed under a *source*, the ordered list of topic numbers they
// belong to (the numbers are the log service's; see docs/log.md). The
// Logger registers each source once per connection, just before its first
// line, sends every line tagged with the source's small id, and obeys the
// service's mute orders: a muted source sends nothing at all until it is
// unmuted or the connection is reset. The wire is in kr/log/log_protocol.h.
//
// Code does not usually call the Logger; it writes through kr::lstream
// (kr/log/lstream.h), which turns each flushed line into one record:
//
//   kr::lstream log(kTopicDhcp, kTopicDebug, 0);
//   log << "lease " << ip << " renewed" << std::endl;
//
// The connection is made lazily, by the first record, to the stream socket
// kr::logSocketPath() ("/ram/logsocket"), and through the process's event
// loop (kr::getRunner()). Records queue in memory while it connects, without
// limit. Nothing ever fails toward the caller: trouble prints one
// "Logger: ..." line and either keeps the records (connecting) or loses them
// (closeConnection()). A failed connect is retried after 1 s, and otherwise
// the next record reconnects.
//
// The Logger also keeps the last lines logged in a small ring, which the
// crash report (kr/loop/crash.h) prints as its log tail.
//
// Event-loop thread only; nothing is locked. The process's Logger outlives
// the event loop, so a program that destroys its runner and makes another
// calls closeConnection() in between.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kr/log/internal/tail_ring.h"
#include "kr/loop/thinrunner.h"

namespace kr {

// One distinct topic list. Owned by its Logger and never freed while the
// Logger lives, so a Source* stays valid as long as the Logger.
struct Source {
  std::vector<uint16_t> topics;  // in the order given; the key
  unsigned int id = 0;           // 1-based position in the Logger's list
  bool muted = false;            // from the service; cleared by a disconnect
  bool registered = false;       // registration queued on this connection
};

class Logger {
 public:
  // The process's Logger, created on the first call and never destroyed.
  // It also becomes the crash report's source of log lines.
  static Logger* getLogger();

  // Disconnected, with no sources. Ignores SIGPIPE for the whole process,
  // so that a vanished service shows up as a write error. Tests and tools
  // may make Loggers of their own; daemons use getLogger().
  Logger();
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // "Logger: ", the start of every diagnostic line.
  static std::string dbg();

  // The source with exactly these topics, created (unregistered, unmuted,
  // with the next id) if it does not exist yet. Sends nothing.
  Source* registerSource(const std::vector<uint16_t>& topics);
  // Files one line (no trailing newline) under s: first to the event trace
  // and the crash tail, then, unless s is muted, to the service, with s's
  // registration ahead of it if this connection has not had it yet. The
  // record's length field is 16 bits and is not checked, so len must stay
  // below 65532; lstream keeps lines far shorter.
  void log(Source* s, const char* text, unsigned int len);

  // ---- The connection (the steps log() takes; public for tests) ----------
  // Queues s's registration and marks it registered.
  void sendRegistration(Source* s);
  // Queues bytes for the service, connecting first if there is no socket,
  // and sends at once when the socket is connected and not blocked.
  void writeMsg(const unsigned char* data, unsigned int len);
  // Opens the socket and starts the connect, if there is none.
  void connectToLog();
  void onSocket(int fd, unsigned int events);
  void onWrite();
  void onRead();
  // What one read of mute orders held.
  enum class MuteRead { kOk, kTooShort, kBadLength };
  // Walks n bytes as whole mute orders, applying each to its source (ids
  // beyond the sources are ignored), up to the first bad record.
  MuteRead applyMuteOrders(const unsigned char* data, size_t n);
  // Drops the socket, if any, and loses every queued record; every source
  // is unmuted and unregistered. Does not reconnect by itself.
  void closeConnection();

  // ---- Introspection (tests, benchmarks) ----------------------------------
  bool isConnected() const { return connected_; }
  bool hasSocket() const { return fd_ >= 0; }
  // Bytes queued and not yet sent.
  size_t pendingBytes() const { return out_.size() - sent_; }
  size_t sourceCount() const { return byId_.size(); }
  // The source with this id, or null.
  Source* source(unsigned int id) const;
  // The crash tail: the most recent lines, oldest first, each ending in a
  // newline, at most cap bytes. Async-signal-safe.
  size_t copyTail(char* buf, size_t cap) const { return tail_.copy(buf, cap); }

 private:
  struct ByTopics {
    using is_transparent = void;
    bool operator()(const std::unique_ptr<Source>& a, const std::unique_ptr<Source>& b) const {
      return a->topics < b->topics;
    }
    bool operator()(const std::unique_ptr<Source>& a, const std::vector<uint16_t>& b) const {
      return a->topics < b;
    }
    bool operator()(const std::vector<uint16_t>& a, const std::unique_ptr<Source>& b) const {
      return a < b->topics;
    }
  };

  // Sent bytes are only counted until this many have gone, so that a long
  // queue drains without moving its rest forward at every send.
  static constexpr size_t kCompactAt = 64 * 1024;

  void onConnected(int fd, unsigned int events);
  // onWrite(), then POLLOUT if something is left.
  void sendPending();
  void dropSent(size_t n);
  void setEvents(unsigned int events);

  std::set<std::unique_ptr<Source>, ByTopics> sources_;
  std::vector<Source*> byId_;  // index = id - 1
  int fd_ = -1;
  bool connected_ = false;
  unsigned int events_ = 0;  // POLLIN, and POLLOUT while out_ waits
  std::vector<unsigned char> out_;  // no limit
  size_t sent_ = 0;                 // the front of out_ already sent
  Timer retry_;
  log_internal::TailRing tail_;
};

}  // namespace kr
