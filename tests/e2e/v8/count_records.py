#!/usr/bin/env python3
"""An independent count of a jitdump's records: walks the 16-byte record
prefixes by their sizes, nothing more, and prints JSON with the count of each
record id, the debug entries, where the complete records end, and whether the
file ends inside a record. The end-to-end test sets the library's reader
against it.

    count_records.py jit-<pid>.dump
"""
import json
import struct
import sys


def count(path):
    with open(path, 'rb') as f:
        data = f.read()
    magic = struct.unpack_from('<I', data, 0)[0]
    order = '<' if magic == 0x4A695444 else '>'
    header_size = struct.unpack_from(order + 'I', data, 8)[0]
    ids = {}
    debug_entries = 0
    code_addrs = {}
    offset = header_size
    while offset + 16 <= len(data):
        rid, size = struct.unpack_from(order + 'II', data, offset)
        if size < 16 or offset + size > len(data):
            break
        ids[rid] = ids.get(rid, 0) + 1
        if rid == 2:
            debug_entries += struct.unpack_from(order + 'Q', data, offset + 24)[0]
        elif rid == 0:
            addr = struct.unpack_from(order + 'Q', data, offset + 32)[0]
            code_addrs[addr] = code_addrs.get(addr, 0) + 1
        offset += size
    return {
        'file': path,
        'size': len(data),
        'loads': ids.get(0, 0),
        'moves': ids.get(1, 0),
        'debug': ids.get(2, 0),
        'close': ids.get(3, 0),
        'unwinding': ids.get(4, 0),
        'unknown': sum(n for i, n in ids.items() if i > 4),
        'debugEntries': debug_entries,
        'completeEnd': offset,
        'cut': offset != len(data),
        'addressesLoadedMoreThanOnce': sum(1 for n in code_addrs.values() if n > 1),
    }


if __name__ == '__main__':
    print(json.dumps(count(sys.argv[1])))
