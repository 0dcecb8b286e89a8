#!/usr/bin/env bash
# libOrvaneServer.so must export the eight API functions and the documented
# extension functions of OrvaneServerExt.h, nothing else, and carry a SONAME
# with its major version.
# Usage: check_exported_symbols.sh path/to/libOrvaneServer.so
set -euo pipefail
library=$1
status=0

expected="OrvServerAPICleanup
OrvServerAPIGetVersion
OrvServerAPIInitialize
OrvServerConnectionCancel
OrvServerConnectionClose
OrvServerConnectionConnect
OrvServerConnectionCreate
OrvServerConnectionDisconnect
OrvServerConnectionEnableCancel
OrvServerConnectionGetHttpStatus
OrvServerConnectionGetServerReason
OrvServerConnectionPublishExtract
OrvServerConnectionSetCACertificates
OrvServerConnectionSetConnectTimeout
OrvServerConnectionSetMaxRedirects
OrvServerConnectionSetMaxReplySize
OrvServerConnectionSetProgressCallback
OrvServerConnectionSetProxyCredentials
OrvServerConnectionSetStallTimeout
OrvServerConnectionSetUploadBufferSize"

# Defined dynamic symbols, whatever their kind (code, data, weak, unique).
actual=$(nm -D --defined-only "$library" | awk '{ print $NF }' | sed 's/@.*//' | LC_ALL=C sort)
if [ "$actual" != "$expected" ]; then
  echo "exported symbols differ from the API functions:"
  diff <(printf '%s\n' "$expected") <(printf '%s\n' "$actual") || true
  status=1
fi
for name in $expected; do
  if ! nm -D --defined-only "$library" | grep -q " T $name\$"; then
    echo "$name is not exported as a function"
    status=1
  fi
done

soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
case "$soname" in
  libOrvaneServer.so.[0-9]*) ;;
  *) echo "SONAME is '$soname', not libOrvaneServer.so.<major>"; status=1 ;;
esac
# The file the SONAME names must be the one the linker's name leads to.
directory=$(dirname "$library")
if [ "$(readlink -f "$directory/$soname")" != "$(readlink -f "$library")" ]; then
  echo "$directory/$soname does not lead to $library"
  status=1
fi
[ $status -eq 0 ] && echo "exports: the eight API functions and the extensions; SONAME $soname"
exit $status
