#!/usr/bin/env python3
"""Checks `quarvel-jit resolve` on the runtime's event trace of a real .NET run
against two oracles that do not go through the library:

- the method: the runtime's own jitdump (written beside the event trace), the
  code load record over the sample's address with the latest time at or
  before the sample (so addresses that held several methods over time are
  told apart). Stub records (runtime helpers, precodes) and precompiled code
  ([PreJIT]) are counted apart; the rest is jitted code.
- the line: System.Reflection.Metadata (the peer tool of tests/dotnet/peer)
  gives the sequence points of each method; the IL offset of the sample comes
  from the runtime's native-to-IL map of the code version (as the event
  trace holds it). Prologue code takes the first visible point, epilogue code
  the last one, code without a mapping has no line, and other code the last
  visible point at or before its IL offset.

  resolve_check.py --resolved R.csv --samples perf.txt --pid PID --jitdump jit-PID.dump
                   --methods M.tsv --ilmaps I.tsv --peer peer.txt [--resolved-with-map R2.csv]
                   [--min-agreement 0.995] [--resolve-seconds S --run-seconds S]

--resolved-with-map: quarvel-jit resolve on the trace and the runtime's perf
map together, which names the stubs too (from the map); stubs agree when the
names are the same text.

Name normalisation. The oracle names a method
"<return type> [<assembly>] <Namespace.Type>::<Method>(<args>)[<tier>]", with
the type's generic instantiation in brackets (Generic`1[System.Int32]) and
nested types after '+'. quarvel-jit names it from the assembly's metadata,
"Namespace::Type::Method<T>(args)" (or, for dynamic methods, from the event:
"dynamicClass::Kernel3(int64)"). Both become the list of name parts split at
'.', '+' and '::' (empty parts dropped, so ".ctor" is "ctor"), without the
type's instantiation and the method's type parameters, and the number of
top-level arguments. Two names agree when both are equal.
"""

import argparse
import bisect
import csv
import os
import re
import sys
from collections import defaultdict

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from oracle import read_jitdump  # noqa: E402

NO_MAPPING, PROLOG, EPILOG = 0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFFD
failures = []


def check(ok, text):
    print("  %s  %s" % ("ok  " if ok else "FAIL", text))
    if not ok:
        failures.append(text)


def info(text):
    print("  ..    %s" % text)


def strip_groups(text, open_ch, close_ch):
    out, depth = [], 0
    for ch in text:
        if ch == open_ch:
            depth += 1
        elif ch == close_ch and depth:
            depth -= 1
        elif depth == 0:
            out.append(ch)
    return "".join(out)


def split_call(name):
    """(head, args) of 'head(args)' at the last top-level parentheses; args None without them."""
    end = name.rfind(")")
    if end < 0:
        return name, None
    depth = 0
    for i in range(end, -1, -1):
        if name[i] == ")":
            depth += 1
        elif name[i] == "(":
            depth -= 1
            if depth == 0:
                return name[:i], name[i + 1:end]
    return name, None


def count_args(args):
    if args is None or not args.strip():
        return 0
    depth, n = 0, 1
    for ch in args:
        if ch in "<[(":
            depth += 1
        elif ch in ">])":
            depth -= 1
        elif ch == "," and depth == 0:
            n += 1
    return n


def parts(text):
    return tuple(p for p in re.split(r"::|\.|\+", text) if p)


ORACLE_PREFIX = re.compile(r"^.*? \[[^\]]+\] ")


def oracle_key(name):
    name = re.sub(r"\[[A-Za-z0-9]+\]$", "", name)  # the tier
    name = ORACLE_PREFIX.sub("", name, count=1)    # return type and assembly
    head, args = split_call(name)
    sep = head.rfind("::")
    typ, method = (head[:sep], head[sep + 2:]) if sep >= 0 else ("", head)
    return parts(strip_groups(typ, "[", "]")) + parts(method), count_args(args)


def our_key(name):
    head, args = split_call(name)
    if head.endswith(">"):  # the method's type parameters
        depth = 0
        for i in range(len(head) - 1, -1, -1):
            depth += head[i] == ">"
            depth -= head[i] == "<"
            if depth == 0:
                head = head[:i]
                break
    sep = head.rfind("::")
    typ, method = (head[:sep], head[sep + 2:]) if sep >= 0 else ("", head)
    return parts(strip_groups(typ, "[", "]")) + parts(method), count_args(args)


def read_tsv(path):
    with open(path, encoding="utf-8") as f:
        header = f.readline().rstrip("\n").split("\t")
        return [dict(zip(header, line.rstrip("\n").split("\t"))) for line in f if line.strip()]


