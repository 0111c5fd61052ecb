// The object map as its clients see it: requests over the bus to a map
// registered in a Looper (on the fake loader), subscribers and the undo
// service as handlers of the same process, and the records in a real
// kr-store.
#include "kr/store/secmap.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kr/bus/internal/bus_fixture.h"
#include "kr/loop/clock.h"
#include "kr/message/protocol.h"
#include "kr/store/reget.h"
#include "kr/store/store.h"
#include "kr/util/runtime_dir.h"

namespace kr {
namespace {

using internal::BusFixture;
using internal::RecordingHandler;
using Ids = std::vector<unsigned int>;

constexpr unsigned int kLocal = 0xff0003;
constexpr unsigned int kMapId = 30, kClientId = 10;
constexpr unsigned int kEnd = ASecMap::kEndOfChain;
constexpr unsigned int kOrder = ASecMap::kOrderRecord;
constexpr unsigned int kRefused = 0xFD0001;
const char kPath[] = "/rw/store/rows";

constexpr string_id kName{1};
constexpr u32_id kValue{2};
constexpr string_id kSecret{3};  // written to the store only
constexpr u32_id kBits{4};       // kVolatile | kNoUndo | kQuiet
constexpr unsigned int kVolatile = 1, kNoUndo = 2, kQuiet = 4;
constexpr u32_id kChecked{9};    // put in the reply by checkAdd
constexpr u32_id kFlags{0xFE000C};
constexpr message_id kDefaults{0xFE001D};
constexpr message_id kUndoChange{2};
constexpr string_id kUndoText{3};

template <class W>
message with(message m, W id, typename message::set_t<W> v) {
  m.insert(id, std::move(v));
  return m;
}
message row(const std::string& name, unsigned int value = 1) { return with(with(message(), kName, name), kValue, value); }
unsigned int errorOf(const message& m) {
  unsigned int code = 0;
  return isError(m, &code, nullptr) ? code : 0;
}
std::string errorText(const message& m) {
  std::string text;
  isError(m, nullptr, &text);
  return text;
}
Ids idsOf(const message& reply) {
  Ids out;
  for (const message& o : reply.get(STD_OBJS)) out.push_back(o.get(STD_ID));
  return out;
}

struct Row : SecObject {
  struct State {
    std::string name, secret;
    unsigned int value = 1, bits = 0;
  } s;

  bool isStorable() override { return !(s.bits & kVolatile); }
  bool hasUndo() override { return !(s.bits & kNoUndo); }
  bool notifies() override { return !(s.bits & kQuiet); }
  std::string describe() override { return "row " + s.name; }
  void save(message& m, unsigned int flags) override {
    if (!s.name.empty()) m.insert(kName, s.name);
    m.insert(kValue, s.value);
    if ((flags & kStoreBit) && !s.secret.empty()) m.insert(kSecret, s.secret);
    if (s.bits) m.insert(kBits, s.bits);
  }
  void load(const message& m, unsigned int flags) override {
    m.extract(kName, s.name);
    m.extract(kValue, s.value);
    m.extract(kBits, s.bits);
    if (flags & kStoreBit) m.extract(kSecret, s.secret);
  }
};

// Refuses rows named "bad" and the removal of "keep". An ordered map keeps
// its order in a vector, an unordered one walks the ids.
class TestMap : public ASecMap {
 public:
  TestMap(bool ordered, const std::string& path) : ASecMap(path, 1, 5000, ordered) {}
  ~TestMap() override {
    std::vector<SecObject*> all;
    for (SecObject* o = firstById(); o; o = nextById(o)) all.push_back(o);
    for (SecObject* o : all) delete o;
  }
  Row* row(unsigned int objId) { return static_cast<Row*>(findObj(objId)); }
  Ids inOrder() {
    Ids out;
    for (SecObject* o = nextObj(nullptr, scratch); o; o = nextObj(o, scratch)) out.push_back(o->id);
    return out;
  }
  std::vector<std::string> events;

