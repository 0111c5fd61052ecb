// The subscription side of kr::Handler: subscribers, change notification
// with coalescing and credits, state pushes, one-off notifications, and the
// undo records a handler sends after a change.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <utility>

#include "kr/bus/handler.h"
#include "kr/loop/runner.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

constexpr bool_id kSubPush{0xFF0017};
constexpr u32_id kDetail{0xFE000C};
constexpr u32_id kRemoved{0xFE0013};
constexpr raw_id kCookie{0xFE0015};
constexpr u32_id kImmediate{0xFE001E};

// Batches of notify objects stay below this many flat bytes.
constexpr size_t kBatchBytes = 16384;
// A subscriber with plenty of credits is flushed once this many changes
// wait, without the coalescing delay.
constexpr size_t kEagerBatch = 100;
constexpr unsigned int kCoalesceTicks = 20;  // 200 ms
constexpr unsigned int kAckFlushTicks = 5;

constexpr unsigned int kUndoHandler = 17;
constexpr string_id kUndoText{0x20000003};
constexpr string_id kUndoUser{0x20000006};
constexpr u32_id kUndoPolicy{5};
constexpr message_id kUndoRequest{1};
constexpr message_id kUndoChange{2};
constexpr message_array_id kPermSubscriptions{1};

// Removes every field numbered in the system range, whatever its kind.
void stripSystemFields(message& m) {
  for (unsigned int id : m.ids()) {
    if ((id & 0xFF0000) == 0xFF0000) m.remove(id);
  }
}

message filterOf(const message& m) {
  message f = m;
  stripSystemFields(f);
  return f;
}

bool startsWith(const std::vector<unsigned int>& path, const std::vector<unsigned int>& prefix) {
  if (path.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (path[i] != prefix[i]) return false;
  }
  return true;
}

message withoutRouting(const message& m) {
  message c = m;
  c.remove(SYS_FROM);
  c.remove(SYS_TO);
  return c;
}

using SubscriberMap = std::map<unsigned int, std::vector<std::unique_ptr<Handler::Subscriber>>>;

// findNextListener(), passing over the subscribers in `skip`.
Handler::Subscriber* nextListener(SubscriberMap& subscriptions, const std::vector<const Handler::Subscriber*>& skip) {
  auto it = subscriptions.find(CMD_NOTIFY);
  if (it == subscriptions.end()) return nullptr;
  Handler::Subscriber* best = nullptr;
  for (auto& s : it->second) {
    if (s->credits <= 0 || s->changes.empty()) continue;
    if (std::find(skip.begin(), skip.end(), s.get()) != skip.end()) continue;
    if (!best || (s->credits <= best->credits && s->changes.size() >= best->changes.size())) best = s.get();
  }
  return best;
}

}  // namespace

// ---- Subscribing ----------------------------------------------------------------

namespace {
// A CMD_SUBSCRIBE or CMD_UNSUBSCRIBE of `filter` to notify command `cmd` of
// the handler at `path`.
message subscriptionRequest(const std::vector<unsigned int>& path, unsigned int cmd, const message& filter,
                            unsigned int request) {
  message m = filter;
  m.insert(SYS_TO, path);
  m.insert(SYS_CMD, request);
  m.insert(SYS_NOTIFYCMD, cmd);
  return m;
}
}  // namespace

bool Handler::subscribe(const std::vector<unsigned int>& path, unsigned int cmd, const message& filter) {
  message m = subscriptionRequest(path, cmd, filter, CMD_SUBSCRIBE);
  return sendMessage(m);
}

bool Handler::unsubscribe(const std::vector<unsigned int>& path, unsigned int cmd, const message& filter) {
  message m = subscriptionRequest(path, cmd, filter, CMD_UNSUBSCRIBE);
  return sendMessage(m);
}

void Handler::cmdSubscribe(const message& m) {
  const unsigned int key = m.get(SYS_NOTIFYCMD, CMD_NOTIFY);
  message filter = filterOf(m);
  auto& subs = subscriptions[key];
  for (const auto& s : subs) {
    if (s->filter == filter) return;  // a repeated subscribe is harmless
  }
  auto s = std::make_unique<Subscriber>();
  s->credits = static_cast<int>(m.get(SYS_CREDITS, static_cast<unsigned int>(Subscriber::kUnlimited)));
  s->push = m.get(kSubPush, false);
  s->path = m.get(SYS_FROM);
  s->detail = m.get(kDetail, 5u);
  s->immediate = (m.get(kImmediate, 0u) & 1) != 0;
  s->filter = std::move(filter);
  Subscriber* added = s.get();
  subs.push_back(std::move(s));
  added->tag = subscriptionTag(added->filter, added->push);
  if (added->tag == 0 && added->push) pushNotifies(added);
}

