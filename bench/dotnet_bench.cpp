// The .NET readers on the largest assembly at hand, the installed
// System.Private.CoreLib (a ReadyToRun image): opening its metadata (mapping,
// headers, table layout, the method-owner and generic-parameter indices) and
// turning one MethodDef token into its declaring type, name and signature,
// the way the symbol resolver does per .NET method. Beside them, the reading
// pass over a runtime event trace (.nettrace) of 100000 method loads with
// their IL maps, written by the fixtures' writer: events per second into the
// model, and the same file through the event reader alone.
//
//   quarvel_dotnet_bench [--corelib=PATH] [Google Benchmark flags]
//
// Without --corelib the newest Microsoft.NETCore.App under $DOTNET_ROOT,
// /usr/share/dotnet, /usr/lib/dotnet or /opt/dotnet is used.

#include "dotnet/assembly_metadata.h"
#include "dotnet/assembly_reader_impl.h"
#include "dotnet/file_bytes.h"
#include "format/nettrace_reader.h"
#include "index/jit_data_manager.h"
#include "ingest/jit_files_manager.h"
#include "model/dotnet_method.h"

#include "dotnet_event_payloads.h"
#include "nettrace_writer.h"
#include "temp_dir.h"

#include <quarvel/dotnet.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

using namespace quarvel;

