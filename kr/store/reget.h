// kr::AsyncReget: reads another handler's whole table, page by page, without
// blocking the event loop.
//
// It posts a CMD_GETALL request through the process's kr::Looper, hands
// every object of each reply page to onObject, follows the continuation id
// (STD_GETALLID) that a page carries until a page comes without one, and
// reports the end, or the failure, to onDone with the last reply. Any
// handler that answers CMD_GETALL with STD_OBJS pages works as the target,
// a kr::ASecMap among them.
//
//   static void onObj(void* ctx, const kr::message& o) { static_cast<Mirror*>(ctx)->add(o); }
//   static void onEnd(void* ctx, const kr::message& last) { ... kr::isError(last, ...) ... }
//   kr::message q;
//   q.insert(kr::SYS_TO, {0xff0003, 30});      // handler 30 of this process
//   q.insert(kr::SYS_CMD, kr::CMD_GETALL);
//   reget.start(q, this, &onObj, &onEnd, kr::AsyncReget::kDefaultTimeout);
//
// The walk has no timer and no thread of its own: each page is a posted
// request (kr::Handler::postMessage) whose time-out is `timeout` ticks, and
// a page that times out ends the walk with the ERROR_TIMEOUT reply. Because
// the continuation stays in the request, retry() asks again for the page
// that failed, while restart() starts from the first object.
//
// Threading: event-loop thread only. Callbacks run from the Looper's reply
// dispatch, except that a request which cannot be sent at all (no Looper, or
// the Looper refuses it) ends the walk inside the call that tried to send
// it, with an ERROR_FAILED reply.
//
// Ownership: the caller owns the object; `ctx` is not owned and must
// outlive the walk. Destroying the object cancels an outstanding page
// request, and is allowed inside either callback: nothing more is called
// then. Objects and replies handed to the callbacks are valid only during
// the call; copy them (cheap) to keep them.
#pragma once

#include "kr/message/message.h"

namespace kr {

class AsyncReget {
 public:
  using ObjectFn = void (*)(void* ctx, const message& object);
  using DoneFn = void (*)(void* ctx, const message& reply);

  // "No request outstanding".
  static constexpr unsigned int kNoRequest = 0xFFFFFFFF;
  // The `timeout` argument of start() that selects kDefaultTicks.
  static constexpr unsigned int kDefaultTimeout = 0xDEADBEEF;
  // 60 seconds: a page of a large table on a loaded box can take a while.
  static constexpr unsigned int kDefaultTicks = 6000;

  AsyncReget() = default;
  AsyncReget(const AsyncReget&) = delete;
  AsyncReget& operator=(const AsyncReget&) = delete;
  // stop(): an outstanding page request is cancelled, onDone is not called.
  ~AsyncReget();

  // Begins a walk, replacing whatever an earlier start() left (callers stop
  // a running walk first; a reply still due to the old one is no longer
  // awaited). `req` is the complete bus request: SYS_TO, SYS_CMD =
  // CMD_GETALL and whatever the target understands (STD_GETALLNO, flags);
  // a STD_GETALLID in it names the first object to read. onObject must not
  // be null; onDone may be, and then the outcome is written to standard
  // error. `timeout` is the limit of each page in ticks, taken as given
  // (kr::Handler::kNoTimeout waits forever, 0 times out on the next timer
  // pass) except kDefaultTimeout.
  void start(const message& req, void* ctx, ObjectFn onObject, DoneFn onDone, unsigned int timeout);

  // Posts the current request (with its continuation, if any).
  void fetch();
  // A page arrived, or the bus layer's time-out error in its place: hands
  // out the objects, then asks for the next page or ends the walk.
  void onReply(const message& reply);

  // Asks again for the page that failed. Refused, with a line on standard
  // error, while a walk is running.
  void retry();
  // Forgets the continuation and walks from the first object. Refused, with
  // a line on standard error, while a walk is running.
  void restart();
  // Ends the walk at once: cancels the outstanding request; onDone is not
  // called (except from inside onObject, see onReply). Safe when idle.
  void stop();

  // From a fetch until the last page, an error or stop().
  bool isRunning() const { return running; }
  // The outstanding request id, or kNoRequest.
  unsigned int requestId() const { return reqId; }
  // The request as the next fetch() sends it: the caller's request plus
  // the continuation STD_GETALLID reached so far.
  const message& currentRequest() const { return request; }

 private:
  // Ends the walk (running false) and tells onDone, or standard error.
  void finish(const message& reply);

  unsigned int reqId = kNoRequest;
  message request;
  unsigned int timeout = 0;
  void* ctx = nullptr;
  ObjectFn onObject = nullptr;
  DoneFn onDone = nullptr;
  bool running = false;
  // Points at a flag on the stack of the onReply() in progress, so that
  // onReply() learns when a callback destroyed the object under it.
  bool* alive = nullptr;
};

}  // namespace kr
