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

source tools/reference-server.sh
start_reference_server /tmp/orvane-demo
echo "Reference server listening on $server (user demo, project \"Samples\" on page 3 of its projects)"

# A sample extract: 256 MiB of data under the .qrx name the server expects,
# large enough for the progress meter to show on a terminal.
head -c 268435456 /dev/urandom > "$work/sales.qrx"
echo "Publishing $work/sales.qrx ($(stat -c %s "$work/sales.qrx") bytes, sha256 $(sha256sum "$work/sales.qrx" | cut -c1-16)...)"
echo
ORVANE_PASSWORD=demo-password ORV_SDK_LOGDIR="$work" \
  "$build/tools/orvane-publish" --server "$server" --user demo --project Samples --overwrite "$work/sales.qrx"

echo
echo "The server now holds (project, name, size, sha256, site):"
published
echo
echo "The library's log ($work/OrvaneSDKServer.log):"
sed 's/^/  /' "$work/OrvaneSDKServer.log"