 protected:
  static bool named(SecObject* o, const char* name) { return static_cast<Row*>(o)->s.name == name; }
  std::vector<SecObject*>::iterator at(SecObject* o) { return std::find(order.begin(), order.end(), o); }
  // Accepts o before `next`, putting it there.
  message accept(SecObject* o, SecObject* next, const message& reply = message()) {
    if (named(o, "bad")) return errorMsg(kRefused, "bad row");
    if (isOrdered() && next != o) {
      if (at(o) != order.end()) order.erase(at(o));
      order.insert(next ? at(next) : order.end(), o);
    }
    return reply;
  }
  message checkRestore(SecObject* o) override { return accept(o, nullptr); }
  message checkAdd(SecObject* o, SecObject* next) override { return accept(o, next, with(message(), kChecked, 1u)); }
  message checkSet(SecObject*, SecObject* o, SecObject* next) override { return accept(o, next); }
  message checkRemove(SecObject* o) override {
    if (named(o, "keep")) return failedMsg("kept");
    if (at(o) != order.end()) order.erase(at(o));
    return message();
  }
  void objAdded(SecObject* o) override { events.push_back("added " + std::to_string(o->id)); }
  void objChanged(SecObject*, SecObject* o) override { events.push_back("changed " + std::to_string(o->id)); }
  void objRemoved(SecObject* o) override { events.push_back("removed " + std::to_string(o->id)); }
  SecObject* prevObj(SecObject* o) override {
    if (!isOrdered()) return prevById(o);
    auto i = at(o);
    return i == order.begin() || i == order.end() ? nullptr : *(i - 1);
  }
  SecObject* nextObj(SecObject* o, message&) override {
    if (!isOrdered()) return o ? nextById(o) : firstById();
    auto i = o ? at(o) : order.begin();
    if (o && i != order.end()) ++i;
    return i == order.end() ? nullptr : *i;
  }
  SecObject* newObj() override { return new Row; }
  void copyObj(SecObject* dst, SecObject* src) override { static_cast<Row*>(dst)->s = static_cast<Row*>(src)->s; }

