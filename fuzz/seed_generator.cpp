// Writes the starting corpus of every fuzz target, made with the public trace
// writer: usage: quarvel_fuzz_seeds <output dir>. Each target gets a directory
// of the same name; the inputs follow the layouts in fuzz_support.h.

#include "fuzz_support.h"
#include "jitdump_seeds.h"
#include "nettrace_seeds.h"
#include "trace_builder.h"

#include <quarvel/jittrace_writer.h>

#include <boost/filesystem/operations.hpp>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

using namespace quarvel;
namespace jt = quarvel::jittrace;

namespace {

typedef std::vector<uint8_t> Bytes;

// push rbp; mov rbp, rsp; sub rsp, 16; mov [rbp-4], edi; call +0; mov eax, [rbp-4];
// imul eax, eax; leave; ret
const Bytes kCode64 = {0x55, 0x48, 0x89, 0xE5, 0x48, 0x83, 0xEC, 0x10, 0x89, 0x7D, 0xFC, 0xE8,
                       0x00, 0x00, 0x00, 0x00, 0x8B, 0x45, 0xFC, 0x0F, 0xAF, 0xC0, 0xC9, 0xC3};
// push ebp; mov ebp, esp; mov eax, [ebp+8]; call +0; pop ebp; ret
const Bytes kCode32 = {0x55, 0x89, 0xE5, 0x8B, 0x45, 0x08, 0xE8, 0x00, 0x00, 0x00, 0x00, 0x5D, 0xC3};

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes header(std::initializer_list<uint8_t> bytes) {
    return Bytes(bytes);
}

TraceMethodTail tail(const std::string& method, const std::string& cls, uint16_t arch, uint16_t language, bool lines) {
    TraceMethodTail t;
    t.moduleName = language == quarvel_language_java ? "" : "App.dll";
    t.moduleArch = arch;
    t.methodName = method;
    t.className = cls;
    t.sourceFile = "Source.java";
    t.checksumType = 1;
    t.checksum = "0123456789abcdef";
    t.language = language;
    if (lines) {
        t.lines.managedToSource = {{0, 4, 10}, {4, 8, 11}};
        t.lines.nativeToManaged = {{0, 8, 0}, {8, 16, 4}};
        t.lines.nativeToSource = {{0, 12, 10}, {12, 24, 11}};
    }
    return t;
}

TraceMethodLoad load(uint32_t id, uint64_t time, std::vector<TraceCodeRegion> regions, TraceMethodTail t) {
    TraceMethodLoad l;
    l.hashKey = id * 7;
    l.methodId = id;
    l.loadTime = time;
    l.regions = std::move(regions);
    l.tail = std::move(t);
    return l;
}

TraceCodeRegion region(uint64_t start, uint32_t size, const Bytes& bytes) {
    TraceCodeRegion r;
    r.startAddress = start;
    r.codeSize = size;
    r.bytes = bytes;
    return r;
}

TraceInlineLoad inlined(uint32_t id, uint32_t parent, uint64_t time, uint64_t start, uint32_t size,
                        const Bytes& bytes) {
    TraceInlineLoad l;
    l.methodId = id;
    l.parentId = parent;
    l.loadTime = time;
    l.region = region(start, size, bytes);
    l.tail = tail("inlined", "LFoo;", quarvel_arch_vx64, quarvel_language_java, true);
    return l;
}

TraceUpdateV2 updateV2(uint32_t id, uint64_t time, uint64_t start, uint32_t length, const Bytes& bytes) {
    TraceUpdateV2 u;
    u.methodId = id;
    u.loadTime = time;
    u.startAddress = start;
    u.length = length;
    u.bytes = bytes;
    return u;
}

class Seeds {
public:
    explicit Seeds(std::string root) : m_root(std::move(root)) {}
    void add(const std::string& target, const Bytes& input) {
        const std::string dir = m_root + "/" + target;
        boost::filesystem::create_directories(dir);
        const std::string path = dir + "/seed-" + std::to_string(m_count[target]++);
        if (!quarvel_fuzz::writeFile(path, input.data(), input.size())) {
            std::perror(path.c_str());
            m_failed = true;
        }
    }
    bool failed() const { return m_failed; }

private:
    std::string m_root;
    std::map<std::string, int> m_count;
    bool m_failed = false;
};

// A whole trace: every record type, aimed so that inlines, updates and
// reloads meet their methods.
Bytes fullTrace(bool is64, uint32_t collector) {
    const Bytes& code = is64 ? kCode64 : kCode32;
    const uint16_t arch = is64 ? quarvel_arch_vx64 : quarvel_arch_vx32;
    TraceRuntimeInfo info;
    info.runtimeType = quarvel_runtime_java;
    info.version = "11.0.2";
    info.name = "OpenJDK 64-Bit Server VM (HotSpot)";
    quarvel_test::TraceBuilder trace;
    trace.magic().collector(collector).runtimeInfo(info);
    for (int version = 0; version < 4; ++version)
        trace.load(
            version,
            load(static_cast<uint32_t>(version + 1), 100 + static_cast<uint64_t>(version),
                 {region(0x1000 + 0x100 * static_cast<uint64_t>(version), static_cast<uint32_t>(code.size()), code)},
                 tail("run", "LApp;", arch, quarvel_language_java, true)),
            is64);
    // A reload over the first method's range, later.
    trace.load(3, load(9, 500, {region(0x1008, 0x40, Bytes(0x40, 0x90))}, tail("reloaded", "Cls", arch, 0, false)),
               is64);
    // Inlines into method 4 (raw parent id 4), by record and by the version 3 flag.
    trace.inlineLoad(inlined(20, 4, 103, 0x1302, 4, Bytes(code.begin() + 2, code.begin() + 6)), is64);
    TraceMethodLoad flagged = load(21, 103, {region(0x1303, 2, Bytes())}, tail("deeper", "Cls", arch, 0, false));
    flagged.inlineFlag = 1;
    trace.load(3, flagged, is64);
    // Updates of method 4's bytes: the version 3 layout and version 2.
    trace.update(
        load(4, 104, {region(0x1300, 4, Bytes(4, 0x90))}, tail("run", "LApp;", arch, quarvel_language_java, false)));
    trace.updateV2(updateV2(4, 105, 0x1304, 2, {0x90, 0x90}));
    return trace.bytes();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <output dir>\n", argv[0]);
        return 2;
    }
    Seeds seeds(argv[1]);

