// Test support: the loader's side of a process's bus socket.
//
// FakeLoader holds one end of a socketpair and hands the other to the
// process as descriptor 3, the way the loader starts a daemon; it writes
// frames (length, flat message, optional descriptor) and reads the
// process's frames without ever blocking. BusHarness adds a private runtime
// directory (KR_RUNTIME_DIR) and the handshake, so a test gets a connected
// Looper in two lines (TestLooper and RecordingHandler below show what tests
// look at; bus_fixture.h wraps it all in a GoogleTest fixture):
//
//   kr::internal::BusHarness bus;
//   auto looper = bus.start<kr::Looper>();          // hello answered, ready
//   bus.loader.send(msg);                           // loader -> process
//   bus.waitFor(*looper, [&] { return !bus.loader.frames.empty(); });
//
// Event-loop thread only; one harness (and Looper) at a time, since fd 3
// and the process-wide Looper are single. Reads never wait and every loop
// is bounded; writes block, but socket buffers hold far more than a test
// sends.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kr/util/unique_fd.h"
#include "kr/bus/looper.h"
#include "kr/loop/thinrunner.h"
#include "kr/message/message.h"

namespace kr::internal {

class FakeLoader {
 public:
  // One frame from the process, with the descriptor that came with it.
  struct Frame {
    message m;
    std::vector<unsigned char> bytes;  // the flat form as received
    UniqueFd fd;
  };

  FakeLoader();
  ~FakeLoader();
  FakeLoader(const FakeLoader&) = delete;
  FakeLoader& operator=(const FakeLoader&) = delete;

  // Moves the process's end to descriptor 3. Whatever held 3 before (a
  // test runner may leave a descriptor there) is parked and put back when
  // the FakeLoader goes.
  bool installAsFd3();
  int loaderEnd() const { return loader_.get(); }

  // The frame of m: big-endian length, then its flat form.
  static std::vector<unsigned char> frameOf(const message& m);
  // Closes the loader's end, as a loader that dies does.
  void hangUp() {
    detach();
    loader_.reset();
  }

  // Writes one frame: the flat form of m (or raw body bytes) behind a
  // big-endian length, with fd passed alongside when it is not -1. Blocks
  // until written (socket buffers hold far more than tests send).
  bool send(const message& m, int fd = -1);
  bool sendBody(const std::vector<unsigned char>& body, int fd = -1);
  bool sendBytes(const unsigned char* p, size_t n, int fd = -1);
  // CTRL_READY, with the fields of `extra` added.
  bool sendReady(const message& extra = message());
  // A control message from the loader.
  bool sendCtrl(unsigned int code);

  // Reads what is there without waiting and appends whole frames to
  // `frames`. Returns the number of new frames.
  size_t pump();
  // Pops the oldest frame (an empty one when there is none).
  Frame take();
  // The next frame that carries SYS_CTRL, dropping others before it;
  // -1 code when there is none.
  int nextCtrl(unsigned int* arg = nullptr);

  // Calls onFrame for every frame as it arrives, from `loop` (so the fake
  // can answer while Looper::run() is running). detach() before the loop
  // goes away.
  void attach(ThinRunner& loop, std::function<void(Frame&)> onFrame);
  void detach();

  std::deque<Frame> frames;
  // Bytes received that do not yet form a whole frame.
  size_t partialBytes() const { return rx_.size(); }

 private:
  void onReadable(int, unsigned int);

  UniqueFd loader_;
  UniqueFd process_;
  UniqueFd parked3_;  // the descriptor that held 3 before
  int parked3Flags_ = 0;
  std::vector<unsigned char> rx_;
  unsigned long long received_ = 0;  // stream offset of rx_.end()
  UniqueFd pendingFd_;
  unsigned long long pendingFdAt_ = 0;
  ThinRunner* attached_ = nullptr;
  std::function<void(Frame&)> onFrame_;
};

// A temporary runtime directory with run/ in it, set as KR_RUNTIME_DIR
// while it lives.
class RuntimeDir {
 public:
  RuntimeDir();
  ~RuntimeDir();
  RuntimeDir(const RuntimeDir&) = delete;
  RuntimeDir& operator=(const RuntimeDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string saved_;
  bool hadSaved_ = false;
};

struct BusHarness {
  RuntimeDir dir;
  FakeLoader loader;

