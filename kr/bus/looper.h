// kr::Looper: the process's connection to the loader, and its event loop.
//
// One per process. It connects to the loader over a local stream socket
// (descriptor 3 inherited from the loader, or loaderSocketPath()), frames
// flat messages on it (kr/bus/loader_protocol.h), passes descriptors along
// with messages, keeps the registry of the process's handlers by id and
// dispatches each incoming message to the handler named by the first element
// of its SYS_TO. It is a kr::Handler itself (so it answers messages addressed
// to the process) and the process's kr::Runner. It also runs the leave
// protocol by which the loader stops the process, and carries each handler's
// persistent data across a restart.
//
//   int main() {
//     kr::Looper looper(0, 12 registration numbers...);  // hello, CTRL_READY
//     MyHandler h;
//     looper.addHandler(30, &h);      // h receives its persistent data here
//     looper.setupLeave(1);           // the loader may stop us
//     looper.run();                   // until the loader says leave
//   }                                 // handlers go first, then the Looper
//
// Threading: event-loop thread only. exchangeMessage(), getMessage() and
// ensure() block that thread; other traffic meanwhile is queued, not
// dispatched, so they must not wait for an answer that needs the process's
// own dispatching.
//
// Failures: the connection is essential. Any unexpected condition on the bus
// socket (end of file, a read, write or poll error, no socket, no CTRL_READY
// within 20 s) writes one line to standard error and aborts; the loader
// restarts the process. Soft failures (message too long, full queue) warn and
// return false.
//
// Work produced inside a call (queued messages, buffered frames, pending
// writes) is taken up by a dispatch pass on a 0-tick timer, i.e. on the next
// turn of the loop, never inside the call that produced it.
#pragma once

#include <time.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <vector>

#include "kr/bus/handler.h"
#include "kr/util/unique_fd.h"
#include "kr/bus/loader_protocol.h"
#include "kr/loop/runner.h"
#include "kr/message/message.h"

namespace kr {

// Selects the Looper constructor that does not connect.
struct looper_detached_t {
  explicit looper_detached_t() = default;
};
inline constexpr looper_detached_t looper_detached{};

class Looper : public Handler, public Runner {
 public:
  // The loader's values from CTRL_READY, kept for the daemon; their meaning
  // is the loader's. Named by the u32 (and u64) ids that carried them.
  struct ReadyInfo {
    uint32_t id1 = 0;
    uint32_t id3 = 0;
    uint32_t id2 = 0;
    uint32_t id8 = 0;
    uint32_t id6 = 0;
    uint64_t id7 = 0;
  };

  // connectLoader() modes.
  enum ConnectMode : unsigned int {
    kConnectAny = 0,        // descriptor 3 if it is a local socket, else the socket path
    kConnectInherited = 1,  // descriptor 3 only; abort without it
    kConnectPath = 2,       // loaderSocketPath() only
  };

  static constexpr unsigned int kRxBufSize = 1024;
  static constexpr unsigned int kFlushBytes = 1024;  // pending bytes that force a flush
  static constexpr unsigned int kMaxIov = 1024;      // messages in one sendmsg
  static constexpr unsigned int kMaxQueue = 1000;
  static constexpr unsigned int kSelf = 0xFFFFFFFF;  // permData key of the Looper itself

  // Without a connection: for processes and tools that do not join the bus.
  explicit Looper(looper_detached_t);
  // Detached, then connectLoader(mode, a1..a12).
  Looper(unsigned int mode, unsigned int a1, unsigned int a2, unsigned int a3, unsigned int a4,
         unsigned int a5, unsigned int a6, unsigned int a7, unsigned int a8, unsigned int a9,
         unsigned int a10, unsigned int a11, unsigned int a12);
  // Flushes what is pending, closes the bus socket (unless shutdown() let
  // it go) and clears getLooper().
  ~Looper() override;

  // The handshake: chooses the socket (see ConnectMode), sends the hello
  // with the twelve registration numbers and waits up to 20 s for
  // CTRL_READY, whose persistent data goes to loadPermData().
  void connectLoader(unsigned int mode, unsigned int a1, unsigned int a2, unsigned int a3,
                     unsigned int a4, unsigned int a5, unsigned int a6, unsigned int a7,
                     unsigned int a8, unsigned int a9, unsigned int a10, unsigned int a11,
                     unsigned int a12);