 private:
  std::vector<SecObject*> order;
  message scratch;
};

// Client [10] asks map [30]; [17] is the undo service. A real kr-store
// serves the private runtime directory; the test clock drives the notify
// flush and the store connection's idle close.
class SecMapTest : public BusFixture {
 protected:
  void SetUp() override {
    BusFixture::SetUp();
    start();
    storeCord().onTimeout();  // no connection to another test's service
    clock = std::make_unique<TestClock>(getJiffies());
    looper->addHandler(kClientId, &client);
    looper->addHandler(HANDLER_UNDO, &undoService);
#ifndef KR_STORE_BINARY
    GTEST_SKIP() << "kr-store is not built";
#else
    service = fork();
    if (service == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);  // a test that aborts takes it along
      for (int fd = 3; fd < 1024; ++fd) close(fd);
      const std::string socket = storeSocketPath(), db = bus->dir.path() + "/store.db";
      execl(KR_STORE_BINARY, "kr-store", "--socket", socket.c_str(), "--db", db.c_str(), "--no-bus", nullptr);
      _exit(127);
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, storeSocketPath().c_str());
    bool up = false;
    for (int i = 0; i < 500 && !up; ++i, usleep(10000)) {
      const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
      up = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
      close(fd);
    }
    ASSERT_TRUE(up) << "kr-store did not come up";
#endif
  }
  void TearDown() override {
    map.reset();
    looper->removeHandler(kClientId);
    looper->removeHandler(HANDLER_UNDO);
    clock->advance(StoreCord::kIdleTicks + 1);  // the store connection closes
    turn(2);
    clock.reset();
    if (service > 0) {
      kill(service, SIGTERM);
      waitpid(service, nullptr, 0);
    }
    BusFixture::TearDown();
  }
  TestMap& open(bool ordered, const std::string& path = kPath) {
    map = std::make_unique<TestMap>(ordered, path);
    looper->addHandler(kMapId, map.get());
    map->init();
    return *map;
  }
  // One turn of the loop. Frames for this process's handlers come back in,
  // as the loader would route them (undo records to [17]).
  void step() {
    looper->step(false);
    loader().pump();
    for (auto it = loader().frames.begin(); it != loader().frames.end();) {
      const Ids to = it->m.get(SYS_TO);
      if (!to.empty() && looper->hasHandler(to[0])) {
        loader().send(it->m);
        it = loader().frames.erase(it);
      } else {
        ++it;
      }
    }
  }
  bool run(const std::function<bool()>& done) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!done() && std::chrono::steady_clock::now() < until) step();
    return done();
  }
  // Lets what is on its way arrive.
  void drain() {
    for (int i = 0; i < 20; ++i) step();
  }
  message ask(message req) {
    req.insert(SYS_TO, {kLocal, kMapId});
    std::optional<message> reply;
    client.postMessage(req, [&](const message& r) { reply = r; }, Handler::kNoTimeout);
    run([&] { return reply.has_value(); });
    return reply.value_or(failedMsg("no reply"));
  }
  message cmd(unsigned int c, message req = message()) { return ask(with(req, SYS_CMD, c)); }
  message obj(unsigned int c, unsigned int objId, message req = message()) { return cmd(c, with(req, STD_ID, objId)); }
  message add(const message& req) { return cmd(CMD_ADDOBJ, req); }
  // The undo records that reached [17] so far.
  std::vector<message> undos() {
    drain();
    return undoService.got;
  }
  // Carries out the change an undo record holds.
  message apply(const message& record) { return ask(record.get(kUndoChange)); }

  // The table as the service holds it, read through a store of its own.
  static std::map<unsigned int, message> stored(const std::string& path = kPath) {
    Store s(path);
    std::map<unsigned int, message> out;
    for (unsigned int rid : s.objectIds()) out[rid] = s.get(rid);
    return out;
  }
  // The stored chain from the order record.
  static Ids chain(const std::string& path = kPath) {
    const auto t = stored(path);
    Ids out;
    auto at = [&](unsigned int rid) { return t.count(rid) ? t.at(rid).get(STD_NEXTID, kEnd) : kEnd; };
    for (unsigned int n = at(kOrder); n != kEnd && t.count(n) && out.size() < 50; n = at(n)) out.push_back(n);
    return out;
  }

  std::unique_ptr<TestClock> clock;
  std::unique_ptr<TestMap> map;
  RecordingHandler client, undoService;
  pid_t service = -1;
};

