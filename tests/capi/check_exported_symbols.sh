#!/usr/bin/env bash
# libOrvaneServer.so exports the eight API functions and the extensions of OrvaneServerExt.h as functions
# and nothing else, and its SONAME libOrvaneServer.so.<major> leads to the library. Usage: ... LIBRARY
set -euo pipefail
expected="OrvServerAPICleanup OrvServerAPIGetVersion OrvServerAPIInitialize OrvServerConnectionCancel OrvServerConnectionClose \
OrvServerConnectionConnect OrvServerConnectionCreate OrvServerConnectionDisconnect OrvServerConnectionEnableCancel \
OrvServerConnectionFindProject OrvServerConnectionGetHttpStatus OrvServerConnectionGetServerReason OrvServerConnectionPublishExtract \
OrvServerConnectionSetCACertificates OrvServerConnectionSetConnectTimeout OrvServerConnectionSetMaxRedirects \
OrvServerConnectionSetMaxReplySize OrvServerConnectionSetProgressCallback OrvServerConnectionSetProxyCredentials \
OrvServerConnectionSetStallTimeout OrvServerConnectionSetUploadBufferSize"
actual=$(nm -D --defined-only "$1" | awk '{ sub(/@.*/, "", $3); print $2 " " $3 }' | LC_ALL=C sort | tr '\n' ' ')
[ "$actual" = "$(printf 'T %s ' $expected)" ] || { echo "exports differ: $actual"; exit 1; }
soname=$(readelf -d "$1" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[[ "$soname" == libOrvaneServer.so.[0-9]* ]] || { echo "SONAME is '$soname'"; exit 1; }
[ "$(readlink -f "$(dirname "$1")/$soname")" = "$(readlink -f "$1")" ] || { echo "$soname does not lead to $1"; exit 1; }
echo "exports: the API and extension functions; SONAME $soname"
