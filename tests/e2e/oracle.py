#!/usr/bin/env python3
"""Compares the JVMTI agent's trace, and what quarvel-jit resolves against it,
with HotSpot's own account of its compiled code (-XX:+LogCompilation and
-Xlog:jit+compilation with uptimenanos,timenanos).

Checks (each prints its counts; the exit status is 1 when one fails):
  trace      every <nmethod> of the log is a load of the trace, same address,
             size and Java method; inline records are well formed and only
             name methods the compiler says it inlined there.
  samples    (--perf-script and --resolved) of the perf samples that the log
             places in compiled methods, at least --min-agreement resolve to the
             same Java method; samples in blobs resolve to the blob's name.
  top        (--top) the first method of `quarvel-jit resolve --top` is --hottest.
"""

import argparse
import bisect
import csv
import html
import re
import statistics
import struct
import sys
from collections import Counter, defaultdict

LANG_JAVA = 5
PAGE = 4096


# ---------------------------------------------------------------- the trace

class Load:
    __slots__ = ("raw_id", "parent", "time", "start", "size", "name", "cls", "language", "inline",
                 "n2m")

    def __init__(self):
        self.parent = 0
        self.inline = False
        self.n2m = []


def read_trace(path):
    """Records of a trace file: the loads (top-level and inline) in file order."""
    data = open(path, "rb").read()
    pos = 0
    header = []
    loads = []

    def counted(body, p):
        (n,) = struct.unpack_from("<H", body, p)
        return body[p + 2:p + 2 + n].split(b"\0")[0].decode("utf-8", "replace"), p + 2 + n

    def tail(body, p, load):
        _, p = counted(body, p)                      # module
        p += 2                                        # architecture
        load.name, p = counted(body, p)
        load.cls, p = counted(body, p)
        _, p = counted(body, p)                       # source file
        p += 2                                        # checksum type
        _, p = counted(body, p)                       # checksum
        (load.language,) = struct.unpack_from("<H", body, p)
        p += 2
        for table in range(3):
            (n,) = struct.unpack_from("<H", body, p)
            p += 2
            entries = [struct.unpack_from("<III", body, p + 12 * i) for i in range(n)]
            if table == 1:
                load.n2m = entries
            p += 12 * n
        return p

    while pos + 8 <= len(data):
        rtype, value = struct.unpack_from("<II", data, pos)
        pos += 8
        if rtype in (13, 0x400000):
            header.append((rtype, value))
            continue
        body = data[pos:pos + value]
        pos += value
        if len(body) < value:
            raise SystemExit("trace ends inside a record")
        if rtype == 15:
            (runtime,) = struct.unpack_from("<I", body, 0)
            version, p = counted(body, 4)
            name, p = counted(body, p)
            header.append((15, (runtime, version, name)))
        elif rtype == 9:
            load = Load()
            _, load.raw_id, _, load.time, regions = struct.unpack_from("<IIBQH", body, 0)
            p = 19
            assert regions == 1, "the agent writes one region per load"
            load.start, load.size, k = struct.unpack_from("<QII", body, p)
            p += 16 + k
            tail(body, p, load)
            loads.append(load)
        elif rtype == 12:
            load = Load()
            load.inline = True
            load.raw_id, load.parent, load.time, regions = struct.unpack_from("<IIQH", body, 0)
            load.start, load.size, k = struct.unpack_from("<QII", body, 18)
            tail(body, 34 + k, load)
            loads.append(load)
        else:
            header.append((rtype, None))
    return header, loads


# ---------------------------------------------------------- HotSpot's log

NMETHOD = re.compile(r"<nmethod (.*?)/>")
ATTR = re.compile(r"(\w+)='([^']*)'")


def norm_class(name):
    """java.lang.String, java/lang/String, Ljava/lang/String; -> java.lang.String;
    hidden classes Payload/0x.. and LPayload.0x..; -> Payload.0x.."""
    if name.startswith("L") and name.endswith(";"):
        name = name[1:-1]
    return name.replace("/", ".")


class NMethod:
    __slots__ = ("compile_id", "kind", "start", "size", "stamp_ns", "cls", "name", "sig", "order")

    def same_method(self, key):
        """Whether a trace method (class, name, signature) is this one. The VM
        names every method handle intrinsic (linkToStatic, invokeBasic, ...) by
        one shared method id, so for those the class is all that can agree."""
        if key == (self.cls, self.name, self.sig):
            return True
        return self.kind == "c2n" and self.cls == "java.lang.invoke.MethodHandle" and key is not None \
            and key[0] == self.cls


