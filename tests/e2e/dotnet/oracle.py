#!/usr/bin/env python3
"""Checks what the library read from the runtime's own event trace of a real
.NET run (the output of quarvel_nettrace_dump) against the runtime's perf map,
its jitdump when that holds methods, and perf's samples.

  oracle.py --summary S.json --methods M.tsv --ilmaps I.tsv --modules D.tsv
            --perf-map /tmp/perf-PID.map [--jitdump jit-PID.dump]
            [--perf-script perf.txt]
            [--plugin Plugin.dll] [--dynamic-prefix Kernel]

Name normalisation between the perf map and the trace's MethodLoadVerbose
events: a perf map line reads "<return type> [<assembly>] <Type>::<Method>(<args>)[<tier>]";
the event gives <Type> (MethodNamespace), <Method> (MethodName) and a
signature "<return type>  (<args>)" spelled differently (class System.String
for string, no assembly qualifiers). Compared are the address, the size,
"<Type>::<Method>" as text, the number of top-level arguments, and the tier
the perf map appends against the tier in the event's MethodFlags.
"""

import argparse
import bisect
import json
import re
import struct
import sys
from collections import defaultdict

TIERS = {0: "Unknown", 1: "MinOptJitted", 2: "Optimized", 3: "QuickJitted", 4: "OptimizedTier1",
         5: "OptimizedTier1OSR", 6: "InstrumentedTier", 7: "InstrumentedTierOptimized"}
FLAG_DYNAMIC = 0x1
FLAG_JITTED = 0x8
NO_MAPPING, PROLOG, EPILOG = 0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFFD

failures = []


def check(ok, text):
    print("  %s  %s" % ("ok  " if ok else "FAIL", text))
    if not ok:
        failures.append(text)


def info(text):
    print("  ..    %s" % text)


def read_tsv(path):
    with open(path, encoding="utf-8") as f:
        header = f.readline().rstrip("\n").split("\t")
        return [dict(zip(header, line.rstrip("\n").split("\t"))) for line in f if line.strip()]


def top_level_args(text):
    """Number of top-level comma-separated items of an argument list (no parentheses)."""
    if not text.strip():
        return 0
    depth, count = 0, 1
    for ch in text:
        if ch in "<[(":
            depth += 1
        elif ch in ">])":
            depth -= 1
        elif ch == "," and depth == 0:
            count += 1
    return count


def args_of(signature_or_name):
    """The text inside the last top-level parentheses."""
    end = signature_or_name.rfind(")")
    depth = 0
    for i in range(end, -1, -1):
        ch = signature_or_name[i]
        if ch == ")":
            depth += 1
        elif ch == "(":
            depth -= 1
            if depth == 0:
                return signature_or_name[i + 1:end]
    return ""


PERF_MAP_NAME = re.compile(r"^(.*?) \[([^\]]+)\] (.*)$")  # assembly names may hold spaces


def parse_perf_map_name(name):
    """(type, method, argument count, tier) of a method line; None for stubs and other shapes."""
    if name.startswith("stub "):
        return None
    tier = ""
    m = re.search(r"\[([A-Za-z0-9]+)\]$", name)
    if m:
        tier = m.group(1)
        name = name[:m.start()]
    m = PERF_MAP_NAME.match(name)
    rest = m.group(3) if m else name
    paren = rest.find("(")
    head = rest[:paren] if paren >= 0 else rest
    sep = head.rfind("::")
    if sep < 0:
        return None
    return head[:sep], head[sep + 2:], top_level_args(args_of(rest)), tier


def read_perf_map(path):
    entries = []
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            parts = line.rstrip("\n").split(" ", 2)
            if len(parts) < 3:
                continue
            entries.append((int(parts[0], 16), int(parts[1], 16), parts[2]))
    return entries


