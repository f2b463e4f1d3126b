#!/usr/bin/env python3
"""Checks of tests/e2e/v8/run.sh: the library's walk of a real jitdump and
perf map against an independent count, perf inject's ELF files and the cut
copies; quarvel-jit's names for every sample against perf's, from the jitdump
and from the perf map; the timing of quarvel-jit resolve against perf inject,
side by side. Exits 1 when a check fails.

How samples and names are matched: every sample is keyed by (pid, time in
nanoseconds, instruction address), which perf script prints for each of them
and quarvel-jit resolve echoes for each line of its input; a name agrees when
the method quarvel-jit names is the very string perf prints as the symbol
(perf names a jitted function by the name its code load carries)."""
import argparse
import json
import os
import re
import struct
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..'))
from perf_oracle import resolution_checks  # noqa: E402

failures = []


def check(ok, what):
    print(('  ok    ' if ok else '  FAIL  ') + what)
    if not ok:
        failures.append(what)


def load_json(path):
    with open(path) as f:
        return json.load(f)


def load_lines(path):
    with open(path) as f:
        return [json.loads(line) for line in f if line.strip()]


COUNTED = ['loads', 'moves', 'debug', 'close', 'unwinding', 'unknown', 'debugEntries', 'completeEnd',
           'addressesLoadedMoreThanOnce']


def compare_counts(count, walk, label):
    same = [k for k in COUNTED if count[k] == walk.get(k)]
    differ = ['%s %s != %s' % (k, walk.get(k), count[k]) for k in COUNTED if count[k] != walk.get(k)]
    check(not differ, '%s: the reader\'s counts equal the independent count (%s)' %
          (label, ', '.join('%s %d' % (k, count[k]) for k in same[:4]) if not differ else '; '.join(differ)))


def fnv1a(data):
    h = 0xcbf29ce484222325
    for b in data:
        h = ((h ^ b) * 0x100000001b3) & 0xFFFFFFFFFFFFFFFF
    return h


