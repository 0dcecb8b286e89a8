#!/usr/bin/env bash
# libOrvaneServer.so exports exactly the functions its version script names, each declared in a public
# header, and its SONAME libOrvaneServer.so.<major> leads to the library. Usage: ... LIBRARY SOURCE_DIR
set -euo pipefail
library=$1
source=$2
mapped=$(sed -n 's/^ *\(Orv[A-Za-z]*\);$/\1/p' "$source/capi/OrvaneServer.map" | LC_ALL=C sort)
declared=$(cat "$source"/include/orvane/*.h | sed -n 's/^ORV_SERVER_API .*[ *]\(Orv[A-Za-z]*\)(.*/\1/p' | LC_ALL=C sort)
undeclared=$(LC_ALL=C comm -23 <(echo "$mapped") <(echo "$declared"))
[ -z "$undeclared" ] || { echo "exported but not declared: $undeclared"; exit 1; }
actual=$(nm -D --defined-only "$library" | awk '{ sub(/@.*/, "", $3); print $2 " " $3 }' | LC_ALL=C sort | tr '\n' ' ')
[ "$actual" = "$(printf 'T %s ' $mapped)" ] || { echo "exports differ: $actual"; exit 1; }
soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[[ "$soname" == libOrvaneServer.so.[0-9]* ]] || { echo "SONAME is '$soname'"; exit 1; }
[ "$(readlink -f "$(dirname "$library")/$soname")" = "$(readlink -f "$library")" ] || { echo "$soname does not lead to $library"; exit 1; }
echo "exports: the $(echo "$mapped" | wc -l) functions of the version script; SONAME $soname"
