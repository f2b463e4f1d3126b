#!/usr/bin/env python3
"""Compares the JVMTI agent's trace, and what quarvel-jit answers from it, with
HotSpot's own account of its compiled code:
  -XX:+LogCompilation       every nmethod: compile id, address, size, method
  -Xlog:jit+compilation,nmethod+install (uptimenanos,timenanos)
                            the VM's start and the nanosecond each nmethod was
                            made executable
  -XX:+PrintNMethods        every nmethod's debug info: the inlined frames of
                            each pc the compiler recorded (-XX:+LogVMOutput
                            puts it in the compilation log, XML-escaped)

Checks (each prints its counts; the exit status is 1 when one fails):
  trace      every <nmethod> of the log is a load of the trace, same address,
             size and Java method; inline records are well formed and only
             name methods the compiler says it inlined there.
  stamps     no load is stamped later than the VM installed its code (a
             sample of the new code before the stamp would go to the old).
  names      no name quarvel-jit prints keeps a class descriptor (`LFoo;`,
             `::0x...;`); hidden classes read `Hot$$Lambda$1/0x...::applyAsInt`.
  samples    (--perf-script, --resolved, --symbols) each perf sample is placed
             by the log: the owner of (address, time) is the latest nmethod
             over the address installed by then.
    methods    quarvel-jit names the owner's Java method and code; answering a
               Java method where the log has no compiled code is a wrong answer.
    reused     at least --min-reused samples fall at addresses that held other
               compiled code before, and every one of them agrees.
    young      at least --min-young samples fall in code installed less than
               --young-ms before, and every one of them agrees.
    blobs      samples in the interpreter and stubs get the blob's name.
    inlined    the innermost inlined method at the sampled pc: the scope
               chain of the first recorded pc above the sample.
  top        (--top) the first compiled Java method of `quarvel-jit resolve
             --top` is --hottest.

With --sabotaged the run was made by an agent known to stamp its loads wrongly:
the exit status is 0 only when the checks fail and the share of rightly
stamped loads is at most --sabotage-ceiling.
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
MS = 1_000_000


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


# ---------------------------------------------------------- HotSpot's logs

NMETHOD = re.compile(r"<nmethod (.*?)/>")
ATTR = re.compile(r"(\w+)='([^']*)'")
XLOG_TIMES = re.compile(r"\[(\d+)ns\]\[(\d+)ns\]")
INSTALL = re.compile(r"\[(\d+)ns\]\[\d+ns\]\[nmethod,install\s*\] Installing (osr )?method \((\d)\) "
                     r"(\S+?)\.([^.(]+)(\(\S*)")


def norm_class(name):
    """java.lang.String, java/lang/String, Ljava/lang/String; -> java.lang.String;
    hidden classes Payload/0x.. and LPayload.0x..; -> Payload.0x.."""
    if name.startswith("L") and name.endswith(";"):
        name = name[1:-1]
    return name.replace("/", ".")


class NMethod:
    __slots__ = ("compile_id", "kind", "level", "osr", "start", "size", "stamp_ns", "install_ns", "visible_ns",
                 "cls", "name", "sig", "order")

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
        n.level = a.get("level", "")
        n.osr = n.kind == "osr"
        n.start = int(a["entry"], 16)
        n.size = size
        n.stamp_ns = int(round(float(a["stamp"]) * 1e9))
        n.install_ns = None
        n.cls, n.name, n.sig = norm_class(parts[0]), parts[1], parts[2] if len(parts) > 2 else ""
        n.order = len(nmethods)
        nmethods.append(n)
    return nmethods


def vm_start_ns(path):
    """CLOCK_MONOTONIC of the VM start: timenanos - uptimenanos of each line."""
    deltas = []
    for line in open(path, errors="replace"):
        m = XLOG_TIMES.match(line)
        if m:
            deltas.append(int(m.group(1)) - int(m.group(2)))
    if not deltas:
        raise SystemExit("no time stamps in the -Xlog file")
    return int(statistics.median(deltas))


def add_install_times(nmethods, xlog_path, start_ns):
    """Gives each nmethod the CLOCK_MONOTONIC nanosecond it became executable
    (the VM logs "Installing method" just before it lets the code run) and the
    time from which a sample may fall in it: that, or, for code the VM installs
    without the log line (native wrappers), the millisecond stamp of the
    compilation log less a millisecond. A log line is paired with the nmethod
    of the same method, level and kind, in order."""
    installs = defaultdict(list)
    for line in open(xlog_path, errors="replace"):
        m = INSTALL.match(line)
        if m:
            key = (norm_class(m.group(4)), m.group(5), m.group(6), m.group(3), bool(m.group(2)))
            installs[key].append(int(m.group(1)))
    by_key = defaultdict(list)
    for n in nmethods:
        by_key[(n.cls, n.name, n.sig, n.level, n.osr)].append(n)
    paired = far = 0
    for key, group in by_key.items():
        times = installs.get(key, [])
        if len(times) != len(group):
            continue
        for n, t in zip(group, times):
            paired += 1
            if not -MS <= (t - start_ns) - n.stamp_ns <= 20 * MS:
                far += 1
                continue
            n.install_ns = t
    for n in nmethods:
        n.visible_ns = n.install_ns if n.install_ns is not None else start_ns + n.stamp_ns - MS
    return paired, far


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
        elif line.startswith(("</task>", "</fragment>", "<compilation_log")):
            # A compiler thread's log stops mid-line, in a fragment, when the
            # VM exits during a compilation: that task ends there.
            task = None
        elif task is None:
            continue
        elif line.startswith("<klass "):
            a = dict(ATTR.findall(line))
            if "id" in a and "name" in a:
                klass[a["id"]] = norm_class(html.unescape(a["name"]))
        elif line.startswith("<method "):
            a = dict(ATTR.findall(line))
            if "id" not in a:
                continue
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


# ------------------------------------------------ -XX:+PrintNMethods output

class Printed:
    """One nmethod's debug info as PrintNMethods shows it. The code is printed
    in four-byte groups, and the scope chain of a recorded pc P is printed at
    the group A with A < P <= A + 4 (the VM prints debug info with the
    instruction it follows); `innermost` is the first frame of that chain."""
    __slots__ = ("compile_id", "name", "start", "addrs", "innermost")


PRINTED_HEADER = re.compile(r"<print_nmethod compile_id='(\d+)'")
PRINTED_ADDR = re.compile(r"^\s+0x([0-9a-f]+): (.)")
PRINTED_FRAME = re.compile(r"^\s+; - (?:\(reexecute\) )?(\S+)@-?\d+")
PRINTED_MAIN = re.compile(r"^ main code\s+\[0x([0-9a-f]+),")
GROUP = 4


def read_printed(path):
    """compile id -> Printed, from a compilation log with the VM's output in it."""
    printed = {}
    cur = None
    at = None          # the address of the comment being read, until its code
    for line in open(path, errors="replace"):
        if line.startswith("<"):
            if not PRINTED_HEADER.match(line):
                cur = None  # the end of the VM's printing, or another element
            continue
        if line.startswith("Compiled method ("):
            line = html.unescape(line)
            # Compiled method (c2)  664   27 %     4       Hot::d1 @ 5 (9 bytes)
            words = line.split()
            level = next((i for i in range(5, len(words)) if words[i].isdigit()), len(words) - 2)
            cur = Printed()
            cur.compile_id = words[4]
            cur.name = words[level + 1]
            cur.start = None
            cur.addrs, cur.innermost = [], []
            printed[cur.compile_id] = cur
            at = None
            continue
        if cur is None:
            continue
        m = PRINTED_MAIN.match(line)
        if m:
            cur.start = int(m.group(1), 16)
            continue
        m = PRINTED_ADDR.match(line)
        if m:
            at = int(m.group(1), 16) if m.group(2) == ";" else None
            continue
        m = PRINTED_FRAME.match(line)
        if m and at is not None:
            if not cur.addrs or cur.addrs[-1] != at:
                cur.addrs.append(at)
                cur.innermost.append(html.unescape(m.group(1)))
            at = None  # the first frame is the innermost; the callers follow
    return printed


