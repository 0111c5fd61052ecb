// kr::ASecMap and kr::AsyncReget with the real kr-store and the real
// kr-loader, on a table of 10,000 typical objects (about 100 flat bytes):
//   start-up  constructing an ordered map and init(), which restores the
//             whole chain from kr-store: once with the chain in id order
//             (the store client's read-ahead brings the next records along)
//             and once with it shuffled (every record is a round trip), and
//             once more the way a daemon runs it, with its Looper's runner
//             (every store round trip arms an idle timer then);
//   getall    a second process walks the whole table with kr::AsyncReget
//             through kr-loader, pages of at most 1000 objects and 16384
//             bytes: objects per second;
//   memory    the heap growth (mallinfo2) of the serving process with the
//             map restored, per object.
// Not a Google Benchmark binary: each figure is one kind of run, repeated
// a few times, and the median is printed. It takes no options. Two to six
// seconds, depending on the machine.
//
// Both services live in a scratch KR_RUNTIME_DIR (on /dev/shm, so that
// writing the tables does not wait for the disk) that is removed at the
// end; they, and the client, die with the benchmark (PDEATHSIG).
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kr/kr.h"

namespace {

constexpr unsigned int kObjects = 10000;
constexpr unsigned int kServerAddress = 100;  // a fixed bus address for the serving process
constexpr unsigned int kMapHandler = 30;
constexpr int kStartReps = 5;
constexpr int kWalks = 10;
constexpr unsigned int kEnd = kr::ASecMap::kEndOfChain;
const char kIdOrderPath[] = "/rw/store/secmap-bench-idorder";
const char kShuffledPath[] = "/rw/store/secmap-bench-shuffled";

std::vector<pid_t> g_children;
std::string g_dir;

// Ends the run without leaving a service or the scratch directory behind.
[[noreturn]] void die(const std::string& why) {
  std::fprintf(stderr, "secmap_bench: %s\n", why.c_str());
  for (pid_t p : g_children) kill(p, SIGTERM);
  for (pid_t p : g_children) waitpid(p, nullptr, 0);
  std::error_code ec;
  if (!g_dir.empty()) std::filesystem::remove_all(g_dir, ec);
  std::exit(1);
}

double secondsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// ---- The table -------------------------------------------------------------------------
// An interface entry as a service would keep it: two strings, two u32 and a
// flag. The map's order is a list threaded through the objects, as a
// service with a large ordered table keeps it.
constexpr kr::string_id kName{1}, kDescr{2};
constexpr kr::u32_id kMtu{3}, kVlan{4};
constexpr kr::bool_id kDisabled{5};

struct Entry : kr::SecObject {
  std::string name, descr;
  unsigned int mtu = 1500, vlan = 1;
  bool disabled = false;
  Entry *prev = nullptr, *next = nullptr;

  bool isStorable() override { return true; }
  bool hasUndo() override { return true; }
  bool notifies() override { return true; }
  std::string describe() override { return "interface " + name; }
  void save(kr::message& m, unsigned int) override {
    m.insert(kName, name);
    m.insert(kDescr, descr);
    m.insert(kMtu, mtu);
    m.insert(kVlan, vlan);
    m.insert(kDisabled, disabled);
  }
  void load(const kr::message& m, unsigned int) override {
    m.extract(kName, name);
    m.extract(kDescr, descr);
    m.extract(kMtu, mtu);
    m.extract(kVlan, vlan);
    m.extract(kDisabled, disabled);
  }
};

void fill(Entry& e, unsigned int id) {
  e.name = "GigabitEthernet0/" + std::to_string(id / 48) + "/" + std::to_string(id % 48);
  e.descr = "uplink to core-sw-01, rack " + std::to_string(id % 40) + " port 17";
  e.mtu = 9000;
  e.vlan = 100 + id % 4000;
  e.disabled = id % 7 == 0;
}

class Table : public kr::ASecMap {
 public:
  explicit Table(const std::string& path) : ASecMap(path, 1, 0xFFFF, true) {}
  ~Table() override {
    for (Entry* e = head; e;) {
      Entry* n = e->next;
      delete e;
      e = n;
    }
  }
  // The ids in the map's order.
  std::vector<unsigned int> order() const {
    std::vector<unsigned int> out;
    for (Entry* e = head; e; e = e->next) out.push_back(e->id);
    return out;
  }

