#!/usr/bin/env python3
"""Streams a large call-stack input through `quarvel-jit stacks` and reports
time and peak memory: the example's 300 stack samples, repeated until the
input holds --samples samples, piped to the tool's standard input. The tool
keeps distinct stacks, not samples, so its peak RSS should not grow with
--samples.

  bench/stacks_stream.py BUILD_DIR [--samples 10000000] [--format perf|csv]
"""

import argparse
import os
import subprocess
import sys
import tempfile
import threading
import time


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build_dir")
    ap.add_argument("--samples", type=int, default=10_000_000)
    ap.add_argument("--format", choices=("perf", "csv"), default="perf")
    args = ap.parse_args()

    tool = os.path.join(args.build_dir, "tools/quarvel-jit/quarvel-jit")
    generator = os.path.join(args.build_dir, "examples/quarvel-example-traces")
    work = tempfile.mkdtemp(prefix="quarvel-stacks-")
    example = os.path.join(work, "example")
    subprocess.run([generator, example], check=True, stdout=subprocess.DEVNULL)
    text = open(os.path.join(example, "stacks.txt" if args.format == "perf" else "stacks.csv"), "rb").read()
    header = b""
    if args.format == "csv":
        header, _, text = text.partition(b"\n")
        header += b"\n"
    per_copy = 300
    copies = args.samples // per_copy

    tool_args = [tool, "--log-level", "off", "stacks", example, "--samples", "-"]
    proc = subprocess.Popen(tool_args, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    outputs = {}

    def drain(name, stream):
        outputs[name] = stream.read()

    readers = [threading.Thread(target=drain, args=("out", proc.stdout)),
               threading.Thread(target=drain, args=("err", proc.stderr))]
    for r in readers:
        r.start()
    start = time.time()
    proc.stdin.write(header)
    block = text * 100
    for _ in range(copies // 100):
        proc.stdin.write(block)
    for _ in range(copies % 100):
        proc.stdin.write(text)
    proc.stdin.close()
    _, status, usage = os.wait4(proc.pid, 0)
    elapsed = time.time() - start
    for r in readers:
        r.join()
    proc.returncode = os.waitstatus_to_exitcode(status)

    samples = copies * per_copy
    print("%d samples (%s text, %.2f GB) through quarvel-jit stacks: %.1f s wall, %.1f s user + %.1f s sys, "
          "%.0f k samples/s, peak RSS %.1f MB, exit %d"
          % (samples, args.format, (len(header) + len(text) * copies) / 1e9, elapsed, usage.ru_utime,
             usage.ru_stime, samples / elapsed / 1e3, usage.ru_maxrss / 1024.0, proc.returncode))
    print("  folded output: %d lines" % outputs["out"].count(b"\n"))
    for line in outputs["err"].decode(errors="replace").splitlines():
        print("  " + line)
    subprocess.run(["rm", "-rf", work])
    return proc.returncode


if __name__ == "__main__":
    sys.exit(main())
