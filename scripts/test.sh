#!/usr/bin/env bash
# The whole test suite, from a fresh machine: installs what is missing, then
#   1. builds and runs the unit tests,
#   2. builds and runs them again under AddressSanitizer and
#      UndefinedBehaviorSanitizer,
#   3. installs the library and builds a program against it from outside the
#      tree (CMake package and pkg-config),
#   4. runs every fuzz target for a bounded time (KR_FUZZ_SECONDS, default 60).
# Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
jobs=$(nproc)

step() { printf '\n=== %s\n' "$*"; }

step "unit tests"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

step "unit tests under AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKR_SANITIZE=address,undefined >/dev/null
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"

step "installed package"
bash scripts/install_test.sh

step "fuzzing"
bash scripts/fuzz.sh "${KR_FUZZ_SECONDS:-60}"

step "all passed"
