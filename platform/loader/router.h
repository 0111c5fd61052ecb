// kr::loader::Router: the loader's bus. It accepts the daemons' (and
// tools') connections, answers their hellos, and routes every frame by the
// first element of its SYS_TO. docs/loader.md tells the protocol from a
// client's side; in short:
//
//   - A connection speaks only after its hello (control 5), whose first
//     registration number is the bus address it asks for. Fixed addresses
//     (2..0xFFFF) need a trusted peer; 0 gets a dynamic one. The answer is
//     the ready message (control 8) with the address, the granted policy
//     and any persistent data kept for that address.
//   - Routing consumes the first SYS_TO element and puts the sender's
//     address in front of SYS_FROM, so a reply to the request's SYS_FROM
//     comes back. [1] is the loader itself; 0xFF0001 reaches every other
//     process; 0xFF0002 is followed by paths, each a count n and n
//     elements. A request (SYS_REPLYEXP) for an address nobody holds gets
//     an ERROR_BRKPATH reply.
//   - SYS_POLICY of every forwarded frame is the sender's, set here from its
//     peer credentials and the configuration (config.h: policyFor); what
//     the sender wrote there is replaced.
//   - A descriptor passed with a frame goes out with that frame.
//   - When a connection with an address ends, every other process gets
//     CMD_DISCONNECTED with SYS_FROM = [address] and SYS_DREASON: DREASON_
//     DISCONNECTED after a leave (control 2, or an end after control 1 that
//     was not refused), else DREASON_CRASHED.
//   - A connection that breaks the framing, sends a malformed message,
//     stops reading (full output queue) or says nothing for 10 s after
//     connecting is dropped with a log line; nobody else notices more than
//     its disconnect notice.
//   - A trusted peer that sends kMonitorCmd to [1] becomes a monitor: from
//     then on every frame delivered to another process is shown to it as a
//     kMonitorEvent (sender, receiver, the frame as delivered). Frames to
//     or from a monitor are not shown, so watching never feeds itself.
//
// The router registers its sockets and timers with the process's runner
// (kr::getRunner()), which must outlive it. Event-loop thread only.
//
//   kr::Runner loop;
//   Config config;
//   Router router(config);
//   router.listen(openListener(...));
//   while (running) loop.step(true);
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kr/loop/function.h"
#include "kr/loop/thinrunner.h"
#include "kr/message/message.h"
#include "platform/loader/config.h"
#include "platform/loader/frame.h"
#include "kr/util/unique_fd.h"

namespace kr::loader {

// Who is at the other end of a connection.
struct Peer {
  pid_t pid = 0;
  uid_t uid = uid_t(-1);
  gid_t gid = gid_t(-1);
  // For a daemon the loader started itself: the address it was configured
  // with (its hello must name that address, or 0). 0 for other peers.
  uint32_t supervisedAddress = 0;

  bool supervised() const { return supervisedAddress != 0; }
};

class Router {
 public:
  // Called when a connection has ended, after its disconnect notice was
  // queued, with the peer it had. It may call the router.
  using ClosedCallback = kr::function<void(const Peer&)>;

  // `config` (its grants) must outlive the router.
  explicit Router(const Config& config);
  // Closes every connection, without disconnect notices.
  ~Router();
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;

  // Accepts connections on a listening stream socket, from now on. The
  // peer credentials (SO_PEERCRED) of each decide its policy.
  void listen(UniqueFd listener);
  // Takes a connected stream socket (made non-blocking here).
  void addClient(UniqueFd sock, const Peer& peer);

  // Asks the process at `address` to leave (control 1). False when nobody
  // holds the address.
  bool askToLeave(uint32_t address);
  // Drops the connection of the daemon started for `address` (see
  // Peer::supervisedAddress) at once, as crashed, with `why` in the log.
  // False when there is none.
  bool dropSupervised(uint32_t address, const std::string& why);
  void setClosedCallback(ClosedCallback cb) { closed_ = std::move(cb); }
  // Tries once, without waiting, to send what is queued for every
  // connection; for the last moment before the loader exits.
  void flushAll();

