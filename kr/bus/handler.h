// kr::Handler: the base class of every addressable endpoint on the bus.
//
// A handler is registered in the process's kr::Looper (kr/bus/looper.h)
// under a numeric id; a message whose destination path (SYS_TO) begins with
// that id is handed to its handle(). The base class sends with its own id
// pushed onto the source path (SYS_FROM), keeps pending requests with reply
// callbacks and time-outs, answers requests and broken paths, checks the
// caller's permissions, and dispatches each command (SYS_CMD) to one virtual
// cmd* operation, whose default answers "not implemented".
//
//   class Counter : public kr::Handler {
//     kr::message cmdGet(const kr::message&) override { ... }
//   };
//   looper.addHandler(30, &counter);
//   kr::message q;
//   q.insert_vector(kr::SYS_TO, 14);                       // the name service
//   counter.postMessage(q, [](const kr::message& r) { ... }, 500);  // 5 s
//
// Threading: event-loop thread only. Reply callbacks run from the loop
// (reply dispatch or the time-out timer), never inside postMessage(), with
// one exception: a request id that wraps onto a request still pending ends
// that old request with ERROR_TIMEOUT inside the postMessage() that reuses
// its id.
//
// Ownership: the Looper points at registered handlers and never owns them;
// a handler removes itself from the Looper when it is destroyed, and its
// pending requests end silently (callbacks dropped uncalled). Messages are
// values: what a cmd* operation returns is copied into the reply.
#pragma once

#include <map>
#include <string>

#include "kr/loop/function.h"
#include "kr/loop/thinrunner.h"
#include "kr/message/message.h"
#include "kr/message/policies.h"

namespace kr {

class Looper;

class Handler {
 public:
  using ReplyCallback = function<void(const message&)>;

  // The id of a handler that is not registered, and the "no request" result
  // of postMessage(). Never used as a request id.
  static constexpr unsigned int kNoId = 0xFFFFFFFF;
  // postMessage() ticks: wait for the reply without a time-out.
  static constexpr unsigned int kNoTimeout = 0xFFFFFFFF;
  // The first path element that means "this process".
  static constexpr unsigned int kLocalPath = 0xff0003;

  // One pending request.
  struct ReplyHandler {
    unsigned int dest = 0;  // first element of the request's SYS_TO, or kLocalPath
    unsigned int requestId = 0;
    Handler* owner = nullptr;
    // Called exactly once, with the reply or a time-out error, unless the
    // request is cancelled.
    ReplyCallback callback;
    // The time-out timer in the process's runner, or null. The runner
    // clears it when the timer fires or is dropped by a shutdown.
    TimerPtr timer;

    // The timer's callback: hands the time-out to the owner.
    void timeout();
  };

  Handler();
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;
  // Cancels the timers of pending requests (their callbacks are dropped
  // uncalled) and removes the handler from the Looper if registered.
  virtual ~Handler();

  // ---- Persistent data ---------------------------------------------------
  // What a handler keeps across a restart of the process: the Looper hands
  // the data given at start to loadPermData() when the handler is
  // registered, and collects savePermData() when the process leaves.
  virtual void loadPermData(const message& m);
  virtual void savePermData(message& m);

  // ---- Receiving ---------------------------------------------------------------
  // The entry of every message dispatched to this handler: replies go to
  // handleReply() (unless SYS_POLICY says the sender has no rights at
  // all), ERROR_BRKPATH errors without a command to
  // handleBrkpath(), CMD_GETPOLICIES is answered without a policy check,
  // and any other request goes to handleCmd() if isAllowed() agrees (else
  // ERROR_NOTALLOWED). A request without SYS_CMD is CMD_NOOP.
  virtual void handle(message& m);
  // An unsolicited broken-path error for something this handler sent.
  virtual void handleBrkpath(const message& m);
  // Ends the pending request named by SYS_REQID; unknown ids are ignored.
  virtual void handleReply(const message& m);
  // Calls the cmd* operation of `cmd` and replies with its result (see the
  // table in handler.cc). Object commands without STD_ID answer
  // ERROR_UNKNOWNID; CMD_GETALL answers carry STD_OBJ_COUNT when
  // objectCount() knows it.
  virtual void handleCmd(const message& m, unsigned int cmd);

  // ---- Commands: override the ones the handler supports -------------------------
  virtual message cmdGetPolicies(const message& m);  // the policies table
  virtual message cmdGet(const message& m);          // ERROR_NOTIMP
  virtual message cmdSet(const message& m);          // ERROR_NOTIMP
  virtual message cmdReset(const message& m);        // ERROR_NOTIMP
  virtual message cmdGetObj(const message& m, unsigned int objId);  // ERROR_NOTIMP
  virtual message cmdSetObj(const message& m, unsigned int objId);  // ERROR_NOTIMP
  // `from` is STD_GETALLID (0xFFFFFFFF: from the start), `count` STD_GETALLNO.
  virtual message cmdGetAll(const message& m, unsigned int from, unsigned int count);  // ERROR_NOTIMP
  virtual message cmdStopGetAll(const message& m, unsigned int from);  // empty answer
  virtual message cmdAddObj(const message& m);                        // ERROR_NOTIMP
  virtual message cmdRemoveObj(const message& m, unsigned int objId);  // ERROR_NOTIMP
  virtual message cmdMoveObj(const message& m, unsigned int objId);    // ERROR_NOTIMP
  virtual message cmdGetCount(const message& m);  // STD_OBJ_COUNT = objectCount()
  virtual message cmdUnknown(const message& m, unsigned int cmd);  // ERROR_NOTIMP
  // The answer is always empty; the default does nothing.
  virtual void cmdShutdown(const message& m);