 protected:
  void link(Entry* e, Entry* before) {
    e->next = before;
    e->prev = before ? before->prev : tail;
    (e->prev ? e->prev->next : head) = e;
    (before ? before->prev : tail) = e;
  }
  void unlink(Entry* e) {
    (e->prev ? e->prev->next : head) = e->next;
    (e->next ? e->next->prev : tail) = e->prev;
    e->prev = e->next = nullptr;
  }
  // Restore runs in chain order: each object goes to the end.
  kr::message checkRestore(kr::SecObject* o) override {
    link(static_cast<Entry*>(o), nullptr);
    return kr::message();
  }
  kr::message checkAdd(kr::SecObject* o, kr::SecObject* next) override {
    link(static_cast<Entry*>(o), static_cast<Entry*>(next));
    return kr::message();
  }
  kr::message checkSet(kr::SecObject*, kr::SecObject* o, kr::SecObject* next) override {
    Entry* e = static_cast<Entry*>(o);
    if (next != o && next != e->next) {
      unlink(e);
      link(e, static_cast<Entry*>(next));
    }
    return kr::message();
  }
  kr::message checkRemove(kr::SecObject* o) override {
    unlink(static_cast<Entry*>(o));
    return kr::message();
  }
  void objAdded(kr::SecObject*) override {}
  void objChanged(kr::SecObject*, kr::SecObject*) override {}
  void objRemoved(kr::SecObject*) override {}
  kr::SecObject* prevObj(kr::SecObject* o) override { return static_cast<Entry*>(o)->prev; }
  kr::SecObject* nextObj(kr::SecObject* o, kr::message&) override {
    return o ? static_cast<Entry*>(o)->next : head;
  }
  kr::SecObject* newObj() override { return new Entry; }
  void copyObj(kr::SecObject* dst, kr::SecObject* src) override {
    Entry* d = static_cast<Entry*>(dst);
    const Entry* s = static_cast<Entry*>(src);
    d->name = s->name;
    d->descr = s->descr;
    d->mtu = s->mtu;
    d->vlan = s->vlan;
    d->disabled = s->disabled;
  }

 private:
  Entry *head = nullptr, *tail = nullptr;
};

// Writes the records as the map itself would have: each with STD_ID, its
// fields and STD_NEXTID along `chain`, plus the order record.
size_t writeTable(const char* path, const std::vector<unsigned int>& chain) {
  kr::Store store(path);
  size_t flat = 0;
  for (size_t i = 0; i < chain.size(); ++i) {
    Entry e;
    fill(e, chain[i]);
    kr::message rec;
    rec.insert(kr::STD_ID, chain[i]);
    e.save(rec, kr::SecObject::kStoreFlags);
    rec.insert(kr::STD_NEXTID, i + 1 < chain.size() ? chain[i + 1] : kEnd);
    std::vector<unsigned char> bytes;
    rec.flatten(bytes);
    flat = bytes.size();
    store.set(chain[i], rec);
  }
  kr::message order;
  order.insert(kr::STD_NEXTID, chain.front());
  store.set(kr::ASecMap::kOrderRecord, order);
  for (unsigned int id : {chain.front(), chain.back()}) {
    if (!store.has(id)) die(std::string("kr-store did not keep the records of ") + path);
  }
  return flat;
}

// Constructs and restores a map; dies unless it came back whole and in
// `chain` order. Returns the seconds taken.
double startUp(const char* path, const std::vector<unsigned int>& chain, std::unique_ptr<Table>* keep = nullptr) {
  kr::storeCord().onTimeout();  // a daemon that starts has no connection yet
  const auto t0 = std::chrono::steady_clock::now();
  auto map = std::make_unique<Table>(path);
  map->init();
  const double s = secondsSince(t0);
  if (map->size() != kObjects || map->order() != chain) die(std::string("restore of ") + path + " is incomplete");
  if (keep) *keep = std::move(map);
  return s;
}

// ---- The services ----------------------------------------------------------------------
bool reachable(const std::string& path, int type) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

// Runs `argv` with its output in `log`; returns once `socketPath` accepts.
pid_t startService(std::vector<std::string> argv, const std::string& log, const std::string& socketPath, int type) {
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
    }
    std::vector<char*> args;
    for (std::string& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  if (pid < 0) die("fork failed");
  g_children.push_back(pid);
  for (int i = 0; i < 500 && !reachable(socketPath, type); ++i) usleep(10000);
  if (!reachable(socketPath, type)) die(argv[0] + " did not come up; see " + log);
  return pid;
}

// ---- The client: walks the table through the loader -----------------------------------
struct WalkResult {
  int ok = 0;
  unsigned int pages = 0;
  double seconds[kWalks] = {};
  char error[160] = {};
};

struct Walker {
  kr::AsyncReget reget;
  unsigned int objects = 0, pages = 0, lastFrom = 0;
  bool finished = false, inOrder = true;
  kr::message last;

