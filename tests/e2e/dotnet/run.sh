#!/usr/bin/env bash
# End-to-end test of the reader of the runtime's own event trace (.nettrace)
# on a real .NET run: the workload of workload/ (tiering, OSR, generics,
# lambdas, async, a collectible plugin from plugin/, dynamic methods) runs
# with the event trace enabled from process start by environment variables,
# under perf record -k mono when perf events are available, with the
# runtime's perf map and jitdump as the oracle. quarvel_nettrace_dump reads
# the trace with the library; oracle.py checks what it read.
#
#   tests/e2e/dotnet/run.sh            (BUILD_DIR=build by default; E2E_MILLIS=5000)
#
# Facts this relies on, checked on .NET 10.0.12 (see the report of the run):
#   DOTNET_EnableEventPipe=1, DOTNET_EventPipeOutputPath=<file>,
#   DOTNET_EventPipeConfig=Microsoft-Windows-DotNETRuntime:0x20098:5
#     (Loader 0x8 | Jit 0x10 | EndEnumeration 0x80 | JittedMethodILToNativeMap
#     0x20000, at level 5: below it there are no method loads), the end rundown
#     on by default (DOTNET_EventPipeRundown=0 turns it off); COMPlus_ works too.
#   DOTNET_PerfMapEnabled=1 writes perf-<pid>.map and jit-<pid>.dump into
#     DOTNET_PerfMapJitDumpPath; this runtime's jitdump holds methods only with
#     DOTNET_PerfMapStubGranularity=2 (otherwise two stub records).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../.." && pwd)
cd "$root"

BUILD_DIR=${BUILD_DIR:-build}
MILLIS=${E2E_MILLIS:-5000}
export DOTNET_CLI_TELEMETRY_OPTOUT=1 DOTNET_NOLOGO=1 DOTNET_SKIP_FIRST_TIME_EXPERIENCE=1

if ! command -v dotnet >/dev/null; then
  echo "skip: no dotnet SDK on this machine"
  exit 77
fi
if ! command -v perf >/dev/null; then
  QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES="linux-perf" scripts/setup.sh || true
fi

if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$BUILD_DIR" --target quarvel_nettrace_dump
DUMP=$(cd "$BUILD_DIR" && pwd)/tests/e2e/dotnet/quarvel_nettrace_dump

work=$(cd "$BUILD_DIR" && pwd)/e2e-dotnet
rm -rf "$work"
mkdir -p "$work/src" "$work/maps" "$work/killed-maps"
# Built out of the source tree (dotnet writes obj/ beside the project).
cp -r "$here/workload" "$here/plugin" "$work/src/"
restore=()
[ -d /opt/nuget/packages ] && restore=(--source /opt/nuget/packages)
echo "== building the workload and its plugin"
dotnet build "$work/src/plugin/Plugin.csproj" -c Release -o "$work/plugin" "${restore[@]}" -v q --nologo >"$work/build.log"
dotnet build "$work/src/workload/Workload.csproj" -c Release -o "$work/workload" "${restore[@]}" -v q --nologo >>"$work/build.log"

run_env() { # maps-directory trace-file
  echo DOTNET_EnableEventPipe=1 "DOTNET_EventPipeOutputPath=$2" \
    "DOTNET_EventPipeConfig=Microsoft-Windows-DotNETRuntime:0x20098:5" \
    DOTNET_PerfMapEnabled=1 DOTNET_PerfMapStubGranularity=2 "DOTNET_PerfMapJitDumpPath=$1"
}
workload=(dotnet "$work/workload/Workload.dll" "$MILLIS" "$work/plugin/Plugin.dll")

perf_reason=""
if ! perf record -q -e cpu-clock -k mono -o "$work/probe.data" -- true >"$work/probe.txt" 2>&1; then
  perf_reason=$(grep -v '^$' "$work/probe.txt" | head -1)
fi

status=0
start=$(date +%s.%N)
if [ -z "$perf_reason" ]; then
  echo "== workload under perf record -k mono -e cpu-clock (${MILLIS} ms)"
  # shellcheck disable=SC2046
  env $(run_env "$work/maps" "$work/trace.nettrace") \
    perf record -q -k mono -e cpu-clock -o "$work/perf.data" -- "${workload[@]}"
else
  echo "== perf samples: SKIPPED, perf events are not available here: $perf_reason"
  echo "== workload (${MILLIS} ms)"
  # shellcheck disable=SC2046
  env $(run_env "$work/maps" "$work/trace.nettrace") "${workload[@]}"
fi
end=$(date +%s.%N)
run_seconds=$(python3 -c "print($end - $start)")

echo "== reading the trace"
"$DUMP" "$work/trace.nettrace" --methods "$work/methods.tsv" --ilmaps "$work/ilmaps.tsv" \
  --modules "$work/modules.tsv" --repeat 5 >"$work/summary.json" || status=1
pid=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["pid"])' "$work/summary.json")
oracle=(python3 "$here/oracle.py" --summary "$work/summary.json" --methods "$work/methods.tsv"
        --ilmaps "$work/ilmaps.tsv" --modules "$work/modules.tsv" --perf-map "$work/maps/perf-$pid.map"
        --jitdump "$work/maps/jit-$pid.dump" --run-seconds "$run_seconds")
if [ -z "$perf_reason" ]; then
  perf script -i "$work/perf.data" -F pid,time,ip --ns >"$work/perf.txt" 2>/dev/null
  oracle+=(--perf-script "$work/perf.txt")
fi
"${oracle[@]}" || status=1

# A process killed outright leaves a trace without its end: it reads to its
# last whole event and says where it stops.
echo "== SIGKILL in the middle of a run"
# shellcheck disable=SC2046
env $(run_env "$work/killed-maps" "$work/killed.nettrace") \
  dotnet "$work/workload/Workload.dll" 20000 "$work/plugin/Plugin.dll" >/dev/null 2>&1 &
victim=$!
sleep 4
kill -KILL "$victim"
wait "$victim" 2>/dev/null || true
"$DUMP" "$work/killed.nettrace" >"$work/killed.json" 2>&1 || true
if python3 - "$work/killed.json" <<'EOF'
import json, sys
s = json.load(open(sys.argv[1]))
loads = s["decoded"].get("method.load", 0)
ok = loads > 0 and not s["complete"] and s["damage"] and not s["refused"]
print("  %s  the killed process left %d bytes: %d events (%d method loads) read, then: %s"
      % ("ok  " if ok else "FAIL", s["bytes"], s["events"], loads, s["damage"] or "no damage reported"))
sys.exit(0 if ok else 1)
EOF
then :; else status=1; fi

[ $status -eq 0 ] && echo "== .NET e2e passed" || echo "== .NET e2e FAILED (outputs in $work)"
exit $status