  // subscriptions: see kr/bus/notify.h (to come). These slots belong to
  // notifications and subscriptions; the defaults here are what a handler
  // without subscribers does.
  virtual bool shouldNotify(const message& filter, const message& m);    // true
  virtual unsigned int subscriptionTag(const message& filter, bool push);  // 0
  virtual void subscriptionEnded(const message& filter, unsigned int tag);  // nothing
  // CMD_DISCONNECTED: a peer is gone (named by SYS_FROM). Nothing yet.
  virtual void cmdDisconnected(const message& m);
  virtual void creditsExhausted(unsigned int tag);  // nothing
  virtual void creditsRestored(unsigned int tag);   // nothing
  // The notification body of object `objId`; empty by default.
  virtual message notifyObject(unsigned int objId, unsigned int detail);

  // The number of objects, or 0xFFFFFFFF when the handler does not know.
  virtual unsigned int objectCount();
  // The permission check before every command but CMD_GETPOLICIES.
  virtual bool isAllowed(const message& m);

  // ---- Sending ---------------------------------------------------------------------
  // Pushes this handler's id onto SYS_FROM and routes m through the Looper
  // (kr::Looper::sendMessage). False without a Looper or when the message
  // cannot be sent (65536 bytes or more, a malformed path list).
  virtual bool sendMessage(message& m);
  // A blocking round trip through the Looper (kr::Looper::exchangeMessage);
  // the answer or an error message. Blocks the whole process.
  virtual message exchangeMessage(message& m, int ticks);
  // Flushes pending notifications at once; nothing to flush yet.
  virtual void requestFlushNotifies();

  // CMD_SUBSCRIBE, CMD_UNSUBSCRIBE, CMD_NOTIFYACK: handleCmd() answers them
  // with an empty message after these run. Nothing yet (see above).
  void cmdSubscribe(const message& m);
  void cmdUnsubscribe(const message& m);
  void cmdNotifyAck(const message& m);
  void invokeRequestFlushNotifies();

  // SYS_CMD = cmd, then sendMessage() / exchangeMessage().
  bool sendCmd(message& m, unsigned int cmd);
  message exchangeCmd(message& m, unsigned int cmd, unsigned int ticks);

  // Makes m a request (SYS_TYPE, a fresh SYS_REQID, SYS_REPLYEXP) and sends
  // it; *reqId receives the id even when sending fails.
  bool requestMessage(message& m, unsigned int* reqId);
  // Sends m as a request; cb receives the reply, or an ERROR_TIMEOUT error
  // carrying the request id when no reply came within `ticks` (kNoTimeout:
  // never). Returns the request id, or kNoId when sending failed (cb is
  // dropped uncalled).
  unsigned int postMessage(message& m, ReplyCallback cb, unsigned int ticks);
  // Forgets a pending request: its callback is never called.
  void cancelPost(unsigned int reqId);
  // The time-out path of a pending request.
  void replyTimeout(unsigned int reqId);

  // Answers req: reply becomes a TYPE_REPLY with req's SYS_REQID, addressed
  // to req's SYS_FROM. A reply too large to send is replaced by
  // ERROR_TOOBIG. False (and nothing sent) when req is not a request.
  bool replyMessage(const message& req, message& reply);
  void replyError(const message& req, unsigned int code, const std::string& text);
  // An unsolicited ERROR_BRKPATH back to the sender of m, whose SYS_TO
  // holds the part of the path that could not be followed.
  void sendBrkpath(const message& m);

  // ---- Introspection -----------------------------------------------------------------
  // The registered id, or kNoId.
  unsigned int handlerId() const { return id; }
  size_t pendingRequests() const { return replies.size(); }
  bool isPending(unsigned int reqId) const { return replies.count(reqId) != 0; }

 protected:
  // Pending requests by request id.
  std::map<unsigned int, ReplyHandler> replies;
  // Set by kr::Looper::addHandler.
  unsigned int id = kNoId;
  unsigned int nextRequestId = 0;
  // What callers may do; checked before every command.
  kr::policies policies;
  // A message whose path goes on past this handler is a broken path. A
  // handler that addresses sub-objects by the rest of the path clears it.
  bool strictPath = true;
  // subscriptions: see kr/bus/notify.h (to come): the subscriber map and
  // the notify flush timer join the members here.

 private:
  friend class Looper;

  void cancelAllTimers();
};

}  // namespace kr
