#include "kr/bus/handler.h"

#include <utility>

#include "kr/bus/looper.h"
#include "kr/loop/runner.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

// The loader stamps what comes over the bus with the sender's rights
// (SYS_POLICY): a reply from a sender without any is not taken. A reply
// without the field comes from inside the process and counts as
// unrestricted.
constexpr unsigned int kReplyPolicyAbsent = 0x80000000;

message notImplemented() { return errorMsg(ERROR_NOTIMP, ""); }

// Object commands need STD_ID; without it the answer is ERROR_UNKNOWNID.
template <class F>
message withObjectId(const message& m, F&& call) {
  unsigned int objId;
  if (!m.extract(STD_ID, objId)) return errorMsg(ERROR_UNKNOWNID, "");
  return call(objId);
}

message getAll(Handler& h, const message& m) {
  message r = h.cmdGetAll(m, m.get(STD_GETALLID, 0xFFFFFFFFu), m.get(STD_GETALLNO));
  const unsigned int count = h.objectCount();
  if (count != 0xFFFFFFFF) r.insert(STD_OBJ_COUNT, count);
  return r;
}

// The command table of handleCmd(): one entry per command; anything else
// goes to cmdUnknown().
using CommandFn = message (*)(Handler&, const message&);
struct Command {
  unsigned int cmd;
  CommandFn run;
};

// clang-format off
constexpr Command kCommands[] = {
    {CMD_NOOP, [](Handler&, const message&) { return message(); }},
    {CMD_GETOBJ, [](Handler& h, const message& m) {
       return withObjectId(m, [&](unsigned int id) { return h.cmdGetObj(m, id); }); }},
    {CMD_SETOBJ, [](Handler& h, const message& m) {
       return withObjectId(m, [&](unsigned int id) { return h.cmdSetObj(m, id); }); }},
    {CMD_GETALL, &getAll},
    {CMD_ADDOBJ, [](Handler& h, const message& m) { return h.cmdAddObj(m); }},
    {CMD_REMOVEOBJ, [](Handler& h, const message& m) {
       return withObjectId(m, [&](unsigned int id) { return h.cmdRemoveObj(m, id); }); }},
    {CMD_MOVEOBJ, [](Handler& h, const message& m) {
       return withObjectId(m, [&](unsigned int id) { return h.cmdMoveObj(m, id); }); }},
    {0xFE000C, [](Handler& h, const message& m) { h.cmdShutdown(m); return message(); }},  // shutdown
    {CMD_GET, [](Handler& h, const message& m) { return h.cmdGet(m); }},
    {CMD_SET, [](Handler& h, const message& m) { return h.cmdSet(m); }},
    {CMD_SUBSCRIBE, [](Handler& h, const message& m) { h.cmdSubscribe(m); return message(); }},
    {CMD_UNSUBSCRIBE, [](Handler& h, const message& m) { h.cmdUnsubscribe(m); return message(); }},
    {CMD_DISCONNECTED, [](Handler& h, const message& m) { h.cmdDisconnected(m); return message(); }},
    {CMD_GETCOUNT, [](Handler& h, const message& m) { return h.cmdGetCount(m); }},
    {CMD_RESET, [](Handler& h, const message& m) { return h.cmdReset(m); }},
    {CMD_NOTIFYACK, [](Handler& h, const message& m) { h.cmdNotifyAck(m); return message(); }},
    {CMD_STOP_GETALL, [](Handler& h, const message& m) {
       return h.cmdStopGetAll(m, m.get(STD_GETALLID, 0xFFFFFFFFu)); }},
};
// clang-format on

}  // namespace

// ---- Lifetime -----------------------------------------------------------------

Handler::Handler() = default;

Handler::~Handler() {
  if (Looper* looper = getLooper()) {
    cancelAllTimers();
    // Only our own registration: the id may have been given to another
    // handler after we were removed.
    if (id != kNoId && looper->findHandler(id) == this) looper->removeHandler(id);
  }
}

