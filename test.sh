#!/usr/bin/env bash
# Sets everything up and runs every test stage, then prints one summary line
# per stage (passed / skipped and why / failed):
#   tests   the plain build (build/): unit, API, tool, fuzz corpus replay
#   asan    the library, the tool, the agent and every test under
#           AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/)
#   tsan    the concurrency tests under ThreadSanitizer (build-tsan/)
#   e2e     the end-to-end runs of real runtimes (each skips with a reason
#           when the machine lacks what it needs, e.g. perf events)
# Every stage fails when it finds no tests to run. The fuzz corpus is replayed
# by the tests and asan stages; fuzzing itself (scripts/fuzz.sh, or
# scripts/fuzz-smoke.sh for a short run) is a developer's job, not CI's: its
# clang build alone would take a third of CI's fifteen minutes.
set -uo pipefail
cd "$(dirname "$0")"
export CTEST_OUTPUT_ON_FAILURE=1
# A rebase of golden files is a developer's act, never a test run's.
unset QUARVEL_REBASE
export QUARVEL_TEST_RUN=1
reports=$(pwd)/build/test-reports
summary=()
failed=0

timings=()
failure_tails=()
stage() { # name command...
  local name=$1 start=$SECONDS rc=0
  shift
  echo "== $name"
  "$@" || rc=$?
  timings+=("$(printf '%5d s  %s' $((SECONDS - start)) "$name")")
  [ $rc -eq 0 ] && return 0
  failed=1
  return 1
}

ctest_stage() { # name preset
  local name=$1 preset=$2
  mkdir -p "$reports"
  ctest --preset "$preset" -j "$(nproc)" --output-junit "$reports/$name.xml"
  local rc=$?
  summary+=("$(scripts/ctest-summary.py "$name" "$reports/$name.xml")")
  return $rc
}

script_stage() { # name script: exit 0 passed, 77 skipped (the last line says why)
  local name=$1 script=$2 log
  log=$(mktemp)
  "$script" 2>&1 | tee "$log"
  local rc=${PIPESTATUS[0]}
  case $rc in
    0)
      if grep -qa '^skip:' "$log"; then
        summary+=("$name: passed, part skipped ($(grep -a '^skip:' "$log" | sed 's/^skip: *//' | paste -sd ';'))")
      else
        summary+=("$name: passed")
      fi ;;
    77) summary+=("$name: skipped ($(grep -a '^skip:' "$log" | tail -1 | sed 's/^skip: *//'))"); rc=0 ;;
    *) summary+=("$name: FAILED (exit $rc)")
       # Its end again after the summary, where a failure far up a long log is found.
       failure_tails+=("== FAILED: $name, the last lines of its output:"$'\n'"$(grep -av '^\[' "$log" | tail -40)") ;;
  esac
  rm -f "$log"
  return $rc
}

# Everything the tests run is installed before anything is configured.
stage setup scripts/setup.sh --tests --no-build || exit 1
[ -f build/build.ninja ] || cmake --preset plain >/dev/null
stage build cmake --build --preset plain || { echo "build failed"; exit 1; }
stage tests ctest_stage tests plain

[ -f build-asan/build.ninja ] || cmake --preset asan >/dev/null
stage "asan build" cmake --build --preset asan && stage asan ctest_stage asan asan

[ -f build-tsan/build.ninja ] || cmake --preset tsan >/dev/null
stage "tsan build" cmake --build --preset tsan && stage tsan ctest_stage tsan tsan

for script in tests/e2e/run.sh tests/e2e/java_stacks.sh tests/e2e/v8/run.sh tests/e2e/dotnet/run.sh \
  tests/e2e/dotnet-perfmap/run.sh; do
  stage "e2e $script" script_stage "e2e ${script#tests/e2e/}" "$script"
done

echo
echo "== time per stage (${SECONDS} s in all)"
printf '%s\n' "${timings[@]}"
echo "== summary"
printf '%s\n' "${summary[@]}"
if [ $failed -ne 0 ]; then
  [ ${#failure_tails[@]} -eq 0 ] || printf '%s\n' "${failure_tails[@]}"
  echo "== some stages FAILED"
  exit 1
fi
echo "== all stages passed"
