#!/usr/bin/env bash
# The demo: installs what is missing, builds the library and orvane-publish,
# starts the reference server on a free loopback port, publishes a sample
# extract to it, shows what the server now holds, and stops the server.
# Usage: tools/demo.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
bash tools/install-deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target orvane-publish >/dev/null

work=$(mktemp -d /tmp/orvane-demo.XXXXXX)
server_pid=
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

python3 tools/orvane-reference-server --port 0 --port-file "$work/port" --data-dir "$work/data" --quiet &
server_pid=$!
for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.1; done
[ -s "$work/port" ] || { echo "demo: the reference server did not start" >&2; exit 1; }
server="http://127.0.0.1:$(cat "$work/port")"
echo "Reference server listening on $server (user demo, project \"Samples\" on page 3 of its projects)"

# A sample extract: 4 MiB of data under the .qrx name the server expects.
head -c 4194304 /dev/urandom > "$work/sales.qrx"
echo "Publishing $work/sales.qrx ($(stat -c %s "$work/sales.qrx") bytes, sha256 $(sha256sum "$work/sales.qrx" | cut -c1-16)...)"
echo
# Loopback never goes through a proxy, whatever the environment says.
export no_proxy="127.0.0.1,localhost${no_proxy:+,$no_proxy}"
ORVANE_PASSWORD=demo-password ORV_SDK_LOGDIR="$work" \
  "$build/tools/orvane-publish" --server "$server" --user demo --project Samples --overwrite "$work/sales.qrx"

echo
echo "The server now holds (project, name, size, sha256, site):"
python3 tools/orvane-reference-server --list --data-dir "$work/data"
echo
echo "The library's log ($work/OrvaneSDKServer.log):"
sed 's/^/  /' "$work/OrvaneSDKServer.log"
