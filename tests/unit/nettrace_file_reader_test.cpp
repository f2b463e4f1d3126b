// The .NET runtime's event traces through the file set and the reading pass:
// which code answers at an address at a time (tiers, reuse, unloads, the
// process's exit, the rundown), names and lines completed from an assembly
// and its PDB, IL maps as native-to-managed rows, and cuts that keep every
// whole event. Traces are written by the fixtures' NettraceWriter.

#include "dotnet_event_payloads.h"
#include "dotnet_test_support.h"
#include "index/jit_data_manager.h"
#include "ingest/dotnet_il_map_rows.h"
#include "ingest/jit_files_manager.h"
#include "ingest/trace_format.h"
#include "nettrace_writer.h"
#include "path_list.h"
#include "temp_dir.h"

#include <quarvel/diagnostics.h>
#include <quarvel/facades.h>

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using namespace quarvel;

namespace nettrace_file_reader_test {

using namespace quarvel_test;

const u32 kPid = 4242;
const uint32_t kProlog = 0xFFFFFFFE, kEpilog = 0xFFFFFFFD, kNoMapping = 0xFFFFFFFF;
enum : uint32_t { flagDynamic = 0x1, flagJitted = 0x8 };

// A run of the runtime as its events tell it, rows in the order given.
class RuntimeRun {
public:
    enum Type : uint32_t { load = 1, ilMap, module, assembly, unload, dcEnd };

    RuntimeRun() {
        m_types = {dotnetEventType(load, kDotnetRuntimeProvider, dotnetMethodLoadVerbose, 2),
                   dotnetEventType(ilMap, kDotnetRuntimeProvider, dotnetMethodILToNativeMap, 1),
                   dotnetEventType(module, kDotnetRuntimeProvider, dotnetModuleLoad, 2),
                   dotnetEventType(assembly, kDotnetRuntimeProvider, dotnetAssemblyLoad, 1),
                   dotnetEventType(unload, kDotnetRuntimeProvider, dotnetMethodUnloadVerbose, 2),
                   dotnetEventType(dcEnd, kDotnetRundownProvider, dotnetMethodDCEndVerbose, 2)};
    }

    RuntimeRun& assemblyLoad(uint64_t id, uint32_t flags, uint64_t time) {
        DotnetAssemblyFields a;
        a.assemblyId = id;
        a.flags = flags;
        a.fullyQualifiedName = "A" + std::to_string(id);
        return add(assembly, time, dotnetAssemblyPayload(a, 1));
    }
    RuntimeRun& moduleLoad(uint64_t id, uint64_t assemblyId, const std::string& path, uint64_t time) {
        DotnetModuleFields m;
        m.moduleId = id;
        m.assemblyId = assemblyId;
        m.ilPath = path;
        return add(module, time, dotnetModulePayload(m, 2));
    }
    RuntimeRun& code(Type type, const DotnetMethodFields& m, uint64_t time, uint64_t thread = 1) {
        return add(type, time, dotnetMethodPayload(m, true, 2), thread);
    }
    RuntimeRun& map(Type type, uint64_t methodId, std::vector<std::pair<uint32_t, uint32_t>> entries, uint64_t time,
                    uint64_t thread = 1) {
        DotnetILMapFields ilMap;
        ilMap.methodId = methodId;
        ilMap.entries = std::move(entries);
        return add(type, time, dotnetILMapPayload(ilMap, 1), thread);
    }
    // The rows so far become a block.
    RuntimeRun& block() {
        m_blocks.push_back(std::move(m_rows));
        m_rows.clear();
        return *this;
    }

    NettraceWriter write() {
        block();
        NettraceWriter w;
        w.metadata(m_types);
        for (const std::vector<NettraceEventRow>& rows : m_blocks)
            if (!rows.empty())
                w.events(rows);
        w.end();
        return w;
    }

private:
    RuntimeRun& add(uint32_t type, uint64_t time, std::vector<uint8_t> payload, uint64_t thread = 1) {
        NettraceEventRow r;
        r.metadataId = type;
        r.timestamp = time;
        r.payload = std::move(payload);
        r.threadId = r.captureThreadId = thread;
        m_rows.push_back(std::move(r));
        return *this;
    }

    std::vector<NettraceEventType> m_types;
    std::vector<NettraceEventRow> m_rows;
    std::vector<std::vector<NettraceEventRow>> m_blocks;
};

// A file set over some paths, read in one pass.
struct ReadSet {
    JitFilesManager files;
    JitDataManager data;
    u32 host = 0;

