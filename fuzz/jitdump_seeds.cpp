#include "jitdump_seeds.h"

#include "jitdump_writer.h"

namespace quarvel_fuzz {

using quarvel_test::JitdumpDebugFields;
using quarvel_test::JitdumpHeaderFields;
using quarvel_test::JitdumpLoadFields;
using quarvel_test::JitdumpWriter;

namespace {

typedef std::vector<uint8_t> Bytes;

// push rbp; mov rbp, rsp; mov eax, edi; imul eax, eax; pop rbp; ret
const Bytes kCode = {0x55, 0x48, 0x89, 0xE5, 0x89, 0xF8, 0x0F, 0xAF, 0xC0, 0x5D, 0xC3};

JitdumpLoadFields loadAt(uint64_t addr, uint64_t index, const std::string& name) {
    JitdumpLoadFields l;
    l.timestamp = 1000 + index * 10;
    l.codeAddr = addr;
    l.codeIndex = index;
    l.name = name;
    l.code = kCode;
    return l;
}

// Lines of a load, with the 0x40 bias a JavaScript engine adds when biased.
JitdumpDebugFields linesOf(uint64_t addr, bool biased) {
    JitdumpDebugFields d;
    d.codeAddr = addr;
    const uint64_t b = biased ? 0x40 : 0;
    d.entries = {
        {addr + b, 3, 0, "/app/main.js", false}, {addr + b + 4, 4, 0, "", true}, {addr + b + 9, 7, 1, "lib.js", false}};
    return d;
}

// A small dump shaped like a real one: lines before their loads, a reload of
// an address, a move, unwinding data, an unknown record and a close.
JitdumpWriter dump(JitdumpWriter::Order order, uint32_t headerSize, bool biased, uint64_t flags) {
    JitdumpWriter w(order);
    JitdumpHeaderFields h;
    h.totalSize = headerSize;
    h.flags = flags;
    w.header(h);
    w.debugInfo(linesOf(0x7f0000001000, biased)).codeLoad(loadAt(0x7f0000001000, 0, "JS:*fib /app/main.js:3"));
    quarvel_test::JitdumpUnwindingFields u;
    u.data = Bytes(24, 0x1B);
    u.ehFrameHdrSize = 8;
    u.mappedSize = 24;
    w.unwindingInfo(u);
    w.debugInfo(linesOf(0x7f0000002000, biased)).codeLoad(loadAt(0x7f0000002000, 1, "JS:^run"));
    w.codeLoad(loadAt(0x7f0000001000, 2, "JS:~reused"));
    quarvel_test::JitdumpMoveFields m;
    m.oldCodeAddr = 0x7f0000002000;
    m.newCodeAddr = 0x7f0000003000;
    m.codeSize = kCode.size();
    m.codeIndex = 1;
    w.codeMove(m);
    w.record(42, 2000, {1, 2, 3});
    w.close(3000);
    return w;
}

} // namespace

void addJitdumpAndPerfMapSeeds(const std::function<void(const std::string&, const std::vector<uint8_t>&)>& add) {
    for (const auto order : {JitdumpWriter::Order::little, JitdumpWriter::Order::big}) {
        add("fuzz_jitdump", dump(order, 40, true, 0).bytes());
        add("fuzz_jitdump", dump(order, 56, false, 1).bytes());
    }
    // Interleaved writer threads: two debug records, then their loads swapped.
    JitdumpWriter interleaved;
    interleaved.header()
        .debugInfo(linesOf(0x1000, true))
        .debugInfo(linesOf(0x2000, true))
        .codeLoad(loadAt(0x2000, 0, "JS:*b"))
        .codeLoad(loadAt(0x1000, 1, "JS:*a"));
    add("fuzz_jitdump", interleaved.bytes());
    // Damage: a cut inside a load, a size below the prefix, a count that does not fit.
    const JitdumpWriter whole = dump(JitdumpWriter::Order::little, 40, true, 0);
    add("fuzz_jitdump", whole.cut(whole.recordStarts()[1] + 30));
    JitdumpWriter badSize = dump(JitdumpWriter::Order::little, 40, true, 0);
    add("fuzz_jitdump", badSize.setRecordSize(2, 8).bytes());
    JitdumpDebugFields badCount = linesOf(0x1000, false);
    badCount.countField = 1000;
    add("fuzz_jitdump", JitdumpWriter().header().debugInfo(badCount).bytes());

    const char* const maps[] = {
        "7f3c2a001000 1a4 JS:*fib /app/main.js:3\n7f3c2a0011a4 40 Builtin:ArgumentsAdaptorTrampoline\n",
        "0x00007f3c2a001000 0x0000000000000100 void Foo::bar(int)\r\n\r\n0x7f3c2a001100 0x20 [stub]\r\n",
        "1000 10 a\nbad line\n2000 20 b c d\n3000\n4000 40 last without end",
        "\n\n  \t\n10 ffffffffffffffff wraps\nffffffffffffffff 1 top\n",
    };
    for (const char* m : maps) {
        const std::string text(m);
        add("fuzz_perf_map", Bytes(text.begin(), text.end()));
    }

    // Whole files through the file set (fuzz_trace_file): architecture,
    // flags, the u16 split point, then the bytes; with flag 8 the bytes
    // before the split are one file and the rest another.
    const auto wholeFile = [&add](uint8_t flags, size_t split, const Bytes& bytes) {
        Bytes input = {0, flags, static_cast<uint8_t>(split), static_cast<uint8_t>(split >> 8)};
        input.insert(input.end(), bytes.begin(), bytes.end());
        add("fuzz_trace_file", input);
    };
    const Bytes little = dump(JitdumpWriter::Order::little, 40, true, 0).bytes();
    const Bytes big = dump(JitdumpWriter::Order::big, 56, false, 1).bytes();
    const std::string map(maps[0]), damagedMap(maps[2]);
    wholeFile(1, 0, little);
    wholeFile(2 | 4, 0, big);
    wholeFile(0, 0, whole.cut(whole.recordStarts()[3] + 7));
    wholeFile(1, 0, Bytes(damagedMap.begin(), damagedMap.end()));
    // A dump and a perf map of one process, and of two.
    Bytes both = little;
    both.insert(both.end(), map.begin(), map.end());
    wholeFile(1 | 8, little.size(), both);
    wholeFile(1 | 8 | 0x10, little.size(), both);
}

} // namespace quarvel_fuzz