TEST_F(SecMapTest, ObjectCommandsAndTheirErrors) {
  TestMap& m = open(false);
  message a = add(row("a", 7));
  EXPECT_EQ(a.get(STD_ID), 1u);
  EXPECT_EQ(a.get(kChecked), 1u) << "the check's answer is the reply";
  message got = obj(CMD_GETOBJ, 1);
  EXPECT_EQ(got.get(kName), "a");
  EXPECT_FALSE(got.has(STD_NEXTID)) << "an unordered map has no order to show";
  EXPECT_EQ(errorOf(obj(CMD_SETOBJ, 1, with(message(), kValue, 8u))), 0u);
  EXPECT_EQ(m.row(1)->s.name, "a") << "a set changes only what it carries";
  EXPECT_EQ(stored()[1].get(kValue), 8u);

  for (unsigned int c : {CMD_GETOBJ, CMD_SETOBJ, CMD_MOVEOBJ, CMD_REMOVEOBJ}) {
    EXPECT_EQ(errorOf(obj(c, 99)), ERROR_UNKNOWNID) << std::hex << c;
  }
  EXPECT_EQ(errorOf(add(with(row("x"), STD_ID, 0u))), ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(add(with(row("x"), STD_ID, 5001u))), ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(add(with(row("x"), STD_ID, 1u))), ERROR_EXISTS);
  EXPECT_EQ(errorOf(obj(CMD_SETOBJ, 1, with(message(), STD_NEXTID, 77u))), ERROR_UNKNOWNNEXTID);

  // Refusals: the add is discarded and its id given back, the set rolled
  // back, the removal leaves the object alone.
  EXPECT_EQ(errorOf(add(row("bad"))), kRefused);
  EXPECT_EQ(add(with(row("b"), STD_ID, 2u)).get(STD_ID), 2u);
  EXPECT_EQ(errorText(obj(CMD_SETOBJ, 1, row("bad", 9))), "bad row");
  EXPECT_EQ(m.row(1)->s.name, "a");
  EXPECT_EQ(m.row(1)->s.value, 8u);
  EXPECT_EQ(add(row("keep")).get(STD_ID), 3u);
  EXPECT_EQ(errorText(obj(CMD_REMOVEOBJ, 3)), "kept");
  EXPECT_EQ(stored().size(), 3u);

  EXPECT_EQ(errorOf(obj(CMD_REMOVEOBJ, 1)), 0u);
  EXPECT_EQ(errorOf(obj(CMD_GETOBJ, 1)), ERROR_UNKNOWNID);
  EXPECT_EQ(stored().count(1), 0u);
  EXPECT_EQ(m.events, (std::vector<std::string>{"added 1", "changed 1", "added 2", "added 3", "removed 1"}));

  // Ids are handed out next-fit: the highest id, just freed, is not reused.
  m.row(3)->s.name = "gone";
  obj(CMD_REMOVEOBJ, 3);
  EXPECT_EQ(add(row("c")).get(STD_ID), 4u);
  EXPECT_EQ(stored().count(kOrder), 0u) << "only an ordered map keeps an order record";
}

TEST_F(SecMapTest, GetAndSetServeTablesOfExactlyOneObject) {
  TestMap& m = open(false);
  EXPECT_EQ(getError(cmd(CMD_GET)), "no obj (6)");
  EXPECT_EQ(errorText(cmd(CMD_SET)), "no obj");
  add(with(row("s", 3), kBits, kNoUndo));
  message got = cmd(CMD_GET, with(message(), kFlags, 0x20000005u));
  EXPECT_EQ(got.get(kValue), 3u);
  EXPECT_EQ(got.get(kDefaults), with(message(), kValue, 1u)) << "a new object's fields";

  // CMD_SET records its undo whatever hasUndo() says and skips objChanged();
  // CMD_SETOBJ does neither.
  EXPECT_EQ(errorOf(cmd(CMD_SET, with(message(), kValue, 4u))), 0u);
  EXPECT_EQ(stored()[1].get(kValue), 4u);
  ASSERT_EQ(undos().size(), 1u);
  EXPECT_EQ(undos()[0].get(kUndoText), "row s changed");
  EXPECT_EQ(undos()[0].get(kUndoChange).get(kValue), 3u);
  EXPECT_EQ(m.events, std::vector<std::string>{"added 1"});
  obj(CMD_SETOBJ, 1, with(message(), kValue, 5u));
  EXPECT_EQ(undos().size(), 1u);
  EXPECT_EQ(m.events.back(), "changed 1");

  EXPECT_EQ(errorOf(cmd(CMD_SET, row("bad", 6))), kRefused);
  EXPECT_EQ(m.row(1)->s.value, 5u);
  add(row("t"));
  EXPECT_EQ(getError(cmd(CMD_GET)), "more than one obj (6)");
}

