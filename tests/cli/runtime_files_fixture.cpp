// Writes the command-line tests' directory of runtime files beside our own
// trace. Files runtimes write for profilers name no host: they are this
// host's, so the samples name it (the tests print it as LOCALHOST).
//
//   mixed/demo-host.7001.jit our trace: Shop.checkout at 0x7000, reloaded at 0x7100 at time 5000
//   mixed/jit-7002.dump     a jitdump: loads with code bytes and lines (entry addresses biased by
//                           0x40, as one engine writes them), a reuse of an address, a move, an
//                           unwinding record and a record type no reader knows
//   mixed/perf-7002.map     the same process's perf map: lines over the dump's code (left to the
//                           dump), a stub the dump lacks, a malformed line
//   mixed/perf-7003.map     a perf map alone: the same start listed twice, a partial overlap
//   cut/jit-7004.dump       a jitdump cut inside its third record
//   cut/perf-7005.map       a perf map whose last line has no line end
//   dotnet/app.nettrace     the .NET runtime's event trace of process 7010: tier 0 and tier 1 of a
//                           method with their IL maps, two dynamic methods at one address, and the
//                           rundown's precompiled code (its assembly is not here: the events name it)
//   samples.csv             samples over all of them, before and after each change
//   dotnet-samples.csv      samples over the event trace
//
//   quarvel_cli_runtime_files <output directory>

#include "dotnet_event_payloads.h"
#include "jitdump_writer.h"
#include "nettrace_writer.h"
#include "trace_builder.h"

#include <fstream>
#include <iostream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace quarvel_test;

// push rbp; mov rbp, rsp; (add rax, imm8)...; pop rbp; ret
std::vector<uint8_t> code(uint32_t size, uint8_t seed) {
    std::vector<uint8_t> b = {0x55, 0x48, 0x89, 0xe5};
    while (b.size() + 4 + 2 <= size) {
        const std::vector<uint8_t> add = {0x48, 0x83, 0xc0, seed++};
        b.insert(b.end(), add.begin(), add.end());
    }
    while (b.size() + 2 < size)
        b.push_back(0x90);
    b.push_back(0x5d);
    b.push_back(0xc3);
    return b;
}

std::string localHost() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || !name[0])
        return "localhost";
    return name;
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// Rows of time,address,pid and a host: this host's unless one is given.
struct SampleRow {
    const char* values;
    const char* host = nullptr;
};

void writeSamples(const std::string& path, const std::string& localHost, std::initializer_list<SampleRow> rows) {
    std::string text = "time,address,pid,host\n";
    for (const SampleRow& row : rows)
        text += std::string(row.values) + "," + (row.host ? row.host : localHost) + "\n";
    writeText(path, text);
}

void writeOurTrace(const std::string& path) {
    TraceBuilder trace;
    trace.magic().collector(1);
    for (const auto& [time, address] : {std::pair<uint64_t, uint64_t>{1000, 0x7000}, {5000, 0x7100}}) {
        TraceMethodLoad load = makeLoad(time == 1000 ? 1 : 2, time, address, 0x40, "checkout", "Shop");
        load.regions[0].bytes = code(0x40, 1);
        load.tail.moduleName = "shop.jar";
        load.tail.sourceFile = "Shop.java";
        load.tail.language = quarvel_language_java;
        load.tail.lines.nativeToSource = {{0, 0x20, 12}, {0x20, 0x40, 13}};
        trace.load(3, load);
    }
    trace.writeTo(path);
}

JitdumpLoadFields load(uint64_t time, uint64_t address, uint32_t size, const std::string& name, uint64_t index) {
    JitdumpLoadFields f;
    f.timestamp = time;
    f.pid = f.tid = 7002;
    f.codeAddr = address;
    f.codeIndex = index;
    f.name = name;
    f.code = code(size, static_cast<uint8_t>(index));
    return f;
}

JitdumpDebugFields lines(uint64_t time, uint64_t address, const std::string& file, std::vector<int> lineAt) {
    JitdumpDebugFields f;
    f.timestamp = time;
    f.codeAddr = address;
    for (size_t i = 0; i < lineAt.size(); ++i) {
        JitdumpDebugLineFields e;
        e.address = address + 0x40 + i * 0x10; // biased by the size of an ELF header
        e.line = lineAt[i];
        e.file = file;
        e.sameFile = i > 0;
        f.entries.push_back(e);
    }
    return f;
}

