#!/usr/bin/env bash
# Installs a build into a scratch prefix and uses it the way a user would: the
# public header compiles as C99 and as C++, the C example builds with
# find_package(OrvaneServer) and with pkg-config, and both builds publish an
# extract to the reference server.
# Usage: check_install_and_examples.sh BUILD_DIR SOURCE_DIR PYTHON CC CXX
set -euo pipefail
build=$1 source=$2 python=$3 cc=$4 cxx=$5

work=$(mktemp -d "${TMPDIR:-/tmp}/orv-install.XXXXXX")
server_pid=
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

# Loopback only; nothing goes through a proxy from the environment.
unset http_proxy https_proxy all_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY
export no_proxy=127.0.0.1,localhost NO_PROXY=127.0.0.1,localhost
export ORV_SDK_LOGDIR=$work

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" > "$work/install.log" || { cat "$work/install.log"; fail "cmake --install"; }
for file in include/orvane/OrvaneServer.h include/orvane/OrvaneCommon.h lib/pkgconfig/orvane-server.pc \
  lib/cmake/OrvaneServer/OrvaneServerConfig.cmake lib/libOrvaneServer.so lib/libOrvaneCommon.so; do
  [ -e "$prefix/$file" ] || fail "not installed: $file"
done

echo "== the installed header alone, as C99 and as C++"
cat > "$work/header.c" <<'EOF'
#include <orvane/OrvaneServer.h>
ORV_RESULT use_every_declaration(void);
ORV_RESULT use_every_declaration(void)
{
    static const unsigned short text[1] = {0};
    void* handle = 0;
    ORV_RESULT result = OrvServerAPIInitialize();
    result |= OrvServerConnectionCreate(&handle);
    result |= OrvServerConnectionSetProxyCredentials(handle, text, text);
    result |= OrvServerConnectionConnect(handle, text, text, text, text);
    result |= OrvServerConnectionPublishExtract(handle, text, text, text, 1);
    result |= OrvServerConnectionDisconnect(handle);
    result |= OrvServerConnectionClose(handle);
    result |= OrvServerAPICleanup();
    OrvSetLastErrorMessage(OrvGetLastErrorMessage());
    return result == ORV_RESULT_Success ? ORV_SERVER_NotConnected : ORV_RESULT_UnknownError;
}
EOF
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" -x c "$work/header.c"
"$cxx" -std=c++11 -pedantic -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" -x c++ "$work/header.c"
"$cxx" -std=c++17 -pedantic -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" -x c++ "$work/header.c"

echo "== examples with find_package(OrvaneServer)"
cmake -S "$source/examples" -B "$work/b" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" > "$work/configure.log" || { cat "$work/configure.log"; fail "configure"; }
found=$(sed -n 's/^OrvaneServer_DIR:PATH=//p' "$work/b/CMakeCache.txt")
[ "$found" = "$prefix/lib/cmake/OrvaneServer" ] || fail "find_package used '$found', not the installed tree"
cmake --build "$work/b" > "$work/build.log" || { cat "$work/build.log"; fail "example build"; }

echo "== example with pkg-config"
flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs orvane-server)
echo "pkg-config: $flags"
# shellcheck disable=SC2086  # the flags are meant to split
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror "$source/examples/publish.c" $flags -o "$work/publish-pc"

echo "== both builds publish to the reference server"
"$python" "$source/tools/orvane-reference-server" --host 127.0.0.1 --port 0 --port-file "$work/port" \
  --data-dir "$work/data" --quiet > "$work/server.log" 2>&1 &
server_pid=$!
for _ in $(seq 200); do [ -s "$work/port" ] && break; sleep 0.05; done
[ -s "$work/port" ] || { cat "$work/server.log"; fail "the reference server did not start"; }
url="http://127.0.0.1:$(cat "$work/port")"

head -c 3000000 /dev/urandom > "$work/sales.qrx"
sum=$(sha256sum "$work/sales.qrx" | cut -d' ' -f1)

# The find_package build finds the installed libraries through its RPATH; the
# pkg-config one needs the loader told where they are.
ORVANE_PASSWORD=demo-password "$work/b/publish" "$url" demo "" Samples "$work/sales.qrx" via-cmake
LD_LIBRARY_PATH=$prefix/lib ORVANE_PASSWORD=demo-password \
  "$work/publish-pc" "$url" demo "" Samples "$work/sales.qrx" via-pkg-config
listing=$("$python" "$source/tools/orvane-reference-server" --list --data-dir "$work/data")
echo "$listing"
for name in via-cmake via-pkg-config; do
  printf '%s\n' "$listing" | grep -qP "^Samples\t$name\t3000000\t$sum\t\$" || fail "$name is not stored intact"
done
[ "$(printf '%s\n' "$listing" | wc -l)" -eq 2 ] || fail "the server holds more than the two extracts"

echo "== the installed orvane-publish runs"
LD_LIBRARY_PATH=$prefix/lib "$prefix/bin/orvane-publish" --help | grep -q '^Usage: orvane-publish' \
  || fail "installed orvane-publish --help"
echo "install and examples: OK"
