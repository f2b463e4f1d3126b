#!/usr/bin/env python3
"""Wall seconds and peak resident KiB of one command, for the side-by-side
timings of the end-to-end scripts:

    timed.py OUT -- command [args...]

writes '<wall seconds> <peak resident KiB>' to OUT and exits with the
command's status. The clock runs from just before the command is started to
its exit, as seen by wait4(): neither this script's own start nor a wrapper
process between it and the command is counted, so a command of 50 ms is not
charged for another program's start (a wrapper such as /usr/bin/time cost
5-10 ms per run on the test machine, a fifth of what it measured).

The command is started with posix_spawn, which shares this script's memory
until the exec: the peak resident size is the command's own, but never less
than this script's (about 10-14 MB)."""
import os
import sys
import time


def main(argv):
    if len(argv) < 4 or argv[2] != '--':
        sys.stderr.write('usage: timed.py OUT -- command [args...]\n')
        return 2
    out, command = argv[1], argv[3:]
    start = time.perf_counter()
    pid = os.posix_spawnp(command[0], command, os.environ)
    _, status, usage = os.wait4(pid, 0)
    wall = time.perf_counter() - start
    with open(out, 'w') as f:
        f.write('%.4f %d\n' % (wall, usage.ru_maxrss))
    code = os.waitstatus_to_exitcode(status)
    return code if code >= 0 else 128 - code


if __name__ == '__main__':
    sys.exit(main(sys.argv))
