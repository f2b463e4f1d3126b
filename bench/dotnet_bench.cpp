// The .NET readers on the largest assembly at hand, the installed
// System.Private.CoreLib (a ReadyToRun image): opening its metadata (mapping,
// headers, table layout, the method-owner and generic-parameter indices) and
// turning one MethodDef token into its declaring type, name and signature,
// the way the symbol resolver does per .NET method.
//
//   quarvel_dotnet_bench [--corelib=PATH] [Google Benchmark flags]
//
// Without --corelib the newest Microsoft.NETCore.App under $DOTNET_ROOT,
// /usr/share/dotnet, /usr/lib/dotnet or /opt/dotnet is used.

#include "dotnet/assembly_metadata.h"
#include "dotnet/assembly_reader_impl.h"
#include "dotnet/file_bytes.h"
#include "model/dotnet_method.h"

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

using namespace quarvel_3_13;

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
    const std::vector<uint32_t> tokens =
        shuffledTokens(static_cast<const AssemblyReader&>(*reader).metadata());
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