TEST_F(SecMapTest, AnOrderedMapKeepsItsOrderAsAChainInTheStore) {
  TestMap& m = open(true);
  add(row("a"));
  add(row("b"));
  add(with(row("c"), STD_NEXTID, 0u));  // first
  EXPECT_EQ(m.inOrder(), (Ids{3, 1, 2}));
  EXPECT_EQ(chain(), (Ids{3, 1, 2}));
  EXPECT_EQ(errorOf(add(with(row("x"), STD_NEXTID, 77u))), ERROR_UNKNOWNNEXTID);
  add(with(with(row("v"), kBits, kVolatile), STD_NEXTID, 2u));
  EXPECT_EQ(m.inOrder(), (Ids{3, 1, 4, 2}));
  EXPECT_EQ(chain(), (Ids{3, 1, 2})) << "the chain skips objects that are not stored";
  EXPECT_EQ(obj(CMD_GETOBJ, 1).get(STD_NEXTID), 4u) << "the bus sees every object";

  obj(CMD_MOVEOBJ, 1);  // no place: to the end
  EXPECT_EQ(m.inOrder(), (Ids{3, 4, 2, 1}));
  EXPECT_EQ(chain(), (Ids{3, 2, 1}));
  obj(CMD_SETOBJ, 2, with(message(), kValue, 5u));  // no place: where it is
  EXPECT_EQ(m.inOrder(), (Ids{3, 4, 2, 1}));
  obj(CMD_SETOBJ, 2, with(message(), STD_NEXTID, 3u));
  EXPECT_EQ(m.inOrder(), (Ids{2, 3, 4, 1}));
  EXPECT_EQ(chain(), (Ids{2, 3, 1}));
  EXPECT_EQ(errorOf(obj(CMD_MOVEOBJ, 2, with(message(), STD_NEXTID, 99u))), ERROR_UNKNOWNNEXTID);
  obj(CMD_SETOBJ, 3, with(message(), kBits, kVolatile));  // no longer stored
  EXPECT_EQ(chain(), (Ids{2, 1}));
  EXPECT_EQ(stored().count(3), 0u);

  obj(CMD_REMOVEOBJ, 2);  // the first: the order record moves on
  EXPECT_EQ(chain(), (Ids{1}));
  const auto t = stored();
  EXPECT_EQ(t.size(), 2u);
  EXPECT_EQ(t.at(kOrder).count(), 1u) << "the order record holds only STD_NEXTID";
  EXPECT_EQ(idsOf(cmd(CMD_GETALL)), (Ids{3, 4, 1}));
}

TEST_F(SecMapTest, WithAutoStoreOffRecordsWaitForTheFlush) {
  TestMap& m = open(true);
  m.setAutoStore(false);
  add(row("a"));
  add(row("b"));
  obj(CMD_REMOVEOBJ, 1);
  auto t = stored();
  EXPECT_EQ(t.size(), 1u) << "only the order record is written at once";
  EXPECT_EQ(t[kOrder].get(STD_NEXTID), 2u);
  m.setAutoStore(true);
  t = stored();
  EXPECT_EQ(t.size(), 2u);
  EXPECT_EQ(t[2].get(kName), "b");
}

