#!/usr/bin/env bash
# End-to-end run of the jitdump and perf map readers on a real JavaScript
# engine. A churning node workload (workload.js) runs once under
# `perf record -k mono -e cpu-clock` with both --perf-prof (a jitdump) and
# --perf-basic-prof (a perf map), so both files describe the same samples.
# perf's own tools give the oracle: `perf inject --jit` + `perf script` name
# every sample from the jitdump; `perf script` alone names them from the perf
# map. Then check.py
#   - sets the format readers (quarvel_jit_file_walk) against an independent
#     count of the records (count_records.py), against the ELF files perf inject
#     writes (one per code load) and against cut copies of the dump;
#   - sets `quarvel-jit resolve` on the jitdump against perf inject's names
#     (at least 99.9% of the samples perf names from the dump, named the same),
#     on the perf map (the share named as perf inject does, beside perf's own
#     map-file path) and on both files together (the dump wins);
#   - compares the wall clock of `quarvel-jit resolve` with `perf inject --jit`
#     on the same dump, side by side (at least 50x).
#
# Exits 0 when every check passed, 1 when one failed, 77 when the machine
# lacks what the run needs (the last line then says `skip: <reason>`; without
# perf events the files are still written by node and read).
#
#   tests/e2e/v8/run.sh          (BUILD_DIR=build, E2E_MILLIS=5000; outputs in $BUILD_DIR/e2e-v8)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../.." && pwd)
cd "$root"

