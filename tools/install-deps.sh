#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds, tests and demos with.
# Idempotent: when everything is present it only asks dpkg and prints nothing.
set -euo pipefail

packages=(
  cmake g++ make pkg-config python3 openssl ca-certificates git clang-format
  libcurl4-openssl-dev libssl-dev libexpat1-dev
  qtbase5-dev libtbb-dev libboost-dev libicu-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev
  tinyproxy
  python3-pytest python3-venv python3-pip
)
# Extra groups, asked for by the scripts that need them.
for extra in "$@"; do
  case "$extra" in
    --bench) packages+=(nginx-light libspdlog-dev curl linux-perf) ;;
    --fuzz) packages+=(clang libclang-rt-14-dev) ;;
    --valgrind) packages+=(valgrind) ;;
    *) echo "install-deps: unknown option $extra" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages (${missing[*]}); run as root" >&2
  exit 1
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
# tinyproxy's package starts a system-wide daemon; tests run their own on loopback.
if [[ " ${missing[*]} " == *" tinyproxy "* ]]; then
  (service tinyproxy stop || true) >/dev/null 2>&1
fi
