#!/usr/bin/env bash
# Sets everything up and runs every test: the plain build, then the same tests
# under AddressSanitizer + UndefinedBehaviorSanitizer, then the concurrency
# tests under ThreadSanitizer, each in its own build directory.
set -euo pipefail
cd "$(dirname "$0")"

scripts/setup.sh
export CTEST_OUTPUT_ON_FAILURE=1
jobs=$(nproc)

echo "== tests (build/)"
ctest --test-dir build -j "$jobs" --timeout 600

sanitized_build() { # dir sanitizers [targets...]
  local dir=$1 sanitize=$2
  shift 2
  if [ ! -f "$dir/build.ninja" ]; then
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUARVEL_SANITIZE="$sanitize" \
      -DQUARVEL_BUILD_TOOLS=OFF -DQUARVEL_BUILD_AGENTS=OFF >/dev/null
  fi
  cmake --build "$dir" -j "$jobs" ${1:+--target "$@"}
}

# The library and every test built with it (the tool and agents stay out: they
# have their own suites above and add nothing sanitizers would see here).
echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/)"
sanitized_build build-asan address,undefined
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan -j "$jobs" --timeout 900

echo "== concurrency tests under ThreadSanitizer (build-tsan/)"
sanitized_build build-tsan thread quarvel_unit_tests quarvel_api_tests
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build-tsan -j "$jobs" --timeout 900 -R 'Concurrent'

for extra in tests/e2e/run.sh scripts/fuzz-smoke.sh; do
  if [ -x "$extra" ]; then
    echo "== $extra"
    "$extra"
  fi
done
echo "== all tests passed"
