#!/usr/bin/env bash
# The benchmarks: installs what is missing (nginx-light, libspdlog-dev, curl,
# valgrind), builds the library and the benchmark programs in release mode in
# build-bench, then runs every benchmark beside its reference in alternating
# runs against its own nginx on a free loopback port, prints the table of
# medians, spreads and ratios, and puts it with the machine's description into
# bench/RESULTS.md (only after a full run with --profile, which adds
# callgrind's counts of the lookup; --profile-dir keeps its files). Takes a few
# minutes; needs about 2.5 GiB free in $TMPDIR (or /tmp).
#
# Usage: tools/bench.sh [--runs N] [--only upload,extension,memory,lookup,logging,startup,longlink]
#                       [--quick] [--profile] [--profile-dir DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-bench

bash tools/install-deps.sh --bench --valgrind
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DORV_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target publish_bench loopback_copy lookup_plain_curl lookup_parse_floor \
    startup_lib startup_curl logging_spdlog_bench orvane-publish >/dev/null

exec python3 bench/common/bench_driver.py --build "$build" --results bench/RESULTS.md "$@"
