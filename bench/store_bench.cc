// kr::Store through the real kr-store against the same rows written
// straight to SQLite, in the same run: sets, gets, and a read of a whole
// table in id order (kr through its read-ahead, SQLite with one scan).
//
// Both sides store the same flat bytes in the same table layout with the
// same durability (WAL journal, synchronous=FULL, exclusive locking, one
// transaction per change), and both hand back a parsed kr::message, so the
// difference is what the service costs: a round trip over a local socket
// and the service's own work. A table at the end gives the ratios.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/median_reporter.h"
#include "kr/kr.h"

namespace {

constexpr unsigned kObjects = 1000;  // ids 0..999 in each table
// Gets jump by this stride, so that the next id is never among the ones
// read ahead with the last: every get is a round trip.
constexpr unsigned kStride = 7919;

[[noreturn]] void die(const std::string& why) {
  std::fprintf(stderr, "store_bench: %s\n", why.c_str());
  std::exit(1);
}

// ---- The object --------------------------------------------------------------------
// Ten fields, about 150 flat bytes: a typical interface entry.
constexpr kr::u32_id kId{1}, kMtu{2}, kVlan{3}, kFlags{4};
constexpr kr::bool_id kEnabled{5}, kDhcp{6};
constexpr kr::string_id kName{7}, kDescr{8};
constexpr kr::addr6_id kAddr{9};
constexpr kr::u32_array_id kPorts{10};

kr::message makeObject(unsigned id) {
  kr::message m;
  m.insert(kId, id);
  m.insert(kMtu, 9000u);
  m.insert(kVlan, 120u);
  m.insert(kFlags, 0x80000011u);
  m.insert(kEnabled, true);
  m.insert(kDhcp, true);
  m.insert(kName, std::string("GigabitEthernet0/1/2"));
  m.insert(kDescr, std::string("uplink to core-sw-01, rack 4 port 17"));
  kr::IPAddr6 addr;
  addr.fromStr("2001:db8:0:12::1");
  m.insert(kAddr, addr);
  m.insert(kPorts, std::vector<unsigned>{22, 80, 443, 8080});
  return m;
}

// ---- kr-store ------------------------------------------------------------------------
struct Service {
  std::string dir;
  pid_t pid = -1;

  bool reachable() const {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, kr::storeSocketPath().c_str());
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
  }
  void start() {
    const std::string socket = kr::storeSocketPath(), db = dir + "/kr-store.db";
    pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);  // a benchmark that dies takes the service along
      execl(KR_STORE_BINARY, "kr-store", "--socket", socket.c_str(), "--db", db.c_str(), "--no-bus", nullptr);
      _exit(127);
    }
    for (int i = 0; i < 500 && !reachable(); ++i) usleep(10000);
    if (!reachable()) die("kr-store did not come up");
  }
  void stop() {
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) die("kr-store did not exit cleanly");
  }
};

// ---- SQLite, as kr-store uses it -------------------------------------------------
class Direct {
 public:
  explicit Direct(const std::string& path) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) die("sqlite3_open");
    exec("PRAGMA locking_mode = EXCLUSIVE");
    exec("PRAGMA journal_mode = WAL");
    exec("PRAGMA synchronous = FULL");
    exec("CREATE TABLE objects(sid INTEGER NOT NULL, id INTEGER NOT NULL, data BLOB NOT NULL, "
         "PRIMARY KEY (sid, id))");
    upsert_ = prepare("INSERT INTO objects(sid, id, data) VALUES (1, ?1, ?2) "
                      "ON CONFLICT(sid, id) DO UPDATE SET data = excluded.data");
    select_ = prepare("SELECT data FROM objects WHERE sid = 1 AND id = ?1");
    scan_ = prepare("SELECT id, data FROM objects WHERE sid = 1 ORDER BY id");
  }
  ~Direct() {
    for (sqlite3_stmt* s : {upsert_, select_, scan_}) sqlite3_finalize(s);
    sqlite3_close(db_);
  }

  // Flattens as kr::Store::set does, into a buffer that keeps its capacity.
  void set(unsigned id, const kr::message& m) {
    m.flatten(flat_);
    sqlite3_bind_int64(upsert_, 1, id);
    sqlite3_bind_blob(upsert_, 2, flat_.data(), int(flat_.size()), SQLITE_STATIC);
    if (sqlite3_step(upsert_) != SQLITE_DONE) die(sqlite3_errmsg(db_));
    sqlite3_reset(upsert_);
  }
  kr::message get(unsigned id) {
    sqlite3_bind_int64(select_, 1, id);
    kr::message m;
    if (sqlite3_step(select_) == SQLITE_ROW) m = parse(select_, 0);
    sqlite3_reset(select_);
    return m;
  }
  // Every object in id order; returns how many.
  unsigned scan() {
    unsigned n = 0;
    while (sqlite3_step(scan_) == SQLITE_ROW) {
      kr::message m = parse(scan_, 1);
      benchmark::DoNotOptimize(m);
      ++n;
    }
    sqlite3_reset(scan_);
    return n;
  }

 private:
  static kr::message parse(sqlite3_stmt* s, int column) {
    const auto* data = static_cast<const unsigned char*>(sqlite3_column_blob(s, column));
    return kr::message(data, unsigned(sqlite3_column_bytes(s, column)));
  }
  void exec(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) die(sqlite3_errmsg(db_));
  }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &s, nullptr) != SQLITE_OK) die(sqlite3_errmsg(db_));
    return s;
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt *upsert_ = nullptr, *select_ = nullptr, *scan_ = nullptr;
  std::vector<unsigned char> flat_;
};

