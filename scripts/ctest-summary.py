#!/usr/bin/env python3
"""One line for a ctest stage from its JUnit report: how many tests ran,
which were skipped and why, which failed.

    scripts/ctest-summary.py STAGE report.xml
"""
import sys
import xml.etree.ElementTree as ET


def skip_reason(case):
    out = case.findtext("system-out") or ""
    lines = out.splitlines()
    for i, line in enumerate(lines):
        # GoogleTest: "file:line: Skipped" then the reason on the next line.
        if line.endswith(": Skipped") and i + 1 < len(lines):
            return lines[i + 1].strip()
        if line.startswith("skip:"):
            return line[len("skip:"):].strip()
    return "no reason printed"


def main():
    stage, path = sys.argv[1], sys.argv[2]
    try:
        root = ET.parse(path).getroot()
    except (OSError, ET.ParseError) as e:
        print(f"{stage}: no test report ({e})")
        return 1
    ran, skipped, failed = 0, [], []
    for case in root.iter("testcase"):
        status = case.get("status")
        name = case.get("name")
        if status == "notrun":
            skipped.append(f"{name} ({skip_reason(case)})")
        elif status == "fail":
            failed.append(name)
        else:
            ran += 1
    line = f"{stage}: {ran} passed, {len(skipped)} skipped, {len(failed)} failed"
    if skipped:
        line += "; skipped: " + "; ".join(skipped)
    if failed:
        line += "; failed: " + ", ".join(failed)
    print(line)
    return 1 if failed or ran == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
