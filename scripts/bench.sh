#!/usr/bin/env bash
# Builds the benchmarks in Release and prints one table of ingest, resolution
# and memory figures. Traces are generated once into the build directory and
# reused. Progress goes to stderr; the table to stdout.
#
#   scripts/bench.sh                      # the full run (10k, 100k, 1M loads)
#   BENCH_SIZES=10000,100000 scripts/bench.sh
#   BUILD_DIR=/tmp/b scripts/bench.sh --benchmark_filter=resolve
#
# Extra arguments go to the benchmark binary (Google Benchmark flags).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${BUILD_DIR:-build-bench}
sizes=${BENCH_SIZES:-10000,100000,1000000}
regions=${BENCH_RESOLVE_REGIONS:-1000000}

if [ ! -f "$build/build.ninja" ]; then
  cmake --preset bench -B "$build" >&2
fi
ninja -C "$build" -j "$(nproc)" quarvel_bench >&2

echo "quarvel $(git rev-parse --short HEAD 2>/dev/null || echo '?'), $(date -u '+%Y-%m-%d %H:%M UTC')"
exec "$build/bench/quarvel_bench" --cache="$build/bench-cache" --sizes="$sizes" --resolve-regions="$regions" \
  --benchmark_out="$build/bench-results.json" --benchmark_out_format=json "$@"