void writeDump(const std::string& path) {
    JitdumpHeaderFields header;
    header.pid = 7002;
    JitdumpWriter w;
    w.header(header)
        .debugInfo(lines(100000, 0x10000, "/app/cart.js", {3, 4, 7}))
        .codeLoad(load(100000, 0x10000, 0x30, "JS:~addItem /app/cart.js:3", 0))
        .debugInfo(lines(150000, 0x10100, "/app/cart.js", {20, 21}))
        .codeLoad(load(150000, 0x10100, 0x20, "JS:*total /app/cart.js:20", 1))
        .unwindingInfo(JitdumpUnwindingFields{150001, std::vector<uint8_t>(8, 0), 4, 8, std::nullopt})
        .record(9, 160000, std::vector<uint8_t>(12, 0xAB))
        // The interpreted addItem is thrown away; optimised code takes its addresses.
        .debugInfo(lines(200000, 0x10000, "/app/cart.js", {3, 5}))
        .codeLoad(load(200000, 0x10000, 0x28, "JS:*addItem /app/cart.js:3", 2));
    JitdumpMoveFields move;
    move.timestamp = 300000;
    move.pid = move.tid = 7002;
    move.oldCodeAddr = 0x10100;
    move.newCodeAddr = 0x10800;
    move.codeSize = 0x20;
    move.codeIndex = 1;
    w.codeMove(move).close(400000);
    w.writeTo(path);
}

void writeCutDump(const std::string& path) {
    JitdumpHeaderFields header;
    header.pid = 7004;
    JitdumpWriter w;
    w.header(header)
        .codeLoad(load(1000, 0x20000, 0x20, "JS:*first", 0))
        .codeLoad(load(2000, 0x20100, 0x20, "JS:*second", 1))
        .codeLoad(load(3000, 0x20200, 0x20, "JS:*third", 2));
    // The writer was killed 30 bytes into the third load.
    w.writeTo(path, w.recordStarts()[2] + 30);
}