kr::Store* g_store = nullptr;
Direct* g_direct = nullptr;
kr::message g_object;

// ---- Benchmarks --------------------------------------------------------------------
// Sets replace existing objects, as configuration changes do. Each writes
// a changed value: SQLite skips the write (and the sync) of a row whose
// bytes did not change.
template <class Table>
void Set(benchmark::State& st, Table* table) {
  kr::message m = g_object;
  unsigned i = 0;
  for (auto _ : st) {
    m.insert(kMtu, i);
    table->set(i++ % kObjects, m);
  }
  st.SetItemsProcessed(st.iterations());
}
void SetKr(benchmark::State& st) { Set(st, g_store); }
void SetSqlite(benchmark::State& st) { Set(st, g_direct); }
void GetKr(benchmark::State& st) {
  unsigned i = 0;
  for (auto _ : st) {
    kr::message m = g_store->get((i += kStride) % kObjects);
    if (m.empty()) die("get/kr: an object is missing");
    benchmark::DoNotOptimize(m);
  }
  st.SetItemsProcessed(st.iterations());
}
void GetSqlite(benchmark::State& st) {
  unsigned i = 0;
  for (auto _ : st) {
    kr::message m = g_direct->get((i += kStride) % kObjects);
    if (m.empty()) die("get/sqlite: an object is missing");
    benchmark::DoNotOptimize(m);
  }
  st.SetItemsProcessed(st.iterations());
}
// One iteration reads the whole table: kr one get per id, served mostly
// from the read-ahead; SQLite one ordered scan.
void ScanKr(benchmark::State& st) {
  size_t perReply = 0;
  for (auto _ : st) {
    for (unsigned id = 0; id < kObjects; ++id) {
      kr::message m = g_store->get(id);
      if (m.empty()) die("scan/kr: an object is missing");
      benchmark::DoNotOptimize(m);
      if (id == 0) perReply = kr::storeCord().cachedEntries();
    }
  }
  // Objects that one reply brings: one round trip per that many gets.
  st.counters["per_reply"] = double(perReply);
  st.SetItemsProcessed(st.iterations() * kObjects);
}
void ScanSqlite(benchmark::State& st) {
  for (auto _ : st) {
    if (g_direct->scan() != kObjects) die("scan/sqlite: objects are missing");
  }
  st.SetItemsProcessed(st.iterations() * kObjects);
}

// ---- Ratio table -------------------------------------------------------------------
// Prints the console output as usual and keeps the wall time per object of
// each run (the median when repeated) for a table at the end.
class RatioReporter : public MedianReporter {
 public:
  void keep(const std::string& name, const Run& r) override {
    ns_[name] = name.starts_with("scan") ? realNs(r) / kObjects : realNs(r);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-6s %12s %12s %14s %14s %10s\n", "op", "kr us", "sqlite us", "kr ops/s", "sqlite ops/s",
                "kr/sqlite");
    for (const char* op : {"set", "get", "scan"}) {
      const std::string k = std::string(op) + "/kr", s = std::string(op) + "/sqlite";
      if (!ns_.count(k) || !ns_.count(s)) continue;
      std::printf("%-6s %12.2f %12.2f %14.0f %14.0f %10.2f\n", op, ns_[k] / 1e3, ns_[s] / 1e3, 1e9 / ns_[k],
                  1e9 / ns_[s], ns_[k] / ns_[s]);
    }
    std::printf("Wall time per object; kr/sqlite > 1: kr costs that many times the direct write or read.\n");
  }

 private:
  std::map<std::string, double> ns_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  char dirTemplate[] = "/tmp/kr-store-bench-XXXXXX";
  if (!mkdtemp(dirTemplate)) die("mkdtemp");
  Service service{dirTemplate};
  setenv("KR_RUNTIME_DIR", service.dir.c_str(), 1);
  service.start();

  g_object = makeObject(4711);
  std::vector<unsigned char> flat;
  g_object.flatten(flat);
  std::printf("object: 10 fields, %zu flat bytes; tables of %u objects\n", flat.size(), kObjects);
  {
    kr::Store store("/rw/store/bench");
    Direct direct(service.dir + "/direct.db");
    for (unsigned id = 0; id < kObjects; ++id) {
      store.set(id, g_object);
      direct.set(id, g_object);
    }
    if (!(store.get(17) == g_object) || !(direct.get(17) == g_object)) die("an object did not come back");
    g_store = &store;
    g_direct = &direct;

    using Fn = void (*)(benchmark::State&);
    const std::pair<const char*, Fn> runs[] = {{"set/kr", SetKr},   {"set/sqlite", SetSqlite},
                                               {"get/kr", GetKr},   {"get/sqlite", GetSqlite},
                                               {"scan/kr", ScanKr}, {"scan/sqlite", ScanSqlite}};
    for (auto [name, fn] : runs) benchmark::RegisterBenchmark(name, fn)->UseRealTime();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
  }
  kr::storeCord().onTimeout();
  service.stop();
  std::filesystem::remove_all(service.dir);
  benchmark::Shutdown();
  return 0;
}