void Handler::cmdUnsubscribe(const message& m) {
  const unsigned int key = m.get(SYS_NOTIFYCMD, CMD_NOTIFY);
  auto it = subscriptions.find(key);
  if (it == subscriptions.end()) return;
  const message filter = filterOf(m);
  auto& subs = it->second;
  for (auto s = subs.begin(); s != subs.end(); ++s) {
    if ((*s)->filter != filter) continue;
    subscriptionEnded((*s)->filter, (*s)->tag);
    subs.erase(s);
    if (subs.empty()) subscriptions.erase(it);
    return;
  }
}

const std::vector<std::unique_ptr<Handler::Subscriber>>* Handler::subscribers(unsigned int cmd) const {
  auto it = subscriptions.find(cmd);
  return it == subscriptions.end() ? nullptr : &it->second;
}

void Handler::cmdDisconnected(const message& m) {
  if (subscriptions.empty()) return;
  std::vector<unsigned int> gone;
  if (m.extract(SYS_FROM, gone)) {
    for (auto it = subscriptions.begin(); it != subscriptions.end();) {
      auto& subs = it->second;
      std::vector<std::unique_ptr<Subscriber>> kept;
      for (auto& s : subs) {
        if (startsWith(s->path, gone)) {
          subscriptionEnded(s->filter, s->tag);
        } else {
          kept.push_back(std::move(s));
        }
      }
      subs = std::move(kept);
      it = subs.empty() ? subscriptions.erase(it) : std::next(it);
    }
  }
  if (gone.empty()) return;
  // Requests waiting at the gone peer will never be answered. Their ids are
  // taken first: a callback may cancel other requests or post new ones (a
  // retry), and the map must not be walked while it changes.
  std::vector<unsigned int> stranded;
  for (const auto& [reqId, r] : replies) {
    if (r.dest == gone.front()) stranded.push_back(reqId);
  }
  for (unsigned int reqId : stranded) {
    auto it = replies.find(reqId);
    if (it == replies.end()) continue;  // cancelled by an earlier callback
    ReplyCallback cb = std::move(it->second.callback);
    if (it->second.timer) getRunner()->removeTimer(it->second.timer);
    replies.erase(it);
    cb(errorMsg(ERROR_TIMEOUT, ""));
  }
}

// ---- Change notification ----------------------------------------------------------

void Handler::addPath(std::vector<unsigned int>& to, const std::vector<unsigned int>& path) {
  if (to.empty()) {
    to = path;
    return;
  }
  if (to.front() != 0xFF0002) {
    std::vector<unsigned int> multi{0xFF0002, static_cast<unsigned int>(to.size())};
    multi.insert(multi.end(), to.begin(), to.end());
    to = std::move(multi);
  }
  to.push_back(static_cast<unsigned int>(path.size()));
  to.insert(to.end(), path.begin(), path.end());
}

void Handler::armFlushTimer(unsigned int ticks) {
  if (flushTimer.active() || !getRunner()) return;
  flushTimer = Timer(ticks, kr::bind<&Handler::invokeRequestFlushNotifies>(this));
}

void Handler::notifyChange(unsigned int objId, bool removed, const void* tag) {
  auto it = subscriptions.find(CMD_NOTIFY);
  if (it == subscriptions.end()) return;
  const auto wanted = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(tag));
  bool matched = false;
  bool flushNow = false;
  for (auto& s : it->second) {
    if (s->tag != wanted) continue;
    matched = true;
    s->changes[objId] = removed;
    if (s->immediate || (s->credits > 99 && s->changes.size() == kEagerBatch)) flushNow = true;
  }
  if (flushNow) {
    invokeRequestFlushNotifies();
  } else if (matched) {
    armFlushTimer(kCoalesceTicks);
  }
}

void Handler::invokeRequestFlushNotifies() {
  flushTimer.cancel();
  requestFlushNotifies();
}

void Handler::requestFlushNotifies() { flushNotifies(); }

Handler::Subscriber* Handler::findNextListener() { return nextListener(subscriptions, {}); }