def expected_innermost(printed, ip):
    """The innermost method at an interrupted pc: the chain of the first
    recorded pc above it. Returns (how, name): how is "exact"; "near" when the
    pc lies within a group after a printed pc, so that pc may be below or above
    it, and both candidates name the same method; "ambiguous" when they do not;
    "none" when no recorded pc follows."""
    i = bisect.bisect_left(printed.addrs, ip)       # first group at or above ip
    near = i > 0 and ip < printed.addrs[i - 1] + GROUP
    if i == len(printed.addrs):
        return ("ambiguous", None) if near else ("none", None)
    if not near:
        return "exact", printed.innermost[i]
    if printed.innermost[i - 1] == printed.innermost[i]:
        return "near", printed.innermost[i]
    return "ambiguous", None


# --------------------------------------------------- quarvel-jit's answers

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


def read_symbols(path):
    with open(path, newline="") as f:
        return list(csv.DictReader(f))


def symbol_ranges(symbols, loads):
    """The jit rva range of each method region that quarvel-jit lists, tied
    back to the trace load with the same address, size and load time."""
    by_region = {(l.start, l.size, l.time): l for l in loads if not l.inline}
    ranges = []
    for row in symbols:
        if row["kind"] != "method" or not row["jit_rva"]:
            continue
        start, end = int(row["start"], 16), int(row["end"], 16)
        load = by_region.get((start, end - start, int(row["load_time"])))
        if load is not None:
            ranges.append((int(row["jit_rva"], 16), end - start, load))
    ranges.sort(key=lambda r: r[0])
    return ranges


