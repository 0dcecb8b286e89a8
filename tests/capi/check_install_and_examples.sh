#!/usr/bin/env bash
# Installs a build into a scratch prefix and uses it as a user would: the public header compiles as C99 and
# orvane.hpp as strict C++17, the C and C++ examples build with find_package(OrvaneServer) and with
# pkg-config, and all four builds publish an extract intact to the reference server.
# Usage: check_install_and_examples.sh BUILD SOURCE PYTHON CC CXX
set -euo pipefail
build=$1 source=$2 python=$3 cc=$4 cxx=$5 work=$(mktemp -d "${TMPDIR:-/tmp}/orv-install.XXXXXX")
trap 'kill $server 2>/dev/null; wait; rm -rf "$work"' EXIT
unset http_proxy https_proxy all_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY
export no_proxy=127.0.0.1 ORV_SDK_LOGDIR=$work ORVANE_PASSWORD=demo-password prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" > "$work/install.log"
printf '#include <orvane/OrvaneServer.h>\nint f(void);\nint f(void) { void* h = 0; return OrvServerConnectionCreate(&h); }\n' > "$work/h.c"
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" "$work/h.c"
printf '#include <orvane/orvane.hpp>\n' > "$work/h.cpp"
"$cxx" -std=c++17 -pedantic -Wall -Wextra -Wconversion -Werror -fsyntax-only -I"$prefix/include" "$work/h.cpp"
cmake -S "$source/examples" -B "$work/b" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_CXX_COMPILER="$cxx" > "$work/configure.log"
grep -qx "OrvaneServer_DIR:PATH=$prefix/lib/cmake/OrvaneServer" "$work/b/CMakeCache.txt" || { echo "find_package missed the install"; exit 1; }
cmake --build "$work/b" > "$work/build.log"
flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs orvane-server)
"$cc" -std=c99 -Wall -Werror "$source/examples/publish.c" $flags -o "$work/pc"
"$cxx" -std=c++17 -Wall -Wextra -Werror "$source/examples/publish.cpp" $flags -o "$work/pc-cpp"
"$python" "$source/tools/orvane-reference-server" --host 127.0.0.1 --port 0 --port-file "$work/port" --data-dir "$work/data" --quiet &
server=$!
for _ in $(seq 200); do [ -s "$work/port" ] && break; sleep 0.05; done
head -c 3000000 /dev/urandom > "$work/sales.qrx"
"$work/b/publish" "http://127.0.0.1:$(cat "$work/port")" demo "" Samples "$work/sales.qrx" via-cmake
"$work/b/publish_cpp" "http://127.0.0.1:$(cat "$work/port")" demo "" Samples "$work/sales.qrx" cpp-via-cmake
LD_LIBRARY_PATH=$prefix/lib "$work/pc" "http://127.0.0.1:$(cat "$work/port")" demo "" Samples "$work/sales.qrx" via-pkg-config
LD_LIBRARY_PATH=$prefix/lib "$work/pc-cpp" "http://127.0.0.1:$(cat "$work/port")" demo "" Samples "$work/sales.qrx" cpp-via-pkg-config
listing=$("$python" "$source/tools/orvane-reference-server" --list --data-dir "$work/data")
for name in via-cmake via-pkg-config cpp-via-cmake cpp-via-pkg-config; do
  printf '%s\n' "$listing" | grep -qP "^Samples\t$name\t3000000\t$(sha256sum < "$work/sales.qrx" | cut -d' ' -f1)\t\$" || { echo "$name not stored intact"; exit 1; }
done
