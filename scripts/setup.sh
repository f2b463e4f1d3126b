#!/usr/bin/env bash
# Installs what the project needs (Debian packages) when it is missing, then
# configures and builds into build/. Safe to run again: it only does what is
# not done yet.
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config
  libboost-filesystem-dev libboost-regex-dev libboost-thread-dev
  liblog4cplus-dev libtbb-dev libssl-dev libzydis-dev
  libcli11-dev nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
)
# Extra packages a caller asks for (the end-to-end tests add a JDK and perf).
if [ -n "${QUARVEL_EXTRA_PACKAGES:-}" ]; then
  read -r -a extra <<<"$QUARVEL_EXTRA_PACKAGES"
  PACKAGES+=("${extra[@]}")
fi

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

if [ "${QUARVEL_SETUP_NO_BUILD:-0}" = 1 ]; then
  exit 0
fi

BUILD_DIR=${BUILD_DIR:-build}
if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
cmake --build "$BUILD_DIR" -j "$(nproc)"
