// kr-store end to end: the real process in a scratch directory, raw
// request packets on real SOCK_SEQPACKET sockets, and, for the bus, the
// real kr-loader starting and stopping it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "kr/testing/child_process.h"
#include "kr/util/unique_fd.h"
#include "platform/loader/test_client.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Ids = std::vector<uint32_t>;
using kr::loader::testing::TempDir;

constexpr uint32_t kFromStart = 0xFFFFFFFF;
// Status words, as docs/store.md lists them.
constexpr uint32_t kOk = 0, kMalformed = 1, kUnknownStore = 2, kNotFound = 3, kFailed = 4, kExists = 5;

Bytes words(std::initializer_list<uint32_t> ws, const Bytes& tail = {}) {
  Bytes b(ws.size() * 4);
  std::memcpy(b.data(), std::data(ws), b.size());
  b.insert(b.end(), tail.begin(), tail.end());
  return b;
}
Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }
uint32_t word(const Bytes& b, size_t i) {
  uint32_t w = 0xDEADBEEF;
  if (b.size() >= 4 * (i + 1)) std::memcpy(&w, b.data() + 4 * i, 4);
  return w;
}
// An object's bytes: recognisable, and different for every (id, size).
Bytes pattern(uint32_t id, size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = uint8_t(id * 31 + i);
  return b;
}
std::string slurp(const std::string& path) {
  std::stringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

// One client connection; every request waits at most 5 s for its answer.
class Conn {
 public:
  explicit Conn(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    fd_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (connect(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fd_.reset();
  }
  bool ok() const { return bool(fd_); }
  // One packet, and one reply read into `room` bytes (a longer one is cut,
  // as the kernel does). Empty on failure.
  Bytes call(const Bytes& request, size_t room = 1 << 20) {
    Bytes reply(room);
    pollfd p{fd_.get(), POLLIN, 0};
    if (send(fd_.get(), request.data(), request.size(), MSG_NOSIGNAL) != ssize_t(request.size()) ||
        poll(&p, 1, 5000) != 1)
      return {};
    const ssize_t n = recv(fd_.get(), reply.data(), reply.size(), 0);
    reply.resize(n > 0 ? size_t(n) : 0);
    return reply;
  }
  Bytes list(const std::string& name, uint32_t cookie = kFromStart, uint32_t room = 1024) {
    return call(words({0, cookie, room}, text(name)), room);
  }
  uint32_t sid(const std::string& name) { return word(list(name), 0); }
  Bytes get(uint32_t sid, uint32_t id, uint32_t room = 1024) { return call(words({1, sid, id, room}), room); }
  uint32_t put(uint32_t sid, uint32_t id, const Bytes& data) { return word(call(words({2, sid, id}, data)), 0); }
  // Every id of a store, paging the way kr::StoreCord does.
  Ids listAll(const std::string& name, uint32_t room = 1024, int* pages = nullptr) {
    Ids all;
    for (int page = 1;; ++page) {
      const Bytes r = list(name, all.empty() ? kFromStart : all.back(), room);
      if (r.size() < 12) return {kFromStart};  // a failure shows in the comparison
      for (size_t i = 3; i < r.size() / 4; ++i) all.push_back(word(r, i));
      if (r.size() == 12 + 4 * ((room - 12) / 4)) continue;
      if (pages) *pages = page;
      return all;
    }
  }

 private:
  kr::UniqueFd fd_;
};

// The entries of a kind-1 reply: id -> bytes.
std::map<uint32_t, Bytes> entries(const Bytes& r) {
  std::map<uint32_t, Bytes> out;
  for (size_t at = 0; at + 12 <= r.size();) {
    uint32_t h[3];
    std::memcpy(h, r.data() + at, 12);
    if (h[2] > r.size() - at - 12) break;
    out[h[1]].assign(r.begin() + long(at + 12), r.begin() + long(at + 12 + h[2]));
    at += 12 + h[2];
  }
  return out;
}

// kr-store --no-bus in `dir`; its standard error is appended to dir/store.log.
class StoreProcess : public kr::testing::ChildProcess {
 public:
  StoreProcess(const std::string& dir, const std::string& db, const std::string& socket)
      : ChildProcess(KR_STORE_BINARY, {"--no-bus", "--socket", socket, "--db", db},
                     {.err = dir + "/store.log", .append = true}),
        socket_(socket) {}
  // A connection, once the service answers (within 5 s); null if it ended.
  std::unique_ptr<Conn> connect() {
    for (int i = 0; i < 500 && running(); ++i, usleep(10000)) {
      if (auto c = std::make_unique<Conn>(socket_); c->ok()) return c;
    }
    return nullptr;
  }
  // Its exit status (-1: killed or still running after 5 s).
  int waitExit() { return wait(5000); }
  int stop() { return ChildProcess::stop(5000); }
  void killHard() { signal(SIGKILL); }

 private:
  std::string socket_;
};

class storeService : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(start(), nullptr); }
  void TearDown() override {
    if (store_) {
      EXPECT_EQ(store_->stop(), 0) << log();
    }
    store_.reset();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
  }
  // (Re)starts the service; a connection to it, or null when it did not come up.
  Conn* start() {
    conn_.reset();
    store_.reset();  // a killed one is reaped first: its socket is gone then
    store_ = std::make_unique<StoreProcess>(dir_.path, db(), socket());
    conn_ = store_->connect();
    return conn_.get();
  }
  Conn* restart() {
    EXPECT_EQ(store_->stop(), 0) << log();
    return start();
  }
  // Starts it expecting a refusal; the exit status.
  int startRefused() {
    store_ = std::make_unique<StoreProcess>(dir_.path, db(), socket());
    return std::exchange(store_, nullptr)->waitExit();
  }
  std::string db() const { return dir_.path + "/store/kr-store.db"; }
  std::string socket() const { return dir_.path + "/storereg"; }
  std::string log() const { return slurp(dir_.path + "/store.log"); }

  TempDir dir_;
  std::unique_ptr<StoreProcess> store_;
  std::unique_ptr<Conn> conn_;
};

TEST_F(storeService, ListingGivesStableStoreIdsAndPagesUntilAPageIsNotFull) {
  Conn& c = *conn_;
  EXPECT_EQ(c.list("alpha"), words({c.sid("alpha"), 1, 1024})) << "new: no ids, fresh, the smallest buffer";
  const uint32_t alpha = c.sid("alpha");
  EXPECT_NE(c.sid("beta"), alpha);
  Ids all;
  for (uint32_t i = 0; i < 80; ++i) {
    all.push_back(i + 1);
    ASSERT_EQ(c.put(alpha, (i * 37) % 80 + 1, pattern(i, 10)), kOk);  // in no particular order
  }
  // Forty ids per page: two exactly full pages, then an empty one ends it.
  int pages = 0;
  EXPECT_EQ(c.listAll("alpha", 12 + 40 * 4, &pages), all);
  EXPECT_EQ(pages, 3);
  EXPECT_EQ(c.list("alpha", 40, 12 + 40 * 4 + 3).size(), 12 + 40 * 4u) << "(size - 12) / 4 ids, never more";
  EXPECT_EQ(c.listAll("alpha", 16, &pages), all);
  EXPECT_EQ(pages, 81);
  EXPECT_EQ(word(c.list("alpha"), 1), 0u) << "written: no longer fresh";
  EXPECT_EQ(c.listAll("beta"), Ids{}) << "stores do not share ids";
  ASSERT_EQ(c.put(alpha, 4, pattern(4, 3000)), kOk);
  EXPECT_EQ(word(c.list("alpha"), 2), 3012u) << "room for the largest object";
}

TEST_F(storeService, GetSendsTheAskedEntryAndTheFollowingOnesThatFit) {
  Conn& c = *conn_;
  const uint32_t a = c.sid("a"), b = c.sid("b");
  for (uint32_t id : {10u, 20u, 30u, 40u}) ASSERT_EQ(c.put(a, id, pattern(id, id * 5)), kOk);
  ASSERT_EQ(c.put(b, 25, pattern(25, 8)), kOk);
  const Bytes reply = c.get(a, 20);
  EXPECT_EQ(word(reply, 0), a);
  auto got = entries(reply);
  EXPECT_EQ(got.size(), 3u) << "20, 30 and 40, not b's 25";
  EXPECT_EQ(got[20], pattern(20, 100));
  EXPECT_EQ(got[40], pattern(40, 200));
  const uint32_t two = (12 + 50) + (12 + 100);  // entries 10 and 20 exactly
  EXPECT_EQ(entries(c.get(a, 10, two)).size(), 2u);
  EXPECT_EQ(entries(c.get(a, 10, two - 1)).size(), 1u);
  EXPECT_EQ(c.get(a, 15), words({kNotFound})) << "shorter than an entry";
  EXPECT_EQ(c.get(9999, 10), words({kUnknownStore}));

  // An entry larger than the buffer arrives cut; its header tells the size to ask with.
  ASSERT_EQ(c.put(a, 7, pattern(7, 5000)), kOk);
  EXPECT_EQ(word(c.list("a"), 2), 5012u);
  const Bytes cut = c.get(a, 7, 1024);
  ASSERT_EQ(cut.size(), 1024u);
  EXPECT_EQ(word(cut, 2), 5000u);
  EXPECT_EQ(entries(c.get(a, 7, 12 + word(cut, 2))), (std::map<uint32_t, Bytes>{{7, pattern(7, 5000)}}));
  EXPECT_EQ(entries(c.get(a, 7, 5012 + 62)).size(), 2u);
}

TEST_F(storeService, UpdatesReplaceAndDeleteObjects) {
  Conn& c = *conn_;
  const uint32_t s = c.sid("objs");
  ASSERT_EQ(c.put(s, 1, text("first")), kOk);
  ASSERT_EQ(c.put(s, 1, text("second, longer")), kOk);
  EXPECT_EQ(entries(c.get(s, 1))[1], text("second, longer"));
  EXPECT_EQ(c.put(s, 1, {}), kOk) << "no bytes: delete";
  EXPECT_EQ(word(c.get(s, 1), 0), kNotFound);
  EXPECT_EQ(c.put(s, 1, {}), kOk) << "deleting what is gone is no error";
  EXPECT_EQ(c.list("objs"), words({s, 0, 1024})) << "emptied is not fresh";
  EXPECT_EQ(c.put(s, 0xFFFFFFFE, pattern(1, 65535)), kOk) << "the largest object at the highest id";
  EXPECT_EQ(c.listAll("objs"), Ids{0xFFFFFFFE});
  EXPECT_EQ(c.put(s + 100, 1, text("x")), kUnknownStore);
}

TEST_F(storeService, MalformedPacketsAreAnsweredWithAnErrorAndEveryoneKeepsBeingServed) {
  Conn& good = *conn_;
  Conn bad(socket());
  const uint32_t s = good.sid("kept");
  const Bytes packets[] = {
      {},                                        // empty
      {0, 0, 0},                                 // shorter than a word
      words({9, 0, 0, 0}),                       // unknown kind
      words({0, kFromStart, 1024}),              // listing without a name
      words({0, kFromStart, 12}, text("kept")),  // no room for one id
      words({1, s, 1, 1024}, {0}),               // get with a byte left over
      words({2, s, 0xFFFFFFFF}, text("x")),      // the reserved id
      words({3, 0, 100}, text("/tmp/short")),    // a length past the end
      words({3, 0, 6}, text("backup")),          // a relative file name
      words({4}),                                // reset without its flag
      words({2, s, 1}, Bytes(70000, 1)),         // longer than any request
  };
  for (uint32_t i = 0; i < std::size(packets); ++i) {
    EXPECT_EQ(bad.call(packets[i]), words({kMalformed})) << "packet " << i;
    ASSERT_EQ(good.put(s, i, text("ok")), kOk);
  }
  EXPECT_EQ(bad.put(s, 100, text("fine")), kOk) << "the bad client is still served";
  EXPECT_EQ(good.listAll("kept").size(), std::size(packets) + 1);
  std::istringstream lines(log());
  int logged = 0;
  for (std::string line; std::getline(lines, line);)
    logged += line.rfind("kr-store: client pid ", 0) == 0 && line.find("malformed request") != line.npos;
  EXPECT_EQ(logged, int(std::size(packets))) << log();
}

TEST_F(storeService, EveryAnsweredWriteSurvivesSigkill) {
  const uint32_t s = conn_->sid("stream");
  std::atomic<uint32_t> answered{0};
  std::atomic<bool> stopped{false};
  std::thread killer([&] {
    while (answered < 300 && !stopped) usleep(1000);
    store_->killHard();
  });
  for (uint32_t id = 0;; ++id) {
    const Bytes r = conn_->call(words({2, s, id}, pattern(id, 100 + id % 1500)));
    if (r.size() != 4 || word(r, 0) != kOk) break;  // the service is gone
    answered = id + 1;
  }
  stopped = true;
  killer.join();
  ASSERT_GE(answered, 300u);
  Conn* c = start();
  ASSERT_NE(c, nullptr) << log();
  const Ids ids = c->listAll("stream", 4096);
  ASSERT_GE(ids.size(), answered.load());
  for (uint32_t id = 0; id < answered; ++id) {
    ASSERT_EQ(ids[id], id);
    ASSERT_EQ(entries(c->get(s, id, 2048))[id], pattern(id, 100 + id % 1500)) << "object " << id;
  }
}

TEST_F(storeService, ADatabaseThatIsNotHealthyIsRefusedAndLeftAsItIs) {
  const uint32_t s = conn_->sid("victim");
  for (uint32_t id = 0; id < 40; ++id) ASSERT_EQ(conn_->put(s, id, pattern(id, 3000)), kOk);
  ASSERT_EQ(std::exchange(store_, nullptr)->stop(), 0);

  // A page in the middle overwritten: SQLite still opens the file.
  std::string bytes = slurp(db());
  ASSERT_GT(bytes.size(), 8u * 4096) << "the log was not folded into the file at the stop";
  for (size_t i = 5 * 4096; i < 5 * 4096 + 64; ++i) bytes[i] = char(0xA5);
  std::ofstream(db(), std::ios::binary | std::ios::trunc) << bytes;
  EXPECT_EQ(startRefused(), 3);
  EXPECT_EQ(slurp(db()), bytes);
  EXPECT_NE(log().find("kr-store: " + db() + ": "), std::string::npos) << log();
  EXPECT_NE(log().find("the file is left as it is"), std::string::npos) << log();

  const std::string garbage(10000, 'x');
  std::ofstream(db(), std::ios::binary | std::ios::trunc) << garbage;
  EXPECT_EQ(startRefused(), 3);
  EXPECT_EQ(slurp(db()), garbage);
  EXPECT_NE(log().find("not a usable database: file is not a database"), std::string::npos) << log();

  ASSERT_EQ(unlink(db().c_str()), 0);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(db().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(other);
  EXPECT_EQ(startRefused(), 3);
  EXPECT_NE(log().find("not a kr-store database"), std::string::npos) << log();
}

TEST_F(storeService, BackupWritesALabelledCopyThatAnotherServiceCanServe) {
  Conn& c = *conn_;
  const uint32_t s = c.sid("cfg");
  for (uint32_t id = 1; id <= 3; ++id) ASSERT_EQ(c.put(s, id, pattern(id, 200)), kOk);
  const std::string copy = dir_.path + "/copy.db";
  auto backup = [&](uint32_t flag, const std::string& path, const std::string& label) {
    return word(c.call(words({3, flag, uint32_t(path.size())}, text(path + label))), 0);
  };
  ASSERT_EQ(backup(0, copy, "before upgrade"), kOk);
  EXPECT_EQ(backup(0, copy, "again"), kExists);
  ASSERT_EQ(c.put(s, 4, pattern(4, 200)), kOk);
  EXPECT_EQ(backup(1, copy, "after upgrade"), kOk) << "flag set: replace";
  EXPECT_EQ(backup(1, dir_.path + "/no/such/dir/x.db", ""), kFailed);
  EXPECT_EQ(backup(1, db(), ""), kFailed) << "never over the live database";
  EXPECT_EQ(backup(1, db() + "-wal", ""), kFailed) << "nor over its log";
  EXPECT_EQ(c.listAll("cfg"), (Ids{1, 2, 3, 4})) << "still serving its own file";

  sqlite3* raw = nullptr;
  sqlite3_stmt* q = nullptr;
  ASSERT_EQ(sqlite3_open_v2(copy.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_prepare_v2(raw, "SELECT value FROM settings WHERE key = 'label'", -1, &q, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(q), SQLITE_ROW);
  EXPECT_EQ(std::string(static_cast<const char*>(sqlite3_column_blob(q, 0)), size_t(sqlite3_column_bytes(q, 0))),
            "after upgrade");
  sqlite3_finalize(q);
  sqlite3_close(raw);
  EXPECT_EQ(slurp(copy)[18], 1) << "a self-contained file, not one that needs a log";

  StoreProcess second(dir_.path, copy, dir_.path + "/second");
  auto other = second.connect();
  ASSERT_NE(other, nullptr) << log();
  EXPECT_EQ(other->listAll("cfg"), (Ids{1, 2, 3, 4}));
  EXPECT_EQ(entries(other->get(s, 4))[4], pattern(4, 200));
  EXPECT_EQ(second.stop(), 0);
}

TEST_F(storeService, ResetErasesEveryObjectNowOrAtTheNextStart) {
  const uint32_t a = conn_->sid("a"), b = conn_->sid("b");
  ASSERT_EQ(conn_->put(a, 1, text("x")), kOk);
  ASSERT_EQ(conn_->put(b, 2, text("y")), kOk);
  ASSERT_EQ(conn_->call(words({4, 0})), words({kOk}));
  EXPECT_EQ(conn_->listAll("a"), Ids{1}) << "flag clear: nothing changes until the next start";
  Conn* c = restart();
  ASSERT_NE(c, nullptr) << log();
  EXPECT_EQ(c->list("a"), words({a, 1, 1024})) << "same id, fresh, empty";
  const uint32_t later = c->sid("c");
  EXPECT_TRUE(later != a && later != b) << "a new store after a restart gets a new id";
  EXPECT_NE(log().find("reset carried out"), std::string::npos) << log();
  EXPECT_EQ(c->listAll("b"), Ids{});

  ASSERT_EQ(c->put(b, 2, text("y")), kOk);
  c = restart();
  ASSERT_NE(c, nullptr) << log();
  EXPECT_EQ(c->listAll("b"), Ids{2}) << "the scheduled reset happened once";
  ASSERT_EQ(c->call(words({4, 1})), words({kOk}));
  EXPECT_EQ(c->list("b"), words({b, 1, 1024})) << "flag set: at once";
}

// Started by kr-loader with the default paths under KR_RUNTIME_DIR, it holds
// bus address 6, and the loader's stop makes it leave and exit cleanly.
TEST(storeServiceOnTheBus, StartedByTheLoaderItJoinsTheBusAndLeavesWhenAsked) {
  TempDir dir;
  {
    kr::loader::testing::LoaderProcess loader(KR_LOADER_BINARY, dir.path, "daemon 6 never " KR_STORE_BINARY "\n");
    std::unique_ptr<Conn> c;
    for (int i = 0; i < 500 && !(c && c->ok()); ++i, usleep(10000)) c = std::make_unique<Conn>(dir.path + "/storereg");
    ASSERT_TRUE(c && c->ok()) << loader.log();
    EXPECT_EQ(c->put(c->sid("on-bus"), 1, text("x")), kOk);

    kr::loader::testing::Client bus(loader.socketPath());
    ASSERT_EQ(bus.join(0).get(kr::SYS_CTRL), kr::loader::kCtrlReady);
    kr::message ping, reply;
    ping.insert_vector(kr::SYS_TO, 6u);
    kr::setRequestID(ping, 1);
    ping.insert(kr::SYS_REPLYEXP, true);
    ASSERT_TRUE(bus.send(ping) && bus.recv(&reply)) << loader.log();
    EXPECT_TRUE(kr::isReply(reply) && !kr::isError(reply, nullptr, nullptr)) << loader.log();

    EXPECT_EQ(loader.stop(), 0);
    const std::string log = loader.log();
    EXPECT_NE(log.find("kr-store: stopped"), std::string::npos) << log;
    EXPECT_EQ(log.find("kr-store: signal"), std::string::npos) << "left through the leave protocol\n" << log;
    EXPECT_NE(log.find("address 6 (pid"), std::string::npos) << log;
    EXPECT_NE(log.find("exited with status 0"), std::string::npos) << log;
  }
  struct stat st {};
  EXPECT_NE(lstat((dir.path + "/storereg").c_str(), &st), 0) << "socket file removed";
  EXPECT_EQ(lstat((dir.path + "/store/kr-store.db").c_str(), &st), 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child left behind";
}

}  // namespace