  static void object(void* ctx, const kr::message& o) {
    Walker* w = static_cast<Walker*>(ctx);
    // A page is the run of objects asked for with one continuation.
    const unsigned int from = w->reget.currentRequest().get(kr::STD_GETALLID, kEnd);
    if (w->objects == 0 || from != w->lastFrom) ++w->pages;
    w->lastFrom = from;
    static const std::string kNone;
    if (o.get(kr::STD_ID) != w->objects + 1 || o.get_const<std::string>(kName.id, kNone).empty()) w->inOrder = false;
    ++w->objects;
  }
  static void done(void* ctx, const kr::message& r) {
    Walker* w = static_cast<Walker*>(ctx);
    w->last = r;
    w->finished = true;
  }
};

int client(int gate, int results) {
  char go;
  if (read(gate, &go, 1) != 1) return 1;  // the server gave up
  kr::Looper looper(kr::Looper::kConnectPath, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  WalkResult r;
  kr::message q;
  q.insert_vector(kr::SYS_TO, kServerAddress, kMapHandler);
  q.insert(kr::SYS_CMD, kr::CMD_GETALL);
  r.ok = 1;
  for (int i = 0; i < kWalks && r.ok; ++i) {
    Walker w;
    const auto t0 = std::chrono::steady_clock::now();
    w.reget.start(q, &w, &Walker::object, &Walker::done, kr::AsyncReget::kDefaultTimeout);
    while (!w.finished && looper.step(true)) {
    }
    r.seconds[i] = secondsSince(t0);
    r.pages = w.pages;
    if (kr::isError(w.last, nullptr, nullptr) || w.objects != kObjects || !w.inOrder) {
      std::snprintf(r.error, sizeof r.error, "walk %d: %u objects, %s, last reply: %s", i, w.objects,
                    w.inOrder ? "in order" : "out of order", kr::getError(w.last).c_str());
      r.ok = 0;
    }
  }
  return write(results, &r, sizeof r) == sizeof r ? 0 : 1;
}

// Serves the map on the bus until the client's results arrive.
WalkResult serve(Table& map, kr::Looper& looper, int gate, int results) {
  looper.addHandler(kMapHandler, &map);
  if (write(gate, "g", 1) != 1) die("the client is gone");
  WalkResult r;
  bool got = false;
  looper.addSocket(results, POLLIN, [&](int fd, unsigned int) {
    got = true;
    if (read(fd, &r, sizeof r) != sizeof r) std::snprintf(r.error, sizeof r.error, "the client ended without results");
    looper.removeSocket(fd);
  });
  while (!got && looper.step(true)) {
  }
  looper.removeHandler(kMapHandler);
  return r;
}

size_t heapInUse() { return mallinfo2().uordblks; }

// ---- The run -------------------------------------------------------------------------------
struct Figures {
  std::vector<double> idRuns, shuffledRuns, runnerRuns;  // start-up seconds
  size_t timersArmed = 0;
  size_t heap0 = 0, heapRestored = 0, heapIdle = 0;
  std::vector<double> walks;  // seconds per walk
  unsigned int pages = 0;
  size_t busBytes = 0;  // one object as a page carries it
};

// The client is forked before this process touches a socket or a loop, so
// that it starts clean; it waits at the gate until the map is served.
pid_t forkClient(int* gateOut, int* resultsIn) {
  int gate[2], results[2];
  if (pipe2(gate, O_CLOEXEC) != 0 || pipe2(results, O_CLOEXEC) != 0) die("pipe");
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(gate[1]);
    close(results[0]);
    _exit(client(gate[0], results[1]));
  }
  if (pid < 0) die("fork failed");
  g_children.push_back(pid);
  close(gate[0]);
  close(results[1]);
  *gateOut = gate[1];
  *resultsIn = results[0];
  return pid;
}

void measure(Figures& f, pid_t clientPid, int gate, int results) {
  std::vector<unsigned int> idOrder(kObjects), shuffled(kObjects);
  for (unsigned int i = 0; i < kObjects; ++i) {
    idOrder[i] = i + 1;
    shuffled[i] = i * 7919 % kObjects + 1;  // 7919 is prime to 10000: every id once
  }
  const auto w0 = std::chrono::steady_clock::now();
  const size_t recordBytes = writeTable(kIdOrderPath, idOrder);
  writeTable(kShuffledPath, shuffled);
  std::printf("%u objects, %zu flat bytes per store record; tables written in %.1f s\n", kObjects, recordBytes,
              secondsSince(w0));

  // Start-up as a tool or a test would run it, without a runner: no timers.
  for (int i = 0; i < kStartReps; ++i) {
    f.idRuns.push_back(startUp(kIdOrderPath, idOrder));
    f.shuffledRuns.push_back(startUp(kShuffledPath, shuffled));
  }
  // The heap the map holds once restored, counted before the Looper exists
  // so that the store client's idle timers stay out of it. The store
  // client's reply buffer is counted apart: it is freed when the connection
  // goes idle.
  kr::storeCord().onTimeout();
  f.heap0 = heapInUse();
  std::unique_ptr<Table> map;
  startUp(kIdOrderPath, idOrder, &map);
  f.heapRestored = heapInUse();
  kr::storeCord().onTimeout();
  f.heapIdle = heapInUse();

  kr::Looper looper(kr::Looper::kConnectPath, kServerAddress, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  // Start-up once more as a daemon runs it, with the runner in place.
  for (int i = 0; i < kStartReps; ++i) {
    const size_t timers = looper.timerCount();
    f.runnerRuns.push_back(startUp(kIdOrderPath, idOrder));
    f.timersArmed = looper.timerCount() - timers;
  }

  const WalkResult walk = serve(*map, looper, gate, results);
  int status = 0;
  waitpid(clientPid, &status, 0);
  g_children.erase(std::find(g_children.begin(), g_children.end(), clientPid));
  if (!walk.ok) die(std::string("getall: ") + walk.error);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) die("the client failed");
  f.walks.assign(walk.seconds, walk.seconds + kWalks);
  f.pages = walk.pages;
  std::vector<unsigned char> flat;
  map->getObject(1, kr::SecObject::kBusFlags).flatten(flat);
  f.busBytes = flat.size();
  map.reset();
  kr::storeCord().onTimeout();
}

double lowest(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }
double highest(const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); }

