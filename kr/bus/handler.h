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
// Handlers can also be subscribed to. A publisher calls notifyChange(id)
// when object id changes and overrides notifyObject() to describe it; the
// base keeps the subscribers, coalesces changes for 200 ms, batches them
// into notify messages (CMD_NOTIFY, objects in STD_OBJS) with one message
// per set of recipients, and honours each subscriber's credits, which come
// back with CMD_NOTIFYACK. A subscriber calls subscribe(path, CMD_NOTIFY,
// filter) and receives the notify messages in handle().
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
#include <memory>
#include <string>
#include <vector>

#include "kr/loop/function.h"
#include "kr/loop/thinrunner.h"
#include "kr/message/message.h"
#include "kr/message/policies.h"
#include "kr/message/vocabulary.h"

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

  // ---- Subscriptions: what a publishing handler overrides -----------------
  // Whether the subscriber with `filter` wants the one-off notification m
  // (sendNotify); true by default.
  virtual bool shouldNotify(const message& filter, const message& m);
  // The tag of a new subscription; notifyChange() reaches only subscribers
  // with its tag. A subscription with tag 0 that asked for the whole state
  // gets it pushed at once. 0 by default.
  virtual unsigned int subscriptionTag(const message& filter, bool push);
  // A subscription ended (unsubscribed or its peer gone). Nothing by default.
  virtual void subscriptionEnded(const message& filter, unsigned int tag);
  // CMD_DISCONNECTED: the peer named by SYS_FROM is gone. Drops its
  // subscriptions and fails the requests pending at it with ERROR_TIMEOUT;
  // when the handler has no subscriptions at all it does nothing, and such
  // requests end by their own time-outs.
  virtual void cmdDisconnected(const message& m);
  // A subscriber with tag `tag` ran out of credits / got some back.
  virtual void creditsExhausted(unsigned int tag);
  virtual void creditsRestored(unsigned int tag);
  // The notification body of object `objId` at detail level `detail`; for
  // objId 0xFFFFFFFF, the header of a state push (one carrying STD_DEAD is
  // not sent). Empty by default.
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
  // Flushes pending notifications at once (flushNotifies()).
  virtual void requestFlushNotifies();

  // ---- Subscribing and publishing (notify.cc) -----------------------------------
  // One subscription of a peer to this handler.
  struct Subscriber {
    static constexpr int kUnlimited = 0x40000000;

    // Notify objects that may still be sent; kUnlimited: no flow control.
    int credits = kUnlimited;
    std::vector<unsigned int> path;  // the subscriber's address
    unsigned int tag = 0;            // subscriptionTag() at subscription
    unsigned int detail = 5;         // detail level for notifyObject()
    message filter;                  // the request without system fields
    std::map<unsigned int, bool> changes;  // object id -> removed, unsent
    unsigned int cursor = 0;               // next id to send (round robin)
    bool push = false;                     // the whole state is still to come
    bool immediate = false;                // flush every change at once
    unsigned int getallNext = kNoId;       // state push continuation
    std::vector<unsigned char> cookie;     // state push continuation cookie

    bool limited() const { return credits != kUnlimited; }
  };

  // Subscribes this handler to the handler at `path`: its notifications of
  // command `cmd` (CMD_NOTIFY for changes) matching `filter` come to
  // handle(). The subscription is identified by the filter; unsubscribe()
  // with the same filter ends it. False when the request cannot be sent.
  bool subscribe(const std::vector<unsigned int>& path, unsigned int cmd, const message& filter);
  bool unsubscribe(const std::vector<unsigned int>& path, unsigned int cmd, const message& filter);

  // CMD_SUBSCRIBE, CMD_UNSUBSCRIBE, CMD_NOTIFYACK: handleCmd() answers them
  // with an empty message after these run. A subscription is known by its
  // filter alone: a second subscribe with an equal filter, from whoever,
  // changes nothing, and an unsubscribe with an equal filter ends it. Two
  // subscribers that must not share one put something of their own in
  // their filters.
  void cmdSubscribe(const message& m);
  void cmdUnsubscribe(const message& m);
  void cmdNotifyAck(const message& m);

  // Object `objId` changed (or was removed): every change subscriber whose
  // tag matches gets it with the next flush. Changes to one object are
  // coalesced; the flush comes within 200 ms, or at once for subscribers
  // that asked for it. The tag is compared through its low 32 bits (a
  // pointer is exactly that on the 32-bit target).
  void notifyChange(unsigned int objId, bool removed = false, const void* tag = nullptr);
  // Sends every pending change that credits allow: one notify message per
  // group of identical recipients, at most 16384 bytes of objects each.
  void flushNotifies();
  // Pushes the whole state to s in get-all pages while it has credits.
  void pushNotifies(Subscriber* s);
  // The change subscriber to serve next: with credits and pending changes,
  // the fewest credits first. Null when there is none.
  Subscriber* findNextListener();
  // Takes object objId out of the pending changes of every subscriber that
  // can have it now (credits left; id2, the object it depends on, not
  // pending there), adds their paths to `to`, and returns their details ORed.
  unsigned int findListenersFor(unsigned int objId, unsigned int id2, std::vector<unsigned int>& to);
  // Disarms the flush timer, then requestFlushNotifies().
  void invokeRequestFlushNotifies();
  // Sends m (which must carry SYS_CMD) to every subscriber of its command
  // that shouldNotify() admits, ignoring credits; returns m as sent.
  message sendNotify(message& m);
  // Adds `path` to the (possibly multi-destination) address `to`.
  static void addPath(std::vector<unsigned int>& to, const std::vector<unsigned int>& path);

  // The subscribers under notify command `cmd` (CMD_NOTIFY for changes);
  // null when there are none.
  const std::vector<std::unique_ptr<Subscriber>>* subscribers(unsigned int cmd = CMD_NOTIFY) const;
  bool hasSubscriptions() const { return !subscriptions.empty(); }

  // ---- Undo records -----------------------------------------------------------------
  // Records a change carried out for `request` with the undo service [17]:
  // `undo` is the request that reverts it, `text` what the user sees. A
  // request carrying STD_UNDOID amends that undo entry instead. `from`
  // (unless -1) becomes the record's source. The result of sendMessage().
  bool sendUndoFrom(const message& request, const message& undo, const std::string& text, int from);
  bool sendUndo(const message& request, const message& undo, const std::string& text);
  // Sets SYS_CMD = cmd in `undo` first.
  bool sendUndo(const message& request, message& undo, const std::string& text, unsigned int cmd);

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
  // Subscribers by notify command; changes use CMD_NOTIFY.
  std::map<unsigned int, std::vector<std::unique_ptr<Subscriber>>> subscriptions;
  // Armed by notifyChange() (20 ticks) and cmdNotifyAck() (5 ticks).
  Timer flushTimer;

 private:
  friend class Looper;

  void cancelAllTimers();
  void armFlushTimer(unsigned int ticks);
  void sendBatch(const std::vector<unsigned int>& to, unsigned int count, std::vector<message>& objs);
};

}  // namespace kr
