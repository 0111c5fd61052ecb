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
#include <functional>
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

// Answers each request of the one connection a test makes with
// script(request), on its own thread. The client blocks while the script
// runs, so the script and the test may share variables.
class FakeService {
 public:
  explicit FakeService(std::function<std::string(const std::string&)> script) {
    const sockaddr_un a = storeAddress();
    EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    thread = std::thread([this, script] {
      const int conn = accept(listener, nullptr, nullptr);
      std::string packet(1 << 16, '\0');
      for (ssize_t n; conn >= 0 && (n = read(conn, packet.data(), packet.size())) > 0;) {
        requests.push_back(packet.substr(0, n));
        const std::string reply = script(requests.back());
        send(conn, reply.data(), reply.size(), MSG_NOSIGNAL);
      }
      close(conn);
    });
  }
  ~FakeService() {
    storeCord().onTimeout();        // the client hangs up, which ends the thread,
    shutdown(listener, SHUT_RDWR);  // or it never called
    thread.join();
    close(listener);
  }
  std::vector<std::string> requests;

 private:
  int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  std::thread thread;
};

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

  // kr-store on this test's socket and database (kept across restarts);
  // "" once it accepts connections.
  std::string startService() {
#ifndef KR_STORE_BINARY
    return "kr-store is not built";
#else
    const std::string socket = storeSocketPath(), db = dir + "/store.db", log = dir + "/kr-store.log";
    pid = fork();
    if (pid == 0) {
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
      if (up) return "";
    }
    return "kr-store did not come up";
#endif
  }
  void stopService() {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(std::exchange(pid, -1), nullptr, 0);
  }

  std::string dir;
  pid_t pid = -1;
};

#define START_SERVICE()                                      \
  do {                                                       \
    const std::string why = startService();                  \
    if (why == "kr-store is not built") GTEST_SKIP() << why; \
    ASSERT_EQ(why, "");                                      \
  } while (0)

TEST(StoreNameTest, DropsOnlyTheTwoStoreDirectories) {
  EXPECT_EQ(Store::nameOf("/kora/store/ifaces"), "ifaces");
  EXPECT_EQ(Store::nameOf("/rw/store/ifaces"), "ifaces");
  EXPECT_EQ(Store::nameOf("/var/store/ifaces"), "/var/store/ifaces");
  EXPECT_EQ(Store::nameOf("/kora/storeifaces"), "/kora/storeifaces");
}

TEST_F(StoreClientTest, ObjectsSurviveTheClientAndTheService) {
  START_SERVICE();
  {
    Store s("/rw/store/ifaces");
    EXPECT_TRUE(s.isFresh());
    s.set(1, object(1));
    s.set(7, object(7));
    s.set(7, object(70));
    s.set(Store::kOrderRecord, object(99));
    EXPECT_FALSE(s.isFresh());
  }
  stopService();
  storeCord().onTimeout();
  START_SERVICE();

  Store again("/kora/store/ifaces");  // the same table
  EXPECT_FALSE(again.isFresh());
  EXPECT_EQ(idsOf(again), (Ids{1, 7, Store::kOrderRecord}));
  EXPECT_TRUE(again.get(7) == object(70));
  EXPECT_TRUE(again.get(Store::kOrderRecord) == object(99));
  EXPECT_TRUE(again.remove(1));
  EXPECT_FALSE(again.remove(1));
  EXPECT_TRUE(idsOf(Store("/var/ifaces")).empty()) << "another directory is another table";

  Store third("ifaces");
  EXPECT_EQ(idsOf(third), (Ids{7, Store::kOrderRecord}));
  third.removeAll();
  EXPECT_TRUE(idsOf(third).empty());
  EXPECT_TRUE(idsOf(Store("ifaces")).empty());
}

TEST_F(StoreClientTest, ListingOfSeveralPagesEndingExactlyFull) {
  START_SERVICE();
  {
    Store s("big");
    for (unsigned i = 0; i < 3 * kPerPage; ++i) s.set(3 * i, object(i));
  }
  storeCord().onTimeout();  // pages of 1024 bytes again
  const Ids ids = idsOf(Store("big"));
  ASSERT_EQ(ids.size(), 3 * kPerPage);
  for (unsigned i = 0; i < ids.size(); ++i) ASSERT_EQ(ids[i], 3 * i);
}