    // Method loads: every version, both variants, modes with and without bytes.
    for (int version = 0; version < 4; ++version)
        for (int is64 = 0; is64 < 2; ++is64) {
            const Bytes& code = is64 ? kCode64 : kCode32;
            const uint16_t arch = is64 ? quarvel_arch_vx64 : quarvel_arch_vx32;
            const auto sel = static_cast<uint8_t>(version | (is64 << 2) | 0x10);
            const TraceMethodLoad one = load(1, 100, {region(0x1000, static_cast<uint32_t>(code.size()), code)},
                                             tail("run", "LApp;", arch, quarvel_language_java, true));
            seeds.add("fuzz_method_load", cat({header({sel, 1}), jt::encodeMethodLoad(one, version)}));
            const TraceMethodLoad two = load(2, 200,
                                             {region(0x2000, 16, Bytes(code.begin(), code.begin() + 8)),
                                              region(0x3000, 0, Bytes()), region(0x3000, 32, code)},
                                             tail("twice", "Plain.Class", arch, 0, true));
            seeds.add("fuzz_method_load", cat({header({sel, 3}), jt::encodeMethodLoad(two, version)}));
            const TraceMethodLoad none = load(3, 300, {}, tail("", "", arch, quarvel_language_java, false));
            seeds.add("fuzz_method_load", cat({header({sel, 0x80}), jt::encodeMethodLoad(none, version)}));
        }
    TraceMethodLoad inlineFlagged = load(5, 100, {region(0x1004, 4, Bytes(kCode64.begin() + 4, kCode64.begin() + 8))},
                                         tail("inl", "LApp;", quarvel_arch_varda64, quarvel_language_java, true));
    inlineFlagged.inlineFlag = 1;
    seeds.add("fuzz_method_load", cat({header({3 | 4 | 0x10, 1}), jt::encodeMethodLoad(inlineFlagged, 3)}));
    seeds.add("fuzz_method_load", cat({header({3 | 8 | 0x10, 1}),
                                       jt::encodeMethodLoad(load(1, 150, {region(0x1000, 4, Bytes(4, 0x90))},
                                                                 tail("run", "LApp;", quarvel_arch_vx64, 0, false)),
                                                            3)}));

