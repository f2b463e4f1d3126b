#!/usr/bin/env bash
# End-to-end test of .NET runs resolved from the runtime's own event trace
# (.nettrace). The workload of workload/ (tiering, OSR, generics, lambdas,
# async, a collectible plugin from plugin/ loaded and unloaded again and
# again, dynamic methods whose code addresses are reused) runs with the event
# trace enabled from process start by environment variables, under
# perf record -k mono -e cpu-clock, with the runtime's perf map and jitdump on
# as the oracle.
#   1. quarvel_nettrace_dump reads the trace with the library's reader;
#      oracle.py checks what it read against the perf map and the jitdump.
#   2. quarvel-jit resolve names perf's samples from the trace alone;
#      resolve_check.py compares the names with the jitdump's (at least 99.5%
#      of the samples in jitted code, reused addresses included) and the
#      source lines with System.Reflection.Metadata's (the peer tool of
#      tests/dotnet/peer) for the same IL offsets (all of them).
#   3. A process killed outright leaves a trace that reads to its last whole event.
#
#   tests/e2e/dotnet/run.sh   (BUILD_DIR=build, E2E_MILLIS=4000; outputs in $BUILD_DIR/e2e-dotnet)
#
# Exits 0 when every check passed, 1 when one failed, 77 when the machine
# lacks what the run needs (the last line then says `skip: <reason>`; without
# perf events the reader's checks still run first).
#
# Facts this relies on, checked on .NET 10.0.12:
#   DOTNET_EnableEventPipe=1, DOTNET_EventPipeOutputPath=<file>,
#   DOTNET_EventPipeConfig=Microsoft-Windows-DotNETRuntime:0x20098:5
#     (Loader 0x8 | Jit 0x10 | EndEnumeration 0x80 | JittedMethodILToNativeMap
#     0x20000, at level 5: below it there are no method loads), the end rundown
#     on by default (DOTNET_EventPipeRundown=0 turns it off); COMPlus_ works too.
#   DOTNET_PerfMapEnabled=1 writes perf-<pid>.map and jit-<pid>.dump into
#     DOTNET_PerfMapJitDumpPath; this runtime's jitdump holds methods only with
#     DOTNET_PerfMapStubGranularity=2 (otherwise two stub records).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../.." && pwd)
cd "$root"

