#!/usr/bin/env bash
# End-to-end run of the jitdump and perf map readers on the .NET runtime's own
# files. A small C# program of ours (Program.cs: tiering, generics, dynamic
# methods made and dropped round after round) is built with `dotnet build` and
# runs under `perf record -k mono -e cpu-clock` with the runtime's perf map
# and jitdump on. perf's own tools give the oracle: `perf inject --jit` +
# `perf script` name every sample from the jitdump; `perf script` alone names
# them from the perf map. check.py sets `quarvel-jit resolve` on the jitdump
# against perf inject's names (at least 99.9% named the same), reports the
# perf map's share beside perf's own map-file path, and compares the wall
# clock of `quarvel-jit resolve` with `perf inject --jit` on the same dump.
#
# Facts this relies on, checked on .NET 10.0.12: DOTNET_PerfMapEnabled=1
# writes perf-<pid>.map and jit-<pid>.dump into DOTNET_PerfMapJitDumpPath;
# this runtime's jitdump is broken (two stub records only) unless
# DOTNET_PerfMapStubGranularity=2; its perf map prints addresses with 0x.
#
# Exits 0 when every check passed, 1 when one failed, 77 when the machine
# lacks what the run needs (the last line then says `skip: <reason>`).
#
#   tests/e2e/dotnet-perfmap/run.sh   (BUILD_DIR=build, E2E_MILLIS=3000; outputs in $BUILD_DIR/e2e-dotnet-perfmap)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../.." && pwd)
cd "$root"

BUILD_DIR=${BUILD_DIR:-build}
MILLIS=${E2E_MILLIS:-3000}
export DOTNET_CLI_TELEMETRY_OPTOUT=1 DOTNET_NOLOGO=1 DOTNET_SKIP_FIRST_TIME_EXPERIENCE=1
skip() { echo "skip: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }

command -v dotnet >/dev/null || skip "no dotnet SDK on this machine"
if ! command -v perf >/dev/null; then
  QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES="linux-perf" scripts/setup.sh >/dev/null 2>&1
fi
command -v perf >/dev/null || skip "perf is not installed and could not be installed"

if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake --preset plain -B "$BUILD_DIR" >/dev/null || fail "cmake could not configure $BUILD_DIR"
fi
cmake --build "$BUILD_DIR" --target quarvel-jit >/dev/null || fail "the build failed"
QJ=$(cd "$BUILD_DIR" && pwd)/tools/quarvel-jit/quarvel-jit

work=$(cd "$BUILD_DIR" && pwd)/e2e-dotnet-perfmap
rm -rf "$work"
mkdir -p "$work/src" "$work/maps"
export PERF_BUILDID_DIR="$work/buildid"

echo "== dotnet build"
# Built out of the source tree: dotnet writes obj/ beside the project.
cp "$here/Churn.csproj" "$here/Program.cs" "$work/src/"
dotnet build "$work/src/Churn.csproj" -c Release -o "$work/app" -v q --nologo >"$work/build.log" 2>&1 ||
  { tail -20 "$work/build.log"; fail "dotnet build failed"; }

perf_reason=""
if ! perf record -q -e cpu-clock -k mono -o "$work/probe.data" -- true >"$work/probe.txt" 2>&1; then
  perf_reason=$(grep -v '^$' "$work/probe.txt" | head -1)
  perf_reason=${perf_reason:-perf record failed}
fi
rm -f "$work/probe.data"

run=(env DOTNET_PerfMapEnabled=1 DOTNET_PerfMapStubGranularity=2 "DOTNET_PerfMapJitDumpPath=$work/maps")
echo "== the program with the runtime's perf map and jitdump (${MILLIS} ms)"
if [ -z "$perf_reason" ]; then
  "${run[@]}" perf record -q -k mono -e cpu-clock -o "$work/perf.data" -- dotnet "$work/app/Churn.dll" "$MILLIS" |
    tee "$work/run.log"
else
  "${run[@]}" dotnet "$work/app/Churn.dll" "$MILLIS" | tee "$work/run.log"
fi
pid=$(sed -n 's/^pid=\([0-9]*\) .*/\1/p' "$work/run.log")
[ -n "$pid" ] || fail "the program did not run"
dump=$work/maps/jit-$pid.dump
map=$work/maps/perf-$pid.map
[ -f "$dump" ] && [ -f "$map" ] || fail "the runtime wrote no jitdump or no perf map into $work/maps"
"$QJ" --log-level off --format json stats "$dump" "$map" >"$work/stats.json"
check_args=(--stats "$work/stats.json")
if [ -n "$perf_reason" ]; then
  python3 "$here/check.py" "${check_args[@]}" || exit 1
  skip "perf events are not available here ($perf_reason): the samples, the oracle and the timing were not run"
fi

echo "== the samples, and perf's names from the perf map (perf script without inject)"
perf script -i "$work/perf.data" -F pid,time,ip --ns >"$work/samples.txt" 2>/dev/null
# perf's map-file path looks for the map in /tmp only.
cp "$map" "/tmp/perf-$pid.map"
perf script -i "$work/perf.data" -F pid,tid,time,ip,sym,dso --ns >"$work/oracle-perf-map.txt" 2>/dev/null
rm -f "/tmp/perf-$pid.map"

timed() { # output file, command...: wall seconds and peak resident KiB (tests/e2e/timed.py)
  python3 "$root/tests/e2e/timed.py" "$1" -- "${@:2}"
}
echo "== quarvel-jit resolve and perf inject --jit on the same dump, side by side"
# Each on a quiet machine: the workload's and perf's files are written out
# first, and perf inject's own thousands of files are still being written
# back after it exits, so it runs second.
sync
for i in 1 2 3 4 5; do
  timed "$work/resolve-$i.time" "$QJ" --log-level off --format csv resolve "$dump" --samples "$work/samples.txt" \
    >"$work/resolve-jitdump.csv"
done
timed "$work/inject.time" perf inject --jit -i "$work/perf.data" -o "$work/perf.jit.data"
echo "== the oracle: perf script on the injected data"
perf script -i "$work/perf.jit.data" -F pid,tid,time,ip,sym,dso --ns >"$work/oracle-jitdump.txt" 2>/dev/null
echo "== quarvel-jit resolve on the perf map, and on the dump and the map together"
"$QJ" --log-level off --format csv resolve "$map" --samples "$work/samples.txt" >"$work/resolve-perf-map.csv"
"$QJ" --log-level off --format csv resolve "$dump" "$map" --samples "$work/samples.txt" >"$work/resolve-both.csv"

check_args+=(--inject-time "$work/inject.time" --resolve-times "$work"/resolve-*.time --samples "$work/samples.txt"
  --oracle "$work/oracle-jitdump.txt" --map-oracle "$work/oracle-perf-map.txt" --resolved "$work/resolve-jitdump.csv"
  --map-resolved "$work/resolve-perf-map.csv" --both-resolved "$work/resolve-both.csv")
python3 "$here/check.py" "${check_args[@]}"
