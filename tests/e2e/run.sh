#!/usr/bin/env bash
# End-to-end test of the JVMTI agent on a real JVM: a Java workload runs with
# the agent (under perf when perf events are available), and HotSpot's own
# compilation log is the oracle for both the trace and what quarvel-jit
# resolves from the perf samples. See oracle.py for the checks.
#
#   tests/e2e/run.sh            (BUILD_DIR=build by default; E2E_MILLIS=5000)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
cd "$root"

BUILD_DIR=${BUILD_DIR:-build}
MILLIS=${E2E_MILLIS:-5000}

# A JDK and perf, when missing.
if ! command -v javac >/dev/null || ! command -v perf >/dev/null; then
  QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES="openjdk-17-jdk-headless linux-perf" scripts/setup.sh
fi
JAVA=java JAVAC=javac
if [ -n "${JAVA_HOME:-}" ] && [ -x "$JAVA_HOME/bin/javac" ]; then
  JAVA=$JAVA_HOME/bin/java JAVAC=$JAVA_HOME/bin/javac
fi

# The agent and the CLI. A build directory configured before the JDK was
# installed has no agent target: configure it again.
if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
if ! cmake --build "$BUILD_DIR" --target help | grep -q '^quarvel_jvmti:'; then
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

java_args=(
  -XX:ReservedCodeCacheSize=8m            # small: freed code gets its addresses reused
  -XX:CompileCommand=quiet
  -XX:CompileCommand=dontinline,Hot::sumRange
  -XX:+UnlockDiagnosticVMOptions -XX:+LogCompilation -XX:LogFile="$work/compilation.log"
  -Xlog:jit+compilation=debug:file="$work/jit.log":uptimenanos,timenanos
  -agentpath:"$AGENT"=dir="$work/trace",verbose=1
  -cp "$work/classes" Hot "$MILLIS"
)

perf_reason=""
if ! perf record -q -e cpu-clock -k mono -o "$work/probe.data" -- true >"$work/probe.txt" 2>&1; then
  perf_reason=$(grep -v '^$' "$work/probe.txt" | head -1)
fi

status=0
if [ -z "$perf_reason" ]; then
  echo "== workload under perf record -k mono -e cpu-clock (${MILLIS} ms)"
  perf record -q -k mono -e cpu-clock -o "$work/perf.data" -- "$JAVA" "${java_args[@]}"
  perf script -i "$work/perf.data" -F pid,time,ip --ns >"$work/perf.txt" 2>/dev/null
  trace=$(ls "$work"/trace/*.jit)
  pid=$(basename "$trace" .jit); pid=${pid##*.}
  "$CLI" resolve "$work/trace" --samples "$work/perf.txt" --samples-format perf --format csv >"$work/resolved.csv"
  "$CLI" resolve "$work/trace" --samples "$work/perf.txt" --samples-format perf --format csv --top 10 >"$work/top.csv"
  "$CLI" symbols "$work/trace" --format csv >"$work/symbols.csv"
  python3 "$here/oracle.py" --trace "$trace" --compilation-log "$work/compilation.log" --xlog "$work/jit.log" \
    --perf-script "$work/perf.txt" --resolved "$work/resolved.csv" --symbols "$work/symbols.csv" \
    --top "$work/top.csv" --pid "$pid" --hottest sumRange || status=1
else
  echo "skip: perf samples (perf events are not available here: $perf_reason)"
  echo "== workload (${MILLIS} ms)"
  "$JAVA" "${java_args[@]}"
  trace=$(ls "$work"/trace/*.jit)
  python3 "$here/oracle.py" --trace "$trace" --compilation-log "$work/compilation.log" --xlog "$work/jit.log" \
    || status=1
fi

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
