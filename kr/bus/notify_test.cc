// Subscriptions and change notification of kr::Handler without a bus: the
// publisher records what it would send; the flush timer runs on a Runner
// whose clock the tests move.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kr/bus/handler.h"
#include "kr/loop/clock.h"
#include "kr/loop/runner.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

using Path = std::vector<unsigned int>;
using Subscriber = Handler::Subscriber;

constexpr unsigned int kNoId = Handler::kNoId;
constexpr unsigned int kMulti = 0xff0002;  // opens a multi-destination address
constexpr u32_id kCredits{0xff0012};
constexpr bool_id kPush{0xff0017};
constexpr u32_id kDetail{0xfe000c};
constexpr u32_id kRemoved{0xfe0013};
constexpr raw_id kCookie{0xfe0015};
constexpr u32_id kImmediate{0xfe001e};
// Fields of the tests' own filters and objects.
constexpr u32_id kKind{4};       // tells filters apart
constexpr u32_id kTagField{9};   // subscriptionTag() answers it
constexpr bool_id kMuted{8};     // shouldNotify() refuses such filters
constexpr u32_id kObjDetail{1};  // the detail an object was built at

template <class Id, class V>
message with(message m, Id field, V value) {
  m.insert(field, value);
  return m;
}

// A publishing handler that records instead of sending.
class Publisher : public Handler {
 public:
  bool sendMessage(message& m) override {
    sent.push_back(m);
    return sendOk;
  }
  message notifyObject(unsigned int objId, unsigned int detail) override {
    built.push_back(objId);
    if (objId == kNoId) return header;
    message o = with(with(message(), STD_ID, objId), kObjDetail, detail);
    if (auto it = dependsOn.find(objId); it != dependsOn.end()) o.insert(STD_NEXTID, it->second);
    if (pad) o.insert(string_id(2), std::string(pad, 'x'));
    return o;
  }
  unsigned int subscriptionTag(const message& f, bool) override { return f.get(kTagField); }
  void subscriptionEnded(const message& f, unsigned int) override { ended.push_back(f.get(kKind)); }
  void creditsExhausted(unsigned int tag) override { exhausted.push_back(tag); }
  void creditsRestored(unsigned int tag) override { restored.push_back(tag); }
  bool shouldNotify(const message& f, const message&) override { return !f.get(kMuted); }
  unsigned int objectCount() override { return count; }
  // The state is objects 0..stateSize-1 in pages of 2, continued through
  // STD_GETALLID or, with `cookies`, through the raw cookie alone.
  message cmdGetAll(const message& q, unsigned int from, unsigned int n) override {
    getAlls.push_back({q, from, n});
    if (!stateSize) return Handler::cmdGetAll(q, from, n);
    const std::vector<unsigned char> c = q.get(kCookie);
    const unsigned int first = !c.empty() ? c[0] : from == kNoId ? 0 : from;
    if (first == stuckAt) {  // an object no page can hold: an empty page back to it
      return with(with(message(), STD_OBJS, std::vector<message>()), STD_GETALLID, first);
    }
    const unsigned int last = std::min({first + 2, first + n, stateSize});
    std::vector<message> objs(last - first);
    for (unsigned int i = first; i < last; ++i) objs[i - first].insert(STD_ID, i);
    message r = with(message(), STD_OBJS, objs);
    if (last < stateSize && cookies) r.insert(kCookie, {static_cast<unsigned char>(last)});
    if (last < stateSize && !cookies) r.insert(STD_GETALLID, last);
    return r;
  }
  Subscriber& sub(size_t i, unsigned int cmd = CMD_NOTIFY) { return *subscribers(cmd)->at(i); }
  void setPolicy(unsigned int cmd, unsigned int bits) { policies.set_policy(cmd, bits); }

  struct GetAll {
    message q;
    unsigned int from, n;
  };
  std::vector<message> sent;
  std::vector<unsigned int> built, ended, exhausted, restored;
  std::vector<GetAll> getAlls;
  std::map<unsigned int, unsigned int> dependsOn;  // object -> its STD_NEXTID
  message header;
  unsigned int count = kNoId, pad = 0, stateSize = 0, stuckAt = kNoId;
  bool cookies = false, sendOk = true;
};

