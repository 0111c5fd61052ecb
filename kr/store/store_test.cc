// The store client against the real kr-store, plus a scripted service for
// the one reply kr-store never sends on purpose: a failed listing page.
#include "kr/store/store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "kr/loop/clock.h"
#include "kr/loop/runner.h"
#include "kr/util/runtime_dir.h"

namespace kr {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;
using Ids = std::vector<unsigned>;

constexpr unsigned kPerPage = (StoreCord::kInitialBuffer - 12) / 4;  // ids in a 1024-byte reply

message object(unsigned v, size_t text = 8) {
  message m;
  m.insert(u32_id(1), v);
  m.insert(string_id(2), std::string(text, 'x'));
  return m;
}
size_t flatSize(const message& m) {
  std::vector<unsigned char> f;
  m.flatten(f);
  return f.size();
}
// An object whose flat form is `size` bytes, when a text length gives it.
message objectOfFlatSize(size_t size) {
  size_t text = size - flatSize(object(0, 0));
  while (text > 0 && flatSize(object(0, text)) > size) --text;
  return object(0, text);
}
Ids idsOf(const Store& s) { return {s.objectIds().begin(), s.objectIds().end()}; }

sockaddr_un storeAddress() {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strcpy(a.sun_path, storeSocketPath().c_str());
  return a;
}

// A private runtime directory per test, and the process's connection
// dropped around each, so that no test reaches another test's service.
class StoreClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dirTemplate[] = "/tmp/kr-storecli-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    dir = dirTemplate;
    setenv("KR_RUNTIME_DIR", dir.c_str(), 1);
    storeCord().onTimeout();
  }
  void TearDown() override {
    stopService();
    storeCord().onTimeout();
    std::filesystem::remove_all(dir);
    unsetenv("KR_RUNTIME_DIR");
    EXPECT_EQ(getRunner(), nullptr);
  }

  void stopService() {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(std::exchange(pid, -1), nullptr, 0);
  }

  std::string dir;
  pid_t pid = -1;
};

// The same with kr-store on the test's socket, once it accepts connections.
class StoreServiceTest : public StoreClientTest {
  void SetUp() override {
    StoreClientTest::SetUp();
#ifndef KR_STORE_BINARY
    GTEST_SKIP() << "kr-store is not built";
#else
    const std::string socket = storeSocketPath(), db = dir + "/store.db", log = dir + "/kr-store.log";
    if ((pid = fork()) == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);  // a crashed test leaves no service behind
      const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      dup2(out, 1);
      dup2(out, 2);
      execl(KR_STORE_BINARY, "kr-store", "--socket", socket.c_str(), "--db", db.c_str(), "--no-bus", nullptr);
      _exit(127);
    }
    const sockaddr_un a = storeAddress();
    for (int i = 0; i < 500; ++i, usleep(10000)) {
      const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
      const bool up = connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
      close(fd);
      if (up) return;
    }
    FAIL() << "kr-store did not come up";
#endif
  }
};

TEST(StoreNameTest, DropsOnlyTheTwoStoreDirectories) {
  EXPECT_EQ(Store::nameOf("/kora/store/ifaces"), "ifaces");
  EXPECT_EQ(Store::nameOf("/rw/store/ifaces"), "ifaces");
  EXPECT_EQ(Store::nameOf("/var/store/ifaces"), "/var/store/ifaces");
  EXPECT_EQ(Store::nameOf("/kora/storeifaces"), "/kora/storeifaces");
}

TEST_F(StoreServiceTest, ObjectsOutliveTheStoreThatWroteThem) {
  {
    Store s("/rw/store/ifaces");
    EXPECT_TRUE(s.isFresh());
    s.set(1, object(1));
    s.set(7, object(7));
    s.set(Store::kOrderRecord, object(99));  // the highest id a store holds
    EXPECT_FALSE(s.isFresh());
  }
  storeCord().onTimeout();
  Store again("/kora/store/ifaces");  // the same table
  EXPECT_FALSE(again.isFresh());
  EXPECT_EQ(idsOf(again), (Ids{1, 7, Store::kOrderRecord}));
  EXPECT_TRUE(again.get(7) == object(7));
  EXPECT_TRUE(again.get(Store::kOrderRecord) == object(99));
  EXPECT_TRUE(again.remove(1));
  EXPECT_EQ(idsOf(Store("ifaces")), (Ids{7, Store::kOrderRecord}));
  again.removeAll();
  EXPECT_TRUE(idsOf(again).empty());
  EXPECT_TRUE(idsOf(Store("ifaces")).empty());
}

// Neighbours come from the read-ahead, and unknown ids cost no request.
TEST_F(StoreServiceTest, ReadsWithoutTheServiceWhereTheyCan) {
  Store s("ahead");
  for (unsigned id = 1; id <= 20; ++id) s.set(id, object(id));
  EXPECT_TRUE(s.get(1) == object(1));
  s.set(2, object(200));  // makes what was read ahead stale
  EXPECT_TRUE(s.get(2) == object(200));
  EXPECT_TRUE(s.get(1) == object(1));
  const size_t cached = storeCord().cachedEntries();
  EXPECT_GT(cached, 10u);
  stopService();  // from now on any request would fail loudly
  CaptureStderr();
  CaptureStdout();
  for (unsigned id = 2; id <= cached; ++id) EXPECT_TRUE(s.get(id) == object(id == 2 ? 200 : id)) << id;
  EXPECT_TRUE(s.get(42).empty());
  EXPECT_FALSE(s.remove(42));
  EXPECT_FALSE(s.remove(Store::kNoId));
  EXPECT_EQ(GetCapturedStdout() + GetCapturedStderr(), "");
}