    // Inline loads into the harness's parent over [0x1000, 0x3000) (raw id 1).
    for (uint8_t sel = 0; sel < 4; ++sel) {
        seeds.add(
            "fuzz_inline_load",
            cat({header({sel, 1}), jt::encodeInlineLoad(inlined(sel & 2 ? 10 : 0, sel & 2 ? 1 : 0, 5, 0x1100,
                                                                static_cast<uint32_t>(kCode64.size()), kCode64))}));
        seeds.add("fuzz_inline_load",
                  cat({header({sel, 0}), jt::encodeInlineLoad(inlined(11, 1, 7, 0x2FF0, 0x20, Bytes()))}));
    }

    // Updates aimed at the harness's regions (see fuzz_update.cpp).
    const struct {
        uint32_t id;
        uint64_t time;
        uint64_t start;
        uint32_t length;
        size_t bytes;
    } updates[] = {{1, 150, 0x1010, 16, 16},     {2, 250, 0x1000, 0x100, 0x100},
                   {3, 150, 0x2800, 8, 8},       {4, 60, 0x10000000 + 0xFFFFFF00ull, 0x10, 0x10},
                   {5, 150, 0x4020, 0x20, 0x20}, {1, 150, 0x10F8, 16, 16}};
    for (const auto& u : updates)
        for (uint8_t sel = 0; sel < 2; ++sel) {
            const Bytes body =
                sel ? jt::encodeMethodLoad(load(u.id, u.time, {region(u.start, u.length, Bytes(u.bytes, 0x90))},
                                                tail("m", "C", quarvel_arch_vx64, 0, false)),
                                           3)
                    : jt::encodeUpdateV2(updateV2(u.id, u.time, u.start, u.length, Bytes(u.bytes, 0x90)));
            seeds.add("fuzz_update", cat({header({sel, 1}), body}));
        }

    // Byte updates straight on the regions: code, then padding over it, then
    // an unchanged-type update of the same range, on the short and the huge copies.
    for (uint8_t index : {0, 4, 5}) {
        Bytes ops;
        const auto op = [&ops, index](uint8_t type, uint64_t offset, uint32_t length, const Bytes& bytes) {
            ops.push_back(index);
            ops.push_back(type);
            for (int i = 0; i < 8; ++i)
                ops.push_back(static_cast<uint8_t>(offset >> (8 * i)));
            for (int i = 0; i < 4; ++i)
                ops.push_back(static_cast<uint8_t>(length >> (8 * i)));
            ops.push_back(static_cast<uint8_t>(bytes.size()));
            ops.push_back(static_cast<uint8_t>(bytes.size() >> 8));
            ops.insert(ops.end(), bytes.begin(), bytes.end());
        };
        op(quarvel_segment_code, 8, 4, {0x90, 0x90, 0x90, 0x90});
        op(quarvel_segment_padding, 8, 4, {});
        op(quarvel_segment_unchanged, 8, 4, {0xCC});
        op(quarvel_segment_padding, 16, 0x40, {});
        seeds.add("fuzz_update", cat({header({4, 1}), ops}));
    }