TEST_F(SecMapTest, RestoreFollowsTheChainAndRepairsWhatIsBroken) {
  struct Case {
    const char* name;
    std::vector<std::pair<unsigned int, message>> records;
    Ids nexts;         // their STD_NEXTID; 0: none
    Ids order;         // restored, in order; also the stored chain afterwards
    std::string out;   // written to standard output
  } cases[] = {
      {"intact chain; 2 is not in it", {{kOrder, {}}, {3, row("c")}, {1, with(row("a"), kSecret, "s3")}, {2, row("b")}},
       {3, 1, kEnd, kEnd}, {3, 1}, ""},
      {"no order record", {{5, row("e")}, {2, row("b")}}, {kEnd, 5}, {2, 5},
       "ASecMap[30]: store does not have ORDER_ID\n"},
      {"order record without STD_NEXTID", {{kOrder, {}}, {4, row("d")}, {2, row("b")}}, {0, kEnd, 4}, {2, 4},
       "ASecMap[30]: store ORDER_ID does not contain STD_NEXTID\n"},
      {"order record names a missing record", {{kOrder, {}}, {1, row("a")}}, {9, kEnd}, {1},
       "ASecMap[30]: store does not have nextID obj 9\n"},
      // 2 lost its STD_NEXTID and 1 points at a record that is gone: both
      // are written again.
      {"record without STD_NEXTID", {{1, row("a")}, {2, row("b")}}, {5, 0}, {1, 2},
       "ASecMap[30]: store does not have ORDER_ID\n"},
      {"refused record", {{1, row("bad")}, {2, row("b")}}, {kEnd, kEnd}, {2},
       "ASecMap[30]: store does not have ORDER_ID\nload from store error: bad row (16580609)\n"},
      {"chain that loops", {{kOrder, {}}, {1, row("a")}, {2, row("b")}}, {1, 2, 1}, {1, 2},
       "ASecMap[30]: store chain returns to 1\n"},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = "/rw/store/restore" + std::to_string(n++);
    for (size_t i = 0; i < c.records.size(); ++i) {
      message rec = c.records[i].second;
      if (c.nexts[i]) rec.insert(STD_NEXTID, c.nexts[i]);
      Store(path).set(c.records[i].first, rec);
    }
    testing::internal::CaptureStdout();
    TestMap& m = open(true, path);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
    EXPECT_EQ(m.inOrder(), c.order);
    EXPECT_EQ(chain(path), c.order);
    EXPECT_EQ(stored(path).count(1), m.row(1) ? 1u : 0u) << "a refused record is deleted";
    map.reset();
  }
  // The store-only field comes back from the store and goes back into it,
  // but never travels on the bus, whatever flags the caller sends.
  TestMap& m = open(true, "/rw/store/restore0");
  EXPECT_EQ(m.row(1)->s.secret, "s3");
  EXPECT_FALSE(obj(CMD_GETOBJ, 1, with(message(), kFlags, 0x80000005u)).has(kSecret));
  obj(CMD_SETOBJ, 1, with(message(), kSecret, "changed"));
  EXPECT_EQ(m.row(1)->s.secret, "s3");
  EXPECT_EQ(stored("/rw/store/restore0")[1].get(kSecret), "s3");
}

TEST_F(SecMapTest, SubscribersHearOfChangesAndRemovals) {
  open(false);
  client.subscribe({kLocal, kMapId}, CMD_NOTIFY, message());
  ASSERT_TRUE(run([&] { return map->hasSubscriptions(); }));
  auto notified = [&] {
    clock->advance(20);  // the coalescing delay
    drain();
    std::vector<message> objs;
    for (const message& m : client.got) {
      for (const message& o : m.get(STD_OBJS)) objs.push_back(o);
    }
    client.got.clear();
    return objs;
  };
  add(row("a", 2));
  std::vector<message> objs = notified();
  ASSERT_EQ(objs.size(), 1u);
  EXPECT_EQ(objs[0].get(kValue), 2u);
  obj(CMD_SETOBJ, 1, with(message(), kValue, 3u));
  objs = notified();
  ASSERT_EQ(objs.size(), 1u);
  EXPECT_EQ(objs[0].get(kValue), 3u);

  add(with(row("q"), kBits, kQuiet));
  obj(CMD_REMOVEOBJ, 1);
  objs = notified();
  ASSERT_EQ(objs.size(), 1u) << "a quiet object is not announced";
  EXPECT_EQ(objs[0].get(STD_ID), 1u);
  EXPECT_EQ(objs[0].get(STD_DEAD), 1u);
}

