#!/usr/bin/env bash
# Whole call stacks of a real JVM: the end-to-end workload (java/Hot.java) runs
# with the JVMTI agent and frame pointers kept (-XX:+PreserveFramePointer)
# under `perf record -g`; quarvel-jit names every frame of every sample, and
# java_stacks_check.py checks the chains of inlined frames against HotSpot's
# own inlining log and the callers the source gives. The run's flame graph is
# then opened in headless Chromium (tests/browser/check_flame.py).
#
#   tests/e2e/java_stacks.sh    (BUILD_DIR=build; STACKS_MILLIS=8000; STACKS_FREQ=10000)
# Skips, saying why, when perf events are not available.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
cd "$root"

BUILD_DIR=${BUILD_DIR:-build}
MILLIS=${STACKS_MILLIS:-8000}
FREQ=${STACKS_FREQ:-10000}

# A JDK, perf and a browser, when missing.
if ! command -v javac >/dev/null || ! command -v perf >/dev/null || ! command -v chromium >/dev/null; then
  QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES="openjdk-17-jdk-headless linux-perf chromium" scripts/setup.sh
fi
JAVA=java JAVAC=javac
if [ -n "${JAVA_HOME:-}" ] && [ -x "$JAVA_HOME/bin/javac" ]; then
  JAVA=$JAVA_HOME/bin/java JAVAC=$JAVA_HOME/bin/javac
fi

# The agent and the CLI (a build directory configured before the JDK was
# installed has no agent target: configure it again).
if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
if ! cmake --build "$BUILD_DIR" --target help | grep -q '^quarvel_jvmti:'; then
  cmake "$BUILD_DIR" >/dev/null
fi
cmake --build "$BUILD_DIR" --target quarvel_jvmti quarvel-jit
AGENT=$(cd "$BUILD_DIR" && pwd)/lib/libquarvel_jvmti.so
CLI=$(cd "$BUILD_DIR" && pwd)/tools/quarvel-jit/quarvel-jit
[ -f "$AGENT" ] || { echo "java stacks: the agent was not built ($AGENT)"; exit 1; }

work=$(cd "$BUILD_DIR" && pwd)/e2e-stacks
rm -rf "$work"
mkdir -p "$work/classes"
"$JAVAC" -d "$work/classes" "$here"/java/*.java

if ! perf record -q -g -e cpu-clock -k mono -o "$work/probe.data" -- true >"$work/probe.txt" 2>&1; then
  echo "skip: perf events are not available here: $(grep -v '^$' "$work/probe.txt" | head -1)"
  exit 77
fi

echo "== workload with frame pointers under perf record -g -k mono -e cpu-clock -F $FREQ (${MILLIS} ms)"
perf record -q -g -k mono -e cpu-clock -F "$FREQ" -o "$work/perf.data" -- "$JAVA" \
  -XX:+PreserveFramePointer \
  -XX:ReservedCodeCacheSize=8m \
  -XX:CompileCommand=quiet \
  -XX:CompileCommand=dontinline,Hot::sumRange \
  -XX:+UnlockDiagnosticVMOptions -XX:+LogCompilation -XX:LogFile="$work/compilation.log" \
  -agentpath:"$AGENT"=dir="$work/trace" \
  -cp "$work/classes" Hot "$MILLIS"
perf script -i "$work/perf.data" -F pid,tid,time,ip,sym,dso --ns >"$work/perf.txt" 2>/dev/null
trace=$(ls "$work"/trace/*.jit)
pid=$(basename "$trace" .jit); pid=${pid##*.}

status=0
"$CLI" stacks "$work/trace" --samples "$work/perf.txt" --pid "$pid" --annotate >"$work/stacks.folded" \
  2>"$work/summary.txt"
sed 's/^/  /' "$work/summary.txt"
"$CLI" --format json stacks "$work/trace" --samples "$work/perf.txt" --pid "$pid" --top 30 >"$work/top.json" 2>/dev/null
python3 "$here/java_stacks_check.py" --folded "$work/stacks.folded" --top "$work/top.json" \
  --compilation-log "$work/compilation.log" || status=1

# The same samples as a flame graph, in a browser.
"$CLI" stacks "$work/trace" --samples "$work/perf.txt" --pid "$pid" >"$work/plain.folded" 2>/dev/null
"$CLI" flame "$work/trace" --samples "$work/perf.txt" --pid "$pid" -o "$work/flame.html" --title "Hot.java" 2>/dev/null
if command -v chromium >/dev/null; then
  python3 "$root/tests/browser/check_flame.py" --flame "$work/flame.html" --folded "$work/plain.folded" \
    --search 'Hot::sumRange' --screenshot "$work/flame.png" || status=1
else
  echo "== flame graph in the browser: SKIPPED, Chromium could not be installed"
fi

[ $status -eq 0 ] && echo "== java stacks passed (outputs in $work)" || echo "== java stacks FAILED (outputs in $work)"
exit $status
