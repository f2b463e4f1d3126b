#!/usr/bin/env python3
"""Checks the call stacks quarvel-jit named for a real JVM against what the
JVM itself says (-XX:+LogCompilation) and what the workload's source says.

  unnamed   of the frames in jitted code, under 1% could not be named
            (from the summary of `quarvel-jit --format json stacks ... --top`);
  inlined   every sample whose leaf is an inlined method: the inlined frames
            sit on a compiled frame, and that method, then each inlined one,
            outermost first, is a path the compiler logged when it inlined
            into that method (its nested <parse> elements);
  known     every sample in Hot.d1..d8 has the callers Hot.java gives it:
            d(k-1), ..., d1, then deep (or, when deep was interpreted, an
            interpreter frame); and Hot.sumRange is called from main
            (compiled, or an interpreter frame), but for the odd sample taken
            in its prologue, before it set up its frame: there the unwinder
            cannot see its caller (at most 0.5% of its samples).

  java_stacks_check.py --folded F --top T.json --compilation-log L [--min-inlined N]
The folded stacks must carry kinds (`stacks --annotate`). Exit 1 when a check fails.
"""

import argparse
import html
import json
import re
import sys
from collections import defaultdict

ATTR = re.compile(r"(\w+)='([^']*)'")
KIND = re.compile(r"^(.*) \[(compiled|inlined|stub|native|kernel|unknown)\]$")
D_METHOD = re.compile(r"^Hot::d([1-8])\(int\)$")


def canonical_class(name):
    """One spelling for java.lang.String, java/lang/String, java::lang::String,
    and hidden classes LPayload.0x7f..; (the trace) and Payload/0x7f.. (the log)."""
    name = html.unescape(name)
    if name.startswith("L") and "0x" in name:
        name = name[1:]
    return re.sub(r"[^A-Za-z0-9_$<>]", "", name)


def method_key(frame_name):
    """(class, method) of a frame named 'pkg::Class::method(args)'; None for other frames."""
    paren = frame_name.find("(")
    if paren < 0:
        return None
    head = frame_name[:paren]
    cls, sep, method = head.rpartition("::")
    if not sep:
        return None
    return canonical_class(cls), method


def read_inline_paths(path):
    """(class, method) of a compiled method -> every path of methods the
    compiler parsed into it, from the method itself down, over all its compiles."""
    paths = defaultdict(set)
    task = False
    fragment = False
    klass, method, stack = {}, {}, []
    for line in open(path, errors="replace"):
        # What a compiler thread had not finished when the JVM exited comes
        # as a <fragment> of raw text, cut anywhere (even inside an
        # attribute): not a compile to check against.
        if line.startswith("<fragment>"):
            fragment, task = True, False
        elif line.startswith("</fragment>"):
            fragment = False
        elif fragment:
            continue
        elif line.startswith("<task "):
            task, klass, method, stack = True, {}, {}, []
        elif line.startswith("</task>"):
            task = False
        elif not task:
            continue
        elif line.startswith("<klass "):
            a = dict(ATTR.findall(line))
            klass[a["id"]] = canonical_class(a["name"])
        elif line.startswith("<method "):
            a = dict(ATTR.findall(line))
            method[a["id"]] = (a.get("holder"), html.unescape(a.get("name", "")))
        elif line.startswith("<parse "):
            m = dict(ATTR.findall(line)).get("method")
            holder, name = method.get(m, (None, "?"))
            stack.append((klass.get(holder, "?"), name))
            paths[stack[0]].add(tuple(stack))
        elif line.startswith("</parse>") and stack:
            stack.pop()
    return paths


def read_folded(path):
    for line in open(path, encoding="utf-8", errors="replace"):
        frames, _, count = line.rstrip("\n").rpartition(" ")
        parsed = []
        for f in frames.split(";"):
            m = KIND.match(f)
            parsed.append((m.group(1), m.group(2)) if m else (f, "?"))
        yield parsed, int(count)


class Checks:
    def __init__(self):
        self.failed = 0

    def expect(self, ok, what):
        print(("  ok    " if ok else "  FAIL  ") + what)
        if not ok:
            self.failed += 1


