#!/usr/bin/env bash
# End-to-end test of the JVMTI agent on a real JVM: a Java workload runs with
# the agent (under perf when perf events are available), and HotSpot's own
# logs are the oracle for both the trace and what quarvel-jit resolves from
# the perf samples. See oracle.py for the checks.
#
# A second, shorter run uses an agent told to stamp loads with the time their
# events arrive (stamps=event, wrong on purpose): the oracle must reject it
# by a wide margin, or it could not tell a right load time from a wrong one.
#
#   tests/e2e/run.sh            (BUILD_DIR=build by default; E2E_MILLIS=5000,
#                                E2E_SABOTAGE_MILLIS=2500; E2E_NO_PERF=1 runs
#                                as on a machine without perf events)
# Exit status: 0 passed, 1 failed, 77 nothing could be checked (the last line
# says why). When only perf is missing it says `skip: perf samples (...)` and
# checks the rest.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1   # no __pycache__ in the source tree
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
cd "$root"

BUILD_DIR=${BUILD_DIR:-build}
MILLIS=${E2E_MILLIS:-5000}
SABOTAGE_MILLIS=${E2E_SABOTAGE_MILLIS:-2500}

# A JDK and perf, when missing.
if ! command -v javac >/dev/null || ! command -v perf >/dev/null; then
  QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES="openjdk-17-jdk-headless linux-perf" scripts/setup.sh || true
fi
JAVA=java JAVAC=javac
if [ -n "${JAVA_HOME:-}" ] && [ -x "$JAVA_HOME/bin/javac" ]; then
  JAVA=$JAVA_HOME/bin/java JAVAC=$JAVA_HOME/bin/javac
fi
if ! command -v "$JAVAC" >/dev/null; then
  echo "skip: no JDK (javac not found and could not be installed)"
  exit 77
fi

# The agent and the CLI. A build directory configured before the JDK was
# installed has no agent target: configure it again.
if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
if ! cmake --build "$BUILD_DIR" --target help | grep '^quarvel_jvmti:' >/dev/null; then
  cmake "$BUILD_DIR" >/dev/null
fi
cmake --build "$BUILD_DIR" --target quarvel_jvmti quarvel-jit
AGENT=$(cd "$BUILD_DIR" && pwd)/lib/libquarvel_jvmti.so
CLI=$(cd "$BUILD_DIR" && pwd)/tools/quarvel-jit/quarvel-jit
[ -f "$AGENT" ] || { echo "e2e: the agent was not built ($AGENT)"; exit 1; }