unsigned int Handler::findListenersFor(unsigned int objId, unsigned int id2, std::vector<unsigned int>& to) {
  unsigned int detail = 0;
  auto it = subscriptions.find(CMD_NOTIFY);
  if (it == subscriptions.end()) return detail;
  for (auto& s : it->second) {
    if (s->credits <= 0) continue;
    auto change = s->changes.find(objId);
    if (change == s->changes.end()) continue;
    // An object waits until the object it depends on has reached this
    // subscriber.
    if (id2 != kNoId && s->changes.count(id2)) continue;
    s->changes.erase(change);
    if (s->limited()) {
      --s->credits;
      if (s->credits < 1) creditsExhausted(s->tag);
    }
    detail |= s->detail;
    addPath(to, s->path);
  }
  return detail;
}

void Handler::sendBatch(const std::vector<unsigned int>& to, unsigned int count, std::vector<message>& objs) {
  message m;
  m.insert(SYS_TO, to);
  m.insert(SYS_CMD, CMD_NOTIFY);
  if (count != 0xFFFFFFFF) m.insert(STD_OBJ_COUNT, count);
  m.insert(STD_OBJS, std::move(objs));
  objs.clear();
  sendMessage(m);
}

void Handler::flushNotifies() {
  const unsigned int count = objectCount();
  std::vector<message> batch;
  std::vector<unsigned int> batchTo;
  size_t batchBytes = 0;
  std::vector<unsigned char> flat;
  // Subscribers whose remaining objects wait on each other.
  std::vector<const Subscriber*> stalled;
  while (Subscriber* s = nextListener(subscriptions, stalled)) {
    // Objects held back for s (the object they depend on is pending there
    // too) are passed over; a full round without progress means they wait
    // on each other. They stay pending rather than loop forever, and the
    // other subscribers are still served in this pass.
    size_t heldBack = 0;
    while (s->credits > 0 && !s->changes.empty()) {
      if (heldBack > s->changes.size()) {
        stalled.push_back(s);
        break;
      }
      auto change = s->changes.lower_bound(s->cursor);
      if (change == s->changes.end()) change = s->changes.begin();
      const unsigned int objId = change->first;
      const bool removed = change->second;
      s->cursor = objId + 1;
      message obj;
      if (removed) {
        obj.insert(kRemoved, 1u);
      } else {
        obj = notifyObject(objId, s->detail);
      }
      if (!obj.has(STD_ID)) obj.insert(STD_ID, objId);
      const size_t pendingBefore = s->changes.size();
      std::vector<unsigned int> to;
      const unsigned int d = findListenersFor(objId, obj.get(STD_NEXTID, kNoId), to);
      heldBack = s->changes.size() < pendingBefore ? 0 : heldBack + 1;
      if (to.empty()) continue;
      if (!removed && d != s->detail) {
        obj = notifyObject(objId, d);
        if (!obj.has(STD_ID)) obj.insert(STD_ID, objId);
      }
      obj.flatten(flat);
      if (!batch.empty() && (batchTo != to || batchBytes + flat.size() > kBatchBytes)) {
        sendBatch(batchTo, count, batch);
        batchBytes = 0;
      }
      batch.push_back(std::move(obj));
      batchBytes += flat.size();
      batchTo = std::move(to);
    }
  }
  if (!batch.empty()) sendBatch(batchTo, count, batch);
}

void Handler::pushNotifies(Subscriber* s) {
  while (s->credits > 0) {
    if (s->cookie.empty() && s->getallNext == kNoId) {
      message header = notifyObject(kNoId, s->detail);
      if (!header.has(kRemoved)) {
        stripSystemFields(header);
        header.insert(SYS_TO, s->path);
        header.insert(SYS_CMD, CMD_NOTIFY);
        sendMessage(header);
        if (s->limited()) --s->credits;
      }
    }
    message q;
    q.insert(kDetail, s->detail);
    if (!s->cookie.empty()) q.insert(kCookie, s->cookie);
    message r = cmdGetAll(q, s->getallNext, static_cast<unsigned int>(s->credits));
    if (!r.has(STD_OBJS)) break;
    const unsigned int before = s->getallNext;
    const std::vector<unsigned char> cookieBefore = s->cookie;
    s->getallNext = r.get(STD_GETALLID, kNoId);
    s->cookie = r.get(kCookie);
    // A page that brings nothing and leads back to where it started (an
    // object too large for any page) would be asked for without end.
    const bool stuck = r.size(STD_OBJS) == 0 && s->getallNext == before && s->cookie == cookieBefore;
    r.remove(STD_GETALLID);
    r.remove(kCookie);
    const unsigned int objects = r.size(STD_OBJS);
    r.insert(SYS_TO, s->path);
    r.insert(SYS_CMD, CMD_NOTIFY);
    sendMessage(r);
    if (s->limited()) s->credits -= static_cast<int>(objects);
    if (stuck || (s->getallNext == kNoId && s->cookie.empty())) break;
  }
  s->push = false;
}

