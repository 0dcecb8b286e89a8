#!/usr/bin/env bash
# The demo's whole lifecycle under valgrind's memcheck: builds orvane-publish
# (a plain build: sanitizer builds cannot run under valgrind), starts the
# reference server on a free loopback port and runs orvane-publish under
# memcheck, publishing three extracts with two sessions at once, and then
# through the failures a host meets most (wrong password, unknown project,
# refused connection). Any memory error, or any definitely or indirectly lost
# byte, fails the script. Prints each run's error and leak summary.
# Usage: tools/valgrind-demo.sh [build-dir]      (default: build-valgrind)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=${1:-build-valgrind}
bash tools/install-deps.sh --valgrind
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target orvane-publish >/dev/null

source tools/reference-server.sh
start_reference_server /tmp/orvane-valgrind

for name in sales stock returns; do head -c 262144 /dev/urandom > "$work/$name.qrx"; done

export ORV_SDK_LOGDIR="$work"
memcheck=(valgrind --leak-check=full --errors-for-leak-kinds=definite,indirect
          --suppressions="$root/tests/sanitizers/valgrind.supp" --num-callers=30)

# run NAME EXPECTED-STATUS PASSWORD ARGS...: one orvane-publish under
# memcheck, which reports with 86, a status the tool never uses.
failed=0
run() {
  local name=$1 expected=$2 password=$3 code=86
  shift 3
  local status=0
  ORVANE_PASSWORD=$password \
    "${memcheck[@]}" --error-exitcode=$code --log-file="$work/$name.valgrind" \
    "$build/tools/orvane-publish" "$@" >"$work/$name.out" 2>&1 || status=$?
  echo "== $name: exit status $status (expected $expected)"
  grep -E 'ERROR SUMMARY|definitely lost|indirectly lost|possibly lost|still reachable|suppressed:' \
    "$work/$name.valgrind" | sed 's/^==[0-9]*== */   /'
  if [ "$status" -ne "$expected" ]; then
    failed=1
    sed 's/^/   | /' "$work/$name.out"
    grep -v '^==[0-9]*== *$' "$work/$name.valgrind" | sed 's/^/   | /' | head -200
  fi
}

run publish 0 demo-password --server "$server" --user demo --project Samples --overwrite --jobs 2 \
  "$work/sales.qrx" "$work/stock.qrx" "$work/returns.qrx"
run wrong-password 3 wrong --server "$server" --user demo --project Samples "$work/sales.qrx"
run unknown-project 4 demo-password --server "$server" --user demo --project "No Such Project" "$work/sales.qrx"
run refused-connection 5 demo-password --server "http://127.0.0.1:1" --user demo --project Samples "$work/sales.qrx"

echo
echo "The server holds (project, name, size, sha256, site):"
published | sed 's/^/   /'
[ "$(published | wc -l)" -eq 3 ] || failed=1

if [ "$failed" -ne 0 ]; then
  echo "valgrind-demo: FAILED" >&2
  exit 1
fi
echo "valgrind-demo: no memory errors, nothing definitely or indirectly lost"
