#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/targets.cmake) with clang in build-fuzz/
# and runs each one for a bounded time.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#
# SECONDS (default 60) is the time each target runs (all of them, or the
# ones named). Each target starts from a scratch corpus,
# fuzz/corpus-run/<name>/ (ignored by git), seeded from fuzz/corpus/<name>/
# and kept between runs. Crashing inputs are written to fuzz/crashes/<name>/,
# to be committed once understood; the replay test runs them in every build.
# Exits non-zero when any target crashed, leaked, timed out or ran out of
# memory.
#
# Environment: KR_FUZZ_JOBS=N runs N fuzzing processes per target (libFuzzer
# -fork=N; default 1). KR_FUZZ_FLAGS adds libFuzzer flags.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
budget=${1:-60}
[[ $# -gt 0 ]] && shift
[[ $budget =~ ^[0-9]+$ && $budget -gt 0 ]] || { echo "fuzz.sh: bad time budget: $budget" >&2; exit 2; }
build=$root/build-fuzz
jobs=${KR_FUZZ_JOBS:-1}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKR_BUILD_FUZZ=ON -DKR_BUILD_TESTS=OFF -DKR_BUILD_TOOLS=OFF -DKR_BUILD_BENCH=OFF >/dev/null
ninja -C "$build"

# "<name> <binary>" per target, written by fuzz/CMakeLists.txt.
declare -A binary=()
order=()
while read -r name bin; do
  [[ -n $name ]] || continue
  binary[$name]=$bin
  order+=("$name")
done <"$build/fuzz/targets.txt"

if [[ $# -gt 0 ]]; then
  for t in "$@"; do
    [[ -n ${binary[$t]:-} ]] || { echo "fuzz.sh: unknown target $t (have: ${order[*]})" >&2; exit 2; }
  done
  order=("$@")
fi
per=$budget

failed=()
for name in "${order[@]}"; do
  seeds=$root/fuzz/corpus/$name
  run=$root/fuzz/corpus-run/$name
  crashes=$root/fuzz/crashes/$name
  log=$build/fuzz-$name.log
  mkdir -p "$run" "$crashes"
  [[ -d $seeds ]] && cp -n "$seeds"/* "$run"/ 2>/dev/null || true
  flags=(-max_total_time="$per" -max_len=4096 -timeout=10 -rss_limit_mb=2048
         -artifact_prefix="$crashes/" -print_final_stats=1)
  [[ -f $root/fuzz/$name.dict ]] && flags+=(-dict="$root/fuzz/$name.dict")
  ((jobs > 1)) && flags+=(-fork="$jobs")
  # shellcheck disable=SC2206
  flags+=(${KR_FUZZ_FLAGS:-})
  echo "== $name: ${per}s, corpus $run, log $log"
  before=$(ls -A "$crashes")
  rc=0
  "${binary[$name]}" "${flags[@]}" "$run" >"$log" 2>&1 || rc=$?
  new=$(comm -13 <(echo "$before") <(ls -A "$crashes"))
  grep -E '^#[0-9]+:?[[:space:]].*cov: ' "$log" | tail -n1 || true
  grep -E '^stat::number_of_executed_units|^stat::new_units_added' "$log" || true
  if ((rc != 0)) || [[ -n $new ]]; then
    echo "== $name: FAILED (exit $rc); new files in $crashes/: ${new:-none}" >&2
    grep -E 'ERROR|invariant violated|SUMMARY|Test unit written' "$log" | head -20 >&2 || true
    failed+=("$name")
  fi
  # Keep fuzz/crashes/<name> only when it holds something.
  rmdir --ignore-fail-on-non-empty "$crashes" "$root/fuzz/crashes"
done

if ((${#failed[@]})); then
  echo "fuzz.sh: failures in: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz.sh: all targets ran clean"
