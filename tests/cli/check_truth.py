#!/usr/bin/env python3
"""Checks quarvel-jit's answers for the example's samples against the ground
truth the example writer wrote beside them (truth.csv): for every sample the
status, the method, its source line, and the innermost inlined method with
its line. Unlike the golden files, this does not trust what the tool printed
when they were blessed.

    check_truth.py TOOL WORK_DIR
"""
import csv
import io
import subprocess
import sys


def innermost(inlined):
    """'inner (File.java:12) <- outer (File.java:3)' -> ('inner', '12')."""
    if not inlined:
        return "", ""
    first = inlined.split(" <- ")[0]
    name, _, where = first.rpartition(" (")
    return name, where.rstrip(")").rpartition(":")[2]


def main():
    tool, work = sys.argv[1], sys.argv[2]
    out = subprocess.run([tool, "--log-level", "off", "--format", "csv", "resolve", "example",
                          "--samples", "example/samples.csv"], cwd=work, check=True,
                         capture_output=True, text=True).stdout
    answers = {row["line"]: row for row in csv.DictReader(io.StringIO(out))}
    with open(f"{work}/example/truth.csv", newline="") as f:
        truth = list(csv.DictReader(f))
    wrong = 0
    for t in truth:
        a = answers.get(t["line"])
        if a is None:
            print(f"line {t['line']}: no answer")
            wrong += 1
            continue
        got = (a["status"], a["method"], a["source_line"]) + innermost(a["inlined"])
        want = (t["status"], t["method"], t["source_line"], t["inlined"], t["inlined_line"])
        if got != want:
            print(f"line {t['line']}: got {got}, the truth is {want}")
            wrong += 1
    resolved = sum(1 for t in truth if t["status"] == "resolved")
    inlined = sum(1 for t in truth if t["inlined"])
    print(f"{len(truth) - wrong} of {len(truth)} samples agree with the truth "
          f"({resolved} in JIT code, {inlined} in inlined code)")
    return 1 if wrong or not truth else 0


if __name__ == "__main__":
    sys.exit(main())