work=$(cd "$BUILD_DIR" && pwd)/e2e
rm -rf "$work"
mkdir -p "$work/classes"
"$JAVAC" -d "$work/classes" "$here"/java/*.java

# Samples per second: many, so that enough fall in the first moments of new
# code; no more than the kernel allows.
FREQ=10000
max_rate=$(cat /proc/sys/kernel/perf_event_max_sample_rate 2>/dev/null || echo "$FREQ")
[ "$max_rate" -ge "$FREQ" ] || FREQ=$max_rate
# At 10 kHz a run has 50 to 430 samples in code younger than 1 ms; fewer
# samples per second, a lower floor (never below 10).
MIN_YOUNG=$(( FREQ >= 10000 ? 25 : (FREQ >= 4000 ? 25 * FREQ / 10000 : 10) ))
perf_reason=""
if ! perf record -q -e cpu-clock -k mono -o "$work/probe.data" -- true >"$work/probe.txt" 2>&1; then
  perf_reason=$(grep -v '^$' "$work/probe.txt" | head -1)
fi
[ -z "${E2E_NO_PERF:-}" ] || perf_reason="E2E_NO_PERF is set"

# run_workload <dir> <millis> <agent options>: the JVM's logs and the trace go
# to <dir>; under perf when it works.
run_workload() {
  local dir=$1 millis=$2 agent_options=$3
  mkdir -p "$dir"
  local java_args=(
    -XX:ReservedCodeCacheSize=8m            # small: freed code gets its addresses reused
    -XX:CompileCommand=quiet
    -XX:CompileCommand=dontinline,Hot::sumRange
    -XX:+UnlockDiagnosticVMOptions -XX:+LogCompilation -XX:LogFile="$dir/compilation.log"
    # The debug info of the workload's nmethods, into the same log (buffered:
    # printing to standard output costs a write per word). Printing an nmethod
    # costs far more than compiling it: only those where the samples fall.
    -XX:+LogVMOutput -XX:-DisplayVMOutput
    -XX:CompileCommand=PrintNMethods,Hot::sumRange -XX:CompileCommand=PrintNMethods,Hot::d*
    -XX:CompileCommand=PrintNMethods,Hot::lambda* '-XX:CompileCommand=PrintNMethods,Hot$$Lambda*::*'
    -XX:CompileCommand=PrintNMethods,Payload*::applyAsLong
    -Xlog:jit+compilation=debug,nmethod+install=info:file="$dir/jit.log":uptimenanos,timenanos,tags
    -agentpath:"$AGENT"=dir="$dir/trace",verbose=1${agent_options:+,$agent_options}
    -cp "$work/classes" Hot "$millis"
  )
  if [ -z "$perf_reason" ]; then
    perf record -q -k mono -e cpu-clock -F "$FREQ" -o "$dir/perf.data" -- "$JAVA" "${java_args[@]}" >"$dir/stdout.txt"
    perf script -i "$dir/perf.data" -F pid,time,ip --ns >"$dir/perf.txt" 2>/dev/null
  else
    "$JAVA" "${java_args[@]}" >"$dir/stdout.txt"
  fi
  grep '^rounds' "$dir/stdout.txt" || true
  "$CLI" symbols "$dir/trace" --format csv >"$dir/symbols.csv"
}

# check <dir> <oracle options...>
check() {
  local dir=$1
  shift
  local trace pid
  trace=$(ls "$dir"/trace/*.jit)
  local args=(--trace "$trace" --compilation-log "$dir/compilation.log" --xlog "$dir/jit.log"
              --symbols "$dir/symbols.csv")
  if [ -z "$perf_reason" ]; then
    pid=$(basename "$trace" .jit); pid=${pid##*.}
    "$CLI" resolve "$dir/trace" --samples "$dir/perf.txt" --samples-format perf --format csv >"$dir/resolved.csv"
    "$CLI" resolve "$dir/trace" --samples "$dir/perf.txt" --samples-format perf --format csv --top 10 \
      >"$dir/top.csv"
    args+=(--perf-script "$dir/perf.txt" --resolved "$dir/resolved.csv" --top "$dir/top.csv" --pid "$pid"
           --min-young "$MIN_YOUNG")
  fi
  python3 "$here/oracle.py" "${args[@]}" "$@"
}

status=0
if [ -n "$perf_reason" ]; then
  echo "skip: perf samples (perf events are not available here: $perf_reason)"
fi
under=" under perf record -k mono -e cpu-clock -F $FREQ"
[ -z "$perf_reason" ] || under=""
echo "== workload$under (${MILLIS} ms)"
run_workload "$work/run" "$MILLIS" ""
check "$work/run" || status=1

echo "== sabotage: an agent that stamps loads with their event's arrival (${SABOTAGE_MILLIS} ms)"
run_workload "$work/sabotage" "$SABOTAGE_MILLIS" "stamps=event"
check "$work/sabotage" --sabotaged || status=1

# A JVM killed outright leaves a trace that reads to its last whole record.
echo "== SIGKILL in the middle of a run"
"$JAVA" -XX:ReservedCodeCacheSize=8m -agentpath:"$AGENT"=dir="$work/killed" -cp "$work/classes" Hot 20000 \
  >/dev/null 2>&1 &
victim=$!
sleep 2
kill -KILL "$victim"
wait "$victim" 2>/dev/null || true
if python3 -c '
import sys
sys.path.insert(0, sys.argv[1])
import oracle
header, loads = oracle.read_trace(sys.argv[2])
methods = sum(1 for l in loads if not l.inline)
print("  ok    the killed JVM left %d loads and %d inline records, every record whole" % (methods, len(loads) - methods))
sys.exit(0 if methods > 0 else 1)
' "$here" "$work"/killed/*.jit; then :; else
  echo "  FAIL  the killed JVM's trace does not read"
  status=1
fi

[ $status -eq 0 ] && echo "== e2e passed" || echo "== e2e FAILED (outputs in $work)"
exit $status
