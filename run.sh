#!/usr/bin/env bash
# The shipped example, end to end: installs what is missing, builds, writes
# the example trace set (a simulated JIT session of a small Java application
# in two processes) and resolves its samples with quarvel-jit. One line per
# step; the build's own output goes to the log file named below.
set -euo pipefail
cd "$(dirname "$0")"

log=build/run.log
mkdir -p build
: >"$log"
step() { # text command...
  local text=$1
  shift
  printf '%-52s' "$text"
  if "$@" >>"$log" 2>&1; then
    echo "done"
  else
    echo "FAILED (see $log)"
    tail -20 "$log"
    exit 1
  fi
}

step "Installing missing packages..." scripts/setup.sh --no-build
step "Configuring (build/)..." bash -c '[ -f build/build.ninja ] || cmake --preset plain'
step "Building the library and quarvel-jit..." cmake --build --preset plain --target quarvel-jit quarvel-example-traces
tool=build/tools/quarvel-jit/quarvel-jit
dir=build/example
step "Writing the example traces to $dir..." build/examples/quarvel-example-traces "$dir"
echo "(build output: $log)"

echo
echo "\$ quarvel-jit resolve $dir --samples $dir/samples.csv --top 10"
"$tool" --log-level off resolve "$dir" --samples "$dir/samples.csv" --top 10
echo
echo "\$ quarvel-jit resolve $dir --samples $dir/samples.csv | head"
"$tool" --log-level off resolve "$dir" --samples "$dir/samples.csv" | head || true