TEST_F(SecMapTest, UndoRecordsReachTheUndoServiceAndRevertTheChange) {
  TestMap& m = open(true);
  for (const char* name : {"a", "b", "c"}) add(row(name, 2));
  std::vector<message> recs = undos();
  ASSERT_EQ(recs.size(), 3u);
  EXPECT_EQ(recs[1].get(SYS_FROM), Ids{kMapId});
  EXPECT_EQ(recs[1].get(kUndoText), "row b added");
  EXPECT_EQ(recs[1].get(kUndoChange), with(with(message(), SYS_CMD, CMD_REMOVEOBJ), STD_ID, 2u));

  obj(CMD_SETOBJ, 2, with(row("B", 20), STD_NEXTID, 0u));
  ASSERT_EQ(undos().size(), 4u);
  EXPECT_EQ(undos()[3].get(kUndoText), "row B changed");
  EXPECT_EQ(errorOf(apply(undos()[3])), 0u);
  EXPECT_EQ(m.row(2)->s.name, "b");
  EXPECT_EQ(m.row(2)->s.value, 2u);
  EXPECT_EQ(m.inOrder(), (Ids{1, 2, 3})) << "back in its old place";

  obj(CMD_REMOVEOBJ, 2);
  ASSERT_EQ(undos().size(), 6u);  // the applied undo recorded its own
  EXPECT_EQ(undos()[5].get(kUndoText), "row b removed");
  EXPECT_EQ(errorOf(apply(undos()[5])), 0u);
  EXPECT_EQ(m.inOrder(), (Ids{1, 2, 3}));

  EXPECT_EQ(errorOf(apply(recs[2])), 0u);  // the add of c
  EXPECT_EQ(m.inOrder(), (Ids{1, 2}));
  const size_t before = undos().size();
  add(with(row("n"), kBits, kNoUndo));
  obj(CMD_SETOBJ, 4, with(message(), kValue, 9u));
  obj(CMD_REMOVEOBJ, 4);
  EXPECT_EQ(undos().size(), before) << "an object without undo records nothing";
}

TEST_F(SecMapTest, GetAllPagesAtAThousandObjectsAndSixteenKilobytes) {
  TestMap& m = open(false);
  auto page = [&](unsigned int from, unsigned int count = 0) {
    message q = with(message(), STD_GETALLNO, count);
    if (from != kEnd) q.insert(STD_GETALLID, from);
    return cmd(CMD_GETALL, q);
  };
  for (unsigned int i = 0; i < 1500; ++i) {  // ids 1..1500, shuffled
    Row* r = new Row;
    r->id = i * 7919 % 1500 + 1;
    m.add(r, false);
  }
  message p = page(kEnd);
  EXPECT_EQ(p.size(STD_OBJS), 1000u);
  EXPECT_EQ(p.get(STD_GETALLID), 1001u);
  EXPECT_EQ(page(kEnd, 5000).size(STD_OBJS), 1000u) << "a count above 1000 is 1000";
  p = page(1001);
  EXPECT_EQ(p.size(STD_OBJS), 500u);
  EXPECT_FALSE(p.has(STD_GETALLID)) << "the last page";
  p = page(1490, 7);
  EXPECT_EQ(idsOf(p), (Ids{1490, 1491, 1492, 1493, 1494, 1495, 1496}));
  EXPECT_EQ(p.get(STD_GETALLID), 1497u);
  EXPECT_EQ(errorOf(page(1501)), ERROR_UNKNOWNID);
  // The id tree stays whole through removals from all over it.
  Ids kept, walk;
  for (unsigned int i = 1; i <= 1500; ++i) {
    if ((i * 2654435761u >> 28) & 1) m.remove(m.findObj(i));
    else kept.push_back(i);
  }
  for (SecObject* o = m.firstById(); o; o = m.nextById(o)) walk.push_back(o->id);
  EXPECT_EQ(walk, kept);
  EXPECT_EQ(m.prevById(m.findObj(kept.back()))->id, kept[kept.size() - 2]);

  map.reset();
  TestMap& big = open(false);
  for (size_t len : {6000, 6000, 6000, 17000}) {
    Row* r = new Row;
    r->s.name.assign(len, 'x');
    big.add(r, false);
  }
  p = cmd(CMD_GETALL, with(message(), kFlags, 0x20000005u));
  EXPECT_EQ(idsOf(p), (Ids{1, 2}));
  EXPECT_EQ(p.get(STD_GETALLID), 3u);
  EXPECT_EQ(p.get(kDefaults).get(kValue), 1u);
  EXPECT_EQ(idsOf(page(3)), Ids{3});
  // Alone it is still too big: an empty page that names it again.
  p = page(4);
  EXPECT_TRUE(p.has(STD_OBJS));
  EXPECT_EQ(p.size(STD_OBJS), 0u);
  EXPECT_EQ(p.get(STD_GETALLID), 4u);
}