def read_nmethods(path):
    nmethods = []
    for line in open(path, errors="replace"):
        m = NMETHOD.search(line)
        if not m:
            continue
        a = dict(ATTR.findall(m.group(1)))
        if "entry" not in a or "insts_offset" not in a or "method" not in a:
            continue
        insts = int(a["insts_offset"])
        # The code is the instructions and the stubs; the data sections follow it.
        above = [int(v) for k, v in a.items()
                 if k.endswith("_offset") and k != "stub_offset" and int(v) > insts]
        size = (min(above) if above else int(a["size"])) - insts
        parts = html.unescape(a["method"]).split(" ")
        n = NMethod()
        n.compile_id = a.get("compile_id", "")
        n.kind = a.get("compile_kind", "")
        n.start = int(a["entry"], 16)
        n.size = size
        n.stamp_ns = int(round(float(a["stamp"]) * 1e9))
        n.cls, n.name, n.sig = norm_class(parts[0]), parts[1], parts[2] if len(parts) > 2 else ""
        n.order = len(nmethods)
        nmethods.append(n)
    return nmethods


def read_inlined(path):
    """compile_id -> {(class, method name)} that the compiler reports as inlined.
    A call names the method as the bytecode does; when the compiler binds it to
    a more specific one (a unique implementor, a method handle target) that one
    is declared between the call and the decision, so both count; so does
    every method C2 parses."""
    inlined = defaultdict(set)
    task = None
    klass, method = {}, {}
    pending = []
    for line in open(path, errors="replace"):
        if line.startswith("<task "):
            a = dict(ATTR.findall(line))
            task = a.get("compile_id")
            klass, method, pending = {}, {}, []
        elif line.startswith("</task>"):
            task = None
        elif task is None:
            continue
        elif line.startswith("<klass "):
            a = dict(ATTR.findall(line))
            klass[a["id"]] = norm_class(html.unescape(a["name"]))
        elif line.startswith("<method "):
            a = dict(ATTR.findall(line))
            method[a["id"]] = (a.get("holder"), html.unescape(a.get("name", "")))
            if pending:
                pending.append(a["id"])
        elif line.startswith("<call "):
            pending = [dict(ATTR.findall(line)).get("method")]
        elif line.startswith("<inline_success"):
            for m in pending:
                if m in method:
                    holder, name = method[m]
                    inlined[task].add((klass.get(holder, "?"), name))
            pending = []
        elif line.startswith("<inline_fail"):
            pending = []
        elif line.startswith("<parse "):
            # C2 parses each method it inlines (the compiled one too, harmlessly).
            m = dict(ATTR.findall(line)).get("method")
            if m in method:
                holder, name = method[m]
                inlined[task].add((klass.get(holder, "?"), name))
    return inlined


def vm_start_ns(path):
    """CLOCK_MONOTONIC of the VM start: timenanos - uptimenanos of each line."""
    deltas = []
    for line in open(path, errors="replace"):
        m = re.match(r"\[(\d+)ns\]\[(\d+)ns\]", line)
        if m:
            deltas.append(int(m.group(1)) - int(m.group(2)))
    if not deltas:
        raise SystemExit("no time stamps in the -Xlog file")
    return int(statistics.median(deltas))


def java_key(cls, name_sig):
    """(class, name, signature) from a trace load's class and name+signature."""
    paren = name_sig.find("(")
    if paren < 0:
        return (norm_class(cls), name_sig, "")
    return (norm_class(cls), name_sig[:paren], name_sig[paren:])


def show(key):
    return "%s.%s%s" % key


# ------------------------------------------------------------------ checks

class Checks:
    def __init__(self):
        self.failed = []

    def expect(self, ok, what):
        print(("  ok    " if ok else "  FAIL  ") + what)
        if not ok:
            self.failed.append(what)