void Handler::cancelAllTimers() {
  Runner* runner = getRunner();
  for (auto& [reqId, r] : replies) {
    if (r.timer && runner) runner->removeTimer(r.timer);
    r.timer = TimerPtr{};
  }
}

// ---- Defaults of the virtual operations ------------------------------------------

void Handler::handleBrkpath(const message&) {}

message Handler::cmdGetPolicies(const message& m) { return policies.get_policies(m); }
message Handler::cmdGet(const message&) { return notImplemented(); }
message Handler::cmdSet(const message&) { return notImplemented(); }
message Handler::cmdReset(const message&) { return notImplemented(); }
message Handler::cmdGetObj(const message&, unsigned int) { return notImplemented(); }
message Handler::cmdSetObj(const message&, unsigned int) { return notImplemented(); }
message Handler::cmdGetAll(const message&, unsigned int, unsigned int) { return notImplemented(); }
message Handler::cmdStopGetAll(const message&, unsigned int) { return message(); }
message Handler::cmdAddObj(const message&) { return notImplemented(); }
message Handler::cmdRemoveObj(const message&, unsigned int) { return notImplemented(); }
message Handler::cmdMoveObj(const message&, unsigned int) { return notImplemented(); }
message Handler::cmdGetCount(const message&) {
  message r;
  r.insert(STD_OBJ_COUNT, objectCount());
  return r;
}
message Handler::cmdUnknown(const message&, unsigned int) { return notImplemented(); }
void Handler::cmdShutdown(const message&) {}

bool Handler::shouldNotify(const message&, const message&) { return true; }
unsigned int Handler::subscriptionTag(const message&, bool) { return 0; }
void Handler::subscriptionEnded(const message&, unsigned int) {}
void Handler::creditsExhausted(unsigned int) {}
void Handler::creditsRestored(unsigned int) {}
message Handler::notifyObject(unsigned int, unsigned int) { return message(); }

unsigned int Handler::objectCount() { return 0xFFFFFFFF; }
bool Handler::isAllowed(const message& m) { return policies.is_allowed(m); }

// ---- Receiving ---------------------------------------------------------------------

void Handler::handle(message& m) {
  if (isReply(m)) {
    if (m.get(SYS_POLICY, kReplyPolicyAbsent) != 0) handleReply(m);
    return;
  }
  unsigned int code;
  if (!m.has(SYS_CMD) && isError(m, &code, nullptr)) {
    if (code == ERROR_BRKPATH) handleBrkpath(m);
    return;
  }
  const unsigned int cmd = m.get(SYS_CMD, CMD_NOOP);
  if (cmd == CMD_GETPOLICIES) {
    message r = cmdGetPolicies(m);
    replyMessage(m, r);
  } else if (isAllowed(m)) {
    handleCmd(m, cmd);
  } else {
    replyError(m, ERROR_NOTALLOWED, "");
  }
}

void Handler::handleCmd(const message& m, unsigned int cmd) {
  message result;
  bool known = false;
  for (const Command& c : kCommands) {
    if (c.cmd != cmd) continue;
    result = c.run(*this, m);
    known = true;
    break;
  }
  if (!known) result = cmdUnknown(m, cmd);
  replyMessage(m, result);
}

void Handler::handleReply(const message& m) {
  unsigned int reqId;
  if (!getRequestID(m, &reqId)) return;
  auto it = replies.find(reqId);
  if (it == replies.end()) return;
  ReplyCallback cb = std::move(it->second.callback);
  if (it->second.timer) getRunner()->removeTimer(it->second.timer);
  replies.erase(it);
  cb(m);
}

// ---- Requests --------------------------------------------------------------------------

bool Handler::requestMessage(message& m, unsigned int* reqId) {
  // 0xFFFFFFFF means "no request" to postMessage's callers.
  if (nextRequestId == kNoId) nextRequestId = 0;
  *reqId = nextRequestId++;
  setType(m, TYPE_REQUEST);
  setRequestID(m, *reqId);
  m.insert(SYS_REPLYEXP, true);
  return sendMessage(m);
}