    // Runtime infos.
    const struct {
        uint32_t type;
        const char* version;
        const char* name;
    } runtimes[] = {{quarvel_runtime_java, "11.0.2", "OpenJDK 64-Bit Server VM"},
                    {quarvel_runtime_java, "1.8.0_292", "Java HotSpot(TM)"},
                    {quarvel_runtime_java, "", "IBM J9 VM"},
                    {quarvel_runtime_java, "R28", "Oracle JRockit"},
                    {quarvel_runtime_python, "3.11", "CPython"},
                    {7, "x", "y"}};
    for (const auto& r : runtimes) {
        TraceRuntimeInfo info;
        info.runtimeType = r.type;
        info.version = r.version;
        info.name = r.name;
        seeds.add("fuzz_runtime_info", cat({header({0, 0}), jt::encodeRuntimeInfo(info)}));
    }

    // Whole files, for the framing and the reading pass.
    for (int is64 = 0; is64 < 2; ++is64)
        for (uint32_t collector = 0; collector < 2; ++collector) {
            const Bytes trace = fullTrace(is64, collector);
            seeds.add("fuzz_record_framing", trace);
            for (uint8_t arch = 0; arch < 3; ++arch)
                seeds.add("fuzz_trace_file",
                          cat({header({arch, static_cast<uint8_t>(1 | (arch ? 4 : 0)), 0, 0}), trace}));
            // Two files of one process, and of two hosts, cut between records.
            const size_t cut = trace.size() / 2;
            const Bytes split = {static_cast<uint8_t>(cut), static_cast<uint8_t>(cut >> 8)};
            seeds.add("fuzz_trace_file", cat({header({0, 1 | 8}), split, trace}));
            seeds.add("fuzz_trace_file", cat({header({0, 1 | 8 | 0x10}), split, trace}));
        }
    const Bytes twoTraces = cat({fullTrace(true, 1), fullTrace(true, 0)});
    seeds.add("fuzz_trace_file", cat({header({0, 1, 0, 0}), twoTraces}));
    seeds.add("fuzz_record_framing", twoTraces);
    seeds.add("fuzz_record_framing", cat({jt::frameValue(quarvel_jt_Magic, 0), jt::frameValue(3, 1)}));
    const Bytes truncated(twoTraces.begin(), twoTraces.begin() + 37);
    seeds.add("fuzz_record_framing", truncated);
    seeds.add("fuzz_trace_file", cat({header({0, 2, 0, 0}), truncated}));

    // File names.
    const char* const nameLists[] = {"host.123.jit\nhost-45.txt\nmy.host.name.77.jit",
                                     "a-1.b\nno-pid\n.hidden.5.x\nhost.4294967295.jit\nhost.4294967296.jit",
                                     "host-1-2.jit\nhost..3.jit\n-7.jit\nhost.12.\nhost.+12.jit\nh.0x10.jit"};
    for (uint8_t flags = 0; flags < 8; flags = static_cast<uint8_t>(flags + 3))
        for (const char* list : nameLists) {
            const std::string text(list);
            seeds.add("fuzz_file_names", cat({header({flags}), Bytes(text.begin(), text.end())}));
        }

    // Jitdump files and perf maps.
    quarvel_fuzz::addJitdumpAndPerfMapSeeds(
        [&seeds](const std::string& target, const Bytes& input) { seeds.add(target, input); });
    // The runtime's event traces.
    for (const Bytes& trace : quarvel_fuzz::nettraceSeeds()) {
        seeds.add("fuzz_nettrace", trace);
        // Through the reading pass too, read by the loader's and the resolver's modes.
        seeds.add("fuzz_trace_file", cat({header({0, 1, 0, 0}), trace}));
        seeds.add("fuzz_trace_file", cat({header({0, 2, 0, 0}), trace}));
    }
    return seeds.failed() ? 1 : 0;
}
