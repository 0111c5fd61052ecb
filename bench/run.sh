#!/usr/bin/env bash
# Installs the peers, builds the benchmarks in build-bench/ (Release at -O2,
# libkr included) and runs them: kr_bench_message, then kr_bench_loop.
# A first argument "message" or "loop" runs only that one; the remaining
# arguments go to the benchmark binaries, e.g.
#   bash bench/run.sh message --benchmark_filter=decode
#   bash bench/run.sh loop --benchmark_filter=timers
set -euo pipefail
cd "$(dirname "$0")/.."

which=all
case "${1:-}" in
  message | loop) which=$1; shift ;;
esac

bash bench/setup.sh
cmake -S . -B build-bench -G Ninja -DKR_BUILD_BENCH=ON -DKR_BUILD_TESTS=OFF -DKR_BUILD_TOOLS=OFF \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" >/dev/null
targets=()
[ "$which" != loop ] && targets+=(kr_bench_message)
[ "$which" != message ] && targets+=(kr_bench_loop)
cmake --build build-bench --target "${targets[@]}"

# Three repetitions of 0.2 s each (the loop's socket benchmarks have fixed
# iteration counts instead); the tables use medians.
common=(--benchmark_min_time=0.2 --benchmark_repetitions=3 --benchmark_display_aggregates_only=true)
# 20 benchmarks: about 20 s.
[ "$which" != loop ] && build-bench/bench/kr_bench_message "${common[@]}" "$@"
# 12 benchmarks, 1.2M ping-pong round trips per loop: about 45 s. The
# repetitions are interleaved at random, so that a burst of load on the
# machine does not hit one library's three runs at once.
[ "$which" != message ] && build-bench/bench/kr_bench_loop "${common[@]}" \
  --benchmark_enable_random_interleaving=true "$@"
exit 0
