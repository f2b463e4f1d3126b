#!/usr/bin/env bash
# Builds everything, writes the example trace set (a simulated JIT session of a
# small Java application in two processes) and resolves its samples with
# quarvel-jit: first the hottest methods and source lines, then a few samples.
set -euo pipefail
cd "$(dirname "$0")"

scripts/setup.sh
BUILD_DIR=${BUILD_DIR:-build}
tool=("$BUILD_DIR/tools/quarvel-jit/quarvel-jit")
dir=$BUILD_DIR/example

"$BUILD_DIR/examples/quarvel-example-traces" "$dir"
echo
echo "\$ quarvel-jit resolve $dir --samples $dir/samples.csv --top 10"
"${tool[@]}" resolve "$dir" --samples "$dir/samples.csv" --top 10
echo
echo "\$ quarvel-jit resolve $dir --samples $dir/samples.csv | head"
"${tool[@]}" resolve "$dir" --samples "$dir/samples.csv" | head || true