void report(const Figures& f) {
  std::printf("\n%-44s %10s %10s %10s %12s\n", "start-up: construct + init()", "median ms", "min ms", "max ms",
              "us/object");
  auto row = [](const char* name, const std::vector<double>& runs) {
    std::printf("%-44s %10.1f %10.1f %10.1f %12.2f\n", name, median(runs) * 1e3, lowest(runs) * 1e3,
                highest(runs) * 1e3, median(runs) * 1e6 / kObjects);
  };
  row("chain in id order (read-ahead)", f.idRuns);
  row("chain shuffled (a round trip per record)", f.shuffledRuns);
  row("chain in id order, with the Looper's runner", f.runnerRuns);
  std::printf("idle timers armed by one start-up with the runner: %zu\n", f.timersArmed);

  const double walk = median(f.walks);
  std::printf("\n%-44s %10s %10s %10s %12s\n", "getall via kr-loader (AsyncReget)", "median ms", "pages",
              "obj/page", "objects/s");
  std::printf("%-44s %10.1f %10u %10.0f %12.0f\n", "10000 objects, 1 walk", walk * 1e3, f.pages,
              double(kObjects) / f.pages, kObjects / walk);
  std::printf("(%zu flat bytes per object on the bus; median of %d walks, min %.1f ms, max %.1f ms)\n", f.busBytes,
              kWalks, lowest(f.walks) * 1e3, highest(f.walks) * 1e3);

  std::printf("\nheap of the serving process per object (mallinfo2 uordblks, %u objects):\n", kObjects);
  std::printf("  map restored, store connection idle: %8.1f bytes (sizeof(Entry) = %zu)\n",
              double(f.heapIdle - f.heap0) / kObjects, sizeof(Entry));
  std::printf("  right after init(), reply buffer held: %6.1f bytes\n", double(f.heapRestored - f.heap0) / kObjects);
}

}  // namespace

int main(int argc, char**) {
  if (argc > 1) {
    std::fprintf(stderr, "usage: kr_bench_secmap (no options)\n");
    return 2;
  }
  // On tmpfs when there is one: kr-store syncs every record it writes, and
  // how long the disk takes to sync 20,000 of them is not measured here.
  std::error_code ec;
  std::string dir = std::filesystem::is_directory("/dev/shm", ec) ? "/dev/shm" : "/tmp";
  dir += "/kr-secmap-bench-XXXXXX";
  if (!mkdtemp(dir.data())) die("mkdtemp");
  g_dir = dir;
  setenv("KR_RUNTIME_DIR", g_dir.c_str(), 1);  // both services' sockets, for everybody
  startService({KR_STORE_BINARY, "--socket", kr::storeSocketPath(), "--db", g_dir + "/store.db", "--no-bus"},
               g_dir + "/store.log", kr::storeSocketPath(), SOCK_SEQPACKET);
  startService({KR_LOADER_BINARY}, g_dir + "/loader.log", kr::loaderSocketPath(), SOCK_STREAM);
  int gate = -1, results = -1;
  const pid_t clientPid = forkClient(&gate, &results);

  Figures figures;
  measure(figures, clientPid, gate, results);
  report(figures);

  for (pid_t p : g_children) kill(p, SIGTERM);
  for (pid_t p : g_children) waitpid(p, nullptr, 0);
  std::filesystem::remove_all(g_dir, ec);
  return 0;
}
