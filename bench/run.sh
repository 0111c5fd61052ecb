#!/usr/bin/env bash
# Installs the peers, builds the benchmarks in build-bench/ (Release at -O2,
# libkr included) and runs them: kr_bench_message, kr_bench_loop, then
# kr_bench_bus, kr_bench_allocator, kr_bench_store, kr_bench_secmap and
# kr_bench_log. A first argument "message", "loop", "bus", "allocator",
# "store", "secmap" or "log" runs only that one; the remaining arguments go
# to the benchmark binaries, e.g.
#   bash bench/run.sh message --benchmark_filter=decode
#   bash bench/run.sh loop --benchmark_filter=timers
#   bash bench/run.sh bus --only rr1 --reps 3
#   bash bench/run.sh log --only 8 --lines 50000
set -euo pipefail
cd "$(dirname "$0")/.."

which=all
case "${1:-}" in
  message | loop | bus | allocator | store | secmap | log) which=$1; shift ;;
esac
want() { [ "$which" = all ] || [ "$which" = "$1" ]; }

bash bench/setup.sh
# The tools stay off; bench/CMakeLists.txt builds kr-loader, kr-store and
# kr-log for the benchmarks that start them.
cmake -S . -B build-bench -G Ninja -DKR_BUILD_BENCH=ON -DKR_BUILD_TESTS=OFF -DKR_BUILD_TOOLS=OFF \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" >/dev/null
targets=()
want message && targets+=(kr_bench_message)
want loop && targets+=(kr_bench_loop)
want bus && targets+=(kr_bench_bus)
want allocator && targets+=(kr_bench_allocator)
want store && targets+=(kr_bench_store)
want secmap && targets+=(kr_bench_secmap)
want log && targets+=(kr_bench_log)
cmake --build build-bench --target "${targets[@]}"

# Three repetitions of 0.2 s each (the loop's socket benchmarks have fixed
# iteration counts instead); the tables use medians.
common=(--benchmark_min_time=0.2 --benchmark_repetitions=3 --benchmark_display_aggregates_only=true)
# 20 benchmarks: about 20 s.
if want message; then build-bench/bench/kr_bench_message "${common[@]}" "$@"; fi
# 12 benchmarks, 1.2M ping-pong round trips per loop: about 45 s. The
# repetitions are interleaved at random, so that a burst of load on the
# machine does not hit one library's three runs at once.
if want loop; then
  build-bench/bench/kr_bench_loop "${common[@]}" --benchmark_enable_random_interleaving=true "$@"
fi
# Not a Google Benchmark binary: its own options (--seconds, --reps, --only).
# Five repetitions of 1.5 s per scenario and bus, kr and D-Bus alternating,
# plus the memory test: about 60 s.
if want bus; then build-bench/bench/kr_bench_bus "$@"; fi
# Allocate/free pairs against a std::set of free ids: about 10 s.
if want allocator; then build-bench/bench/kr_bench_allocator "${common[@]}" "$@"; fi
# Sets, gets and an id-order read through kr-store against SQLite directly: about 8 s.
if want store; then build-bench/bench/kr_bench_store "${common[@]}" "$@"; fi
# Not a Google Benchmark binary and without options: an object map's start-up
# from kr-store, a get-all walk through kr-loader, heap per object: 2 to 6 s.
if want secmap; then build-bench/bench/kr_bench_secmap; fi
# Not a Google Benchmark binary: its own options (--lines, --reps, --only).
# Lines through kr::lstream and the real kr-log against plain send()s, 1 and
# 8 senders, five repetitions each, plus kr-log's memory: about 16 s.
if want log; then build-bench/bench/kr_bench_log "$@"; fi
exit 0