BUILD_DIR=${BUILD_DIR:-build}
MILLIS=${E2E_MILLIS:-4000}
export DOTNET_CLI_TELEMETRY_OPTOUT=1 DOTNET_NOLOGO=1 DOTNET_SKIP_FIRST_TIME_EXPERIENCE=1
skip() { echo "skip: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }

command -v dotnet >/dev/null || skip "no dotnet SDK on this machine"
if ! command -v perf >/dev/null; then
  QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES="linux-perf" scripts/setup.sh >/dev/null 2>&1 || true
fi

if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || fail "cmake could not configure $BUILD_DIR"
fi
cmake --build "$BUILD_DIR" --target quarvel_nettrace_dump quarvel-jit >/dev/null || fail "the build failed"
bin=$(cd "$BUILD_DIR" && pwd)
DUMP=$bin/tests/e2e/dotnet/quarvel_nettrace_dump
QJ=$bin/tools/quarvel-jit/quarvel-jit

# The workload, its plugin and the peer tool, built in one go into a directory
# kept across runs (rebuilt when their sources or the SDK change). The peer
# tool the .NET tests built is taken when it is there.
assemblies=$bin/e2e-dotnet-bin
fixtures=$(sed -n 's/^QUARVEL_DOTNET_FIXTURES:PATH=//p' "$BUILD_DIR/CMakeCache.txt")
peer=${fixtures:-$bin/tests/dotnet/out}/bin/MetadataPeer/MetadataPeer.dll
[ -f "$peer" ] || peer=$assemblies/MetadataPeer/MetadataPeer.dll
stamp=$( (dotnet --version; echo "$peer"; cat "$here"/workload/* "$here"/plugin/* "$root"/tests/dotnet/peer/*) |
  sha256sum | cut -c1-16)
if [ "$(cat "$assemblies/stamp" 2>/dev/null)" != "$stamp" ]; then
  rm -rf "$assemblies"
  mkdir -p "$assemblies/src"
  # Built out of the source tree: dotnet writes obj/ beside the projects.
  cp -r "$here/workload" "$here/plugin" "$assemblies/src/"
  projects='<Project Path="plugin/Plugin.csproj" /><Project Path="workload/Workload.csproj" />'
  if [ "$peer" = "$assemblies/MetadataPeer/MetadataPeer.dll" ]; then
    echo "== building the workload, its plugin and the peer tool"
    mkdir -p "$assemblies/src/peer"
    cp "$root/tests/dotnet/peer/MetadataPeer.csproj" "$root/tests/dotnet/peer/Program.cs" "$assemblies/src/peer/"
    projects+='<Project Path="peer/MetadataPeer.csproj" />'
  else
    echo "== building the workload and its plugin"
  fi
  cat >"$assemblies/src/Directory.Build.props" <<'EOF'
<Project>
  <PropertyGroup>
    <OutDir>$(MSBuildThisFileDirectory)../$(MSBuildProjectName)/</OutDir>
  </PropertyGroup>
</Project>
EOF
  echo "<Solution>$projects</Solution>" >"$assemblies/src/all.slnx"
  restore=()
  [ -d /opt/nuget/packages ] && restore=(--source /opt/nuget/packages)
  dotnet build "$assemblies/src/all.slnx" -c Release "${restore[@]}" -v q --nologo >"$assemblies/build.log" 2>&1 ||
    { tail -20 "$assemblies/build.log"; fail "dotnet build failed"; }
  echo "$stamp" >"$assemblies/stamp"
fi

work=$bin/e2e-dotnet
rm -rf "$work"
mkdir -p "$work/maps" "$work/killed-maps"

run_env() { # maps-directory trace-file
  echo DOTNET_EnableEventPipe=1 "DOTNET_EventPipeOutputPath=$2" \
    "DOTNET_EventPipeConfig=Microsoft-Windows-DotNETRuntime:0x20098:5" \
    DOTNET_PerfMapEnabled=1 DOTNET_PerfMapStubGranularity=2 "DOTNET_PerfMapJitDumpPath=$1"
}
workload=(dotnet "$assemblies/Workload/Workload.dll" "$MILLIS" "$assemblies/Plugin/Plugin.dll")

perf_reason=""
if ! command -v perf >/dev/null; then
  perf_reason="perf is not installed and could not be installed"
elif ! perf record -q -e cpu-clock -k mono -o "$work/probe.data" -- true >"$work/probe.txt" 2>&1; then
  perf_reason=$(grep -v '^$' "$work/probe.txt" | head -1)
  perf_reason="perf events are not available here (${perf_reason:-perf record failed})"
fi

status=0
start=$EPOCHREALTIME
if [ -z "$perf_reason" ]; then
  echo "== workload under perf record -k mono -e cpu-clock (${MILLIS} ms)"
  # shellcheck disable=SC2046
  env $(run_env "$work/maps" "$work/trace.nettrace") \
    perf record -q -k mono -e cpu-clock -o "$work/perf.data" -- "${workload[@]}" || fail "the workload failed"
else
  echo "== workload (${MILLIS} ms), without perf: $perf_reason"
  # shellcheck disable=SC2046
  env $(run_env "$work/maps" "$work/trace.nettrace") "${workload[@]}" || fail "the workload failed"
fi
end=$EPOCHREALTIME
run_seconds=$(python3 -c "print($end - $start)")

echo "== reading the trace"
"$DUMP" "$work/trace.nettrace" --methods "$work/methods.tsv" --ilmaps "$work/ilmaps.tsv" \
  --modules "$work/modules.tsv" >"$work/summary.json" || status=1
pid=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["pid"])' "$work/summary.json") ||
  fail "the reader wrote no summary"
oracle=(python3 "$here/oracle.py" --summary "$work/summary.json" --methods "$work/methods.tsv"
        --ilmaps "$work/ilmaps.tsv" --modules "$work/modules.tsv" --perf-map "$work/maps/perf-$pid.map"
        --jitdump "$work/maps/jit-$pid.dump")
if [ -z "$perf_reason" ]; then
  perf script -i "$work/perf.data" -F pid,time,ip --ns >"$work/perf.txt" 2>/dev/null
  oracle+=(--perf-script "$work/perf.txt")
fi
"${oracle[@]}" || status=1

if [ -z "$perf_reason" ]; then
  echo "== quarvel-jit resolve on the trace alone, against the jitdump and System.Reflection.Metadata"
  t0=$EPOCHREALTIME
  "$QJ" --log-level off --format csv resolve "$work/trace.nettrace" --samples "$work/perf.txt" \
    >"$work/resolved.csv" || status=1
  t1=$EPOCHREALTIME
  # The runtime's stubs are in its perf map only: with the map beside the trace they are named too.
  "$QJ" --log-level off --format csv resolve "$work/trace.nettrace" "$work/maps/perf-$pid.map" \
    --samples "$work/perf.txt" >"$work/resolved-with-map.csv" || status=1
  dotnet "$peer" "$assemblies/Workload/Workload.dll" \
    "$assemblies/Plugin/Plugin.dll" >"$work/peer.txt" || status=1
  python3 "$here/resolve_check.py" --resolved "$work/resolved.csv" --samples "$work/perf.txt" --pid "$pid" \
    --jitdump "$work/maps/jit-$pid.dump" --methods "$work/methods.tsv" --ilmaps "$work/ilmaps.tsv" \
    --peer "$work/peer.txt" --resolved-with-map "$work/resolved-with-map.csv" --resolve-seconds "$(python3 -c "print($t1 - $t0)")" --run-seconds "$run_seconds" ||
    status=1
fi

# A process killed outright leaves a trace without its end: it reads to its
# last whole event and says where it stops.
echo "== SIGKILL in the middle of a run"
# shellcheck disable=SC2046
env $(run_env "$work/killed-maps" "$work/killed.nettrace") \
  dotnet "$assemblies/Workload/Workload.dll" 20000 "$assemblies/Plugin/Plugin.dll" >/dev/null 2>&1 &
victim=$!
sleep 3
kill -KILL "$victim"
wait "$victim" 2>/dev/null
"$DUMP" "$work/killed.nettrace" >"$work/killed.json" 2>&1
"$QJ" --log-level off --format json stats "$work/killed.nettrace" >"$work/killed-stats.json"
if python3 - "$work/killed.json" "$work/killed-stats.json" <<'EOF'
import json, sys
s = json.load(open(sys.argv[1]))
st = json.load(open(sys.argv[2]))["stats"]
loads = s["decoded"].get("method.load", 0)
ok = loads > 0 and not s["complete"] and s["damage"] and not s["refused"]
print("  %s  the killed process left %d bytes: %d events (%d method loads) read, then: %s"
      % ("ok  " if ok else "FAIL", s["bytes"], s["events"], loads, s["damage"] or "no damage reported"))
kept = st["nettrace_code_loads"] == loads and st["damaged_records"] == 1 and st["methods"] >= loads
print("  %s  quarvel-jit keeps every method load before the cut (%d of %d) and counts the cut (%d damaged)"
      % ("ok  " if kept else "FAIL", st["nettrace_code_loads"], loads, st["damaged_records"]))
sys.exit(0 if ok and kept else 1)
EOF
then :; else status=1; fi

if [ $status -ne 0 ]; then
  echo "== .NET e2e FAILED (outputs in $work)"
  exit 1
fi
[ -n "$perf_reason" ] && skip "$perf_reason: the samples were not resolved (the reader's checks passed)"
echo "== .NET e2e passed"
exit 0
