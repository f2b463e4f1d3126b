#!/usr/bin/env bash
# Installs what the project needs (Debian packages) when it is missing, then
# configures and builds build/ with the "plain" preset. Safe to run again: it
# only does what is not done yet.
#
#   scripts/setup.sh             the build's packages, then the build
#   scripts/setup.sh --tests     also what the tests run for real (a JDK,
#                                perf, node), before anything is configured
#   scripts/setup.sh --fuzz      also clang and its libFuzzer runtime
#   scripts/setup.sh --no-build  packages only
set -euo pipefail
cd "$(dirname "$0")/.."

build=1
PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config python3
  libboost-filesystem-dev libboost-regex-dev libboost-thread-dev
  liblog4cplus-dev libtbb-dev libssl-dev libzydis-dev zlib1g-dev
  libcli11-dev nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev
)
for arg in "$@"; do
  case $arg in
    --tests) PACKAGES+=(openjdk-17-jdk-headless linux-perf nodejs) ;;
    --fuzz) PACKAGES+=(clang libclang-rt-14-dev) ;;
    --no-build) build=0 ;;
    *) echo "setup: unknown option $arg" >&2; exit 2 ;;
  esac
done
# Extra packages a caller asks for.
if [ -n "${QUARVEL_EXTRA_PACKAGES:-}" ]; then
  read -r -a extra <<<"$QUARVEL_EXTRA_PACKAGES"
  PACKAGES+=("${extra[@]}")
fi
[ "${QUARVEL_SETUP_NO_BUILD:-0}" = 1 ] && build=0

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

[ "$build" = 1 ] || exit 0
if [ ! -f build/build.ninja ]; then
  cmake --preset plain >/dev/null
fi
cmake --build --preset plain
