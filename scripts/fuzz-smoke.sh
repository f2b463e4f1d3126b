#!/usr/bin/env bash
# A short run of the fuzz targets: builds the fuzz tree (clang, libFuzzer,
# ASan + UBSan) in build-fuzz/ and runs every target for a short time
# (FUZZ_SMOKE_SECONDS, default 25), two at a time, starting from the committed
# corpus. Fails on any crash, leak, sanitizer report, out-of-memory or
# timeout. The committed corpus is left as it is; scripts/fuzz.sh grows it.
set -euo pipefail
cd "$(dirname "$0")/.."

FUZZ_MERGE=0 FUZZ_JOBS=${FUZZ_JOBS:-2} FUZZ_BUILD=${FUZZ_BUILD:-build-fuzz} \
  exec scripts/fuzz.sh "${FUZZ_SMOKE_SECONDS:-25}"
