// kr::logsvc::Control: kr-log's control socket, where people (kr-log
// --follow, kr-cli log) look at the log and change the mute state.
//
// One request per connection: one line of at most kMaxRequest bytes ending
// in "\n", words separated by blanks. The answer's first line is "ok" or
// "error: <text>"; then
//   status             one line per client, one per muted topic; closed
//   mute T / unmute T  nothing more; closed
//   follow [tail=N] [topic=T]... [program=P]...
//                      the last N matching lines, then every new matching
//                      line, until the follower closes
// (docs/log.md has the details.) Answers are queued and written as the
// socket takes them; a follower that falls more than kMaxPending bytes
// behind is dropped, so a stuck reader never holds the service up.
//
// Control also keeps the last kRingLines lines written, for `tail=`.
//
//   Control control(runner, service, std::move(listener));  // after the Service
//
// Event-loop thread only. The runner and the service must outlive it; it
// sets itself as the service's line listener while it exists.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kr/loop/thinrunner.h"
#include "kr/util/unique_fd.h"
#include "platform/log/service.h"

namespace kr::logsvc {

class Control : public LineListener {
 public:
  static constexpr size_t kRingLines = 1000;
  static constexpr size_t kMaxRequest = 1024;
  static constexpr size_t kMaxPending = 1024 * 1024;

  Control(ThinRunner& runner, Service& service, UniqueFd listener);
  ~Control() override;
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  void lineWritten(const LineInfo& line) override;
  size_t connectionCount() const { return conns_.size(); }

 private:
  struct Conn;
  struct Entry {
    std::string text;
    std::string program;
    std::vector<uint16_t> topics;
  };
  using Words = std::vector<std::string_view>;
  using Handler = void (Control::*)(Conn& c, const Words& args);
  struct Request {
    const char* name;
    Handler handle;
  };
  static const Request kRequests[];

  void onAccept(UniqueFd fd);
  void onConn(int fd, unsigned int revents);
  void readRequest(Conn& c);
  void dispatch(Conn& c, std::string_view line);
  void answer(Conn& c, std::string text);
  void pump(Conn& c);
  void pumpAll();
  void close(int fd);

  void status(Conn& c, const Words& args);
  void mute(Conn& c, const Words& args);
  void unmute(Conn& c, const Words& args);
  void follow(Conn& c, const Words& args);
  void setMuted(Conn& c, const Words& args, bool muted);
  bool matches(const Conn& c, std::string_view program, const std::vector<uint16_t>& topics) const;

  ThinRunner& runner_;
  Service& service_;
  std::map<int, std::unique_ptr<Conn>> conns_;
  std::vector<Entry> ring_;  // kRingLines entries once full; oldest at ringNext_
  size_t ringNext_ = 0;
  size_t droppedFollowers_ = 0;  // noted at the end of the turn
  ThinRunner::Callback pumpHook_;
  Acceptor acceptor_;
};

}  // namespace kr::logsvc