message from(const Path& peer) { return with(message(), SYS_FROM, peer); }
message to(const Path& path) { return with(message(), SYS_TO, path); }
message ack(const Path& peer, unsigned int credits) { return with(from(peer), kCredits, credits); }

// A subscribe request from `peer` with filter `kind`; negative credits: unlimited.
message request(const Path& peer, unsigned int kind, int credits = -1) {
  message m = with(from(peer), kKind, kind);
  if (credits >= 0) m.insert(kCredits, static_cast<unsigned int>(credits));
  return m;
}

const void* tag(std::uintptr_t n) { return reinterpret_cast<const void*>(n); }

// The object ids of each message p sent.
using Batches = std::vector<Path>;
Batches batches(const Publisher& p) {
  Batches all;
  for (const message& m : p.sent) {
    all.emplace_back();
    for (const message& o : m.get(STD_OBJS)) all.back().push_back(o.get(STD_ID, kNoId));
  }
  return all;
}
Batches sentTo(const Publisher& p) {
  Batches all;
  for (const message& m : p.sent) all.push_back(m.get(SYS_TO));
  return all;
}

class NotifyTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(runner.timerCount(), 0u) << "a timer outlived the test"; }
  void tick(unsigned int n) {
    clock.advance(n);
    runner.step(false);
  }

  TestClock clock{100000};
  Runner runner;
  Publisher pub;
};

TEST_F(NotifyTest, OneSubscriptionPerFilterUntilUnsubscribed) {
  const message m = with(with(with(request({7, 3}, 1, 10), kDetail, 2u), kImmediate, 3u), kTagField, 4u);
  pub.cmdSubscribe(with(m, SYS_USER, std::string("bob")));
  pub.cmdSubscribe(with(m, kCredits, 99u));  // credits are no part of the filter
  ASSERT_EQ(pub.subscribers()->size(), 1u);
  const Subscriber& s = pub.sub(0);
  EXPECT_TRUE(s.credits == 10 && s.path == Path({7, 3}));
  EXPECT_TRUE(s.detail == 2 && s.immediate && s.tag == 4);
  EXPECT_EQ(s.filter, with(with(with(with(message(), kKind, 1u), kDetail, 2u), kImmediate, 3u), kTagField, 4u));
  pub.cmdSubscribe(with(request({8}, 2), kImmediate, 2u));  // only bit 0 counts
  ASSERT_EQ(pub.subscribers()->size(), 2u);
  EXPECT_TRUE(pub.sub(1).credits == Subscriber::kUnlimited && pub.sub(1).detail == 5 && !pub.sub(1).immediate);

  pub.cmdUnsubscribe(request({7, 3}, 3));  // no such filter
  EXPECT_TRUE(pub.ended.empty());
  pub.cmdUnsubscribe(m);
  EXPECT_EQ(pub.ended, Path{1});
  EXPECT_EQ(pub.subscribers()->size(), 1u);

  // What subscribe() and unsubscribe() send names one subscription.
  Publisher peer;
  const message f = with(message(), kKind, 1u);
  EXPECT_TRUE(peer.subscribe({7, 2}, 0x123, f) && peer.unsubscribe({7, 2}, 0x123, f));
  ASSERT_EQ(sentTo(peer), (Batches{{7, 2}, {7, 2}}));
  pub.handleCmd(with(peer.sent[0], SYS_FROM, Path{30}), CMD_SUBSCRIBE);
  EXPECT_EQ(pub.sub(0, 0x123).filter, f);
  pub.handleCmd(with(peer.sent[1], SYS_FROM, Path{30}), CMD_UNSUBSCRIBE);
  EXPECT_EQ(pub.subscribers(0x123), nullptr);
}