TEST_F(StoreClientTest, NeighboursComeFromTheReadAheadWithoutTheService) {
  START_SERVICE();
  Store s("ahead");
  for (unsigned id = 1; id <= 20; ++id) s.set(id, object(id));
  EXPECT_TRUE(s.get(1) == object(1));
  s.set(2, object(200));  // makes what was read ahead stale
  EXPECT_TRUE(s.get(2) == object(200));
  EXPECT_TRUE(s.get(1) == object(1));
  const size_t cached = storeCord().cachedEntries();
  EXPECT_GT(cached, 10u);
  stopService();
  CaptureStderr();
  for (unsigned id = 2; id <= cached; ++id) EXPECT_TRUE(s.get(id) == object(id == 2 ? 200 : id)) << id;
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(StoreClientTest, CutOffEntryIsAskedForAgainWithRoom) {
  START_SERVICE();
  Store writer("cut");
  writer.set(1, object(1));
  Store reader("cut");  // knows id 1
  const message large = object(1, 3 * StoreCord::kInitialBuffer);
  writer.set(1, large);
  storeCord().onTimeout();  // the buffer starts at 1024 bytes again
  EXPECT_TRUE(reader.get(1) == large);
  EXPECT_GE(storeCord().bufferCapacity(), flatSize(large) + 12);
}

TEST_F(StoreClientTest, FlatFormsFrom65536BytesAreSilentlyNotStored) {
  START_SERVICE();
  const message limit = objectOfFlatSize(65535), over = objectOfFlatSize(65536);
  ASSERT_EQ(flatSize(limit), 65535u);
  ASSERT_EQ(flatSize(over), 65536u);
  {
    Store s("sizes");
    s.set(1, limit);
    CaptureStderr();
    CaptureStdout();
    s.set(2, over);
    EXPECT_EQ(GetCapturedStdout() + GetCapturedStderr(), "");
    EXPECT_FALSE(s.has(2));
  }
  Store s("sizes");
  EXPECT_EQ(idsOf(s), Ids{1});
  EXPECT_TRUE(s.get(1) == limit);
}

TEST_F(StoreClientTest, UnknownIdsCostNoRequestAndLostOnesAreReported) {
  START_SERVICE();
  Store writer("shared");
  writer.set(3, object(3));
  Store reader("shared");
  ASSERT_TRUE(writer.remove(3));
  CaptureStdout();
  EXPECT_TRUE(reader.get(3).empty());
  EXPECT_EQ(GetCapturedStdout(), "ERROR: missing entry sid=" + std::to_string(reader.storeId()) + ", id=3\n");

  stopService();  // from now on any request would fail loudly
  CaptureStderr();
  CaptureStdout();
  EXPECT_TRUE(reader.get(42).empty());
  EXPECT_FALSE(reader.remove(42));
  EXPECT_FALSE(reader.remove(Store::kNoId));
  EXPECT_EQ(GetCapturedStdout() + GetCapturedStderr(), "");
}

TEST_F(StoreClientTest, IdleConnectionClosesAfter1000TicksAndReopens) {
  START_SERVICE();
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
  EXPECT_TRUE(s.get(1) == object(1));
  EXPECT_TRUE(storeCord().isOpen());
}

TEST_F(StoreClientTest, NeverUsesDescriptor3) {
  START_SERVICE();
  const int saved = fcntl(3, F_DUPFD_CLOEXEC, 10);  // -1 when 3 is free already
  close(3);
  ASSERT_TRUE(storeCord().connect());
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

TEST_F(StoreClientTest, BackupAndResetAnswerTheServicesStatus) {
  START_SERVICE();
  Store("settings").set(1, object(1));
  const std::string backup = dir + "/backup.db";
  EXPECT_TRUE(createBackup(backup, false, "nightly"));
  EXPECT_FALSE(createBackup(backup, false, "nightly")) << "exists, and no overwrite";
  EXPECT_TRUE(createBackup(backup, true, "nightly"));
  EXPECT_TRUE(resetConfig(true));
  Store after("settings");
  EXPECT_TRUE(idsOf(after).empty());
  EXPECT_TRUE(after.isFresh());
}

// A page that fails is asked for again with the same cookie; a page that
// fills the buffer exactly is followed by one more request.
TEST_F(StoreClientTest, ListingRepeatsAFailedPageAndAsksPastAFullOne) {
  int failures = 1;
  auto word = [](const std::string& s, int i) {
    unsigned w;
    std::memcpy(&w, s.data() + 4 * i, 4);
    return w;
  };
  FakeService service([&](const std::string& r) {
    const unsigned cookie = word(r, 1);
    if (cookie != 0xFFFFFFFF && failures-- > 0) return std::string();
    Ids reply{9, 0, 1024};
    for (unsigned id = cookie + 1; id < cookie + 1 + kPerPage && id < 2 * kPerPage; ++id) reply.push_back(id);
    return std::string(reinterpret_cast<const char*>(reply.data()), 4 * reply.size());
  });
  Store s("paged");
  EXPECT_EQ(s.storeId(), 9u);
  EXPECT_EQ(idsOf(s).size(), 2 * kPerPage);
  Ids cookies;
  for (const std::string& r : service.requests) cookies.push_back(word(r, 1));
  EXPECT_EQ(cookies, (Ids{0xFFFFFFFF, kPerPage - 1, kPerPage - 1, 2 * kPerPage - 1}));
  EXPECT_EQ(word(service.requests[0], 0), 0u);
  EXPECT_EQ(word(service.requests[0], 2), StoreCord::kInitialBuffer);
  EXPECT_EQ(service.requests[0].substr(12), "paged");
}

}  // namespace
}  // namespace kr
