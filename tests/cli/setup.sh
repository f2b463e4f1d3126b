#!/usr/bin/env bash
# Fixture of the command-line tests: the example trace set, a damaged copy of
# it, the sample files, and jitdump files and perf maps beside a trace of our
# own (runtime/), all under one work directory.
set -euo pipefail
generator=$1 samples=$2 work=$3 runtime_files=$4
rm -rf "$work"
mkdir -p "$work"
cd "$work"
"$generator" example >/dev/null
mkdir damaged
cp example/*.jit damaged/
# The worker's trace ends inside a record; a third file holds an unknown record type.
head -c 700 example/demo-host.4343.jit >damaged/demo-host.4343.jit
printf '\x00\x00\x40\x00\x00\x00\x00\x00\x63\x00\x00\x00\x04\x00\x00\x00abcd' >damaged/demo-host.5555.jit
cp -r "$samples" samples
"$runtime_files" runtime