def check_trace(checks, header, loads, nmethods, inlined):
    print("== trace against HotSpot's compilation log")
    kinds = [h[0] for h in header[:3]]
    checks.expect(kinds == [0x400000, 13, 15] and header[1][1] == 1 and header[2][1][0] == 1,
                  "the trace starts with Magic, CollectorType 1 and a Java runtime record %s"
                  % (header[2][1] if len(header) > 2 else None,))

    by_range = defaultdict(list)
    for load in loads:
        if not load.inline and load.language == LANG_JAVA:
            by_range[(load.start, load.size)].append(load)
    found = same_name = 0
    missing = []
    for n in nmethods:
        candidates = by_range.get((n.start, n.size), [])
        if candidates:
            found += 1
            if any(n.same_method(java_key(c.cls, c.name)) for c in candidates):
                same_name += 1
        else:
            missing.append(n)
    print("  %d nmethods in the log, %d compiled-method loads in the trace" % (
        len(nmethods), sum(len(v) for v in by_range.values())))
    for n in missing[:10]:
        print("    missing: compile %s %s at %#x size %d" % (n.compile_id, show((n.cls, n.name, n.sig)), n.start, n.size))
    # Code compiled while the JVM shuts down, after the agent's last event, is
    # invisible to JVMTI: a missing nmethod counts only if something compiled
    # no earlier than it did reach the trace.
    last_found = max((n.stamp_ns for n in nmethods if by_range.get((n.start, n.size))), default=0)
    unexplained = [n for n in missing if n.stamp_ns < last_found]
    if len(missing) > len(unexplained):
        print("    %d compiled at shutdown, after the agent's last event" % (len(missing) - len(unexplained)))
    checks.expect(nmethods and not unexplained, "every nmethod of the log is in the trace with the same address and size "
                  "(%d of %d)" % (found, len(nmethods) - (len(missing) - len(unexplained))))
    checks.expect(same_name == found, "... and names the same Java method (%d of %d)" % (same_name, found))

    # Inline records: parents written first, nested inside them, siblings apart.
    by_id = {}
    bad_tree = 0
    children = defaultdict(list)
    for load in loads:
        if load.inline:
            parent = by_id.get(load.parent)
            if parent is None or not (parent.start <= load.start and load.start + load.size <= parent.start + parent.size):
                bad_tree += 1
            else:
                children[load.parent].append(load)
            covered = 0
            for start, end, _ in load.n2m:
                if start != covered:
                    break
                covered = end
            if covered != load.size:
                bad_tree += 1  # its bci table must cover exactly its range
        by_id[load.raw_id] = load
    for kids in children.values():
        kids.sort(key=lambda l: l.start)
        bad_tree += sum(1 for a, b in zip(kids, kids[1:]) if a.start + a.size > b.start)
    instances = sum(1 for l in loads if l.inline)
    checks.expect(instances > 0 and bad_tree == 0,
                  "%d inline records: each after its parent, inside it, apart from its siblings (%d bad)"
                  % (instances, bad_tree))

    # The methods of each tree against the compiler's inlining decisions.
    compile_of = {}
    for n in nmethods:
        compile_of[(n.start, n.size, n.cls, n.name, n.sig)] = n.compile_id
    agree = total = 0
    depth_max = 0
    unexplained = Counter()
    root_of = {}
    depth_of = {}
    for load in loads:
        if not load.inline:
            root_of[load.raw_id] = load
            depth_of[load.raw_id] = 0
            continue
        root = root_of.get(load.parent)
        if root is None:
            continue
        root_of[load.raw_id] = root
        depth_of[load.raw_id] = depth_of[load.parent] + 1
        depth_max = max(depth_max, depth_of[load.raw_id])
        key = java_key(root.cls, root.name)
        cid = compile_of.get((root.start, root.size) + key)
        if cid is None:
            continue
        total += 1
        cls, name, _ = java_key(load.cls, load.name)
        if (cls, name) in inlined.get(cid, ()):
            agree += 1
        else:
            unexplained[(cls, name)] += 1
    for key, count in unexplained.most_common(5):
        print("    not reported inlined: %s.%s (%d)" % (key[0], key[1], count))
    checks.expect(total > 0 and agree == total,
                  "inlined instances whose method the compiler reports inlined in that compilation: %d of %d"
                  % (agree, total))
    checks.expect(depth_max >= 8, "deepest inline nesting %d (the workload's chain is 8 deep)" % depth_max)


def read_perf(path):
    samples = []
    for line in open(path, errors="replace"):
        m = re.match(r"\s*(\d+)\s+(\d+)\.(\d+):\s+([0-9a-fA-F]+)", line)
        if m:
            frac = m.group(3)
            t = int(m.group(2)) * 1_000_000_000 + int(frac.ljust(9, "0")[:9])
            samples.append((int(m.group(1)), t, int(m.group(4), 16)))
    return samples


def read_resolved(path):
    rows = {}
    with open(path, newline="") as f:
        for row in csv.DictReader(f):
            rows.setdefault((int(row["pid"]), int(row["time"]), int(row["address"], 16)), row)
    return rows


def read_symbols(path, loads):
    """quarvel-jit symbols --format csv: the jit rva range of each region, tied
    back to the trace load with the same address, size and load time."""
    by_region = {(l.start, l.size, l.time): l for l in loads if not l.inline}
    ranges = []
    with open(path, newline="") as f:
        for row in csv.DictReader(f):
            if row["kind"] != "method" or not row["jit_rva"]:
                continue
            start, end = int(row["start"], 16), int(row["end"], 16)
            load = by_region.get((start, end - start, int(row["load_time"])))
            if load is not None:
                ranges.append((int(row["jit_rva"], 16), end - start, load))
    ranges.sort(key=lambda r: r[0])
    return ranges