  // ---- Handlers ------------------------------------------------------------------
  // Registers h (not owned) under id, sets its id and hands it the
  // persistent data kept for id. False if id is taken.
  bool addHandler(unsigned int id, Handler* h);
  bool removeHandler(unsigned int id);
  bool hasHandler(unsigned int id) const;
  // The handler registered under id, or null.
  Handler* findHandler(unsigned int id) const;
  // The ids of the registered handlers, ascending.
  std::vector<unsigned int> handlerIds() const;

  // ---- kr::Handler -----------------------------------------------------------------
  // The persistent data of the whole process: the Looper's own part, then
  // every handler's under PERM_IDS / PERM_DATA.
  void loadPermData(const message& m) override;
  void savePermData(message& m) override;
  // Takes the time-zone notification (command 0x60001); the rest goes to
  // kr::Handler::handleCmd.
  void handleCmd(const message& m, unsigned int cmd) override;
  // The Looper's own part, then every handler's, in id order.
  void cmdDisconnected(const message& m) override;
  // Routes m by the first element of SYS_TO: none -> this process;
  // 0xff0003 -> this process; 0xff0001 -> everyone (written and delivered
  // here); 0xff0002 -> a list of paths (count, elements...), local ones
  // delivered here, the rest written; anything else -> written to the
  // loader. Local delivery is queued for the next turn (0xff0003 is put in
  // front of SYS_FROM so that answers come back here). Does not add an id
  // of its own to SYS_FROM. False when a message to write is too long or a
  // path list is malformed (then nothing is sent); local delivery counts as
  // sent even when the full queue drops the message (with a warning).
  bool sendMessage(message& m) override;
  // A blocking request: sends m as a request and waits up to `ticks` (-1:
  // without limit; 0: without limit too) for its reply, queueing everything
  // else. ERROR_FAILED "bad_message" for an empty SYS_TO, ERROR_TIMEOUT.
  message exchangeMessage(message& m, int ticks) override;

  // ---- The wire --------------------------------------------------------------------
  // (The virtual operations the Looper adds are declared in the order of
  // its table: writeMessage, readMessage, shutdown, onFirstRun,
  // filterMessage, dispatchMessage, canLeave, run.)

  // Frames m for sending; SYS_FD, if set, names a descriptor that goes with
  // it and is closed here once sent. Pending bytes are flushed when they
  // reach 1024 or at the end of the dispatch pass. False (the descriptor
  // stays the caller's) when the flat form is 65536 bytes or more.
  virtual bool writeMessage(const message& m);
  // Sends every pending frame; without `block` stops when the socket is full.
  void writeFlush(bool block);
  // Reads min..max bytes into dst; a descriptor received goes to *fd. 0 when
  // nothing came within `ticks` (0: do not wait, negative: no limit).
  unsigned int readRaw(unsigned char* dst, unsigned int min, unsigned int max, int ticks, int* fd);
  // The next frame as a message. Without `block` only frames already
  // buffered; with it, waits up to `ticks` for the first bytes and then
  // without limit for the rest of the frame. False when there is none.
  virtual bool readMessage(message& out, int ticks, bool block);

  // The next queued or received message, ERROR_TIMEOUT "timeout" after
  // `ticks`, or ERROR_FAILED "control message (N)" for a control message.
  message getMessage(int ticks);
  // Delivers m locally on the next turn (unless filterMessage() takes it).
  // False, with a warning and m's descriptor closed, when 1000 messages wait.
  bool queueMessage(const message& m);

  // The runner's shutdown; the bus descriptor is let go but deliberately
  // not closed: the loader watches for the process's end, not for an early
  // close.
  void shutdown() override;
  // Runs from run() once per boot (a marker file remembers it). Empty.
  virtual void onFirstRun();

