#!/usr/bin/env python3
"""Checks of tests/e2e/dotnet-perfmap/run.sh: the runtime's jitdump and perf
map read without a refusal, and quarvel-jit's names and speed against perf's
(see ../perf_oracle.py for how samples and names are matched). Exits 1 when a
check fails."""
import argparse
import json
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..'))
from perf_oracle import resolution_checks  # noqa: E402

failures = []


def check(ok, what):
    print(('  ok    ' if ok else '  FAIL  ') + what)
    if not ok:
        failures.append(what)


def main():
    p = argparse.ArgumentParser()
    p.add_argument('--stats', required=True, help='quarvel-jit stats --format json on the dump and the map')
    for name in ('inject-time', 'samples', 'oracle', 'map-oracle', 'resolved', 'map-resolved', 'both-resolved'):
        p.add_argument('--' + name)
    p.add_argument('--resolve-times', nargs='*')
    a = p.parse_args()

    with open(a.stats) as f:
        st = json.load(f)['stats']
    print('== the runtime\'s files (%d code loads, %d perf map lines)' %
          (st['records_jitdump_code_load'], st['records_perf_map']))
    check(st['records_jitdump_code_load'] > 1000 and st['records_perf_map'] > 1000,
          'the jitdump and the perf map hold the program\'s code (%d loads, %d lines)' %
          (st['records_jitdump_code_load'], st['records_perf_map']))
    check(st['refused_bodies'] == 0 and st['refused_by_model'] == 0 and st['damaged_records'] == 0,
          'every record and line read (%d refused by a reader, %d by the model, %d damaged)' %
          (st['refused_bodies'], st['refused_by_model'], st['damaged_records']))
    print('  info  perf map lines left to the jitdump: %d' % st['perf_map_left_to_jitdump'])

    if a.oracle and a.resolved:
        resolution_checks(check, a, re.compile(r'jitted-\d+-\d+\.so'))

    if failures:
        print('FAILED: %d check(s)' % len(failures))
        return 1
    print('all checks passed')
    return 0


if __name__ == '__main__':
    sys.exit(main())