def check_samples(checks, loads, nmethods, start_ns, perf_path, resolved_path, symbols_path, java_pid,
                  min_agreement):
    print("== perf samples: quarvel-jit resolve against HotSpot's log")
    samples = [s for s in read_perf(perf_path) if s[0] == java_pid]
    resolved = read_resolved(resolved_path)
    pages = defaultdict(list)
    for n in nmethods:
        for page in range(n.start // PAGE, (n.start + n.size - 1) // PAGE + 1):
            pages[page].append(n)
    ranges = read_symbols(symbols_path, loads)
    rvas = [r[0] for r in ranges]

    def trace_load(row):
        if not row or row["status"] != "resolved" or not row["jit_rva"]:
            return None
        rva = int(row["jit_rva"], 16)
        i = bisect.bisect_right(rvas, rva) - 1
        if i >= 0 and rva < ranges[i][0] + ranges[i][1]:
            return ranges[i][2]
        return None

    in_nmethods = same = reused = reused_same = 0
    mismatches = Counter()
    blob_samples = blob_named = 0
    blob_names = Counter()
    for pid, t, ip in samples:
        owner = None
        earlier = 0
        for n in pages.get(ip // PAGE, ()):
            if n.start <= ip < n.start + n.size and start_ns + n.stamp_ns <= t + 1_000_000:
                earlier += 1
                if owner is None or (n.stamp_ns, n.order) > (owner.stamp_ns, owner.order):
                    owner = n
        row = resolved.get((pid, t, ip))
        load = trace_load(row)
        if owner is not None:
            in_nmethods += 1
            expected = (owner.cls, owner.name, owner.sig)
            got = java_key(load.cls, load.name) if load is not None and load.language == LANG_JAVA else None
            # The name quarvel-jit prints must name the method too.
            ok = owner.same_method(got) and got[1].strip("<>") in row["method"]
            same += ok
            if earlier > 1:  # the address held other compiled code before
                reused += 1
                reused_same += ok
            if not ok:
                mismatches[(show(expected), show(got) if got else (row or {}).get("status", "absent"))] += 1
        elif load is not None and load.language != LANG_JAVA:
            blob_samples += 1
            blob_names[load.name] += 1
            if row["method"] == load.name and row["module"] == "[Dynamic code]":
                blob_named += 1
    print("  %d samples of pid %d, %d in compiled methods by the log" % (len(samples), java_pid, in_nmethods))
    for (want, got), count in mismatches.most_common(8):
        print("    %5d  expected %s, got %s" % (count, want, got))
    print("  %d of them at addresses that held other compiled code before; %d of those agree"
          % (reused, reused_same))
    ratio = same / in_nmethods if in_nmethods else 0.0
    checks.expect(in_nmethods >= 100 and ratio >= min_agreement,
                  "samples in compiled methods resolved to the same Java method: %d of %d (%.2f%%, need %.1f%%)"
                  % (same, in_nmethods, 100.0 * ratio, 100.0 * min_agreement))
    print("  blob samples by name: " + ", ".join("%s %d" % kv for kv in blob_names.most_common(6)))
    checks.expect(blob_samples > 0 and blob_named == blob_samples,
                  "samples in interpreter and stubs resolved to their blob names: %d of %d"
                  % (blob_named, blob_samples))
    checks.expect(blob_names.get("Interpreter", 0) > 0, "some samples fall in the interpreter")


def check_top(checks, top_path, hottest):
    print("== quarvel-jit resolve --top")
    with open(top_path, newline="") as f:
        methods = [r for r in csv.DictReader(f) if r["kind"] == "method"]
    for r in methods[:5]:
        print("    %6s %6s%%  %s" % (r["samples"], r["percent"], r["name"]))
    checks.expect(bool(methods) and hottest in methods[0]["name"],
                  "the hottest method comes first: %s" % (methods[0]["name"] if methods else None))


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--trace", required=True)
    ap.add_argument("--compilation-log", required=True)
    ap.add_argument("--xlog", required=True)
    ap.add_argument("--perf-script")
    ap.add_argument("--resolved")
    ap.add_argument("--symbols")
    ap.add_argument("--top")
    ap.add_argument("--pid", type=int)
    ap.add_argument("--hottest", default="sumRange")
    ap.add_argument("--min-agreement", type=float, default=0.995)
    args = ap.parse_args()

    checks = Checks()
    header, loads = read_trace(args.trace)
    nmethods = read_nmethods(args.compilation_log)
    check_trace(checks, header, loads, nmethods, read_inlined(args.compilation_log))
    if args.perf_script and args.resolved and args.symbols:
        check_samples(checks, loads, nmethods, vm_start_ns(args.xlog), args.perf_script, args.resolved, args.symbols,
                      args.pid, args.min_agreement)
    if args.top:
        check_top(checks, args.top, args.hottest)
    if checks.failed:
        print("%d check(s) failed" % len(checks.failed))
        return 1
    print("all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