namespace {

std::string g_corelib;

bool isFile(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string findCorelib() {
    std::vector<std::string> roots;
    if (const char* root = std::getenv("DOTNET_ROOT"))
        roots.push_back(root);
    for (const char* root : {"/usr/share/dotnet", "/usr/lib/dotnet", "/opt/dotnet"})
        roots.push_back(root);
    for (const std::string& root : roots) {
        const std::string shared = root + "/shared/Microsoft.NETCore.App";
        std::vector<std::string> versions;
        if (DIR* d = ::opendir(shared.c_str())) {
            while (const dirent* e = ::readdir(d))
                if (e->d_name[0] != '.')
                    versions.push_back(e->d_name);
            ::closedir(d);
        }
        std::sort(versions.begin(), versions.end());
        for (auto v = versions.rbegin(); v != versions.rend(); ++v)
            if (isFile(shared + "/" + *v + "/System.Private.CoreLib.dll"))
                return shared + "/" + *v + "/System.Private.CoreLib.dll";
    }
    return std::string();
}

std::shared_ptr<const AssemblyMetadata> openCorelib() {
    Expected<FileBytes> file = FileBytes::map(g_corelib);
    if (!file)
        return nullptr;
    Expected<std::shared_ptr<const AssemblyMetadata>> m = AssemblyMetadata::open(file.value());
    return m ? m.value() : nullptr;
}

// Every MethodDef token of the assembly, in a fixed random order, so that a
// run of lookups does not walk the tables in file order.
std::vector<uint32_t> shuffledTokens(const AssemblyMetadata& a) {
    std::vector<uint32_t> tokens;
    for (uint32_t rid = 1; rid <= a.methodCount(); ++rid)
        tokens.push_back(0x06000000 | rid);
    std::shuffle(tokens.begin(), tokens.end(), std::mt19937(42));
    return tokens;
}

// Mapping the file, reading the headers and the table layout, indexing methods.
void BM_OpenCorelib(benchmark::State& state) {
    if (g_corelib.empty())
        return state.SkipWithError("no System.Private.CoreLib found; give --corelib=PATH");
    uint32_t methods = 0;
    for (auto _ : state) {
        std::shared_ptr<const AssemblyMetadata> a = openCorelib();
        if (!a)
            return state.SkipWithError("System.Private.CoreLib could not be read");
        methods = a->methodCount();
        benchmark::DoNotOptimize(a);
    }
    state.counters["methods"] = methods;
}
BENCHMARK(BM_OpenCorelib)->Unit(benchmark::kMillisecond);

// The public factory the resolver calls: the above plus the PDB search.
void BM_CreateAssemblyReader(benchmark::State& state) {
    if (g_corelib.empty())
        return state.SkipWithError("no System.Private.CoreLib found; give --corelib=PATH");
    for (auto _ : state) {
        IAssemblyReader::Ptr reader;
        if (IAssemblyReader::create(g_corelib.c_str(), nullptr, reader) != meSuccess)
            return state.SkipWithError("System.Private.CoreLib could not be read");
        benchmark::DoNotOptimize(reader);
    }
}
BENCHMARK(BM_CreateAssemblyReader)->Unit(benchmark::kMillisecond);

// Token -> declaring type, name, signature text, return type, RVA and IL size.
void BM_DescribeMethod(benchmark::State& state) {
    std::shared_ptr<const AssemblyMetadata> a = g_corelib.empty() ? nullptr : openCorelib();
    if (!a)
        return state.SkipWithError("System.Private.CoreLib could not be read");
    const std::vector<uint32_t> tokens = shuffledTokens(*a);
    size_t i = 0;
    for (auto _ : state) {
        Expected<MethodDescription> m = a->describeMethod(tokens[i]);
        benchmark::DoNotOptimize(m);
        if (++i == tokens.size())
            i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DescribeMethod);

// IAssemblyReader::getMethod: the lookup the resolver makes per method.
void BM_GetMethod(benchmark::State& state) {
    IAssemblyReader::Ptr reader;
    if (g_corelib.empty() || IAssemblyReader::create(g_corelib.c_str(), nullptr, reader) != meSuccess)
        return state.SkipWithError("System.Private.CoreLib could not be read");
    const std::vector<uint32_t> tokens = shuffledTokens(static_cast<const AssemblyReader&>(*reader).metadata());
    size_t i = 0;
    for (auto _ : state) {
        DotNetMethod::Ptr m = reader->getMethod(tokens[i]);
        benchmark::DoNotOptimize(m);
        if (++i == tokens.size())
            i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetMethod);

// A process that jitted `loads` methods, one IL map of 12 entries each, spread
// over 4 threads and 16 modules, with a sequence point every 10000 loads.
struct EventTrace {
    quarvel_test::TempDir dir;
    std::string path;
    uint64_t events = 0;

    explicit EventTrace(uint32_t loads) {
        using namespace quarvel_test;
        NettraceWriter w;
        w.metadata({dotnetEventType(1, kDotnetRuntimeProvider, dotnetMethodLoadVerbose, 2),
                    dotnetEventType(2, kDotnetRuntimeProvider, dotnetMethodILToNativeMap, 1),
                    dotnetEventType(3, kDotnetRuntimeProvider, dotnetModuleLoad, 2)});
        std::vector<NettraceEventRow> rows;
        const auto add = [&rows](uint32_t type, uint64_t time, uint64_t thread, std::vector<uint8_t> payload) {
            NettraceEventRow r;
            r.metadataId = type;
            r.timestamp = time;
            r.threadId = r.captureThreadId = thread;
            r.payload = std::move(payload);
            rows.push_back(std::move(r));
        };
        for (uint32_t m = 0; m < 16; ++m) {
            DotnetModuleFields module;
            module.moduleId = 0x7000 + m;
            module.ilPath = "/app/Module" + std::to_string(m) + ".dll";
            add(3, 1000 + m, 1, dotnetModulePayload(module, 2));
        }
        for (uint32_t i = 0; i < loads; ++i) {
            DotnetMethodFields m;
            m.methodId = 0x100000 + i;
            m.moduleId = 0x7000 + i % 16;
            m.startAddress = 0x7f0000000000ULL + uint64_t(i) * 0x100;
            m.size = 0xC0;
            m.token = 0x06000001 + i % 5000;
            m.flags = 0x8 | 3 << 7;
            m.methodNamespace = "App.Namespace.Type" + std::to_string(i % 1000);
            m.methodName = "Method" + std::to_string(i);
            m.methodSignature = "instance int64  (int32,class System.String)";
            DotnetILMapFields map;
            map.methodId = m.methodId;
            map.entries.push_back({0xFFFFFFFE, 0});
            for (uint32_t e = 1; e < 11; ++e)
                map.entries.push_back({e * 3, e * 0x10});
            map.entries.push_back({0xFFFFFFFD, 0xB0});
            const uint64_t thread = 1 + i % 4, time = 10000 + uint64_t(i) * 10;
            add(1, time, thread, dotnetMethodPayload(m, true, 2));
            add(2, time + 1, thread, dotnetILMapPayload(map, 1));
            if (rows.size() >= 2000) {
                w.events(rows);
                rows.clear();
            }
            if ((i + 1) % 10000 == 0)
                w.sequencePoint(time + 2);
        }
        if (!rows.empty())
            w.events(rows);
        w.end();
        events = w.eventEnds().size();
        path = w.writeTo(dir.file("app.4242.nettrace"));
    }
};

const EventTrace& eventTrace() {
    static const EventTrace trace(100000);
    return trace;
}

void BM_NettraceIngest(benchmark::State& state) {
    const EventTrace& trace = eventTrace();
    for (auto _ : state) {
        JitFilesManager files;
        JitDataManager data;
        const char* paths[] = {trace.path.c_str()};
        generic_iterator_t<const char*> it(std::begin(paths), std::end(paths));
        if (files.initialize(it, taAny) != meSuccess || files.readJitFiles(dmCodeBytes, data) != meSuccess ||
            files.readStats().nettraceCodeLoads != 100000) {
            state.SkipWithError("the event trace was not read whole");
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations() * trace.events));
    state.counters["loads"] = 100000;
}
BENCHMARK(BM_NettraceIngest)->Unit(benchmark::kMillisecond);

void BM_NettraceReadOnly(benchmark::State& state) {
    const EventTrace& trace = eventTrace();
    for (auto _ : state) {
        auto reader = NettraceReader::open(trace.path);
        NettraceEvent event;
        uint64_t n = 0;
        while ((*reader)->next(event))
            n += event.payloadSize != 0;
        benchmark::DoNotOptimize(n);
    }
    state.SetItemsProcessed(int64_t(state.iterations() * trace.events));
}
BENCHMARK(BM_NettraceReadOnly)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--corelib=", 10) == 0)
            g_corelib = argv[i] + 10;
        else
            rest.push_back(argv[i]);
    }
    if (g_corelib.empty())
        g_corelib = findCorelib();
    int count = static_cast<int>(rest.size());
    benchmark::Initialize(&count, rest.data());
    benchmark::AddCustomContext("corelib", g_corelib.empty() ? "(not found)" : g_corelib);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
