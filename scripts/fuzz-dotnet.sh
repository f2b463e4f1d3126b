#!/usr/bin/env bash
# Fuzzes the .NET readers (fuzz_dotnet_metadata, fuzz_dotnet_pdb) for SECONDS
# each (default 300), one after the other, from seeds made of the
# compiler-built fixtures (tests/dotnet: needs the .NET SDK). Nothing is
# merged into the repository: these targets keep no committed corpus, and a
# crash becomes a named regression test in code. Exits non-zero on any crash,
# leak, sanitizer report, out-of-memory or timeout; the reproducer stays in
# the work directory.
#
#   scripts/fuzz-dotnet.sh [SECONDS]
#   FUZZ_BUILD=build-fuzz FUZZ_WORK=/dev/shm/quarvel-fuzz-dotnet scripts/fuzz-dotnet.sh 60
#   FUZZ_SEEDS=build/dotnet-fixtures/seeds scripts/fuzz-dotnet.sh   # seeds a test run already made
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --fuzz --no-build

seconds=${1:-300}
build=${FUZZ_BUILD:-build-fuzz}
work=${FUZZ_WORK:-${TMPDIR:-/tmp}/quarvel-fuzz-dotnet-$$}
fuzz_flags=(-max_len=65536 -rss_limit_mb=2048 -timeout=10 -print_final_stats=1)

if [ ! -f "$build/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQUARVEL_BUILD_FUZZ=ON -DQUARVEL_SANITIZE=address,undefined \
    -DQUARVEL_BUILD_TESTS=OFF -DQUARVEL_BUILD_TOOLS=OFF -DQUARVEL_BUILD_AGENTS=OFF >/dev/null
fi
mkdir -p "$work/artifacts"
if ! cmake --build "$build" -j "$(nproc)" --target fuzz_dotnet_metadata fuzz_dotnet_pdb >"$work/build.log" 2>&1; then
  tail -40 "$work/build.log"
  exit 1
fi
seeds=${FUZZ_SEEDS:-}
if [ -z "$seeds" ]; then
  # The seeds come from the fixtures, built here with the ordinary compiler.
  seedbuild=$work/seedbuild
  cmake -S . -B "$seedbuild" -G Ninja -DQUARVEL_BUILD_AGENTS=OFF >/dev/null
  cmake --build "$seedbuild" --target quarvel_dotnet_dump >"$work/seedbuild.log" 2>&1
  bash tests/dotnet/build_fixtures.sh tests/dotnet "$work/dotnet"
  bash tests/dotnet/make_fuzz_seeds.sh "$work/dotnet" "$seedbuild/tests/dotnet/quarvel_dotnet_dump" "$work/seeds"
  seeds=$work/seeds
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
failed=0
for t in fuzz_dotnet_metadata fuzz_dotnet_pdb; do
  mkdir -p "$work/$t"
  cp "$seeds/$t"/* "$work/$t/"
  status=0
  nice "$build/fuzz/$t" "${fuzz_flags[@]}" -max_total_time="$seconds" -artifact_prefix="$work/artifacts/$t-" \
    "$work/$t" >"$work/$t.log" 2>&1 || status=$?
  cov=$(grep -E '^#[0-9]+' "$work/$t.log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
  runs=$(grep -oE 'stat::number_of_executed_units: *[0-9]+' "$work/$t.log" | grep -oE '[0-9]+$' || true)
  if [ "$status" -ne 0 ] || ls "$work/artifacts/$t-"* >/dev/null 2>&1; then
    echo "FAIL $t (status $status): see $work/$t.log and $work/artifacts/"
    grep -E 'ERROR|SUMMARY' "$work/$t.log" | head -5 || true
    failed=1
  else
    echo "ok   $t: ${runs:-?} runs, ${cov:-no coverage line}, corpus $(ls "$work/$t" | wc -l) files"
  fi
done
[ "$failed" -eq 0 ] && rm -rf "$work"
exit "$failed"
