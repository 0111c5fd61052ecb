// kr::loader::Supervisor: starts the daemons of the configuration, restarts
// those that end, and stops them all through the leave protocol.
//
// Each daemon runs with its bus connection already made: the supervisor
// creates a socket pair, gives the loader's end to the router (as a trusted
// peer bound to the daemon's configured address) and the other end to the
// daemon as descriptor 3. The daemon runs in a process group of its own,
// with every signal at its default action and none blocked.
//
// A daemon that ends is started again if its restart policy is "always",
// after a back-off: 1 s, doubling up to 30 s, back to 1 s once a run has
// lasted 30 s. stopAll() stops the daemons in reverse start order, one at a
// time: control 1 (or SIGTERM when it has no connection yet), then up to
// the configured stop-timeout for both its process and its connection to
// end, before its connection is dropped and the process gets SIGKILL.
//
//   Supervisor sup(router, config);
//   sup.startAll();
//   runner.addSighandler(SIGTERM, true, [&](int) { sup.stopAll([&] { done = true; }); });
//
// Children are reaped through kr::Parent (kr/loop/child.h), so the
// process's runner must exist while any daemon runs. Event-loop thread
// only.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "kr/loop/child.h"
#include "kr/loop/function.h"
#include "kr/loop/thinrunner.h"
#include "platform/loader/config.h"
#include "platform/loader/router.h"

namespace kr::loader {

class Supervisor : public Parent {
 public:
  // Back-off in ticks (10 ms).
  static constexpr unsigned int kFirstBackoff = 100;
  static constexpr unsigned int kMaxBackoff = 3000;
  static constexpr unsigned int kStableRun = 3000;

  // `router` must outlive the supervisor, which takes its closed callback.
  Supervisor(Router& router, const Config& config);
  // Kills and reaps any daemon still running.
  ~Supervisor() override;

  void startAll();
  // Stops every daemon (see above), then calls `done` once. Later calls
  // while stopping do nothing; nothing is restarted from now on.
  void stopAll(kr::function<void()> done);

  // The pid of the daemon at `address`, or -1 when it is not running.
  pid_t pidOf(uint32_t address) const;

 private:
  struct Daemon : Child {
    explicit Daemon(const DaemonConfig& c) : Child(-1), daemon(c) {}
    DaemonConfig daemon;
    kr::Timer timer;  // the restart back-off, or the stop deadline
    unsigned int backoff = kFirstBackoff;
    unsigned int startedAt = 0;  // tick of the last start
    pid_t connectionOf = 0;      // the pid its open connection was made for; 0: closed
  };

  void childDied(int status, Child* child) override;
  void connectionClosed(const Peer& peer);
  void start(Daemon& d);
  void restartLater(Daemon& d);
  void stopNext();
  void stopped(Daemon& d);
  void stopTimedOut(Daemon& d);

  Router& router_;
  const unsigned int stopTicks_;
  std::vector<std::unique_ptr<Daemon>> daemons_;
  bool stopping_ = false;
  size_t stopIndex_ = 0;            // daemons_[stopIndex_] is being stopped
  Daemon* stopTarget_ = nullptr;    // waiting for this one to end
  kr::function<void()> done_;
};

}  // namespace kr::loader