    explicit ReadSet(const std::vector<std::string>& paths, decoding_mode_t mode = dmCodeBytes) {
        EXPECT_EQ(meSuccess, files.initialize(PathList(paths).it(), taAny));
        EXPECT_EQ(meSuccess, files.readJitFiles(mode, data));
        host = files.getHostID(localHostName());
    }
    u64 jitRvaAt(u64 address, u64 time) const {
        JitMethod::Ptr method;
        u64 jitRva = 0;
        return data.resolveJitPoint(address, time, kPid, host, method, jitRva) == meSuccess ? jitRva : 0;
    }
    // The qualified name of the code at an address at a time, or "-".
    std::string nameAt(u64 address, u64 time) const {
        Region::Ptr region;
        JitMethod::Ptr method;
        if (data.findRegion(address, time, kPid, host, region, method) != meSuccess)
            return "-";
        return method->getQualifiedMethodName();
    }
};

struct Query {
    u64 address;
    u64 time;
    const char* name;
};

// --- what answers where and when ---------------------------------------------

TEST(NettraceThroughTheFileSet, EachCodeVersionLivesFromItsLoadUntilFreedOrReplaced) {
    TempDir dir;
    const uint64_t app = 0x7000, plugin = 0x7100;
    const DotnetMethodFields tier0 =
        dotnetCodeVersion(0x50, app, 0x1000, 0x80, 0x06000001, flagJitted | 3 << 7, "App.Program", "Hot");
    const DotnetMethodFields tier1 =
        dotnetCodeVersion(0x50, app, 0x2000, 0x40, 0x06000001, flagJitted | 4 << 7, "App.Program", "Hot");
    const DotnetMethodFields spin =
        dotnetCodeVersion(0x60, plugin, 0x3000, 0x40, 0x06000002, flagJitted, "Plugin.Worker", "Spin");
    const DotnetMethodFields kernel0 =
        dotnetCodeVersion(0x70, app, 0x4000, 0x20, 0, flagDynamic | flagJitted, "dynamicClass", "Kernel0");
    const DotnetMethodFields kernel1 =
        dotnetCodeVersion(0x70, app, 0x4000, 0x20, 0, flagDynamic | flagJitted, "dynamicClass", "Kernel1");
    const DotnetMethodFields precompiled =
        dotnetCodeVersion(0x80, app, 0x9000, 0x30, 0x06000003, 2 << 7, "App.Program", "Main");
    const DotnetMethodFields lateJitted =
        dotnetCodeVersion(0x90, app, 0x5000, 0x10, 0x06000004, flagJitted, "App.Program", "Late");
    RuntimeRun run;
    // The runtime writes each thread's events in order, but the threads'
    // buffers as they fill: threads 2 and 3 come first in the file although
    // most of their events are later than thread 1's.
    run.code(RuntimeRun::load, tier1, 300, 2)
        .code(RuntimeRun::load, kernel0, 320, 2)
        .code(RuntimeRun::unload, kernel0, 350, 2)
        .code(RuntimeRun::load, kernel1, 360, 2)
        .code(RuntimeRun::unload, kernel1, 501, 2) // after the exit began
        .code(RuntimeRun::dcEnd, tier0, 600, 3)
        .code(RuntimeRun::dcEnd, tier1, 601, 3)
        .code(RuntimeRun::dcEnd, precompiled, 602, 3)
        .code(RuntimeRun::dcEnd, lateJitted, 603, 3)
        .block()
        .assemblyLoad(0x600, 0, 100)
        .moduleLoad(app, 0x600, dir.file("gone/App.dll"), 101)
        .assemblyLoad(0x610, 0x8 /* collectible */, 102)
        .moduleLoad(plugin, 0x610, dir.file("gone/Plugin.dll"), 103)
        .code(RuntimeRun::load, tier0, 200)
        .map(RuntimeRun::ilMap, 0x50, {{0, 0}}, 200)
        .code(RuntimeRun::load, spin, 310)
        .map(RuntimeRun::ilMap, 0x60, {{0, 0}}, 310)
        .code(RuntimeRun::unload, spin, 400)
        .code(RuntimeRun::unload, tier0, 500); // ordinary code is never freed: the process exits
    const std::string path = run.write().writeTo(dir.file("trace.nettrace"));
    ReadSet set({path});
    ReadSet loaderMode({path}, dmSkipSymbolic); // no IL maps: code waits for none

    // Code answering from its load on: also the cli's dotnet_resolve golden.
    const Query queries[] = {
        {0x107F, 10000, "App::Program::Hot(int64)"}, // tier 0 code outlives tier 1's arrival and the exit
        {0x2010, 300, "App::Program::Hot(int64)"},
        {0x3000, 399, "Plugin::Worker::Spin(int64)"},
        {0x3000, 400, "-"}, // freed with its collectible assembly
        {0x4000, 349, "dynamicClass::Kernel0(int64)"},
        {0x4000, 355, "-"}, // a collected dynamic method
        {0x4000, 360, "dynamicClass::Kernel1(int64)"},
        {0x4000, 10000, "dynamicClass::Kernel1(int64)"}, // its unload came after the exit began
        {0x9000, 100, "-"},
        {0x9010, 101, "App::Program::Main(int64)"}, // precompiled code, from its assembly's load
        {0x5000, 1, "App::Program::Late(int64)"},   // compiled unseen where no code ever was
    };
    for (const Query& q : queries) {
        SCOPED_TRACE(std::to_string(q.address) + " at " + std::to_string(q.time));
        EXPECT_EQ(q.name, set.nameAt(q.address, q.time));
        EXPECT_EQ(set.jitRvaAt(q.address, q.time), loaderMode.jitRvaAt(q.address, q.time));
    }
    const JitReadStats stats = set.files.readStats();
    EXPECT_EQ(5u, stats.nettraceCodeLoads);
    EXPECT_EQ(2u, stats.nettraceRundownCode); // tier 0 and tier 1 were loaded already
    EXPECT_EQ(2u, stats.nettraceUnloads);
    EXPECT_TRUE(stats.refusals.empty());
}

// --- names and lines ---------------------------------------------------------

// Fixture.Sample.Calculator::Add(int, int) (token 0x06000001) with a PDB
// whose sequence points are IL 0 line 10, IL 2 line 11, IL 6 line 12.
void writeSampleAssembly(const TempDir& dir) {
    dotnet_test::writeFile(dir.file("Sample.pdb"), dotnet_test::samplePdb(dotnet_test::pdbId(5)));
    dotnet_test::writeFile(dir.file("Sample.dll"), dotnet_test::SampleAssembly().build());
}

TEST(NettraceThroughTheResolver, NamesFromTheAssemblyLinesFromItsPdbThroughTheILMap) {
    TempDir dir;
    writeSampleAssembly(dir);
    const DotnetMethodFields add =
        dotnetCodeVersion(0x50, 0x7000, 0x1000, 0x40, 0x06000001, flagJitted, "Fixture.Sample.Calculator", "Add");
    const DotnetMethodFields kernel =
        dotnetCodeVersion(0x70, 0x7000, 0x2000, 0x20, 0, flagDynamic | flagJitted, "dynamicClass", "Kernel0");
    RuntimeRun run;
    run.assemblyLoad(0x600, 0, 100)
        .moduleLoad(0x7000, 0x600, dir.file("Sample.dll"), 101)
        .code(RuntimeRun::load, add, 200)
        .map(RuntimeRun::ilMap, 0x50, {{kProlog, 0}, {0, 4}, {6, 4}, {2, 0x10}, {kNoMapping, 0x20}, {kEpilog, 0x30}},
             200)
        .code(RuntimeRun::load, kernel, 300);
    const std::string path = run.write().writeTo(dir.file("app.nettrace"));
    ISymbolFileLocator::Ptr locator = ISymbolFileLocator::createDefault();
    ISymbolResolver::Ptr resolver = ISymbolResolver::create(PathList{path}.it(), locator);
    ASSERT_TRUE(resolver);
    struct Case {
        u64 address;
        const char* name;
        unsigned line; // 0: none
    };
    // The lines of the prologue, the epilogue and unmapped code: dotnet_pdb_test
    // (LineOfAnIlOffset) and DotnetNativeToILRows below.
    const Case cases[] = {
        {0x1008, "Fixture::Sample::Calculator::Add(int, int)", 12}, // two entries at 4: the last covers it
        {0x101F, "Fixture::Sample::Calculator::Add(int, int)", 11},
        {0x2000, "dynamicClass::Kernel0(int64)", 0}, // no metadata: the event's name
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.address));
        u64 jitRva = 0;
        ASSERT_EQ(meSuccess, resolveJitPoint(resolver, 1000, c.address, kPid, 1, jitRva));
        const ISymbol::Ptr symbol = resolver->getSymbol(jitRva);
        ASSERT_TRUE(symbol);
        EXPECT_STREQ(c.name, symbol->getQualifiedMethodName());
        const ISourceLocation::Ptr where = symbol->getSourceLocation(jitRva);
        EXPECT_EQ(c.line, where ? where->getLine() : 0u);
    }
}