BUILD_DIR=${BUILD_DIR:-build}
MILLIS=${E2E_MILLIS:-5000}
skip() { echo "skip: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }

if ! command -v node >/dev/null || ! command -v perf >/dev/null; then
  QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES="nodejs linux-perf" scripts/setup.sh >/dev/null 2>&1
fi
command -v node >/dev/null || skip "node is not installed and could not be installed"
command -v perf >/dev/null || skip "perf is not installed and could not be installed"

if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake --preset plain -B "$BUILD_DIR" >/dev/null || fail "cmake could not configure $BUILD_DIR"
fi
cmake --build "$BUILD_DIR" --target quarvel_jit_file_walk quarvel-jit >/dev/null || fail "the build failed"
WALK=$(cd "$BUILD_DIR" && pwd)/tests/e2e/v8/quarvel_jit_file_walk
QJ=$(cd "$BUILD_DIR" && pwd)/tools/quarvel-jit/quarvel-jit

work=$(cd "$BUILD_DIR" && pwd)/e2e-v8
rm -rf "$work"
mkdir -p "$work/run" "$work/cuts" "$work/map"
# perf keeps its build-id cache here rather than in the home directory.
export PERF_BUILDID_DIR="$work/buildid"

perf_reason=""
if ! perf record -q -e cpu-clock -k mono -o "$work/probe.data" -- true >"$work/probe.txt" 2>&1; then
  perf_reason=$(grep -v '^$' "$work/probe.txt" | head -1)
  perf_reason=${perf_reason:-perf record failed}
fi
rm -f "$work/probe.data"

timed() { # output file, command...: wall seconds and peak resident KiB (tests/e2e/timed.py)
  python3 "$root/tests/e2e/timed.py" "$1" -- "${@:2}"
}

node_args=(--perf-prof --perf-basic-prof --expose-gc "$here/workload.js" "$MILLIS")
echo "== node --perf-prof --perf-basic-prof (${MILLIS} ms)"
if [ -z "$perf_reason" ]; then
  (cd "$work/run" && perf record -q -k mono -e cpu-clock -o perf.data -- node "${node_args[@]}") | tee "$work/node.log"
else
  (cd "$work/run" && node "${node_args[@]}") | tee "$work/node.log"
fi
pid=$(sed -n 's/^pid=\([0-9]*\) .*/\1/p' "$work/node.log")
[ -n "$pid" ] || fail "the workload did not run"
dump=$work/run/jit-$pid.dump
map=$work/map/perf-$pid.map
[ -f "$dump" ] && [ -f "/tmp/perf-$pid.map" ] || fail "node wrote no jitdump or no perf map"
cp "/tmp/perf-$pid.map" "$map"

echo "== walks and independent counts"
python3 "$here/count_records.py" "$dump" >"$work/count.json"
"$WALK" --loads "$work/loads.tsv" "$dump" >"$work/walk.json"
# Cut copies: at fractions of the file and a few bytes into a record's prefix.
size=$(stat -c %s "$dump")
for cut in $((size / 2)) $((size / 3)) $((size * 7 / 8)) $((size - 1)) 47; do
  head -c "$cut" "$dump" >"$work/cuts/jit-$pid.$cut.dump"
  python3 "$here/count_records.py" "$work/cuts/jit-$pid.$cut.dump" >>"$work/cuts/count.jsonl"
  "$WALK" "$work/cuts/jit-$pid.$cut.dump" >>"$work/cuts/walk.jsonl"
done
# The tool on one cut copy: every load before the cut, and the cut in its statistics.
cut_copy=$work/cuts/jit-$pid.$((size / 2)).dump
"$QJ" --log-level off --format json stats "$cut_copy" >"$work/cut-stats.json"
rm -f "$work"/cuts/*.dump
"$WALK" "$map" >"$work/map-walk.json"

check_args=(--count "$work/count.json" --walk "$work/walk.json" --cut-counts "$work/cuts/count.jsonl"
  --cut-walks "$work/cuts/walk.jsonl" --cut-stats "$work/cut-stats.json" --map "$map" --map-walk "$work/map-walk.json")

if [ -n "$perf_reason" ]; then
  rm -f "/tmp/perf-$pid.map"
  python3 "$here/check.py" "${check_args[@]}" || exit 1
  skip "perf events are not available here ($perf_reason): the samples, the oracle and the timing were not run"
fi

echo "== the samples, and perf's names from the perf map (perf script without inject)"
perf script -i "$work/run/perf.data" -F pid,time,ip --ns >"$work/samples.txt" 2>/dev/null
perf script -i "$work/run/perf.data" -F pid,tid,time,ip,sym,dso --ns >"$work/oracle-perf-map.txt" 2>/dev/null
# From here on perf must name samples from the jitdump alone.
rm -f "/tmp/perf-$pid.map"

echo "== quarvel-jit resolve and perf inject --jit on the same dump, side by side"
# Each on a quiet machine: the workload's and perf's files are written out
# first, and perf inject's own thousands of files are still being written
# back after it exits, so it runs second.
sync
for i in 1 2 3 4 5; do
  timed "$work/resolve-$i.time" "$QJ" --log-level off --format csv resolve "$dump" --samples "$work/samples.txt" \
    >"$work/resolve-jitdump.csv"
done
# perf inject writes one ELF file per code load next to the dump.
(cd "$work/run" && timed "$work/inject.time" perf inject --jit -i perf.data -o perf.jit.data)
ls "$work/run" | grep -c "^jitted-$pid-.*\.so$" >"$work/elf-files.txt" || true
echo "== the oracle: perf script on the injected data"
perf script -i "$work/run/perf.jit.data" -F pid,tid,time,ip,sym,dso --ns >"$work/oracle-jitdump.txt" 2>/dev/null
echo "== quarvel-jit resolve on the perf map, and on the dump and the map together"
"$QJ" --log-level off --format csv resolve "$map" --samples "$work/samples.txt" >"$work/resolve-perf-map.csv"
"$QJ" --log-level off --format csv resolve "$dump" "$map" --samples "$work/samples.txt" >"$work/resolve-both.csv"

check_args+=(--elf-files "$work/elf-files.txt" --loads "$work/loads.tsv" --elf-dir "$work/run"
  --inject-time "$work/inject.time" --resolve-times "$work"/resolve-*.time --samples "$work/samples.txt"
  --oracle "$work/oracle-jitdump.txt" --map-oracle "$work/oracle-perf-map.txt"
  --resolved "$work/resolve-jitdump.csv" --map-resolved "$work/resolve-perf-map.csv"
  --both-resolved "$work/resolve-both.csv")
python3 "$here/check.py" "${check_args[@]}"
