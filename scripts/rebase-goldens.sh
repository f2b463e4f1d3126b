#!/usr/bin/env bash
# Refreshes the golden outputs of the quarvel-jit tests (tests/cli/golden/)
# from the current build. Review the diff before committing it.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
cmake --build "$BUILD_DIR" --target quarvel-jit quarvel-example-traces quarvel_json_check
QUARVEL_REBASE=1 ctest --test-dir "$BUILD_DIR" -L '^cli$' -R '^cli\.' --output-on-failure
git --no-pager diff --stat -- tests/cli/golden