TEST_F(NotifyTest, ChangesAreCoalescedForTwentyTicks) {
  pub.count = 12;
  pub.cmdSubscribe(request({7}, 1));
  pub.notifyChange(5);
  tick(10);
  pub.notifyChange(5);  // does not restart the delay
  tick(9);
  EXPECT_TRUE(pub.sent.empty());
  tick(1);
  ASSERT_EQ(batches(pub), Batches{{5}});
  EXPECT_TRUE(pub.sent[0].get(SYS_TO) == Path{7} && pub.sent[0].get(SYS_CMD) == CMD_NOTIFY);
  EXPECT_EQ(pub.sent[0].get(STD_OBJ_COUNT), 12u);

  pub.count = kNoId;  // the last state wins: a removal, for which nothing is built
  pub.built.clear();
  pub.notifyChange(6);
  pub.notifyChange(6, true);
  tick(20);
  ASSERT_EQ(pub.sent.size(), 2u);
  EXPECT_EQ(pub.sent[1].get(STD_OBJS), std::vector<message>{with(with(message(), STD_ID, 6u), kRemoved, 1u)});
  EXPECT_FALSE(pub.sent[1].has(STD_OBJ_COUNT));
  EXPECT_TRUE(pub.built.empty());
  pub.notifyChange(6, false, tag(3));  // nobody has that tag
  EXPECT_EQ(runner.timerCount(), 0u);
}

TEST_F(NotifyTest, ImmediateSubscribersAndFullQueuesAreFlushedAtOnce) {
  const message now = with(request({8, 1}, 2), kImmediate, 1u);
  pub.cmdSubscribe(request({7}, 1));
  pub.cmdSubscribe(now);
  pub.notifyChange(4);
  ASSERT_EQ(pub.sent.size(), 1u);  // the flush serves everyone: one object to both
  EXPECT_EQ(pub.sent[0].get(SYS_TO), (Path{kMulti, 1, 7, 2, 8, 1}));
  pub.cmdUnsubscribe(now);
  pub.sent.clear();

  // 100 pending changes are flushed without delay, from 100 credits on.
  pub.cmdSubscribe(with(request({9}, 3, 99), kTagField, 1u));
  for (unsigned int i = 0; i < 100; ++i) pub.notifyChange(i, false, tag(1));
  EXPECT_TRUE(pub.sent.empty());
  for (unsigned int i = 0; i < 99; ++i) pub.notifyChange(i);
  EXPECT_TRUE(pub.sent.empty());
  pub.notifyChange(99);
  EXPECT_EQ(pub.sub(0).changes.size(), 0u);
  EXPECT_EQ(runner.timerCount(), 0u);
}

TEST_F(NotifyTest, CreditsHoldChangesBackUntilAcknowledged) {
  pub.cmdSubscribe(request({7}, 2));  // unlimited, same peer: acks are not for it
  pub.cmdSubscribe(with(request({7}, 1, 3), kTagField, 6u));
  for (unsigned int i = 0; i < 10; ++i) pub.notifyChange(i, false, tag(6));
  tick(20);
  EXPECT_EQ(pub.exhausted, Path{6});
  pub.flushNotifies();
  pub.cmdNotifyAck(ack({8}, 5));  // nobody's
  EXPECT_EQ(batches(pub), (Batches{{0, 1, 2}}));

  pub.cmdNotifyAck(ack({7}, 8));  // 7 pending for 8 credits, over half: sent at once
  EXPECT_EQ(pub.restored, Path{6});
  EXPECT_EQ(batches(pub), (Batches{{0, 1, 2}, {3, 4, 5, 6, 7, 8, 9}}));

  pub.notifyChange(1, false, tag(6));
  pub.notifyChange(2, false, tag(6));
  tick(20);
  EXPECT_EQ(pub.exhausted.size(), 2u);
  pub.cmdNotifyAck(ack({7}, 4));  // 1 pending for 4 credits: 5 ticks for more to come
  tick(4);
  EXPECT_EQ(pub.sent.size(), 3u);
  tick(1);
  EXPECT_EQ(batches(pub).back(), Path{2});
  pub.cmdNotifyAck(ack({7}, 1));  // credits were left: nothing restored
  EXPECT_EQ(pub.restored.size(), 2u);
  EXPECT_EQ(pub.sub(1).credits, 4);
}

