// kr::Allocator against a std::set of free ids doing the same work in the
// same run: one allocate() and one free() per iteration, over an interval of
// 65536 ids. Both hand out single ids next-fit (a cursor walks forward and
// wraps). Every benchmark reports the nodes each side holds at the end
// ("nodes": free runs for kr, free ids for the set); at the end a table
// prints the times per pair side by side with their ratio.
//
// Scenarios:
//   fresh: nothing allocated; allocate one id and free it again.
//   half:  every other id allocated (32768 single-id runs, the worst
//          fragmentation); allocate one id and free it again.
//   churn: 32768 ids live, chosen at random; free a random live id and
//          allocate a new one in its place.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include "bench/median_reporter.h"
#include "kr/kr.h"

namespace {

constexpr unsigned kFirst = 1;
constexpr unsigned kLast = 65536;
constexpr unsigned kLive = 32768;  // allocated ids in "half" and "churn"

// The peer: every free id is a node of an ordered set.
class SetIds {
 public:
  SetIds(unsigned first, unsigned last) : cursor(first) {
    for (unsigned id = first; id <= last; ++id) free.insert(free.end(), id);
  }
  unsigned allocate() {
    auto it = free.lower_bound(cursor);
    if (it == free.end()) it = free.begin();
    if (it == free.end()) std::abort();  // never in these scenarios
    const unsigned id = *it;
    free.erase(it);
    cursor = id + 1;
    return id;
  }
  void allocate(unsigned id) { free.erase(id); }
  void release(unsigned id) { free.insert(id); }
  size_t nodes() const { return free.size(); }

 private:
  std::set<unsigned> free;
  unsigned cursor;
};

// The same calls on kr::Allocator.
class KrIds {
 public:
  KrIds(unsigned first, unsigned last) : ids(first, last) {}
  unsigned allocate() { return ids.allocate(); }
  void allocate(unsigned id) { ids.allocate(id); }
  void release(unsigned id) { ids.free(id); }
  size_t nodes() const { return ids.rangeCount(); }

 private:
  kr::Allocator ids;
};

// A small fast generator, the same sequence for both sides.
struct XorShift {
  uint32_t s = 0x9E3779B9;
  uint32_t operator()() {
    s ^= s << 13;
    s ^= s >> 17;
    s ^= s << 5;
    return s;
  }
};

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "allocator_bench: %s\n", what);
    std::exit(1);
  }
}

// Times allocate() + release() of the id handed out, as many times as the
// benchmark asks.
template <class Ids>
void allocateAndRelease(benchmark::State& st, Ids& ids) {
  for (auto _ : st) {
    const unsigned id = ids.allocate();
    benchmark::DoNotOptimize(id);
    ids.release(id);
  }
  st.counters["nodes"] = double(ids.nodes());
  st.SetItemsProcessed(st.iterations());
}

template <class Ids>
void Fresh(benchmark::State& st) {
  Ids ids(kFirst, kLast);
  allocateAndRelease(st, ids);
}

template <class Ids>
void Half(benchmark::State& st) {
  Ids ids(kFirst, kLast);
  for (unsigned id = kFirst; id <= kLast; id += 2) ids.allocate(id);
  allocateAndRelease(st, ids);
}

template <class Ids>
void Churn(benchmark::State& st) {
  Ids ids(kFirst, kLast);
  XorShift rng;
  std::vector<unsigned> live;
  live.reserve(kLive);
  std::vector<bool> taken(kLast + 1);
  while (live.size() < kLive) {
    const unsigned id = kFirst + rng() % (kLast - kFirst + 1);
    if (taken[id]) continue;
    taken[id] = true;
    ids.allocate(id);
    live.push_back(id);
  }
  for (auto _ : st) {
    unsigned& slot = live[rng() % kLive];
    ids.release(slot);
    slot = ids.allocate();
    benchmark::DoNotOptimize(slot);
  }
  st.counters["nodes"] = double(ids.nodes());
  st.SetItemsProcessed(st.iterations());
}

// Both sides must hand out the ids they hold free, in the same scenario,
// before anything is timed.
void verify() {
  KrIds k(kFirst, kLast);
  SetIds s(kFirst, kLast);
  for (unsigned id = kFirst; id <= kLast; id += 2) {
    k.allocate(id);
    s.allocate(id);
  }
  check(k.nodes() == kLast / 2 && s.nodes() == kLast / 2, "half: unexpected free nodes");
  const unsigned a = k.allocate(), b = s.allocate();
  check(a % 2 == 0 && b % 2 == 0, "half: handed out an allocated id");
}

// ---- Ratio table ---------------------------------------------------------------------
// Prints the console output as usual and keeps the time per pair of each run
// (the median when repeated) for a side-by-side table at the end.
class RatioReporter : public MedianReporter {
 public:
  void keep(const std::string& name, const Run& r) override {
    Result& res = results_[name];
    // CPU time: nothing here waits, and the machine may be shared.
    res.ns = cpuNs(r);
    res.nodes = counter(r, "nodes", 0);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-8s %9s %9s %8s %14s %10s %10s\n", "scenario", "kr ns", "set ns", "set/kr", "kr pairs/s",
                "kr nodes", "set nodes");
    for (const char* name : {"fresh", "half", "churn"}) {
      const std::string n = name;
      if (!results_.count(n + "/kr") || !results_.count(n + "/set")) continue;
      const Result k = results_[n + "/kr"], s = results_[n + "/set"];
      std::printf("%-8s %9.1f %9.1f %8.2f %14.3g %10.0f %10.0f\n", name, k.ns, s.ns, s.ns / k.ns, 1e9 / k.ns,
                  k.nodes, s.nodes);
    }
    std::printf("One allocate + one free per pair, ids %u..%u; set/kr > 1: kr is faster.\n", kFirst, kLast);
  }

 private:
  struct Result {
    double ns = 0, nodes = 0;
  };
  std::map<std::string, Result> results_;
};

}  // namespace

int main(int argc, char** argv) {
  verify();
  benchmark::RegisterBenchmark("fresh/kr", Fresh<KrIds>);
  benchmark::RegisterBenchmark("fresh/set", Fresh<SetIds>);
  benchmark::RegisterBenchmark("half/kr", Half<KrIds>);
  benchmark::RegisterBenchmark("half/set", Half<SetIds>);
  benchmark::RegisterBenchmark("churn/kr", Churn<KrIds>);
  benchmark::RegisterBenchmark("churn/set", Churn<SetIds>);

  return runBenchmarks<RatioReporter>(argc, argv);
}