// The paged client against the real map: it follows the map's continuation
// from page to page in the map's order, and an object too big for any
// page is neither skipped nor sent: the walk stays on it, asking again, so
// a reader sees where the table is stuck instead of a table with a hole.
TEST_F(SecMapTest, AsyncRegetWalksTheMapInOrderAndStopsAtAnObjectNoPageHolds) {
  struct Walk {
    AsyncReget reget;
    Ids ids;
    std::map<unsigned int, size_t> pages;  // continuation asked for -> objects it brought
    std::vector<message> done;
    static void object(void* ctx, const message& o) {
      Walk* w = static_cast<Walk*>(ctx);
      w->ids.push_back(o.get(STD_ID));
      ++w->pages[w->reget.currentRequest().get(STD_GETALLID, kEnd)];
    }
    static void end(void* ctx, const message& r) { static_cast<Walk*>(ctx)->done.push_back(r); }
    // Addressed past the process, so that every page goes out to the
    // loader and comes back: each round trip is a turn of the loop.
    void start() {
      message q = with(message(), SYS_CMD, CMD_GETALL);
      q.insert(SYS_TO, {kMapId});
      reget.start(q, this, &object, &end, AsyncReget::kDefaultTimeout);
    }
  };

  // 1500 rows taken in under shuffled ids; the walk must bring them in id
  // order, the order of an unordered map. Each is 15 flat bytes, so the
  // count ends the first page, not the byte limit.
  TestMap& m = open(false);
  Ids order;
  for (unsigned int i = 0; i < 1500; ++i) {
    Row* r = new Row;
    r->id = i * 7919 % 1500 + 1;
    m.add(r, false);
    order.push_back(i + 1);
  }
  Walk all;
  all.start();
  ASSERT_TRUE(run([&] { return !all.done.empty(); }));
  EXPECT_EQ(all.ids, order);
  EXPECT_EQ(all.pages, (std::map<unsigned int, size_t>{{kEnd, 1000}, {order[1000], 500}}))
      << "a first page of 1000, then the rest from the 1001st in order";
  ASSERT_EQ(all.done.size(), 1u);
  EXPECT_EQ(errorOf(all.done[0]), 0u);
  EXPECT_EQ(all.done[0].size(STD_OBJS), 500u) << "onDone gets the last page";
  EXPECT_FALSE(all.done[0].has(STD_GETALLID));
  EXPECT_FALSE(all.reget.isRunning());

  // Row 3's flat form (over 16384 bytes, under the store's 65536) fits no
  // page, not even alone.
  map.reset();
  TestMap& big = open(false, "/rw/store/big");
  for (size_t len : {10, 10, 17000, 10}) {
    Row* r = new Row;
    r->s.name.assign(len, 'x');
    big.add(r, false);
  }
  Walk stuck;
  stuck.start();
  std::set<unsigned int> requests;
  for (int i = 0; i < 60; ++i) {
    step();
    requests.insert(stuck.reget.requestId());
  }
  EXPECT_EQ(stuck.ids, (Ids{1, 2})) << "nothing skipped, nothing delivered twice";
  EXPECT_EQ(stuck.pages, (std::map<unsigned int, size_t>{{kEnd, 2}}));
  EXPECT_TRUE(stuck.done.empty()) << "the walk is not over";
  EXPECT_TRUE(stuck.reget.isRunning());
  EXPECT_EQ(stuck.reget.currentRequest().get(STD_GETALLID), 3u);
  EXPECT_GT(requests.size(), 3u) << "it keeps asking for row 3";
  stuck.reget.stop();
  EXPECT_EQ(looper->pendingRequests(), 0u);
}

}  // namespace
}  // namespace kr