def read_jitdump(path):
    """(timestamp, address, size, name) of each code load record."""
    records = []
    with open(path, "rb") as f:
        data = f.read()
    if len(data) < 40:
        return records
    magic, version, header_size = struct.unpack_from("<III", data, 0)
    if magic != 0x4A695444:
        return records
    p = header_size
    while p + 16 <= len(data):
        rid, size, t = struct.unpack_from("<IIQ", data, p)
        if size < 16 or p + size > len(data):
            break
        if rid == 0 and p + 56 <= len(data):
            _, _, _, addr, csize, _ = struct.unpack_from("<IIQQQQ", data, p + 16)
            end = data.find(b"\0", p + 56, p + size)
            records.append((t, addr, csize, data[p + 56:end].decode("utf-8", "replace")))
        p += size
    return records


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--summary", required=True)
    ap.add_argument("--methods", required=True)
    ap.add_argument("--ilmaps", required=True)
    ap.add_argument("--modules", required=True)
    ap.add_argument("--perf-map", required=True)
    ap.add_argument("--jitdump")
    ap.add_argument("--perf-script")
    ap.add_argument("--plugin", default="Plugin.dll")
    ap.add_argument("--dynamic-prefix", default="Kernel")
    a = ap.parse_args()

    with open(a.summary) as f:
        summary = json.load(f)
    print("== the event trace, read by the library (%s, %d bytes)" % (summary["layout"], summary["bytes"]))
    check(summary["complete"] and not summary["damage"],
          "read to its end-of-stream mark, no damage%s" % (": " + summary["damage"] if summary["damage"] else ""))
    check(not summary["refused"], "every runtime event decoded (%s)" % ", ".join(
        "%s %d" % kv for kv in sorted(summary["decoded"].items())) + ("; refused: %s" % summary["refused"] if summary["refused"] else ""))
    check(summary["events_without_metadata"] == 0,
          "%d events, each with its metadata (%d event types)" % (summary["events"], len(summary["types"])))
    check(summary["dropped_events"] == 0, "the runtime dropped %d events (gaps in sequence numbers)" % summary["dropped_events"])
    info("format version %s, pid %d, clock %d Hz" % (summary["version"], summary["pid"], summary["tick_frequency"]))

    methods = read_tsv(a.methods)
    for m in methods:
        m["t"] = int(m["time_ns"])
        m["start_i"] = int(m["start"], 16)
        m["size_i"] = int(m["size"])
        m["flags_i"] = int(m["flags"], 16)
    loads = sorted((m for m in methods if m["phase"] == "load"), key=lambda m: m["t"])
    unloads = [m for m in methods if m["phase"] == "unload"]
    dcend = [m for m in methods if m["phase"] == "dcend"]
    ilmaps = read_tsv(a.ilmaps)
    modules = read_tsv(a.modules)

    # -- the runtime's perf map
    print("== method loads against the runtime's perf map (%s)" % a.perf_map)
    perf_map = read_perf_map(a.perf_map)
    methods_in_map = [(addr, size, name, parse_perf_map_name(name)) for addr, size, name in perf_map]
    stubs = sum(1 for e in methods_in_map if e[3] is None)
    listed = [e for e in methods_in_map if e[3] is not None]
    by_address = defaultdict(list)
    for m in loads:
        by_address[m["start_i"]].append(m)
    rundown_at = defaultdict(list)
    for m in dcend:
        rundown_at[m["start_i"]].append(m)
    # Code the runtime compiled once the session began closing is in its perf
    # map but need not be in the trace: its load event may be dropped, and the
    # rundown, which lists methods as it walks them, may have passed its
    # place. The session closes from its rundown's first event (from its last
    # event when there is no rundown); the jitdump's time of the code says
    # when it came.
    closing = min((m["t"] for m in dcend), default=max(m["t"] for m in methods))
    compiled_after = set((addr, size) for t, addr, size, _ in (read_jitdump(a.jitdump) if a.jitdump else [])
                         if t > closing)
    used = defaultdict(int)
    matched, by_rundown, after_close, mismatches, tiers_seen = 0, 0, 0, [], defaultdict(int)
    for addr, size, name, (typ, meth, nargs, tier) in listed:
        k = used[addr]
        used[addr] += 1
        candidates = by_address.get(addr, [])
        if k < len(candidates):
            m = candidates[k]
        else:
            # Compiled while the session closed: no load event, but the rundown lists it.
            late = [r for r in rundown_at.get(addr, []) if r["size_i"] == size]
            if not late:
                if (addr, size) in compiled_after:
                    after_close += 1
                else:
                    mismatches.append("no load at 0x%x for %s" % (addr, name))
                continue
            m = late[0]
            by_rundown += 1
        problems = []
        if m["size_i"] != size:
            problems.append("size %d != %d" % (m["size_i"], size))
        if "%s::%s" % (m["namespace"], m["name"]) != "%s::%s" % (typ, meth):
            problems.append("name %s::%s" % (m["namespace"], m["name"]))
        if top_level_args(args_of(m["signature"])) != nargs:
            problems.append("%d arguments in %r" % (top_level_args(args_of(m["signature"])), m["signature"]))
        event_tier = TIERS.get(int(m["tier"]), "?")
        tiers_seen[event_tier] += 1
        if tier and tier != event_tier:
            problems.append("tier %s" % event_tier)
        if problems:
            mismatches.append("%s: %s" % (name, "; ".join(problems)))
        else:
            matched += 1
    check(listed and matched == len(listed) - after_close,
          "%d of %d methods the perf map lists match the trace (address, size, Type::Method, argument count, "
          "tier): %d by their load event, %d compiled as the session closed by the end rundown; %d compiled after "
          "the session began closing (by the jitdump's time); %d stub lines have no method event"
          % (matched, len(listed), matched - by_rundown, by_rundown, after_close, stubs))
    for text in mismatches[:10]:
        print("          %s" % text)
    extra = len(loads) - sum(min(used[addr], len(ms)) for addr, ms in by_address.items())
    check(extra == 0, "every load of the trace is in the perf map (%d are not)" % extra)
    info("tiers: " + ", ".join("%s %d" % kv for kv in sorted(tiers_seen.items())))
    for wanted in ("QuickJitted", "OptimizedTier1", "OptimizedTier1OSR"):
        check(tiers_seen.get(wanted, 0) > 0, "the workload produced %s code" % wanted)

    # -- IL-to-native maps
    print("== IL-to-native maps")
    maps = defaultdict(list)
    for r in ilmaps:
        maps[(r["method_id"], r["rejit_id"])].append(r)
    il_methods = [m for m in loads if int(m["token"], 16) != 0]
    with_map = [m for m in il_methods if maps.get((m["method_id"], m["rejit_id"]))]
    check(len(with_map) == len(il_methods),
          "%d of %d loads of IL methods (token != 0) have their map (method id and code version)" %
          (len(with_map), len(il_methods)))
    dynamic = [m for m in loads if int(m["token"], 16) == 0]
    info("%d loads without a token (dynamic methods, IL stubs), %d of them with a map" %
         (len(dynamic), sum(1 for m in dynamic if maps.get((m["method_id"], m["rejit_id"])))))
    load_maps = [r for r in ilmaps if r["phase"] == "load"]
    prolog = sum(1 for r in load_maps if int(r["prolog"]) > 0)
    epilog = sum(1 for r in load_maps if int(r["epilog"]) > 0)
    sizes = {(m["method_id"], m["rejit_id"]): m["size_i"] for m in loads}
    inside = sum(1 for r in load_maps if int(r["max_native"]) < sizes.get((r["method_id"], r["rejit_id"]), 1 << 62))
    check(inside == len(load_maps), "native offsets of every map lie inside its code (%d maps, %d with a prolog "
          "marker, %d with an epilog marker)" % (len(load_maps), prolog, epilog))

    # -- unloads
    print("== unloads: the collectible plugin and dynamic methods")
    plugin_modules = {r["id"] for r in modules if r["kind"] == "module" and r["phase"] == "load"
                      and r["path_or_name"].endswith(a.plugin)}
    plugin_module_unloads = {r["id"] for r in modules if r["kind"] == "module" and r["phase"] == "unload"
                             and r["path_or_name"].endswith(a.plugin)}
    check(len(plugin_modules) > 1 and plugin_modules <= plugin_module_unloads,
          "%d loads of %s, each module unloaded" % (len(plugin_modules), a.plugin))
    unload_at = {}
    for u in unloads:
        unload_at.setdefault((u["method_id"], u["start"]), []).append(u["t"])
    plugin_loads = [m for m in loads if m["module_id"] in plugin_modules]
    freed = [m for m in plugin_loads if any(t >= m["t"] for t in unload_at.get((m["method_id"], m["start"]), []))]
    last_module_unload = max((int(r["time_ns"]) for r in modules if r["kind"] == "module" and r["phase"] == "unload"
                              and r["id"] in plugin_modules), default=0)
    check(plugin_loads and len(freed) == len(plugin_loads),
          "%d method loads in the plugin, each with a later MethodUnload" % len(plugin_loads))
    plugin_addresses = {m["start_i"] for m in plugin_loads}
    info("plugin code at %d distinct addresses for %d loads (the runtime %s its collectible code heaps' addresses)" %
         (len(plugin_addresses), len(plugin_loads),
          "reused" if len(plugin_addresses) < len(plugin_loads) else "did not reuse"))
    kernels = [m for m in loads if m["name"].startswith(a.dynamic_prefix) and m["flags_i"] & FLAG_DYNAMIC]
    kernel_freed = [m for m in kernels if any(t >= m["t"] for t in unload_at.get((m["method_id"], m["start"]), []))]
    names_at = defaultdict(set)
    for m in kernels:
        names_at[m["start_i"]].add(m["name"])
    reused = [addr for addr, names in names_at.items() if len(names) > 1]
    check(kernels and len(kernel_freed) >= len(kernels) * 0.5,
          "%d dynamic methods, %d of them unloaded while the process ran or at its end" % (len(kernels), len(kernel_freed)))
    check(len(reused) > 0, "%d addresses held dynamic methods of different names over time" % len(reused))
    check(len(dcend) > 0, "the rundown at the end lists %d methods (jitted and precompiled)" % len(dcend))

    # -- the clock
    print("== timestamps against perf's samples (CLOCK_MONOTONIC, perf record -k mono)")
    first, last = summary["first_event_ns"], summary["last_event_ns"]
    if a.perf_script:
        samples = []
        with open(a.perf_script) as f:
            for line in f:
                parts = line.split()
                if len(parts) < 3:
                    continue
                try:
                    pid = int(parts[0])
                    t = int(round(float(parts[1].rstrip(":")) * 1e9))
                    ip = int(parts[2], 16)
                except ValueError:
                    continue
                if pid == summary["pid"]:
                    samples.append((t, ip))
        check(samples, "%d samples of the process" % len(samples))
        before = sum(1 for t, _ in samples if t < first)
        info("%d samples before the trace's first event (the host and runtime starting before the session)" % before)
        # Versions of code by start address, to find what held an address at a time.
        versions = []
        for m in loads:
            ends = [t for t in unload_at.get((m["method_id"], m["start"]), []) if t >= m["t"]]
            versions.append((m["start_i"], m["start_i"] + m["size_i"], m["t"], min(ends) if ends else None, m))
        versions.sort(key=lambda v: v[0])
        starts = [v[0] for v in versions]
        max_size = max((v[1] - v[0] for v in versions), default=0)

        def holders(ip):
            i = bisect.bisect_right(starts, ip)
            out = []
            while i > 0:
                i -= 1
                v = versions[i]
                if v[0] + max_size <= ip:
                    break
                if v[0] <= ip < v[1]:
                    out.append(v)
            return out

        def alive(ip, t, shift=0):
            t += shift
            return any(v[2] <= t and (v[3] is None or t <= v[3]) for v in holders(ip))

        jitted = [(t, ip) for t, ip in samples if holders(ip)]
        ok = sum(1 for t, ip in jitted if alive(ip, t))
        check(jitted and ok >= 0.995 * len(jitted),
              "%d of %d samples in jitted code fall in the life (load .. unload) of code at their address"
              % (ok, len(jitted)))
        # Code freed while the process ran (not in the shutdown's enumeration)
        # is where a clock error would show: move the samples and count again.
        # (Shutdown enumerates everything as unloaded: it starts with the
        # first unload of a method that is neither the plugin's nor dynamic.)
        shutdown = min((u["t"] for u in unloads if u["module_id"] not in plugin_modules
                        and not u["flags_i"] & FLAG_DYNAMIC), default=last)
        short_lived = [(t, ip) for t, ip in jitted if any(v[3] is not None and v[3] < shutdown for v in holders(ip))]
        for shift_ms in (-20, 20):
            moved = sum(1 for t, ip in short_lived if alive(ip, t, shift_ms * 1_000_000))
            info("with the sample clock moved %+d ms, %d of the %d samples in code freed while the process ran "
                 "would still fall in a life" % (shift_ms, moved, len(short_lived)))
    else:
        info("no perf samples (perf events unavailable)")

    if a.jitdump:
        records = read_jitdump(a.jitdump)
        method_records = [r for r in records if not r[3].startswith("stub ")]
        if not method_records:
            info("jitdump: %d records, none of a method (the runtime's jitdump bug): not used as an oracle" % len(records))
        else:
            jd_at = defaultdict(list)
            for r in method_records:
                jd_at[(r[1], r[2])].append(r)
            deltas, same_name = [], 0
            for m in loads:
                # The record of the same code: same place, nearest in time (addresses are reused).
                near = sorted((abs(t - m["t"]), name) for t, addr, size, name in jd_at.get((m["start_i"], m["size_i"]), []))
                if near:
                    deltas.append(near[0][0])
                    parsed = parse_perf_map_name(near[0][1])
                    same_name += bool(parsed) and "%s::%s" % parsed[:2] == "%s::%s" % (m["namespace"], m["name"])
            deltas.sort()
            median = deltas[len(deltas) // 2] if deltas else None
            check(deltas and len(deltas) == len(loads) and median < 5_000_000,
                  "jitdump: %d method records (precompiled ones included), one at the address and size of each "
                  "of the %d loads of the trace: |jitdump time - event time| median %s us, max %s us"
                  % (len(method_records), len(deltas), "%.1f" % (median / 1e3) if deltas else "-",
                     "%.1f" % (deltas[-1] / 1e3) if deltas else "-"))
            check(same_name == len(deltas), "the nearest jitdump record in time names the same method for %d of %d "
                  "loads (addresses reused by other methods included)" % (same_name, len(deltas)))

    if failures:
        print("== %d check(s) FAILED" % len(failures))
        return 1
    print("== all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
