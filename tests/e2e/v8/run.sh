#!/usr/bin/env bash
# End-to-end run of the jitdump and perf map readers on a real JavaScript
# engine. A churning node workload (workload.js) runs twice under
# `perf record -k mono -e cpu-clock`: with --perf-prof (a jitdump) and with
# --perf-basic-prof (a perf map). perf's own tools give the oracle:
# `perf inject --jit` + `perf script` name every sample from the jitdump, and
# `perf script` alone names them from the perf map. Then check.py sets the
# library's readers (quarvel_jit_file_walk) against an independent count of the
# records (count_records.py) and against the ELF files perf inject writes (one
# per code load), reads cut copies of the dump, and times the walk of the dump
# against perf inject on the same dump, side by side.
#
# Without perf events (a container, perf_event_paranoid) the samples, the
# oracle and the timing are skipped with the reason printed; the dump and the
# map are still written by node and read.
#
#   tests/e2e/v8/run.sh          (BUILD_DIR=build, E2E_MILLIS=5000; outputs in $BUILD_DIR/e2e-v8)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../.." && pwd)
cd "$root"

BUILD_DIR=${BUILD_DIR:-build}
MILLIS=${E2E_MILLIS:-5000}

if ! command -v node >/dev/null || ! command -v perf >/dev/null || [ ! -x /usr/bin/time ]; then
  QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES="nodejs linux-perf time" scripts/setup.sh
fi

if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$BUILD_DIR" --target quarvel_jit_file_walk >/dev/null
WALK=$(cd "$BUILD_DIR" && pwd)/tests/e2e/v8/quarvel_jit_file_walk

work=$(cd "$BUILD_DIR" && pwd)/e2e-v8
rm -rf "$work"
mkdir -p "$work/prof" "$work/basic" "$work/cuts"
# perf keeps its build-id cache here rather than in the home directory.
export PERF_BUILDID_DIR="$work/buildid"

perf_reason=""
if ! perf record -q -e cpu-clock -k mono -o "$work/probe.data" -- true >"$work/probe.txt" 2>&1; then
  perf_reason=$(grep -v '^$' "$work/probe.txt" | head -1)
  perf_reason=${perf_reason:-perf record failed}
fi
rm -f "$work/probe.data"

node_args=(--expose-gc "$here/workload.js" "$MILLIS")
run_node() { # directory, node flag; the workload prints its pid
  if [ -z "$perf_reason" ]; then
    (cd "$1" && perf record -q -k mono -e cpu-clock -o perf.data -- node "$2" "${node_args[@]}") | tee "$1/node.log"
  else
    (cd "$1" && node "$2" "${node_args[@]}") | tee "$1/node.log"
  fi
}
# Wall seconds (microseconds from the shell's clock) and peak resident KiB of a command.
timed() { # output file, command...
  local out=$1 start end
  shift
  start=$EPOCHREALTIME
  /usr/bin/time -f '%M' -o "$out.rss" "$@"
  end=$EPOCHREALTIME
  echo "$(python3 -c "print(f'{$end - $start:.4f}')") $(tail -1 "$out.rss")" >"$out"
  rm -f "$out.rss"
}
pid_of() { sed -n 's/^pid=\([0-9]*\) .*/\1/p' "$1/node.log"; }

echo "== node --perf-prof (${MILLIS} ms)"
run_node "$work/prof" --perf-prof
pid=$(pid_of "$work/prof")
dump=$work/prof/jit-$pid.dump

echo "== node --perf-basic-prof (${MILLIS} ms)"
run_node "$work/basic" --perf-basic-prof
map_pid=$(pid_of "$work/basic")
map=/tmp/perf-$map_pid.map

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
rm -f "$work"/cuts/*.dump
cp "$map" "$work/basic/"
"$WALK" "$work/basic/perf-$map_pid.map" >"$work/map-walk.json"

check_args=(--count "$work/count.json" --walk "$work/walk.json" --cut-counts "$work/cuts/count.jsonl"
  --cut-walks "$work/cuts/walk.jsonl" --map "$work/basic/perf-$map_pid.map" --map-walk "$work/map-walk.json")

if [ -z "$perf_reason" ]; then
  echo "== perf inject --jit and the library's walk of the same dump, side by side"
  # perf inject writes one ELF file per code load next to the dump.
  (cd "$work/prof" && timed "$work/inject.time" perf inject --jit -i perf.data -o perf.jit.data)
  ls "$work/prof" | grep -c "^jitted-$pid-.*\.so$" >"$work/elf-files.txt" || true
  for i in 1 2 3; do
    timed "$work/walk-$i.time" "$WALK" "$dump" >/dev/null
  done
  echo "== the oracle: perf script on the injected data and on the perf map"
  perf script -i "$work/prof/perf.jit.data" -F pid,tid,time,ip,sym,dso --ns >"$work/oracle-jitdump.txt" 2>/dev/null
  perf script -i "$work/basic/perf.data" -F pid,tid,time,ip,sym,dso --ns >"$work/oracle-perf-map.txt" 2>/dev/null
  check_args+=(--elf-files "$work/elf-files.txt" --loads "$work/loads.tsv" --elf-dir "$work/prof" --inject-time "$work/inject.time"
    --walk-times "$work"/walk-*.time --oracle "$work/oracle-jitdump.txt" --map-oracle "$work/oracle-perf-map.txt")
else
  echo "== perf samples, oracle and timing: SKIPPED, perf events are not available here: $perf_reason"
fi
# The map stays with the run's outputs (perf script above has read it; to
# run perf script on basic/perf.data again, copy it back to /tmp).
rm -f "$map"

python3 "$here/check.py" "${check_args[@]}"