TEST_F(StoreServiceTest, AnObjectTheServiceLostIsReported) {
  Store writer("shared");
  writer.set(3, object(3));
  Store reader("shared");
  ASSERT_TRUE(writer.remove(3));
  CaptureStdout();
  EXPECT_TRUE(reader.get(3).empty());
  EXPECT_EQ(GetCapturedStdout(), "ERROR: missing entry sid=" + std::to_string(reader.storeId()) + ", id=3\n");
}

TEST_F(StoreServiceTest, LargeObjects) {
  Store writer("sizes");
  writer.set(1, object(1));
  Store reader("sizes");  // knows id 1
  const message large = object(1, 3 * StoreCord::kInitialBuffer);
  writer.set(1, large);
  storeCord().onTimeout();  // the buffer starts at 1024 bytes again
  EXPECT_TRUE(reader.get(1) == large) << "a cut-off entry is asked for again with room";
  EXPECT_GE(storeCord().bufferCapacity(), flatSize(large) + 12);

  // Flat forms from 65536 bytes on are silently not stored.
  const message limit = objectOfFlatSize(65535), over = objectOfFlatSize(65536);
  ASSERT_EQ(flatSize(limit), 65535u);
  ASSERT_EQ(flatSize(over), 65536u);
  writer.set(2, limit);
  CaptureStderr();
  CaptureStdout();
  writer.set(3, over);
  EXPECT_EQ(GetCapturedStdout() + GetCapturedStderr(), "");
  EXPECT_FALSE(writer.has(3));
  Store again("sizes");
  EXPECT_EQ(idsOf(again), (Ids{1, 2}));
  EXPECT_TRUE(again.get(2) == limit);
}

TEST_F(StoreServiceTest, IdleConnectionClosesAfter1000TicksAndNeverUsesDescriptor3) {
  TestClock clock(50000);
  Runner loop;
  Store s("idle");
  s.set(1, object(1));
  clock.advance(999);
  loop.step(false);
  EXPECT_TRUE(storeCord().isOpen());
  clock.advance(1);
  loop.step(false);
  EXPECT_FALSE(storeCord().isOpen());
  EXPECT_EQ(storeCord().bufferCapacity(), 0u);

  const int saved = fcntl(3, F_DUPFD_CLOEXEC, 10);  // -1 when 3 is free already
  close(3);
  EXPECT_TRUE(s.get(1) == object(1));  // reopens
  EXPECT_NE(storeCord().descriptor(), 3);
  EXPECT_EQ(fcntl(3, F_GETFD), -1);
  if (saved >= 0) dup2(saved, 3), close(saved);
}

TEST_F(StoreClientTest, UnreachableServiceGivesAnEmptyStore) {
  CaptureStderr();
  Store s("absent");
  s.set(1, object(1));
  EXPECT_NE(GetCapturedStderr().find("connect"), std::string::npos);
  EXPECT_EQ(s.storeId(), StoreCord::kNoStore);
  EXPECT_TRUE(idsOf(s).empty());
  EXPECT_TRUE(s.get(1).empty());
  EXPECT_FALSE(s.remove(1));
}

TEST_F(StoreServiceTest, BackupAndResetAnswerTheServicesStatus) {
  Store("settings").set(1, object(1));
  const std::string backup = dir + "/backup.db";
  EXPECT_TRUE(createBackup(backup, false, "nightly"));
  EXPECT_FALSE(createBackup(backup, false, "nightly")) << "exists, and no overwrite";
  EXPECT_TRUE(resetConfig(true));
  Store after("settings");
  EXPECT_TRUE(idsOf(after).empty() && after.isFresh());
}

// A page that fails is asked for again with the same cookie; a page that
// fills the buffer exactly is followed by one more request.
TEST_F(StoreClientTest, ListingRepeatsAFailedPageAndAsksPastAFullOne) {
  auto word = [](const std::string& s, int i) { unsigned w; std::memcpy(&w, s.data() + 4 * i, 4); return w; };
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  const sockaddr_un a = storeAddress();
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  std::vector<std::string> requests;
  std::thread service([&] {  // the client blocks while it answers
    const int conn = accept(listener, nullptr, nullptr);
    std::string packet(1 << 16, '\0');
    int failures = 1;
    for (ssize_t n; conn >= 0 && (n = read(conn, packet.data(), packet.size())) > 0;) {
      const unsigned cookie = word(requests.emplace_back(packet.substr(0, n)), 1);
      Ids reply{9, 0, 1024};
      if (cookie != 0xFFFFFFFF && failures-- > 0) reply.clear();
      for (unsigned id = cookie + 1; !reply.empty() && id < cookie + 1 + kPerPage && id < 2 * kPerPage; ++id)
        reply.push_back(id);
      send(conn, reply.data(), 4 * reply.size(), MSG_NOSIGNAL);
    }
    close(conn);
  });
  Store s("paged");
  storeCord().onTimeout();        // the client hangs up, which ends the thread,
  shutdown(listener, SHUT_RDWR);  // or it never called
  service.join();
  close(listener);
  EXPECT_EQ(s.storeId(), 9u);
  EXPECT_EQ(idsOf(s).size(), 2 * kPerPage);
  Ids cookies;
  for (const std::string& r : requests) cookies.push_back(word(r, 1));
  EXPECT_EQ(cookies, (Ids{0xFFFFFFFF, kPerPage - 1, kPerPage - 1, 2 * kPerPage - 1}));
  EXPECT_EQ(word(requests[0], 0), 0u);
  EXPECT_EQ(word(requests[0], 2), StoreCord::kInitialBuffer);
  EXPECT_EQ(requests[0].substr(12), "paged");
}

}  // namespace
}  // namespace kr
