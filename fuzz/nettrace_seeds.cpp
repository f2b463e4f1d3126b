#include "nettrace_seeds.h"

#include "dotnet_event_payloads.h"
#include "nettrace_writer.h"

namespace quarvel_fuzz {

using namespace quarvel_test;

namespace {

typedef std::vector<uint8_t> Bytes;

NettraceEventRow row(uint32_t metadataId, uint64_t time, Bytes payload, uint64_t thread = 11) {
    NettraceEventRow r;
    r.metadataId = metadataId;
    r.timestamp = time;
    r.payload = std::move(payload);
    r.threadId = r.captureThreadId = thread;
    return r;
}

// A small run of a jitting process: modules, loads of each tier with their
// IL maps, an unload, then the rundown at the end.
NettraceWriter runtimeTrace(NettraceWriterLayout layout, const NettraceBlockOptions& options, uint32_t loadVersion) {
    NettraceTraceShape shape;
    shape.layout = layout;
    NettraceWriter w(shape);
    if (layout == NettraceWriterLayout::blocks)
        w.threads({{11, 501, 4242, "main"}, {12, 502, 4242, ""}});
    w.metadata({dotnetEventType(1, kDotnetRuntimeProvider, dotnetMethodLoadVerbose, loadVersion),
                dotnetEventType(2, kDotnetRuntimeProvider, dotnetMethodILToNativeMap, 1),
                dotnetEventType(3, kDotnetRuntimeProvider, dotnetModuleLoad, 2),
                dotnetEventType(4, kDotnetRuntimeProvider, dotnetAssemblyLoad, 1),
                dotnetEventType(5, kDotnetRuntimeProvider, dotnetMethodUnload, 2),
                dotnetEventType(6, kDotnetRundownProvider, dotnetMethodDCEndVerbose, 2),
                dotnetEventType(7, kDotnetRundownProvider, dotnetDCEndComplete, 1),
                dotnetEventType(8, kDotnetRundownProvider, dotnetModuleDCEnd, 2)},
               options);
    DotnetModuleFields module;
    module.moduleId = 0x7000;
    module.assemblyId = 0x6000;
    module.flags = 0x8;
    module.ilPath = "/app/App.dll";
    module.managedPdbSignature[0] = 0x11;
    module.managedPdbAge = 1;
    module.managedPdbBuildPath = "/src/App.pdb";
    DotnetAssemblyFields assembly;
    assembly.assemblyId = 0x6000;
    assembly.flags = 0x8;
    assembly.fullyQualifiedName = "App, Version=1.0.0.0";
    DotnetMethodFields m;
    m.methodId = 0x5000;
    m.moduleId = 0x7000;
    m.startAddress = 0x7f0000001000;
    m.size = 0x80;
    m.token = 0x06000001;
    m.flags = 0x8 | (3 << 7);
    m.methodNamespace = "App.Program";
    m.methodName = "Hot";
    m.methodSignature = "int32 (int32)";
    DotnetILMapFields map;
    map.methodId = m.methodId;
    map.entries = {{0xFFFFFFFE, 0}, {0, 8}, {6, 20}, {0xFFFFFFFF, 40}, {0xFFFFFFFD, 0x70}};
    DotnetMethodFields tier1 = m;
    tier1.startAddress = 0x7f0000002000;
    tier1.size = 0x40;
    tier1.flags = 0x8 | (4 << 7);
    tier1.rejitId = 1;
    w.events({row(4, 100, dotnetAssemblyPayload(assembly, 1)), row(3, 101, dotnetModulePayload(module, 2)),
              row(1, 200, dotnetMethodPayload(m, true, loadVersion)), row(2, 200, dotnetILMapPayload(map, 1)),
              row(1, 300, dotnetMethodPayload(tier1, true, loadVersion), 12)},
             options);
    w.stacks(1, {{0x7f0000001010, 0x7f0000002000}});
    w.sequencePoint(400);
    w.events({row(5, 500, dotnetMethodPayload(m, false, 2)), row(6, 600, dotnetMethodPayload(tier1, true, 2)),
              row(8, 601, dotnetModulePayload(module, 2)), row(7, 602, {9, 0})},
             options);
    w.end();
    return w;
}

} // namespace

std::vector<Bytes> nettraceSeeds() {
    std::vector<Bytes> seeds;
    for (NettraceWriterLayout layout : {NettraceWriterLayout::objectStream, NettraceWriterLayout::blocks}) {
        NettraceBlockOptions compressed, full, uncompressed;
        full.explicitFields = true;
        uncompressed.compressed = false;
        seeds.push_back(runtimeTrace(layout, compressed, 1).bytes());
        seeds.push_back(runtimeTrace(layout, full, 2).bytes());
        seeds.push_back(runtimeTrace(layout, uncompressed, 0).bytes());
        // Truncated in the middle of the second event block.
        const Bytes whole = runtimeTrace(layout, compressed, 2).bytes();
        seeds.push_back(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(whole.size() - 40)));
    }
    // Metadata with fields, opcodes and arrays.
    NettraceEventType withFields;
    withFields.metadataId = 1;
    withFields.provider = "My-Source";
    withFields.eventId = 3;
    withFields.version = 1;
    withFields.name = "Work";
    withFields.opcode = 1;
    withFields.fields = {{"Id", 12}, {"Name", 18}, {"Data", 19, 6}};
    withFields.fieldsInParameterTag = true;
    for (NettraceWriterLayout layout : {NettraceWriterLayout::objectStream, NettraceWriterLayout::blocks}) {
        NettraceTraceShape shape;
        shape.layout = layout;
        shape.frequency = 10000000;
        NettraceWriter w(shape);
        w.metadata({withFields});
        w.events({row(1, 5, PayloadBuilder().u64(1).utf16("a").u16(1).u8(7).get())});
        w.end();
        seeds.push_back(w.bytes());
    }
    return seeds;
}

} // namespace quarvel_fuzz
