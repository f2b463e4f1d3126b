#!/usr/bin/env bash
# One golden-output case of quarvel-jit.
#   run_case.sh TOOL JSON_CHECK GOLDEN_DIR WORK_DIR NAME EXIT_CODE [--stderr] [--json] -- ARGS...
# Runs TOOL ARGS in WORK_DIR, checks the exit code, validates JSON output when
# asked, and compares stdout (and stderr with --stderr) with GOLDEN_DIR/NAME.txt.
# --local-host prints this machine's name as LOCALHOST (files runtimes write
# for profilers belong to the host that reads them).
# QUARVEL_REBASE=1 rewrites the golden file instead of comparing.
set -uo pipefail
tool=$1 json_check=$2 golden_dir=$3 work=$4 name=$5 want_rc=$6
shift 6
with_stderr=0 json=0 local_host=0
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
  case $1 in
    --stderr) with_stderr=1 ;;
    --json) json=1 ;;
    --local-host) local_host=1 ;;
    *) echo "run_case.sh: unknown flag $1" >&2; exit 2 ;;
  esac
  shift
done
shift

out=$(mktemp) err=$(mktemp) actual=$(mktemp)
trap 'rm -f "$out" "$err" "$actual"' EXIT
(cd "$work" && "$tool" "$@" >"$out" 2>"$err")
rc=$?
status=0
if [ "$rc" != "$want_rc" ]; then
  echo "$name: exit code $rc, expected $want_rc; stderr:" >&2
  cat "$err" >&2
  status=1
fi
if [ "$json" = 1 ] && ! "$json_check" "$out"; then
  echo "$name: the output is not one JSON document" >&2
  status=1
fi
cat "$out" >"$actual"
if [ "$with_stderr" = 1 ]; then
  echo "--- stderr" >>"$actual"
  cat "$err" >>"$actual"
fi
if [ "$local_host" = 1 ]; then
  host=$(hostname | sed 's/[][\.*^$/]/\\&/g')
  sed -i "s/$host/LOCALHOST/g" "$actual"
fi
golden=$golden_dir/$name.txt
if [ "${QUARVEL_REBASE:-0}" = 1 ] && [ -n "${QUARVEL_TEST_RUN:-}" ]; then
  echo "$name: QUARVEL_REBASE is ignored in a test run (./test.sh, CI); comparing" >&2
fi
if [ "${QUARVEL_REBASE:-0}" = 1 ] && [ -z "${QUARVEL_TEST_RUN:-}" ]; then
  cp "$actual" "$golden"
  echo "$name: rebased $golden"
elif ! diff -u "$golden" "$actual"; then
  echo "$name: output differs from $golden (QUARVEL_REBASE=1 refreshes it)" >&2
  status=1
fi
exit $status