def read_samples(path, pid):
    out = []
    with open(path) as f:
        for line in f:
            p = line.split()
            if len(p) < 3:
                continue
            try:
                if int(p[0]) != pid:
                    continue
                sec, frac = p[1].rstrip(":").split(".")
                out.append((int(sec) * 1000000000 + int(frac.ljust(9, "0")[:9]), int(p[2], 16)))
            except ValueError:
                continue
    return out


def read_resolved(path):
    out = {}
    with open(path, newline="", encoding="utf-8", errors="replace") as f:
        for row in csv.DictReader(f):
            out[(int(row["time"]), int(row["address"], 16))] = row
    return out


def read_peer(path):
    """{assembly path: (has pdb, {token: [(il, line or None for hidden)]})}"""
    out, current = {}, None
    with open(path, encoding="utf-8") as f:
        for line in f:
            f_ = line.rstrip("\n").split("\t")
            if f_[0] == "assembly":
                current = [False, defaultdict(list)]
                out[f_[1]] = current
            elif f_[0] == "pdb" and current is not None:
                current[0] = f_[1] != "none"
            elif f_[0] == "point" and current is not None:
                token, il, where = int(f_[1], 16), int(f_[2], 16), f_[4]
                current[1][token].append((il, None if where == "hidden" else int(where.split(":")[0])))
    return out


def expected_line(points, il):
    visible = [(o, ln) for o, ln in points if ln is not None]
    if not visible or il == NO_MAPPING:
        return 0
    if il == PROLOG:
        return visible[0][1]
    if il == EPILOG:
        return visible[-1][1]
    before = [ln for o, ln in visible if o <= il]
    return before[-1] if before else 0


class Intervals:
    """Code over addresses through time: each entry (start, end, time, payload)."""

    def __init__(self, entries):
        self.entries = sorted(entries, key=lambda e: e[0])
        self.starts = [e[0] for e in self.entries]
        self.longest = max((e[1] - e[0] for e in self.entries), default=0)

    def over(self, ip):
        i = bisect.bisect_right(self.starts, ip)
        out = []
        while i > 0:
            i -= 1
            e = self.entries[i]
            if e[0] + self.longest <= ip:
                break
            if e[0] <= ip < e[1]:
                out.append(e)
        return out

    def at(self, ip, t):
        """The latest entry over ip loaded at or before t (the earliest one when none is)."""
        over = self.over(ip)
        if not over:
            return None
        before = [e for e in over if e[2] <= t]
        return max(before, key=lambda e: e[2]) if before else min(over, key=lambda e: e[2])


