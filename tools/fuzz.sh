#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan + UBSan) and runs each one for a
# bounded time, one after the other.
# Usage: tools/fuzz.sh [seconds-per-harness] [harness...]
#   seconds: default 30; harnesses: default all of tests/fuzz.
# Each run starts from the committed seeds (tests/fuzz/corpus/<harness>, only
# read) and from what earlier runs found (<build>/fuzz-corpus/<harness>, where
# new inputs go). A crash, leak, timeout or out-of-memory stops that harness
# and leaves the input in <build>/fuzz-findings/<harness>/; the script then
# exits non-zero. ORV_FUZZ_BUILD overrides the build directory (build-fuzz),
# ORV_JOBS the build parallelism.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
[ $# -gt 0 ] && shift
harnesses=("$@")
[ ${#harnesses[@]} -eq 0 ] && harnesses=(fuzz_reply_parsers fuzz_restio fuzz_unicode)
case "$seconds" in '' | *[!0-9]*) echo "usage: $0 [seconds] [harness...]" >&2; exit 2 ;; esac
build=${ORV_FUZZ_BUILD:-build-fuzz}

bash tools/install-deps.sh --fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORV_FUZZ=ON \
  -DORV_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"${ORV_JOBS:-$(nproc)}" --target "${harnesses[@]}" >/dev/null

export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
failed=0
for harness in "${harnesses[@]}"; do
  corpus=$build/fuzz-corpus/$harness
  findings=$build/fuzz-findings/$harness
  log=$build/fuzz-logs/$harness.log
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
           -artifact_prefix="$findings/")
  [ -f "tests/fuzz/$harness.dict" ] && options+=(-dict="tests/fuzz/$harness.dict")
  before=$(find "$findings" -type f | wc -l)
  status=0
  # The outer limit only guards against a fuzzer that ignores its own.
  timeout -k 10 $((seconds + 300)) "$build/tests/fuzz/$harness" "${options[@]}" \
    "$corpus" "tests/fuzz/corpus/$harness" >"$log" 2>&1 || status=$?
  found=$(( $(find "$findings" -type f | wc -l) - before ))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -1 || true)
  printf '%-20s %10s executions (%s/s), %s, %d finding(s), exit %d\n' \
    "$harness" "${runs:-?}" "${rate:-?}" "${coverage:-cov: ?}" "$found" "$status"
  if [ "$status" -ne 0 ] || [ "$found" -ne 0 ]; then
    failed=1
    echo "  log: $log"
    grep -E 'ERROR: |fuzz check failed|SUMMARY: |Test unit written' "$log" | head -5 | sed 's/^/  /'
  fi
done
exit $failed