TEST_F(NotifyTest, ALowIdChangingAgainDoesNotOvertakeHigherOnes) {
  pub.cmdSubscribe(request({7}, 1, 2));
  for (unsigned int i : {1, 2, 3}) pub.notifyChange(i);
  tick(20);
  pub.notifyChange(1);
  pub.cmdNotifyAck(ack({7}, 1));
  pub.cmdNotifyAck(ack({7}, 1));
  tick(20);  // the change's timer finds nothing left
  EXPECT_EQ(batches(pub), (Batches{{1, 2}, {3}, {1}}));
}

TEST_F(NotifyTest, AnObjectWaitsForTheObjectItDependsOn) {
  pub.dependsOn = {{1, 3}};
  pub.cmdSubscribe(request({7}, 1));
  pub.cmdSubscribe(with(request({8}, 2), kTagField, 1u));
  pub.notifyChange(1);
  pub.notifyChange(3);
  pub.notifyChange(1, false, tag(1));
  pub.invokeRequestFlushNotifies();
  EXPECT_EQ(batches(pub), (Batches{{1}, {3, 1}}));
  EXPECT_EQ(sentTo(pub), (Batches{{8}, {7}}));  // no object 3 pending at [8]: 1 goes at once

  // Objects waiting on each other stay pending; the others still go out.
  pub.sent.clear();
  pub.dependsOn = {{1, 2}, {2, 1}};
  for (unsigned int i : {1, 2, 4}) pub.notifyChange(i);
  pub.notifyChange(5, false, tag(1));
  pub.invokeRequestFlushNotifies();
  EXPECT_EQ(batches(pub), (Batches{{4}, {5}}));
  EXPECT_EQ(pub.sub(0).changes.size(), 2u);
}

TEST_F(NotifyTest, SharedObjectsTravelOnceAtTheCombinedDetail) {
  pub.cmdSubscribe(with(request({7}, 1), kDetail, 1u));
  pub.cmdSubscribe(with(request({8, 2}, 2), kDetail, 4u));
  pub.notifyChange(1);
  pub.notifyChange(2, true);
  pub.invokeRequestFlushNotifies();
  ASSERT_EQ(batches(pub), (Batches{{1, 2}}));
  EXPECT_EQ(pub.sent[0].get(SYS_TO), (Path{kMulti, 1, 7, 2, 8, 2}));
  EXPECT_EQ(pub.sent[0].get(STD_OBJS)[0].get(kObjDetail), 5u);
  EXPECT_EQ(pub.sent[0].get(STD_OBJS)[1].get(kRemoved), 1u);
}

TEST_F(NotifyTest, BatchesHoldAtMost16384BytesOfObjects) {
  auto bytes = [&](unsigned int id) {
    std::vector<unsigned char> flat;
    pub.notifyObject(id, 5).flatten(flat);
    return flat.size();
  };
  for (pub.pad = 8000; bytes(1) + bytes(2) < 16384; ++pub.pad) {
  }
  ASSERT_EQ(bytes(1) + bytes(2), 16384u);  // objects 1 and 2 fill a batch exactly
  pub.cmdSubscribe(request({7}, 1));
  for (unsigned int i : {1, 2, 3}) pub.notifyChange(i);
  pub.invokeRequestFlushNotifies();
  ++pub.pad;  // one byte more: no two objects share a batch
  for (unsigned int i : {1, 2, 3}) pub.notifyChange(i);
  pub.invokeRequestFlushNotifies();
  EXPECT_EQ(batches(pub), (Batches{{1, 2}, {3}, {1}, {2}, {3}}));
}

