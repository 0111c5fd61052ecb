#!/usr/bin/env bash
# Installs the peers, builds kr_bench_message in build-bench/ (Release at
# -O2, libkr included) and runs it. Extra arguments go to the benchmark,
# e.g. bash bench/run.sh --benchmark_filter=decode
set -euo pipefail
cd "$(dirname "$0")/.."

bash bench/setup.sh
cmake -S . -B build-bench -G Ninja -DKR_BUILD_BENCH=ON -DKR_BUILD_TESTS=OFF -DKR_BUILD_TOOLS=OFF \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" >/dev/null
cmake --build build-bench --target kr_bench_message
# 20 benchmarks x 3 repetitions x 0.2 s: about 20 s. The table uses medians.
build-bench/bench/kr_bench_message --benchmark_min_time=0.2 --benchmark_repetitions=3 \
  --benchmark_display_aggregates_only=true "$@"
