#!/usr/bin/env python3
"""Lines of C/C++ (without blank lines and comments) in the library and its
tools, in the tests and in the fuzz harnesses, and the tests' share of the
whole (the share the project aims to keep between a quarter and a third; the
figure with the fuzz harnesses counted as tests is printed beside it).

    scripts/code-share.py [--by-folder]
"""
import os
import re
import subprocess
import sys

TEST_DIRS = ("tests/", "agents/jvmti/tests/")
FUZZ_DIRS = ("fuzz/",)
EXTS = (".h", ".hpp", ".cpp", ".cc", ".c")


def code_lines(text):
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.S)
    n = 0
    for line in text.splitlines():
        s = line.strip()
        if s and not s.startswith("//"):
            n += 1
    return n


def main():
    root = subprocess.run(["git", "rev-parse", "--show-toplevel"], capture_output=True, text=True).stdout.strip()
    files = subprocess.run(["git", "ls-files"], cwd=root, capture_output=True, text=True).stdout.split()
    tests = code = fuzz = 0
    folders = {}
    for f in files:
        if not f.endswith(EXTS):
            continue
        with open(os.path.join(root, f), errors="replace") as fh:
            n = code_lines(fh.read())
        if f.startswith(TEST_DIRS):
            tests += n
        elif f.startswith(FUZZ_DIRS):
            fuzz += n
        else:
            code += n
        key = "/".join(f.split("/")[:2])
        folders[key] = folders.get(key, 0) + n
    total = tests + code + fuzz
    print(f"code {code}, tests {tests} (tests/, agent tests), fuzz harnesses {fuzz}: "
          f"tests are {100.0 * tests / total:.1f}% ({100.0 * (tests + fuzz) / total:.1f}% with the fuzz harnesses)")
    if "--by-folder" in sys.argv:
        for k, v in sorted(folders.items(), key=lambda kv: -kv[1]):
            print(f"  {v:7d}  {k}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