void writeNettrace(const std::string& path) {
    NettraceTraceShape header;
    header.processId = 7010;
    NettraceWriter w(header);
    w.metadata({dotnetEventType(1, kDotnetRuntimeProvider, dotnetMethodLoadVerbose, 2),
                dotnetEventType(2, kDotnetRuntimeProvider, dotnetMethodILToNativeMap, 1),
                dotnetEventType(3, kDotnetRuntimeProvider, dotnetModuleLoad, 2),
                dotnetEventType(4, kDotnetRuntimeProvider, dotnetAssemblyLoad, 1),
                dotnetEventType(5, kDotnetRundownProvider, dotnetMethodDCEndVerbose, 2)});
    DotnetAssemblyFields assembly;
    assembly.assemblyId = 0x6000;
    assembly.fullyQualifiedName = "Shop, Version=1.0.0.0";
    DotnetModuleFields module;
    module.moduleId = 0x7000;
    module.assemblyId = 0x6000;
    module.ilPath = "/app/Shop.dll";
    const uint32_t jitted = 0x8, dynamic = 0x1;
    const DotnetMethodFields tier0 = dotnetCodeVersion(0x6005002, 0x7000, 0x50000, 0x60, 0x06000002, jitted | 3 << 7,
                                                       "Shop.Cart", "Total", "int64  (class System.String,int32)");
    DotnetMethodFields tier1 = tier0;
    tier1.startAddress = 0x51000;
    tier1.size = 0x30;
    tier1.flags = jitted | 4 << 7;
    const DotnetMethodFields kernel0 =
        dotnetCodeVersion(0x5000, 0x7000, 0x52000, 0x20, 0, dynamic | jitted, "dynamicClass", "Kernel0");
    const DotnetMethodFields kernel1 =
        dotnetCodeVersion(0x5000, 0x7000, 0x52000, 0x20, 0, dynamic | jitted, "dynamicClass", "Kernel1");
    const DotnetMethodFields precompiled = dotnetCodeVersion(0x6005001, 0x7000, 0x80000, 0x40, 0x06000001, 2 << 7,
                                                             "Shop.Program", "Main", "void  (class System.String[])");
    DotnetILMapFields map0;
    map0.methodId = tier0.methodId;
    map0.entries = {{0xFFFFFFFE, 0}, {0, 0x10}, {8, 0x30}, {0xFFFFFFFD, 0x50}};
    DotnetILMapFields map1 = map0;
    map1.entries = {{0, 0}, {8, 0x18}};
    const auto row = [](uint32_t type, uint64_t time, std::vector<uint8_t> payload) {
        NettraceEventRow r;
        r.metadataId = type;
        r.timestamp = time;
        r.payload = std::move(payload);
        return r;
    };
    w.events({row(4, 100, dotnetAssemblyPayload(assembly, 1)), row(3, 110, dotnetModulePayload(module, 2)),
              row(1, 200, dotnetMethodPayload(tier0, true, 2)), row(2, 200, dotnetILMapPayload(map0, 1)),
              row(1, 300, dotnetMethodPayload(tier1, true, 2)), row(2, 300, dotnetILMapPayload(map1, 1)),
              row(1, 310, dotnetMethodPayload(kernel0, true, 2)), row(1, 400, dotnetMethodPayload(kernel1, true, 2)),
              row(5, 900, dotnetMethodPayload(precompiled, true, 2))});
    w.end();
    w.writeTo(path);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: quarvel_cli_runtime_files <output directory>\n";
        return 1;
    }
    const std::string out = argv[1];
    for (const std::string& dir : {out, out + "/mixed", out + "/cut", out + "/dotnet"})
        ::mkdir(dir.c_str(), 0755);
    const std::string host = localHost();
    writeOurTrace(out + "/mixed/demo-host.7001.jit");
    writeDump(out + "/mixed/jit-7002.dump");
    writeText(out + "/mixed/perf-7002.map", "10000 30 JS:~addItem /app/cart.js:3\n"
                                            "10100 20 JS:*total /app/cart.js:20\n"
                                            "0x10400 0x10 stub<LoadIC>\n"
                                            "10500 zz not a size\n");
    writeText(out + "/mixed/perf-7003.map", "30000 40 Program::Main(string[])[Tier0]\n"
                                            "30000 40 Program::Main(string[])[Tier1]\n"
                                            "30100 20 Util::Hash(int32)[Tier0]\n"
                                            "30110 20 Util::Mix(int32)[Tier1]\n");
    writeCutDump(out + "/cut/jit-7004.dump");
    writeText(out + "/cut/perf-7005.map", "40000 10 first\n40010 10 second\n40020 10 thi");
    writeNettrace(out + "/dotnet/app.nettrace");
    writeSamples(out + "/dotnet-samples.csv", host,
                 {
                     {"150,0x50020,7010"}, // before any load: no code there yet
                     {"250,0x50020,7010"}, // Total, tier 0
                     {"350,0x50020,7010"}, // tier 0 still: tier 1 is elsewhere
                     {"350,0x51020,7010"}, // Total, tier 1
                     {"350,0x52010,7010"}, // Kernel0
                     {"450,0x52010,7010"}, // Kernel1, at Kernel0's address
                     {"450,0x80010,7010"}, // precompiled Main, from the rundown
                 });
    // Times are in the traces' units: nanoseconds for the dump, any real time for the maps.
    writeSamples(out + "/samples.csv", host,
                 {
                     {"3000,0x7010,7001", "demo-host"}, // checkout, first compilation
                     {"6000,0x7110,7001", "demo-host"}, // checkout, reloaded
                     {"120000,0x10015,7002"},           // interpreted addItem, line 4
                     {"250000,0x10015,7002"},           // optimised addItem over it, line 5
                     {"250000,0x10105,7002"},           // total, line 20
                     {"350000,0x10805,7002"},           // total after its move, line 20
                     {"350000,0x10405,7002"},           // the stub only the perf map names
                     {"50,0x10015,7002"},               // before any load of the dump: the map leaves it to the dump
                     {"1000000,0x30010,7003"},          // Main: the later of two lines
                     {"1000000,0x30105,7003"},          // Hash ended by Mix, which overlaps it
                     {"1000000,0x30115,7003"},          // Mix
                     {"2500,0x20110,7004"},             // second, before the cut
                     {"2500,0x20210,7004"},             // third: cut away
                     {"1000,0x40015,7005"},             // second
                     {"1000,0x40020,7005"},             // the cut line: left out
                 });
    return 0;
}
