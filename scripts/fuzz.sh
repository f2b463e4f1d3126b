#!/usr/bin/env bash
# Fuzzes every target for SECONDS each (default 600), two at a time, starting
# from the committed corpus plus the seeds of the trace writer, then merges
# what was found back into fuzz/corpus/<target>/ (minimised: only inputs that
# add coverage are kept). Exits non-zero when any target crashed, leaked, ran
# out of memory or timed out; the reproducer is kept under the work directory
# (once fixed, it goes to fuzz/regressions/<target>/, which is replayed by
# ctest and never trimmed).
#
#   scripts/fuzz.sh [SECONDS]
#   FUZZ_TARGETS="fuzz_update fuzz_trace_file" scripts/fuzz.sh 60
#   FUZZ_JOBS=1 FUZZ_BUILD=build-fuzz FUZZ_WORK=/dev/shm/quarvel-fuzz scripts/fuzz.sh
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --fuzz --no-build

seconds=${1:-600}
build=${FUZZ_BUILD:-build-fuzz}
jobs=${FUZZ_JOBS:-2}
work=${FUZZ_WORK:-${TMPDIR:-/tmp}/quarvel-fuzz-$$}
merge=${FUZZ_MERGE:-1}
# Bytes of committed corpus per target: past it the largest inputs go first
# (the merge keeps the smallest input for each feature, so little is lost).
# The whole-file targets' inputs are the largest, so they get more.
budget=${FUZZ_CORPUS_BUDGET:-49152}
budget_of() { case "$1" in fuzz_trace_file | fuzz_nettrace) echo $((budget * 8 / 3)) ;; *) echo "$budget" ;; esac; }
all_targets="fuzz_record_framing fuzz_method_load fuzz_inline_load fuzz_update fuzz_runtime_info fuzz_trace_file fuzz_file_names fuzz_jitdump fuzz_perf_map fuzz_nettrace"
targets=${FUZZ_TARGETS:-$all_targets}
# Small inputs keep the committed corpus small; sizes claimed by hostile
# records must not need big files to matter.
fuzz_flags=(-max_len=4096 -rss_limit_mb=2048 -timeout=10 -print_final_stats=1)

if [ ! -f "$build/build.ninja" ]; then
  cmake --preset fuzz -B "$build" >/dev/null
fi
mkdir -p "$work/seeds" "$work/artifacts"
if ! cmake --build "$build" -j "$(nproc)" --target quarvel_fuzz_all >"$work/build.log" 2>&1; then
  tail -40 "$work/build.log"
  exit 1
fi
"$build/fuzz/quarvel_fuzz_seeds" "$work/seeds"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

bytes_in() { find "$@" -type f -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }'; }

run_one() { # target
  local t=$1 bin=$build/fuzz/$1
  mkdir -p "$work/$t" "fuzz/corpus/$t"
  cp -n "fuzz/corpus/$t"/* "fuzz/regressions/$t"/* "$work/seeds/$t"/* "$work/$t"/ 2>/dev/null || true
  local status=0
  nice "$bin" "${fuzz_flags[@]}" -max_total_time="$seconds" -artifact_prefix="$work/artifacts/$t-" \
    "$work/$t" >"$work/$t.log" 2>&1 || status=$?
  local cov; cov=$(grep -E '^#[0-9]+' "$work/$t.log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
  local eps; eps=$(grep -oE 'stat::average_exec_per_sec: *[0-9]+' "$work/$t.log" | grep -oE '[0-9]+$' || true)
  local runs; runs=$(grep -oE 'stat::number_of_executed_units: *[0-9]+' "$work/$t.log" | grep -oE '[0-9]+$' || true)
  if [ "$status" -ne 0 ] || ls "$work/artifacts/$t-"* >/dev/null 2>&1; then
    echo "FAIL $t (status $status): see $work/$t.log and $work/artifacts/"
    grep -E 'ERROR|SUMMARY' "$work/$t.log" | head -5
    return 1
  fi
  if [ "$merge" = 1 ]; then
    # A fresh directory merged from old and new keeps only what adds coverage.
    rm -rf "$work/$t.merged" && mkdir -p "$work/$t.merged"
    nice "$bin" -merge=1 "${fuzz_flags[@]}" "$work/$t.merged" "fuzz/corpus/$t" "$work/$t" >"$work/$t.merge.log" 2>&1
    local f limit; limit=$(budget_of "$t")
    while [ "$(bytes_in "$work/$t.merged")" -gt "$limit" ]; do
      f=$(set +o pipefail; ls -S "$work/$t.merged" | head -1)
      [ -n "$f" ] || break
      rm -f "$work/$t.merged/$f"
    done
    rm -rf "fuzz/corpus/$t" && mv "$work/$t.merged" "fuzz/corpus/$t"
  fi
  echo "ok   $t: ${runs:-?} runs, ${eps:-?} exec/s, ${cov:-no coverage line}, corpus $(ls "fuzz/corpus/$t" | wc -l) files"
}

failed=0
running=0
for t in $targets; do
  run_one "$t" &
  running=$((running + 1))
  if [ "$running" -ge "$jobs" ]; then
    wait -n || failed=1
    running=$((running - 1))
  fi
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done

echo "corpus: $(( $(bytes_in fuzz/corpus) / 1024 )) KB in $(find fuzz/corpus -type f | wc -l) files"
[ "$failed" -eq 0 ] && rm -rf "$work"
exit "$failed"