def main():
    ap = argparse.ArgumentParser()
    for name in ("resolved", "samples", "jitdump", "methods", "ilmaps", "peer"):
        ap.add_argument("--" + name, required=True)
    ap.add_argument("--pid", type=int, required=True)
    ap.add_argument("--resolved-with-map")
    ap.add_argument("--min-agreement", type=float, default=0.995)
    ap.add_argument("--resolve-seconds", type=float)
    ap.add_argument("--run-seconds", type=float)
    a = ap.parse_args()

    samples = read_samples(a.samples, a.pid)
    ours = read_resolved(a.resolved)
    dump = Intervals((addr, addr + size, t, name) for t, addr, size, name in read_jitdump(a.jitdump) if size)

    print("== quarvel-jit resolve on the event trace against the runtime's jitdump (%d samples of the process)"
          % len(samples))
    kinds = defaultdict(int)
    jitted, agree, unnamed, other, examples = [], 0, 0, 0, []
    reused_total = reused_agree = 0
    prejit_total = prejit_agree = 0
    for t, ip in samples:
        record = dump.at(ip, t)
        if record is None:
            kinds["outside"] += 1
            continue
        name = record[3]
        row = ours.get((t, ip))
        our_name = row["method"] if row is not None and row["status"] == "resolved" else ""
        same = bool(our_name) and our_key(our_name) == oracle_key(name)
        if name.startswith("stub "):
            kinds["stub"] += 1
            continue
        if name.endswith("[PreJIT]"):
            prejit_total += 1
            prejit_agree += same
            continue
        jitted.append((t, ip, record, row))
        reused = len({e[3] for e in dump.over(ip)}) > 1
        reused_total += reused
        reused_agree += reused and same
        if same:
            agree += 1
        elif not our_name:
            unnamed += 1
        else:
            other += 1
        if not same and len(examples) < 5:
            examples.append("0x%x at %d: ours %r, the jitdump's %r" % (ip, t, our_name or None, name))
    share = agree / max(len(jitted), 1)
    check(len(jitted) >= 1000 and share >= a.min_agreement,
          "%d of the %d samples the jitdump places in jitted code are named the same (%.3f%%; %d unnamed, "
          "%d named otherwise; at least %.1f%% wanted)" % (agree, len(jitted), 100 * share, unnamed, other,
                                                         100 * a.min_agreement))
    for e in examples:
        print("          " + e)
    check(reused_total > 0 and reused_agree >= a.min_agreement * reused_total,
          "%d of the %d of them at addresses that held several methods over time are named the same"
          % (reused_agree, reused_total))
    with_stubs = len(jitted) + kinds["stub"]
    info("stubs: %d samples in runtime stubs the jitdump lists (the event trace does not describe stubs); "
         "with them %.3f%% of %d samples are named the same" % (kinds["stub"], 100 * agree / max(with_stubs, 1),
                                                                with_stubs))
    if a.resolved_with_map:
        both = read_resolved(a.resolved_with_map)
        stubs_named = named = total = 0
        for t, ip in samples:
            record = dump.at(ip, t)
            if record is None or record[3].endswith("[PreJIT]"):
                continue
            row = both.get((t, ip))
            name = row["method"] if row is not None and row["status"] == "resolved" else ""
            stub = record[3].startswith("stub ")
            same = name == record[3] if stub else bool(name) and our_key(name) == oracle_key(record[3])
            total += 1
            named += same
            stubs_named += same and stub
        check(named >= a.min_agreement * max(total, 1),
              "with the perf map beside the trace, %d of the %d samples in jitted code and stubs are named the "
              "same (%.3f%%; %d of the %d in stubs)" % (named, total, 100 * named / max(total, 1), stubs_named,
                                                       kinds["stub"]))
    info("precompiled code: %d samples in ReadyToRun code the jitdump lists as [PreJIT], %d named the same "
         "(from the end rundown); %d samples outside anything the jitdump lists" % (prejit_total, prejit_agree,
                                                                                  kinds["outside"]))

    # -- lines
    print("== source lines against System.Reflection.Metadata, for samples in methods with a PDB")
    peer = read_peer(a.peer)
    loads = [m for m in read_tsv(a.methods) if m["phase"] == "load"]
    code = Intervals((int(m["start"], 16), int(m["start"], 16) + int(m["size"]), int(m["time_ns"]), m) for m in loads)
    maps = defaultdict(list)
    for r in read_tsv(a.ilmaps):
        if r["phase"] == "load":
            maps[(r["method_id"], r["rejit_id"])].append(r)
    for v in maps.values():
        v.sort(key=lambda r: int(r["time_ns"]))
    checked, same_line, mismatches, by_kind = 0, 0, [], defaultdict(int)
    for t, ip, record, row in jitted:
        if row is None or row["status"] != "resolved" or row["module"] not in peer or not peer[row["module"]][0]:
            continue
        version = code.at(ip, t)
        if version is None:
            continue
        m = version[3]
        candidates = [r for r in maps.get((m["method_id"], m["rejit_id"]), []) if int(r["time_ns"]) >= version[2]]
        if not candidates:
            continue
        entries = [tuple(int(x) for x in e.split(":")) for e in candidates[0]["map"].split(",") if e]
        entries.sort(key=lambda e: e[1])  # stable: entries at one native offset keep their order
        offset = ip - version[0]
        covering = [il for il, native in entries if native <= offset]
        il = covering[-1] if covering else NO_MAPPING
        want = expected_line(peer[row["module"]][1].get(int(m["token"], 16), []), il)
        got = int(row["source_line"] or 0)
        checked += 1
        by_kind["prologue" if il == PROLOG else "epilogue" if il == EPILOG else
                "no mapping" if il == NO_MAPPING else "IL offset"] += 1
        if got == want:
            same_line += 1
        elif len(mismatches) < 5:
            mismatches.append("0x%x in %s (IL 0x%x): ours %d, the PDB's %d" % (ip, row["method"], il, got, want))
    check(checked >= 500 and same_line == checked,
          "%d of %d samples have the line System.Reflection.Metadata gives for their IL offset (%s)"
          % (same_line, checked, ", ".join("%s %d" % kv for kv in sorted(by_kind.items()))))
    for e in mismatches:
        print("          " + e)

    if a.resolve_seconds is not None:
        print("== cost")
        info("quarvel-jit resolve read the trace and resolved %d samples in %.2f s, for a run of %.2f s"
             % (len(ours), a.resolve_seconds, a.run_seconds or 0))

    if failures:
        print("== %d check(s) FAILED" % len(failures))
        return 1
    print("== all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