def known_callers(frames):
    """For a leaf in Hot.d1..d8 or Hot.sumRange: None when the callers are the
    ones the source gives, else what is wrong."""
    name = frames[-1][0]
    m = D_METHOD.match(name)
    if m:
        k = int(m.group(1))
        want = ["Hot::d%d(int)" % i for i in range(k - 1, 0, -1)]
        callers = list(reversed(frames[:-1]))
        got = [f[0] for f in callers]
        for i, expected in enumerate(want):
            if i < len(callers) and callers[i] == ("Interpreter", "stub"):
                # A caller not compiled yet runs in the interpreter, whose
                # frames carry no Java name: nothing further to compare.
                return None
            if i >= len(got) or got[i] != expected:
                return "callers %s, expected %s" % (got[:len(want)], want)
        below = frames[-1 - k] if len(frames) > k else None
        if below is None or not (below[0] == "Hot::deep(int)" or below[1] == "stub" and below[0] == "Interpreter"):
            return "d1 called from %s, expected Hot.deep or the interpreter" % (below,)
        return None
    if name == "Hot::sumRange(int, int)":
        below = frames[-2] if len(frames) > 1 else None
        if below is None or not (below[0] == "Hot::main(java::lang::String[])" or
                                 below[1] == "stub" and below[0] == "Interpreter"):
            return "called from %s, expected Hot.main or the interpreter" % (below,)
    return None


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--folded", required=True)
    ap.add_argument("--top", required=True)
    ap.add_argument("--compilation-log", required=True)
    ap.add_argument("--min-inlined", type=int, default=20)
    args = ap.parse_args()
    checks = Checks()

    print("== frames quarvel-jit could not name")
    s = json.load(open(args.top))["summary"]
    jit = s["jit_frames"] + s["unnamed_jit_frames"]
    share = s["unnamed_jit_frames"] / jit if jit else 1.0
    print("  %d samples, %d frames, %d in jitted code: %d named, %d not named; %d samples (%.3f%%) hold a frame "
          "not named" % (s["samples_read"], s["frames"], jit, s["jit_frames"], s["unnamed_jit_frames"],
                         s["samples_with_unnamed"], 100.0 * s["samples_with_unnamed"] / max(1, s["samples_read"])))
    checks.expect(jit > 0 and share < 0.01, "frames in jitted code not named: %.3f%% (below 1%%)" % (100 * share))

    print("== chains of inlined frames against the compiler's log")
    paths = read_inline_paths(args.compilation_log)
    inlined_samples = verified = 0
    bad = defaultdict(int)
    known = defaultdict(int)
    known_bad = defaultdict(int)
    for frames, count in read_folded(args.folded):
        leaf_name, leaf_kind = frames[-1]
        if D_METHOD.match(leaf_name) or leaf_name == "Hot::sumRange(int, int)":
            what = known_callers(frames)
            known[leaf_name] += count
            if what:
                known_bad[(leaf_name, what)] += count
        if leaf_kind != "inlined":
            continue
        inlined_samples += count
        i = len(frames) - 1
        while i >= 0 and frames[i][1] == "inlined":
            i -= 1
        if i < 0 or frames[i][1] != "compiled":
            bad["inlined frames on %s" % (frames[i] if i >= 0 else "nothing",)] += count
            continue
        chain = [method_key(f[0]) for f in frames[i:]]
        if None in chain:
            bad["a frame without a Java name in %s" % [f[0] for f in frames[i:]]] += count
        elif tuple(chain) in paths.get(chain[0], ()):
            verified += count
        else:
            bad["%s: no compile of %s inlined this chain" % (" > ".join(f[0] for f in frames[i:]), frames[i][0])] += count
    for what, n in sorted(bad.items(), key=lambda x: -x[1])[:10]:
        print("        %d samples: %s" % (n, what))
    checks.expect(inlined_samples >= args.min_inlined,
                  "%d samples with an inlined leaf (at least %d)" % (inlined_samples, args.min_inlined))
    checks.expect(verified == inlined_samples,
                  "every one of them has its compiled method and inlined callers, in the order the compiler "
                  "inlined them (%d of %d)" % (verified, inlined_samples))

    print("== callers the source gives")
    for (leaf, what), n in sorted(known_bad.items(), key=lambda x: -x[1])[:10]:
        print("        %d samples: %s %s" % (n, leaf, what))
    d_samples = sum(n for name, n in known.items() if D_METHOD.match(name))
    d_bad = sum(n for (leaf, _), n in known_bad.items() if D_METHOD.match(leaf))
    sum_samples = known.get("Hot::sumRange(int, int)", 0)
    sum_bad = sum(n for (leaf, _), n in known_bad.items() if leaf == "Hot::sumRange(int, int)")
    checks.expect(d_samples > 0 and d_bad == 0,
                  "Hot.d1..d8 (%d samples) are called down their chain from deep (%d otherwise)" % (d_samples, d_bad))
    checks.expect(sum_samples > 0 and sum_bad <= 0.005 * sum_samples,
                  "Hot.sumRange (%d samples) is called from main (%d otherwise, in its prologue)"
                  % (sum_samples, sum_bad))

    print("== java stacks: %s" % ("passed" if checks.failed == 0 else "%d FAILED" % checks.failed))
    return 0 if checks.failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