TEST(DotnetNativeToILRows, EachEntryCoversItsCodeUpToTheNextGreaterNativeOffset) {
    typedef std::vector<std::pair<uint32_t, uint32_t>> Map; // (IL, native)
    typedef std::vector<std::array<uint32_t, 3>> Rows;      // {start, end, IL}
    struct Case {
        const char* what;
        Map map;
        uint32_t size;
        Rows rows;
    };
    const Case cases[] = {
        {"no entries", {}, 0x40, {}},
        {"the last entry runs to the end of the code",
         {{kProlog, 0}, {0, 4}, {kEpilog, 0x30}},
         0x40,
         {{0, 4, kProlog}, {4, 0x30, 0}, {0x30, 0x40, kEpilog}}},
        {"entries at one offset: the last covers the code", {{0, 0}, {3, 0}, {7, 8}}, 0x10, {{0, 8, 3}, {8, 0x10, 7}}},
        {"out of native order: sorted, ties kept in order", {{7, 8}, {0, 0}, {3, 0}}, 0x10, {{0, 8, 3}, {8, 0x10, 7}}},
        {"entries past the code are dropped, the one across its end is cut",
         {{0, 0}, {5, 0x20}, {9, 0x50}},
         0x30,
         {{0, 0x20, 0}, {0x20, 0x30, 5}}},
        {"neighbours of one IL offset merge",
         {{2, 0}, {2, 4}, {kNoMapping, 8}},
         0x10,
         {{0, 8, 2}, {8, 0x10, kNoMapping}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<uint32_t> il, native;
        for (const auto& e : c.map) {
            il.push_back(e.first);
            native.push_back(e.second);
        }
        Rows rows;
        for (const quarvel_line_number_entry& e : dotnetNativeToILRows(il, native, c.size))
            rows.push_back({e.startOffset, e.endOffset, e.value});
        EXPECT_EQ(c.rows, rows);
    }
}

// --- damage ------------------------------------------------------------------

TEST(NettraceThroughTheFileSet, ACutKeepsEveryWholeLoadAndSaysWhere) {
    TempDir dir;
    RuntimeRun run;
    run.assemblyLoad(0x600, 0, 100).moduleLoad(0x7000, 0x600, "/gone/App.dll", 101);
    for (uint32_t i = 0; i < 4; ++i) {
        run.code(
               RuntimeRun::load,
               dotnetCodeVersion(0x50 + i, 0x7000, 0x1000 + 0x100 * i, 0x40, 0x06000001 + i, flagJitted, "App.P", "M"),
               200 + i)
            .map(RuntimeRun::ilMap, 0x50 + i, {{0, 0}, {4, 0x10}}, 200 + i);
        if (i == 1)
            run.block();
    }
    const NettraceWriter written = run.write();
    // The file offsets where each load event ends.
    std::vector<size_t> loadEnds;
    for (size_t e = 0; e < written.eventEnds().size(); ++e)
        if (e >= 2 && e % 2 == 0)
            loadEnds.push_back(written.eventEnds()[e]);
    ASSERT_EQ(4u, loadEnds.size());
    const size_t whole = written.bytes().size();
    // Inside the header (from the first length that still shows the magic:
    // shorter files are no event trace), and on either side of every event's
    // end. The reader's own tests cut at every byte.
    std::vector<size_t> cuts = {8, 30, whole};
    for (size_t end : written.eventEnds())
        cuts.insert(cuts.end(), {end - 1, end});
    for (size_t cut : cuts) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        // A header cut before the pid leaves the pid in the name.
        const std::string path = written.writeTo(dir.file("app.4242.nettrace"), cut);
        ReadSet set({path});
        size_t expected = 0;
        for (size_t end : loadEnds)
            expected += end <= cut;
        const JitReadStats stats = set.files.readStats();
        EXPECT_EQ(expected, stats.nettraceCodeLoads);
        size_t answering = 0;
        for (uint32_t i = 0; i < 4; ++i)
            answering += set.nameAt(0x1000 + 0x100 * i, 300) != "-";
        EXPECT_EQ(expected, answering);
        if (cut < whole) {
            ASSERT_EQ(1u, stats.damagedRecords);
            ASSERT_FALSE(stats.refusals.empty());
            EXPECT_EQ(path, stats.refusals.back().file);
            EXPECT_LE(stats.refusals.back().offset, cut);
        } else {
            EXPECT_EQ(0u, stats.damagedRecords);
        }
    }
}

} // namespace nettrace_file_reader_test