TEST_F(NotifyTest, TheNextListenerHasTheFewestCredits) {
  for (unsigned int i = 0; i < 4; ++i) pub.cmdSubscribe(request({10 + i}, i, 10));
  auto next = [&](std::vector<std::pair<int, Path>> state) {  // each one's credits and pending ids
    for (size_t i = 0; i < state.size(); ++i) {
      pub.sub(i).credits = state[i].first;
      pub.sub(i).changes.clear();
      for (unsigned int id : state[i].second) pub.sub(i).changes[id] = false;
    }
    const Subscriber* s = pub.findNextListener();
    return s ? s->path.front() : 0u;
  };
  const int kU = Subscriber::kUnlimited;
  EXPECT_EQ(next({{10, {1}}, {5, {1}}, {0, {1, 2, 3}}, {kU, {}}}), 11u);  // never without credits or changes
  EXPECT_EQ(next({{5, {1, 2}}, {5, {1, 2}}, {0, {1}}, {kU, {}}}), 11u);   // a tie goes to the later one
  EXPECT_EQ(next({{5, {1, 2}}, {3, {1}}, {0, {1}}, {kU, {}}}), 10u);      // fewer credits but fewer changes too
  EXPECT_EQ(next({{5, {}}, {3, {}}, {0, {1}}, {kU, {}}}), 0u);
}

TEST_F(NotifyTest, StatePushSendsAHeaderThenGetAllPages) {
  for (bool cookies : {false, true}) {
    SCOPED_TRACE(cookies ? "cookies" : "continuation ids");
    Publisher p;
    p.stateSize = 5;
    p.cookies = cookies;
    p.header = with(with(message(), kKind, 9u), SYS_USER, std::string("x"));
    p.cmdSubscribe(with(with(request({7}, 1, 10), kDetail, 3u), kPush, true));
    ASSERT_EQ(batches(p), (Batches{{}, {0, 1}, {2, 3}, {4}}));
    EXPECT_TRUE(p.sent[0].get(kKind) == 9u && !p.sent[0].has(SYS_USER));
    for (const message& n : p.sent)
      EXPECT_TRUE(n.get(SYS_TO) == Path{7} && n.get(SYS_CMD) == CMD_NOTIFY && !n.has(STD_GETALLID) && !n.has(kCookie));
    ASSERT_EQ(p.getAlls.size(), 3u);
    EXPECT_TRUE(p.getAlls[0].from == kNoId && p.getAlls[0].q.get(kDetail) == 3u && !p.getAlls[0].q.has(kCookie));
    EXPECT_EQ(p.getAlls[0].n, 9u);  // the header took a credit
    EXPECT_EQ(p.getAlls[1].n, 7u);
    EXPECT_EQ(p.getAlls[1].from, cookies ? kNoId : 2u);
    EXPECT_EQ(p.getAlls[1].q.get(kCookie).size(), cookies ? 1u : 0u);
    EXPECT_EQ(p.sub(0).credits, 4);
    EXPECT_TRUE(!p.sub(0).push && p.sub(0).getallNext == kNoId && p.sub(0).cookie.empty());
  }
}

TEST_F(NotifyTest, StatePushStopsWithTheCreditsAndWaitsForTaggedSubscriptions) {
  pub.stateSize = 5;
  pub.header.insert(kRemoved, 1u);  // no header
  const message m = with(request({7}, 1, 3), kPush, true);
  pub.cmdSubscribe(m);
  EXPECT_EQ(batches(pub), (Batches{{0, 1}, {2}}));
  EXPECT_EQ(pub.getAlls.back().n, 1u);
  EXPECT_EQ(pub.sub(0).credits, 0);

  pub.cmdSubscribe(with(with(request({8}, 2, 0), kPush, true), kTagField, 1u));
  EXPECT_EQ(pub.sent.size(), 2u);
  pub.cmdNotifyAck(ack({8}, 10));
  EXPECT_EQ(pub.restored, Path{1});
  EXPECT_EQ(batches(pub), (Batches{{0, 1}, {2}, {0, 1}, {2, 3}, {4}}));
  EXPECT_FALSE(pub.sub(1).push);

  Publisher bare;  // without get-all the push is the header alone
  bare.cmdSubscribe(m);
  EXPECT_EQ(bare.sent.size(), 1u);
  EXPECT_FALSE(bare.sub(0).push);

  // A page that brings nothing and points back at itself ends the push.
  Publisher stuck;
  stuck.stateSize = 5;
  stuck.stuckAt = 2;
  stuck.cmdSubscribe(with(request({9}, 1), kPush, true));
  EXPECT_EQ(stuck.getAlls.size(), 2u);
  EXPECT_FALSE(stuck.sub(0).push);
}