def java_key(cls, name_sig):
    """(class, name, signature) from a trace load's class and name+signature."""
    paren = name_sig.find("(")
    if paren < 0:
        return (norm_class(cls), name_sig, "")
    return (norm_class(cls), name_sig[:paren], name_sig[paren:])


def show(key):
    return "%s.%s%s" % key


def tool_method_name(name):
    """java::util::ArrayList::get(int) (ArrayList.java:428) -> java.util.ArrayList::get"""
    paren = name.find("(")
    if paren >= 0:
        name = name[:paren]
    cls, _, method = name.rpartition("::")
    return cls.replace("::", ".") + "::" + method


def tool_innermost(row):
    """The innermost frame quarvel-jit reports: the first of the inlined chain,
    or the method itself."""
    chain = row["inlined"]
    return tool_method_name(chain.split(" <- ")[0] if chain else row["method"])


# ------------------------------------------------------------------ samples

class Sample:
    """A perf sample, the nmethod the log places it in and quarvel-jit's answer."""
    __slots__ = ("time", "ip", "owner", "reused", "row", "load", "agrees")


def attribute_samples(samples, nmethods, resolved, ranges):
    pages = defaultdict(list)
    for n in nmethods:
        for page in range(n.start // PAGE, (n.start + n.size - 1) // PAGE + 1):
            pages[page].append(n)
    rvas = [r[0] for r in ranges]

    def trace_load(row):
        if not row or row["status"] != "resolved" or not row["jit_rva"]:
            return None
        rva = int(row["jit_rva"], 16)
        i = bisect.bisect_right(rvas, rva) - 1
        if i >= 0 and rva < ranges[i][0] + ranges[i][1]:
            return ranges[i][2]
        return None

    out = []
    for pid, t, ip in samples:
        s = Sample()
        s.time, s.ip, s.owner = t, ip, None
        earlier = 0
        for n in pages.get(ip // PAGE, ()):
            if n.start <= ip < n.start + n.size and n.visible_ns <= t:
                earlier += 1
                if s.owner is None or (n.visible_ns, n.order) > (s.owner.visible_ns, s.owner.order):
                    s.owner = n
        s.reused = earlier > 1  # the address held other compiled code before
        s.row = resolved.get((pid, t, ip))
        s.load = trace_load(s.row)
        got = java_key(s.load.cls, s.load.name) if s.load is not None and s.load.language == LANG_JAVA else None
        if s.owner is not None:
            # The same code (another compilation of the same method is wrong),
            # and the name quarvel-jit prints must name the method too.
            s.agrees = s.owner.same_method(got) and got[1].strip("<>") in s.row["method"] \
                and (s.load.start, s.load.size) == (s.owner.start, s.owner.size)
        else:
            s.agrees = got is None and (s.row or {}).get("module") != "[Compiled Java code]"
        out.append(s)
    return out


def answer(s):
    if s.load is not None:
        if s.load.language == LANG_JAVA:
            return "%s at %#x" % (show(java_key(s.load.cls, s.load.name)), s.load.start)
        return s.load.name
    return (s.row or {}).get("status", "absent")


def expected(s):
    return "%s at %#x" % (show((s.owner.cls, s.owner.name, s.owner.sig)), s.owner.start) if s.owner \
        else "no compiled method"


# ------------------------------------------------------------------ checks

class Checks:
    def __init__(self, failing_mark="FAIL"):
        # A sabotaged run is meant to fail: its failures are marked otherwise,
        # so that "FAIL" in a log always points at a real one.
        self.failed = []
        self.figures = {}
        self.failing_mark = failing_mark

    def expect(self, ok, what):
        print("  " + ("ok" if ok else self.failing_mark).ljust(6) + what)
        if not ok:
            self.failed.append(what)


def agreement(checks, key, agree, total, need, floor, what):
    """One agreement figure: at least `floor` cases, a share `need` of them agreeing."""
    ratio = agree / total if total else 0.0
    checks.figures[key] = ratio
    checks.expect(total >= floor and ratio >= need, "%s: %d of %d (%.2f%%, need %.2f%% of at least %d)"
                  % (what, agree, total, 100.0 * ratio, 100.0 * need, floor))


def print_mismatches(samples, limit=6):
    wrong = Counter((expected(s), answer(s)) for s in samples if not s.agrees)
    for (want, got), count in wrong.most_common(limit):
        print("    %5d  expected %s, got %s" % (count, want, got))


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


def pair_loads(loads, nmethods):
    """(nmethod, the trace load written for it): those of one address range
    taken in order."""
    by_range = defaultdict(list)
    for load in loads:
        if not load.inline and load.language == LANG_JAVA:
            by_range[(load.start, load.size)].append(load)
    groups = defaultdict(list)
    for n in nmethods:
        groups[(n.start, n.size)].append(n)
    pairs = []
    for key, group in groups.items():
        group.sort(key=lambda n: (n.visible_ns, n.order))
        pairs.extend(zip(group, by_range.get(key, [])))
    return pairs


def check_stamps(checks, loads, nmethods):
    """A load's time stamp is where quarvel-jit hands an address over from the
    old code to the new: a sample of the new code taken before it goes to the
    old code or to none, so no load may be stamped after the VM installed its
    code. (The other side, a stamp before the old code's last run, shows in the
    samples at reused addresses: the VM logs no moment after which old code
    cannot run.)"""
    timed = late = 0
    worst = 0
    for n, load in pair_loads(loads, nmethods):
        if n.install_ns is None:
            continue
        timed += 1
        if load.time > n.install_ns:
            late += 1
            worst = max(worst, load.time - n.install_ns)
    if late:
        print("    %d loads stamped after their code was installed, by up to %.3f ms" % (late, worst / MS))
    agreement(checks, "stamps", timed - late, timed, 1.0, 100,
              "loads stamped no later than the VM installed their code")


DESCRIPTOR = re.compile(r";|::0x[0-9a-fA-F]+")
LAMBDA = re.compile(r"^Hot\$\$Lambda\$\d+/0x[0-9a-f]+::applyAsInt\(int\)$")
PAYLOAD = re.compile(r"^Payload/0x[0-9a-f]+::applyAsLong\(long\)$")


def check_names(checks, symbols, resolved):
    """Hidden classes are named the way the VM prints them, and no name keeps
    a piece of a class descriptor."""
    print("== names quarvel-jit prints")
    names = Counter()
    for row in symbols:
        names[row["name"]] += 1
        if row["class"]:
            names[row["class"]] += 1
    for row in (resolved or {}).values():
        if row["method"]:
            names[row["method"]] += 1
        for frame in filter(None, row["inlined"].split(" <- ")):
            names[re.sub(r" \([^()]*:\d+\)$", "", frame)] += 1
    bad = [n for n in names if DESCRIPTOR.search(n)]
    for n in bad[:5]:
        print("    descriptor left in: %s" % n)
    checks.expect(names and not bad, "names without a class descriptor in them: %d of %d"
                  % (len(names) - len(bad), len(names)))
    lambdas = sorted(n for n in names if LAMBDA.match(n))
    payloads = [n for n in names if PAYLOAD.match(n)]
    for n in lambdas[:2]:
        print("    e.g. %s" % n)
    checks.expect(len(lambdas) >= 4, "the workload's lambdas read Hot$$Lambda$N/0x...::applyAsInt(int): %d"
                  % len(lambdas))
    checks.expect(len(payloads) >= 2, "its hidden classes read Payload/0x...::applyAsLong(long): %d"
                  % len(payloads))


def check_methods(checks, samples, min_agreement):
    """Every sample the log places in compiled code, and every sample that
    quarvel-jit places in compiled Java code, must name the same method."""
    placed = [s for s in samples if s.owner is not None]
    outside = [s for s in samples if s.owner is None and not s.agrees]
    print("  %d in compiled methods by the log; %d more that quarvel-jit names a Java method "
          "where the log has no compiled code" % (len(placed), len(outside)))
    print_mismatches(placed + outside)
    total = len(placed) + len(outside)
    agreement(checks, "methods", sum(s.agrees for s in placed), total, min_agreement, 100,
              "samples resolved to the log's nmethod (or to none where it has none)")


def check_reused(checks, samples, min_reused):
    reused = [s for s in samples if s.owner is not None and s.reused]
    print_mismatches(reused)
    agreement(checks, "reused", sum(s.agrees for s in reused), len(reused), 1.0, min_reused,
              "samples at addresses that held other compiled code before, resolved right")


def check_young(checks, samples, young_ms, min_young):
    """Code runs before the VM tells agents about it: the first moments of each
    nmethod are where a wrong load time shows."""
    young = [s for s in samples if s.owner is not None and s.owner.install_ns is not None
             and s.time - s.owner.install_ns < young_ms * MS]
    print_mismatches(young)
    agreement(checks, "young", sum(s.agrees for s in young), len(young), 1.0, min_young,
              "samples in code installed less than %g ms before, resolved right" % young_ms)


def check_blobs(checks, samples):
    blobs = [s for s in samples if s.owner is None and s.load is not None and s.load.language != LANG_JAVA]
    names = Counter(s.load.name for s in blobs)
    named = sum(1 for s in blobs if s.row["method"] == s.load.name and s.row["module"] == "[Dynamic code]")
    print("  blob samples by name: " + ", ".join("%s %d" % kv for kv in names.most_common(6)))
    checks.expect(blobs and named == len(blobs),
                  "samples in interpreter and stubs resolved to their blob names: %d of %d" % (named, len(blobs)))
    checks.expect(names.get("Interpreter", 0) > 0, "some samples fall in the interpreter")


def check_inlined(checks, samples, printed, min_inlined):
    """The innermost inlined method at each sampled pc, against the scope
    chains the VM prints. A pc inside the four-byte group after a printed pc
    cannot be placed before or after that pc: such samples count only when
    both neighbouring chains name the same method."""
    how = Counter()
    agree = deep = 0
    wrong = Counter()
    for s in samples:
        if s.owner is None or not s.agrees:
            continue
        p = printed.get(s.owner.compile_id)
        if p is None or p.start != s.owner.start:
            how["not printed"] += 1
            continue
        kind, want = expected_innermost(p, s.ip)
        how[kind] += 1
        if want is None:
            continue
        got = tool_innermost(s.row)
        deep += want != p.name
        if got == want:
            agree += 1
        else:
            wrong[(p.name, want, got)] += 1
    checked = how["exact"] + how["near"]
    print("  samples in compiled methods: %d placed exactly, %d within a group after a printed pc whose neighbours "
          "agree, %d ambiguous there, %d after the last recorded pc, %d in nmethods not printed"
          % (how["exact"], how["near"], how["ambiguous"], how["none"], how["not printed"]))
    for (root, want, got), count in wrong.most_common(6):
        print("    %5d  in %s: expected %s, got %s" % (count, root, want, got))
    print("  %d of the checked samples are in inlined code" % deep)
    agreement(checks, "inlined", agree, checked, 1.0, min_inlined,
              "samples whose innermost inlined method quarvel-jit names as the VM does")


def check_top(checks, top_path, hottest):
    """The interpreter's share depends on how fast the compilers keep up on a
    busy machine, so the check is on the hottest compiled Java method."""
    print("== quarvel-jit resolve --top")
    with open(top_path, newline="") as f:
        methods = [r for r in csv.DictReader(f) if r["kind"] == "method"]
    for r in methods[:5]:
        print("    %6s %6s%%  %s" % (r["samples"], r["percent"], r["name"]))
    java = [r for r in methods if r["module"] == "[Compiled Java code]"]
    checks.expect(bool(java) and hottest in java[0]["name"],
                  "the hottest compiled Java method comes first: %s" % (java[0]["name"] if java else None))


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--trace", required=True)
    ap.add_argument("--compilation-log", required=True)
    ap.add_argument("--xlog", required=True)
    ap.add_argument("--symbols")
    ap.add_argument("--perf-script")
    ap.add_argument("--resolved")
    ap.add_argument("--top")
    ap.add_argument("--pid", type=int)
    ap.add_argument("--hottest", default="sumRange")
    ap.add_argument("--min-agreement", type=float, default=0.999)
    ap.add_argument("--min-reused", type=int, default=50)
    ap.add_argument("--young-ms", type=float, default=1.0)
    ap.add_argument("--min-young", type=int, default=25)
    ap.add_argument("--min-inlined", type=int, default=500)
    ap.add_argument("--sabotaged", action="store_true")
    ap.add_argument("--sabotage-ceiling", type=float, default=0.5)
    args = ap.parse_args()

    checks = Checks("miss" if args.sabotaged else "FAIL")
    header, loads = read_trace(args.trace)
    nmethods = read_nmethods(args.compilation_log)
    start_ns = vm_start_ns(args.xlog)
    paired, far = add_install_times(nmethods, args.xlog, start_ns)
    check_trace(checks, header, loads, nmethods, read_inlined(args.compilation_log))
    print("== load times against the VM's install times")
    print("  %d nmethods paired with their install line (%d of them far from their stamp, left unpaired), %d without"
          % (paired, far, sum(1 for n in nmethods if n.install_ns is None)))
    check_stamps(checks, loads, nmethods)
    symbols = read_symbols(args.symbols) if args.symbols else None
    resolved = read_resolved(args.resolved) if args.resolved else None
    if symbols is not None:
        check_names(checks, symbols, resolved)
    if args.perf_script and resolved is not None and symbols is not None:
        print("== perf samples: quarvel-jit resolve against HotSpot's logs")
        raw = [s for s in read_perf(args.perf_script) if s[0] == args.pid]
        samples = attribute_samples(raw, nmethods, resolved, symbol_ranges(symbols, loads))
        print("  %d samples of pid %d" % (len(samples), args.pid))
        check_methods(checks, samples, args.min_agreement)
        check_reused(checks, samples, args.min_reused)
        check_young(checks, samples, args.young_ms, args.min_young)
        check_blobs(checks, samples)
        check_inlined(checks, samples, read_printed(args.compilation_log), args.min_inlined)
    if args.top:
        check_top(checks, args.top, args.hottest)
    print("figures: " + " ".join("%s=%.2f%%" % (k, 100.0 * v) for k, v in checks.figures.items()))
    if args.sabotaged:
        stamps = checks.figures.get("stamps", 1.0)
        caught = bool(checks.failed) and stamps <= args.sabotage_ceiling
        print("%d check(s) failed; rightly stamped loads %.2f%% (a correct run needs 100%%, this run must stay "
              "at or below %.0f%%): %s" % (len(checks.failed), 100.0 * stamps, 100.0 * args.sabotage_ceiling,
                                            "the oracle rejects this run by a wide margin" if caught
                                            else "NOT CAUGHT"))
        return 0 if caught else 1
    if checks.failed:
        print("%d check(s) failed" % len(checks.failed))
        return 1
    print("all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
