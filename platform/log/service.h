// kr::logsvc::Service: kr-log's server for log clients. It owns the log
// socket's listener and every client connection, cuts what clients send
// into records (records.h), writes each line as one text line to the log
// file, keeps the mute state and sends mute orders.
//
//   LogFile file;  file.open(...);
//   Service service(runner, config, file, std::move(listener));
//   Control control(runner, service, std::move(controlListener));  // follow, status, mute
//   while (!stopped) runner.step(true);
//
// All clients share one large read buffer; a client keeps only the start
// of a record that its next read completes, its sources and counters, so
// idle clients cost little. One read per client per readiness event, so a
// busy client cannot starve the others. The file is flushed by a
// before-sleep hook: at the end of every loop turn.
//
// Mute orders go out whole and at most kLogMaxMuteBurst per write, one
// write per client per 10 ms tick (the client reads them 256 bytes at a
// time and resets its connection on a cut record). That is best effort: a
// client slower than the tick may still find two bursts in one read.
//
// Event-loop thread only. The runner, config and file must outlive the
// service; its destructor unregisters and closes every descriptor.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kr/loop/thinrunner.h"
#include "kr/util/unique_fd.h"
#include "platform/log/config.h"
#include "platform/log/logfile.h"
#include "platform/log/records.h"

namespace kr::logsvc {

// A listening socket registered with the runner: every connection it
// accepts goes to `onAccept`. Out of descriptors, it stops accepting for a
// second rather than spin on a listener that stays readable.
class Acceptor {
 public:
  using AcceptCallback = function<void(UniqueFd fd)>;
  Acceptor(ThinRunner& runner, UniqueFd listener, AcceptCallback onAccept);
  ~Acceptor();
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

 private:
  void onReady(int fd, unsigned int revents);
  void pause();

  ThinRunner& runner_;
  UniqueFd listener_;
  AcceptCallback onAccept_;
  Timer pause_;
};

// One written line, as the control side sees it. Views valid only during
// the call.
struct LineInfo {
  std::string_view text;                 // the whole line, newline included
  std::string_view program;
  const std::vector<uint16_t>* topics;   // the source's; empty for kr-log's own lines
};

class LineListener {
 public:
  virtual ~LineListener() = default;
  virtual void lineWritten(const LineInfo& line) = 0;
};

// A connected client, as `status` shows it.
struct ClientInfo {
  pid_t pid;
  std::string program;
  size_t sources;
  uint64_t lines, bytes, dropped;
};

class Service {
 public:
  Service(ThinRunner& runner, const Config& config, LogFile& file, UniqueFd listener);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Hears of every line written, kr-log's own included; null: nobody.
  void setLineListener(LineListener* l) { listener_ = l; }

  // Writes one of kr-log's own lines ("kr-log[pid] kr-log: text").
  void note(std::string_view text);
  // Mutes or unmutes a topic: every client is told about each source whose
  // state changes. False when the topic already was in that state.
  bool setMuted(uint16_t topic, bool muted);
  const std::set<uint16_t>& muted() const { return muted_; }
  const TopicTable& topics() const { return config_.topics; }

  std::vector<ClientInfo> clients() const;
  size_t clientCount() const { return clients_.size(); }
  // Writes out the file's buffer (the before-sleep hook does this too).
  void flush();

 private:
  struct Client;
  class Sink;

  void onAccept(UniqueFd fd);
  void onClient(int fd, unsigned int revents);
  void drop(int fd, const std::string& reason);
  void close(int fd);

  void registered(Client& c, Source& s, bool fresh);
  void line(Client& c, const Source& s, const char* text, size_t n);
  std::string labelOf(const std::vector<uint16_t>& topics) const;
  bool anyMuted(const std::vector<uint16_t>& topics) const;

  void queueOrder(Client& c, uint16_t id, bool muted);
  void sendOrders(Client& c);

  void emit(std::string_view program, std::string_view pid, std::string_view label, const char* text, size_t n,
            const std::vector<uint16_t>* topics);
  void rotate();
  void reportFileTrouble();

  ThinRunner& runner_;
  const Config& config_;
  LogFile& file_;
  std::set<uint16_t> muted_;
  std::map<int, std::unique_ptr<Client>> clients_;
  std::vector<unsigned char> in_;  // the one read buffer of every client
  LineListener* listener_ = nullptr;
  std::string ownPid_;
  ThinRunner::Callback flushHook_;
  Acceptor acceptor_;  // last: it may call onAccept as soon as it exists
};

}  // namespace kr::logsvc