TEST_F(NotifyTest, DisconnectDropsThePeersSubscriptionsAndFailsItsRequests) {
  Path codes;
  auto record = [&](const message& r) {
    unsigned int code = 0;
    codes.push_back(isError(r, &code, nullptr) ? code : 0);
  };
  unsigned int cancelled = kNoId, retry = kNoId;
  message q1 = to({7, 5}), q2 = to({8}), q3 = to({7}), q4 = to({7});
  pub.postMessage(q1, [&](const message& r) {  // a callback may cancel requests and retry
    record(r);
    pub.cancelPost(cancelled);
    retry = pub.postMessage(q4, record, 100);
  }, Handler::kNoTimeout);
  const unsigned int other = pub.postMessage(q2, record, 100);
  cancelled = pub.postMessage(q3, record, 100);
  pub.cmdDisconnected(from({7}));  // no subscriptions: requests end by time-out
  EXPECT_EQ(pub.pendingRequests(), 3u);

  for (const Path& p : {Path{7, 1}, Path{70}, Path{7}, Path{8}}) pub.cmdSubscribe(request(p, p.size() * 100 + p[0]));
  pub.cmdSubscribe(with(request({7, 2}, 5), SYS_NOTIFYCMD, 0x123u));
  pub.cmdDisconnected(message());  // nobody named
  EXPECT_TRUE(pub.ended.empty());
  EXPECT_EQ(pub.pendingRequests(), 3u);

  pub.cmdDisconnected(from({7}));
  std::sort(pub.ended.begin(), pub.ended.end());
  EXPECT_EQ(pub.ended, (Path{5, 107, 207}));
  ASSERT_EQ(pub.subscribers()->size(), 2u);
  EXPECT_TRUE(pub.sub(0).path == Path{70} && pub.sub(1).path == Path{8});
  EXPECT_EQ(pub.subscribers(0x123), nullptr);
  EXPECT_EQ(codes, Path{ERROR_TIMEOUT});
  EXPECT_EQ(pub.pendingRequests(), 2u);  // the retry, made after the peer went, is one
  EXPECT_TRUE(pub.isPending(other) && pub.isPending(retry));
  EXPECT_EQ(runner.timerCount(), 2u);
  pub.cancelPost(other);
  pub.cancelPost(retry);
}

TEST_F(NotifyTest, SendNotifyAddressesEveryWillingSubscriberOfItsCommand) {
  pub.cmdSubscribe(with(request({7}, 1, 0), SYS_NOTIFYCMD, 0x123u));  // credits are not asked
  pub.cmdSubscribe(with(with(request({8}, 2), kMuted, true), SYS_NOTIFYCMD, 0x123u));
  pub.cmdSubscribe(with(request({9, 1}, 3), SYS_NOTIFYCMD, 0x123u));
  pub.cmdSubscribe(with(message(), SYS_NOTIFYCMD, 0x123u));  // no path
  pub.cmdSubscribe(request({6}, 5));                // changes only
  message m = with(message(), SYS_CMD, 0x123u), more = with(to({5}), SYS_CMD, 0x123u);
  message nobody = with(message(), SYS_CMD, 0x124u);
  EXPECT_EQ(pub.sendNotify(m).get(SYS_TO), (Path{kMulti, 1, 7, 2, 9, 1}));  // m as sent
  pub.sendNotify(more);
  pub.sendNotify(nobody);
  EXPECT_EQ(sentTo(pub), (Batches{{kMulti, 1, 7, 2, 9, 1}, {kMulti, 1, 5, 1, 7, 2, 9, 1}}));
}

