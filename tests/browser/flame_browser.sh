#!/usr/bin/env bash
# The flame graph in a real browser: headless Chromium (installed from Debian's
# packages when missing) opens the flame graph of the example's stack samples,
# as an HTML page and as an SVG document, and check_flame.py compares what it
# shows with the folded stacks of the same samples.
#
#   flame_browser.sh TOOL EXAMPLE_GENERATOR WORK_DIR
# Exit status 0 passed, 1 failed, 77 skipped (no Chromium and none to install).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
tool=$1 generator=$2 work=$3

if ! command -v chromium >/dev/null; then
  if ! QUARVEL_SETUP_NO_BUILD=1 QUARVEL_EXTRA_PACKAGES=chromium "$root/scripts/setup.sh" || \
     ! command -v chromium >/dev/null; then
    echo "SKIPPED: Chromium is not installed and could not be installed from Debian's packages"
    exit 77
  fi
fi

rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 1
"$generator" example >/dev/null || exit 1
"$tool" --log-level off stacks example --samples example/stacks.txt >stacks.folded 2>/dev/null || exit 1
status=0
for ext in html svg; do
  "$tool" --log-level off flame example --samples example/stacks.txt -o "flame.$ext" --title "Example session" \
    2>/dev/null || exit 1
  python3 "$here/check_flame.py" --flame "flame.$ext" --folded stacks.folded --search 'applyDiscount' \
    --screenshot "$work/flame.$ext.png" || status=1
done
exit $status