void Handler::cmdNotifyAck(const message& m) {
  auto it = subscriptions.find(CMD_NOTIFY);
  if (it == subscriptions.end()) return;
  const std::vector<unsigned int> from = m.get(SYS_FROM);
  Subscriber* s = nullptr;
  for (auto& c : it->second) {
    if (c->limited() && c->path == from) {
      s = c.get();
      break;
    }
  }
  if (!s) return;
  const int before = s->credits;
  s->credits += static_cast<int>(m.get(SYS_CREDITS));
  if (before < 1 && s->credits > 0) creditsRestored(s->tag);
  if (s->push && s->changes.size() < static_cast<size_t>(std::max(s->credits, 0))) pushNotifies(s);
  if (s->credits >= 0 && !s->changes.empty()) {
    if (s->changes.size() <= static_cast<size_t>(s->credits / 2)) {
      armFlushTimer(kAckFlushTicks);
    } else {
      requestFlushNotifies();
    }
  }
}

message Handler::sendNotify(message& m) {
  if (!m.has(SYS_CMD)) {
    // Without a command no subscriber can be chosen: a caller's bug.
    std::cerr << "looper:638: sendNotify: Assertion `m.has(kr::SYS_CMD)' failed." << std::endl;
    std::abort();
  }
  std::vector<unsigned int> to = m.get(SYS_TO);
  if (const auto* subs = subscribers(m.get(SYS_CMD))) {
    for (const auto& s : *subs) {
      if (shouldNotify(s->filter, m) && !s->path.empty()) addPath(to, s->path);
    }
  }
  if (!to.empty()) {
    m.insert(SYS_TO, to);
    sendMessage(m);
  }
  return m;
}

// ---- Persistent subscriptions -----------------------------------------------------

void Handler::savePermData(message& m) {
  if (subscriptions.empty()) return;
  requestFlushNotifies();
  std::vector<message> kept = m.get(kPermSubscriptions);
  for (const auto& [key, subs] : subscriptions) {
    for (const auto& s : subs) {
      message f = s->filter;
      f.insert(SYS_CREDITS, static_cast<unsigned int>(s->credits));
      // The subscriber's address and the notify command too, so that the
      // subscription comes back as it was, not as a change subscription
      // without anyone to send to.
      f.insert(SYS_FROM, s->path);
      f.insert(SYS_NOTIFYCMD, key);
      kept.push_back(std::move(f));
    }
  }
  m.insert(kPermSubscriptions, std::move(kept));
}

void Handler::loadPermData(const message& m) {
  for (const message& f : m.get(kPermSubscriptions)) cmdSubscribe(f);
}

// ---- Undo records -------------------------------------------------------------------

bool Handler::sendUndoFrom(const message& request, const message& undo, const std::string& text, int from) {
  message rec;
  if (from != -1) rec.insert(SYS_FROM, {static_cast<unsigned int>(from)});
  rec.insert(SYS_TO, {kUndoHandler});
  unsigned int undoId;
  if (request.extract(STD_UNDOID, undoId)) {
    rec.insert(SYS_CMD, CMD_SETOBJ);
    rec.insert(STD_ID, undoId);
  } else {
    rec.insert(SYS_CMD, CMD_ADDOBJ);
    rec.insert(kUndoRequest, withoutRouting(request));
    rec.insert(kUndoText, text);
    rec.insert(kUndoUser, request.get(SYS_USER));
  }
  rec.insert(kUndoPolicy, policies.required_policies(request.get(SYS_CMD, CMD_NOOP)));
  rec.insert(kUndoChange, withoutRouting(undo));
  return sendMessage(rec);
}

bool Handler::sendUndo(const message& request, const message& undo, const std::string& text) {
  return sendUndoFrom(request, undo, text, -1);
}

bool Handler::sendUndo(const message& request, message& undo, const std::string& text, unsigned int cmd) {
  undo.insert(SYS_CMD, cmd);
  return sendUndo(request, undo, text);
}

}  // namespace kr