unsigned int Handler::postMessage(message& m, ReplyCallback cb, unsigned int ticks) {
  const std::vector<unsigned int> to = m.get(SYS_TO);
  const unsigned int dest = to.empty() ? kLocalPath : to.front();
  unsigned int reqId;
  if (!requestMessage(m, &reqId)) return kNoId;
  ReplyHandler& r = replies[reqId];
  if (r.callback) {
    // The counter wrapped onto a request that never ended: end it now.
    ReplyCallback old = std::move(r.callback);
    if (r.timer) getRunner()->removeTimer(r.timer);
    r.timer = TimerPtr{};
    old(errorMsg(ERROR_TIMEOUT, ""));
  }
  // The old callback may have changed the map; look the record up again.
  ReplyHandler& rec = replies[reqId];
  rec.dest = dest;
  rec.requestId = reqId;
  rec.owner = this;
  rec.callback = std::move(cb);
  rec.timer = TimerPtr{};
  if (ticks != kNoTimeout) {
    rec.timer = getRunner()->addTimer(ticks, kr::bind<&ReplyHandler::timeout>(&rec));
    // The runner clears rec.timer when the timer fires or the runner shuts
    // down, so the record never points at a freed timer.
    rec.timer.timer->owner = &rec.timer.timer;
  }
  return reqId;
}

void Handler::ReplyHandler::timeout() { owner->replyTimeout(requestId); }

void Handler::replyTimeout(unsigned int reqId) {
  auto it = replies.find(reqId);
  if (it == replies.end()) return;
  // The timer is the one firing now; it frees itself.
  ReplyCallback cb = std::move(it->second.callback);
  replies.erase(it);
  message err = errorMsg(ERROR_TIMEOUT, "");
  setRequestID(err, reqId);
  cb(err);
}

void Handler::cancelPost(unsigned int reqId) {
  auto it = replies.find(reqId);
  if (it == replies.end()) return;
  if (it->second.timer) getRunner()->removeTimer(it->second.timer);
  replies.erase(it);
}

// ---- Sending -----------------------------------------------------------------------------

namespace {
void pushSource(message& m, unsigned int id) {
  std::vector<unsigned int> from = m.get(SYS_FROM);
  from.insert(from.begin(), id);
  m.insert(SYS_FROM, std::move(from));
}
}  // namespace

bool Handler::sendMessage(message& m) {
  pushSource(m, id);
  Looper* looper = getLooper();
  return looper ? looper->sendMessage(m) : false;
}

message Handler::exchangeMessage(message& m, int ticks) {
  pushSource(m, id);
  Looper* looper = getLooper();
  return looper ? looper->exchangeMessage(m, ticks) : errorMsg(ERROR_FAILED, "");
}

bool Handler::sendCmd(message& m, unsigned int cmd) {
  m.insert(SYS_CMD, cmd);
  return sendMessage(m);
}

message Handler::exchangeCmd(message& m, unsigned int cmd, unsigned int ticks) {
  m.insert(SYS_CMD, cmd);
  return exchangeMessage(m, static_cast<int>(ticks));
}

bool Handler::replyMessage(const message& req, message& reply) {
  unsigned int reqId;
  if (!getRequestID(req, &reqId)) return false;
  auto address = [&](message& r) {
    setRequestID(r, reqId);
    setType(r, TYPE_REPLY);
    if (req.has(SYS_FROM)) r.insert(SYS_TO, req.get(SYS_FROM));
  };
  address(reply);
  if (sendMessage(reply)) return true;
  // In practice the reply's flat form was too long for a frame.
  message tooBig = errorMsg(ERROR_TOOBIG, "");
  address(tooBig);
  return sendMessage(tooBig);
}

void Handler::replyError(const message& req, unsigned int code, const std::string& text) {
  message e = errorMsg(code, text);
  replyMessage(req, e);
}

void Handler::sendBrkpath(const message& m) {
  message e = errorMsg(ERROR_BRKPATH, "");
  e.insert(SYS_FROM, m.get(SYS_TO));
  e.insert(SYS_TO, m.get(SYS_FROM));
  sendMessage(e);
}

}  // namespace kr