  // ---- State, for tests and diagnostics -------------------------------------------
  size_t clientCount() const { return clients_.size(); }
  bool holds(uint32_t address) const { return byAddress_.count(address) != 0; }
  // The persistent data kept for `address`, or null. Valid until the next
  // event the router handles.
  const flat_message* keptData(uint32_t address) const;

  // A connection; defined in router.cc.
  struct Client;

 private:
  using ControlHandler = void (Router::*)(Client&, const message&);

  // Events.
  void onAccept(int fd, unsigned int revents);
  void pauseAccepting();
  void onClientIo(int fd, unsigned int revents);
  void readFrom(Client& c);
  void handleFrame(Client& c, Frame& f);
  void ended(Client& c);

  // Control messages, one handler per code (see kControls in router.cc).
  void control(Client& c, const message& m, uint32_t code);
  void ctrlHello(Client& c, const message& m);
  void ctrlLeaving(Client& c, const message& m);
  void ctrlRefuse(Client& c, const message& m);
  void ctrlStopMe(Client& c, const message& m);
  void ctrlRunning(Client& c, const message& m);
  void ctrlLeaveSet(Client& c, const message& m);
  void ctrlUnexpected(Client& c, const message& m);
  uint32_t chooseAddress(const Client& c, uint32_t asked, std::string* why);
  uint32_t freeDynamicAddress();
  void keep(uint32_t address, const message& leaving);
  void sendLeave(Client& c);

  // Routing.
  void route(Client& from, message& m, UniqueFd fd);
  void deliver(Client& from, message m, UniqueFd fd);
  void broadcast(Client& from, message m, UniqueFd fd);
  void toList(Client& from, const message& m, UniqueFd fd);
  void toLoader(Client& from, const message& m);
  void startMonitor(Client& c, const message& request);
  void unreachable(Client& from, const message& m);
  void tooLong(Client& from, const message& m);
  void answer(Client& to, const message& request, message reply);
  void sendDisconnected(uint32_t address, bool orderly);

  // Output and the end of connections. send() and sendBytes() queue what
  // the loader says to one connection (controls, monitor events);
  // forward() and forwardBytes() queue a frame delivered to a process
  // (routed frames, answers, disconnect notices; `from` is null for the
  // loader's own) and show it to the monitors.
  bool send(Client& to, const message& m, UniqueFd fd = {});
  bool sendBytes(Client& to, std::span<const unsigned char> body, UniqueFd fd);
  bool forward(const Client* from, Client& to, const message& m, UniqueFd fd = {});
  bool forwardBytes(const Client* from, Client& to, std::span<const unsigned char> body, UniqueFd fd);
  void report(const Client* from, const Client& to, std::span<const unsigned char> body);
  void flush(Client& c);
  void wantWrite(Client& c, bool on);
  void doom(Client& c, const std::string& why, bool orderly);
  // Flushes queued output and finishes dropped connections until nothing
  // is left to do; the last step of every event.
  void settle();
  void reap();

  const Config& config_;
  const uid_t uid_;
  ClosedCallback closed_;
  UniqueFd listener_;
  kr::Timer acceptPause_;
  std::map<int, std::unique_ptr<Client>> clients_;  // by socket
  std::map<uint32_t, Client*> byAddress_;           // registered ones
  std::map<uint32_t, flat_message> kept_;           // persistent data by address
  std::vector<Client*> dirty_;                      // output queued since the last flush
  std::vector<Client*> doomed_;                     // dropped, not yet finished
  std::vector<Client*> monitors_;                   // live monitors, in the order they asked
  uint32_t nextDynamic_;
  bool settling_ = false;
  std::vector<unsigned char> rx_;                   // one received chunk
};

}  // namespace kr::loader