  // Registration numbers the harness's Looper sends in its hello: 101..112.
  static constexpr unsigned int kA1 = 101, kA12 = 112;
  unsigned int a1 = kA1;  // may be changed before start()

  // Answers the hello in advance with CTRL_READY (+ `ready` fields), hands
  // over descriptor 3 and constructs L in mode 1; the hello is then in
  // loader.frames. Null if descriptor 3 could not be handed over.
  template <class L>
  std::unique_ptr<L> start(const message& ready = message()) {
    if (!loader.sendReady(ready) || !loader.installAsFd3()) return nullptr;
    auto l = std::make_unique<L>(Looper::kConnectInherited, a1, 102, 103, 104, 105, 106, 107, 108, 109,
                                 110, 111, kA12);
    loader.pump();
    return l;
  }

  // Steps `loop` without blocking and pumps the loader until done() holds
  // or `ms` milliseconds pass; returns done().
  bool waitFor(ThinRunner& loop, const std::function<bool()>& done, int ms = 2000);
  // Steps until the loop has no timers left (at most `ms`); true if so.
  bool settle(ThinRunner& loop, int ms = 2000);
};

// A loader listening at loaderSocketPath() for one connection: runs
// `connect` (which connects a Looper in mode 2; it blocks for CTRL_READY)
// while a thread answers the hello. Returns the hello, or an empty message
// if none came within 2 s.
message answerHelloOnSocketPath(const std::function<void()>& connect);

// Whether descriptor fd is open in this process.
bool fdOpen(int fd);
// Moves an open descriptor 3 elsewhere; returns where (-1: 3 was free).
int parkFd3();
// Every open descriptor of this process.
std::set<int> openFds();

// A Looper whose internals tests may look at.
class TestLooper : public Looper {
 public:
  using Looper::Looper;
  unsigned int queued() const { return queueLen; }
  unsigned int txEntries() const { return txCount; }
  unsigned int txPending() const { return txBytes; }
  unsigned int leaveBlockCount() const { return leaveBlocks; }
  unsigned int leaveSetting() const { return leaveValue; }
  bool hasPermData(unsigned int id) const { return permData.count(id) != 0; }
  void stop() { stopped = true; }

  void onFirstRun() override { ++firstRuns; }
  // Records what reaches the Looper as a handler.
  void handle(message& m) override {
    own.push_back(m);
    Looper::handle(m);
  }

  int firstRuns = 0;
  std::vector<message> own;
};

// A handler that records what reaches it. CMD_GET answers `answer`;
// persistent data is `perm`.
class RecordingHandler : public Handler {
 public:
  void handle(message& m) override {
    got.push_back(m);
    Handler::handle(m);
  }
  void handleBrkpath(const message& m) override { brkpaths.push_back(m); }
  message cmdGet(const message&) override { return answer; }
  message cmdGetObj(const message&, unsigned int objId) override {
    message r;
    r.insert(u32_id(1), objId);
    return r;
  }
  void cmdShutdown(const message&) override { ++shutdowns; }
  unsigned int objectCount() override { return count; }
  void loadPermData(const message& m) override { loaded.push_back(m); }
  void savePermData(message& m) override { m.merge(perm); }
  void setStrictPath(bool on) { strictPath = on; }
  void setNextRequestId(unsigned int v) { nextRequestId = v; }

  std::vector<message> got, brkpaths, loaded;
  message answer, perm;
  unsigned int count = 0xFFFFFFFF;
  int shutdowns = 0;
};

}  // namespace kr::internal