def elf_function(path):
    """The .text bytes and the first function symbol's name of an ELF64 file perf inject wrote."""
    with open(path, 'rb') as f:
        elf = f.read()
    if elf[:4] != b'\x7fELF' or elf[4] != 2:
        return None
    order = '<' if elf[5] == 1 else '>'
    shoff, = struct.unpack_from(order + 'Q', elf, 0x28)
    shentsize, shnum, shstrndx = struct.unpack_from(order + 'HHH', elf, 0x3A)
    sections = [struct.unpack_from(order + 'IIQQQQIIQQ', elf, shoff + i * shentsize) for i in range(shnum)]
    names_at = sections[shstrndx][4]

    def name(offset, base):
        return elf[base + offset:elf.index(b'\0', base + offset)]
    by_name = {name(s[0], names_at): s for s in sections}
    text = by_name[b'.text']
    code = elf[text[4]:text[4] + text[5]]
    symtab, strtab = by_name[b'.symtab'], by_name[b'.strtab']
    for i in range(symtab[5] // 24):
        st_name, st_info = struct.unpack_from(order + 'IB', elf, symtab[4] + i * 24)
        if st_info & 0xF == 2:  # STT_FUNC
            return code, name(st_name, strtab[4])
    return code, None


def compare_with_elf_files(loads_path, elf_dir, pid):
    """Every load's name and code bytes against the ELF file perf inject wrote for its code index."""
    compared = differ = missing = 0
    examples = []
    with open(loads_path, 'rb') as f:
        for line in f:
            index, _addr, size, digest, load_name = line.rstrip(b'\n').split(b'\t', 4)
            path = os.path.join(elf_dir, 'jitted-%d-%d.so' % (pid, int(index)))
            if not os.path.exists(path):
                missing += 1
                continue
            got = elf_function(path)
            compared += 1
            if got is None or len(got[0]) != int(size) or '%016x' % fnv1a(got[0]) != digest.decode() or \
                    got[1] != load_name:
                differ += 1
                if len(examples) < 3:
                    examples.append('code index %s: %r' % (index.decode(), load_name[:60]))
    return compared, differ, missing, examples



def main():
    p = argparse.ArgumentParser()
    p.add_argument('--count', required=True)
    p.add_argument('--walk', required=True)
    p.add_argument('--cut-counts', required=True)
    p.add_argument('--cut-walks', required=True)
    p.add_argument('--map', required=True)
    p.add_argument('--map-walk', required=True)
    p.add_argument('--elf-files')
    p.add_argument('--loads', help='the walk\'s list of loads, to compare with the ELF files')
    p.add_argument('--elf-dir')
    p.add_argument('--inject-time')
    p.add_argument('--resolve-times', nargs='*')
    p.add_argument('--cut-stats', help='quarvel-jit stats --format json on a cut copy of the dump')
    p.add_argument('--samples', help='perf script -F pid,time,ip --ns, the input of quarvel-jit resolve')
    p.add_argument('--oracle', help='perf script on perf inject --jit output')
    p.add_argument('--map-oracle', help='perf script without inject: perf\'s perf map path')
    p.add_argument('--resolved', help='quarvel-jit resolve on the jitdump (csv)')
    p.add_argument('--map-resolved', help='quarvel-jit resolve on the perf map (csv)')
    p.add_argument('--both-resolved', help='quarvel-jit resolve on the jitdump and the perf map (csv)')
    a = p.parse_args()

    count, walk = load_json(a.count), load_json(a.walk)
    print('== the jitdump (%d bytes, %d code loads, %d debug records)' % (count['size'], count['loads'],
                                                                         count['debug']))
    compare_counts(count, walk, 'intact dump')
    check(walk['stop'] is None and not count['cut'], 'intact dump: no damage reported (stop: %s)' % walk['stop'])
    check(walk['paired'] == walk['debug'] and walk['debugWaiting'] == 0,
          'every debug record found its code load by address (%d paired, %d waiting, %d loads without lines)' %
          (walk['paired'], walk['debugWaiting'], walk['loadsWithoutDebug']))
    ev = walk['biasEvidence']
    if walk['elfMachine'] in (62, 183):
        check(walk['bias'] == 0x40, 'debug address bias detected: 0x%x (votes: none %d, 0x40 %d, 0x34 %d, '
              'undecided %d)' % (walk['bias'], ev['none'], ev['elf64'], ev['elf32'], ev['undecided']))
    print('  info  code addresses loaded more than once: %d; a debug record not just before its load: %d' %
          (walk['addressesLoadedMoreThanOnce'], walk['positionWouldMispair']))
    if a.elf_files:
        with open(a.elf_files) as f:
            elf = int(f.read().strip() or 0)
        check(elf == walk['loads'], 'perf inject wrote one ELF file per code load the reader reports (%d files, '
              '%d loads)' % (elf, walk['loads']))
    if a.loads and a.elf_dir:
        compared, differ, missing, examples = compare_with_elf_files(a.loads, a.elf_dir, walk['pid'])
        check(compared == walk['loads'] and differ == 0 and missing == 0,
              'every load\'s name and code bytes equal those of its ELF file (%d compared, %d differ, %d without '
              'a file%s)' % (compared, differ, missing, (': ' + '; '.join(examples)) if examples else ''))

    print('== cut copies of the dump')
    for c, w in zip(load_lines(a.cut_counts), load_lines(a.cut_walks)):
        label = 'cut at %d' % c['size']
        if 'error' in w:
            check(False, '%s: %s' % (label, w['error']))
            continue
        compare_counts(c, w, label)
        stop = w['stop']
        check(stop is not None and stop['truncated'] and stop['offset'] == c['completeEnd'],
              '%s: the cut is reported where the last complete record ends (%s)' %
              (label, 'offset %d: %s' % (stop['offset'], stop['message']) if stop else 'no stop reported'))

    if a.cut_stats:
        st = load_json(a.cut_stats)['stats']
        half = [c for c in load_lines(a.cut_counts)][0]
        check(st['records_jitdump_code_load'] == half['loads'] and st['damaged_records'] == 1 and
              st['failed_files'] == 1,
              'quarvel-jit stats on the copy cut at %d: every complete load read (%d of %d), the cut counted as a '
              'damaged record' % (half['size'], st['records_jitdump_code_load'], half['loads']))

    mw = load_json(a.map_walk)
    with open(a.map, 'rb') as f:
        lines = [l for l in f.read().split(b'\n') if l.strip()]
    print('== the perf map (%d lines)' % len(lines))
    check(mw.get('entries') == len(lines) and mw.get('malformed') == 0,
          'every line of the map is an entry (%s entries, %s malformed)' % (mw.get('entries'), mw.get('malformed')))
    print('  info  starts listed more than once: %s of %s distinct' % (mw.get('startsListedMoreThanOnce'),
                                                                       mw.get('distinctStarts')))

    if a.oracle and a.resolved:
        resolution_checks(check, a, re.compile(r'jitted-\d+-\d+\.so'))

    if failures:
        print('FAILED: %d check(s)' % len(failures))
        return 1
    print('all checks passed')
    return 0


if __name__ == '__main__':
    sys.exit(main())