  // ---- Dispatch ------------------------------------------------------------------------
  // True takes m away before dispatch (a hook for derived loopers).
  virtual bool filterMessage(const message& m);
  // Delivers m to the handler named by its first path element, or to the
  // Looper itself; answers broken paths.
  virtual void dispatchMessage(message& m);
  // The dispatch pass (the 0-tick timer's callback).
  void dispatchQueue();
  // Arms the dispatch pass when there is work for it.
  void checkScheduleDispatchQueue();
  // The bus socket's callback: any number of replies, at most one other
  // message per event.
  void onMsgSock(int fd, unsigned int events);

  // ---- Control and leaving --------------------------------------------------------------
  void sendCtrl(unsigned int code);
  void sendCtrl(unsigned int code, unsigned int arg);
  // CTRL_LEAVE: leaves (persistent data to the loader, loop stopped) if
  // canLeave(), else answers CTRL_CANTLEAVE. True when the loop stops.
  bool handleCtrl(unsigned int code);
  // The value the loader may stop us with; 0: it may not.
  void setupLeave(unsigned int value);
  // Nested blocks during which the process cannot leave. The Looper starts
  // blocked once; run() releases that block.
  void blockLeave();
  void unblockLeave();
  // Asks the loader to stop the process.
  void tellLeave();
  virtual bool canLeave();

  // Blocks until handler `id` answers a CMD_NOOP.
  void ensure(unsigned int id);

  // Offset of local time from UTC in seconds, asked once from the time
  // service (handler 24) and then kept current by its notifications.
  int getTimezone();
  time_t getLocaltime();

  // Announces the process (CTRL_RUNNING, the leave setting), restores the
  // Looper's own persistent data, calls onFirstRun() if this is the first
  // run since boot, and runs the loop until the process leaves.
  void run() override;

  // ---- For the daemon -------------------------------------------------------------------------
  const ReadyInfo& getReadyInfo() const { return readyInfo; }
  // Nested message 5 of CTRL_READY, with SEED_TABLE added when it carried
  // SEED_VALUES. Valid while the Looper lives.
  const message& getSeedMessage() const { return seedMessage; }
  // The bus socket, -1 when there is none.
  int busSocket() const { return sock.get(); }

 protected:
  struct WriteEntry {
    std::unique_ptr<unsigned char[]> buffer;
    unsigned char* pos = nullptr;
    unsigned int remaining = 0;
    UniqueFd fd;  // passed with the last bytes, closed once sent
  };

  ReadyInfo readyInfo;
  UniqueFd sock;
  int timezone = -1;  // -1: not asked yet
  unsigned int leaveValue = 0;
  unsigned int leaveBlocks = 1;
  std::map<unsigned int, Handler*> handlers;
  // Persistent data received at start, waiting for its handler.
  std::map<unsigned int, message> permData;
  std::list<message> queue;
  unsigned int queueLen = 0;
  int verbose = 0;  // LOOPER_VERBOSE
  unsigned char* rxStart;
  unsigned char* rxEnd;
  // A descriptor received and not yet attached to a message.
  UniqueFd rxFd;
  unsigned char rxBuf[kRxBufSize];
  std::list<WriteEntry> txList;
  unsigned int txCount = 0;
  unsigned int txBytes = 0;
  Timer dispatchTimer;
  message seedMessage;

 private:
  int chooseSocket(unsigned int mode);
  void sendHello(const unsigned int (&numbers)[12]);
  void awaitReady(unsigned int a1, unsigned int a12);
  void keepSeed(const message& ready, unsigned int a1, unsigned int a12);
  template <class F>
  void forEachHandler(F&& f);
  bool routeList(message& m);
  unsigned int gatherWrite(struct iovec* iov, int* fd);
  void consumeWritten(unsigned int n);
  unsigned int buffered() const;
  bool wholeFrameBuffered() const;
  void compactRx();
  unsigned int readIntoBuffer(unsigned int min, int ticks);
  void readLargeFrame(message& out, unsigned int length);
  void consumeFrame(message& out, unsigned int length);
  void attachFd(message& m, int fd);
  bool takeControl(const message& m, bool* stop);
  void brokenPath(Handler* h, message& m);
  void markFirstRun();
};

// The process's Looper, or null.
Looper* getLooper();

}  // namespace kr
