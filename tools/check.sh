#!/usr/bin/env bash
# Installs what is missing, builds with warnings as errors, and runs the tests.
# Usage: tools/check.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
bash tools/install-deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORV_WERROR=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