TEST(NotifyDeathTest, SendNotifyWithoutCommandAborts) {
  Publisher pub;
  message m;
  EXPECT_DEATH(pub.sendNotify(m), "looper:638: sendNotify: Assertion `m\\.has\\(kr::SYS_CMD\\)' failed\\.");
}

TEST_F(NotifyTest, SubscriptionsSurviveARestartWithTheirCredits) {
  message none;
  pub.savePermData(none);
  EXPECT_TRUE(none.empty());

  pub.cmdSubscribe(request({7}, 1, 5));
  pub.cmdSubscribe(request({8}, 2));
  pub.notifyChange(3);
  const message earlier = with(message(), kKind, 9u);
  message perm = with(message(), message_array_id(1), std::vector<message>{earlier});
  pub.savePermData(perm);
  EXPECT_EQ(pub.sent.size(), 1u);  // pending changes go out first
  const std::vector<message> saved = perm.get(message_array_id(1));
  ASSERT_EQ(saved.size(), 3u);
  EXPECT_EQ(saved[0], earlier);

  Publisher restarted;
  restarted.loadPermData(perm);
  ASSERT_EQ(restarted.subscribers()->size(), 3u);
  EXPECT_EQ(restarted.sub(1).filter, pub.sub(0).filter);
  EXPECT_TRUE(restarted.sub(1).credits == 4 && restarted.sub(2).credits == Subscriber::kUnlimited);
  EXPECT_TRUE(restarted.sub(1).path == Path{7} && restarted.sub(2).path == Path{8});  // not to nobody
  tick(20);
}

TEST_F(NotifyTest, UndoRecordsCarryTheRequestAndItsReversal) {
  pub.setPolicy(CMD_SETOBJ, 0x280);
  pub.setPolicy(CMD_NOOP, 0x200);
  message req = with(with(request({77}, 1), SYS_TO, Path{30}), SYS_CMD, CMD_SETOBJ);
  req.insert(SYS_USER, std::string("bob"));
  const message undo = with(request({31}, 2), SYS_TO, Path{30});
  EXPECT_TRUE(pub.sendUndo(req, undo, "renamed"));
  ASSERT_EQ(pub.sent.size(), 1u);
  const message& rec = pub.sent[0];
  EXPECT_TRUE(rec.get(SYS_TO) == Path{17} && !rec.has(SYS_FROM));
  EXPECT_EQ(rec.get(SYS_CMD), CMD_ADDOBJ);
  EXPECT_EQ(rec.get(u32_id(5)), 0x280u);
  EXPECT_TRUE(rec.get(string_id(3)) == "renamed" && rec.get(string_id(6)) == "bob");
  auto unrouted = [](message m) {
    m.remove(SYS_FROM);
    m.remove(SYS_TO);
    return m;
  };
  EXPECT_EQ(rec.get(message_id(1)), unrouted(req));
  EXPECT_EQ(rec.get(message_id(2)), unrouted(undo));

  // A request with an undo id amends that entry.
  pub.sendOk = false;
  EXPECT_FALSE(pub.sendUndoFrom(with(message(), STD_UNDOID, 42u), undo, "x", 12));
  const message& amend = pub.sent[1];
  EXPECT_TRUE(amend.get(SYS_FROM) == Path{12} && amend.get(SYS_TO) == Path{17});
  EXPECT_TRUE(amend.get(SYS_CMD) == CMD_SETOBJ && amend.get(STD_ID) == 42u);
  EXPECT_EQ(amend.get(u32_id(5)), 0x200u);  // no command: CMD_NOOP's
  EXPECT_FALSE(amend.has(message_id(1)) || amend.has(string_id(3)) || amend.has(string_id(6)));
  EXPECT_EQ(amend.get(message_id(2)), unrouted(undo));

  message revert;
  pub.sendUndo(req, revert, "t", CMD_REMOVEOBJ);
  EXPECT_EQ(revert.get(SYS_CMD), CMD_REMOVEOBJ);
  EXPECT_EQ(pub.sent[2].get(message_id(2)).get(SYS_CMD), CMD_REMOVEOBJ);
}

}  // namespace
}  // namespace kr
