// The three facades over one trace directory of two hosts, three processes
// and four files holding every record type. What the resolver tells of a
// method (names, lines, load times, inline trees) is what quarvel-jit prints:
// the cli goldens and cli.truth check it.

#include "api_fixture.h"

#include <algorithm>
#include <map>

namespace api_test {
namespace facades_test {

const char* const kAlpha = "alpha";
const char* const kBeta = "beta.example.com";

struct Sample {
    u64 time;
    u64 address;
    unsigned pid;
    const char* host;
    unsigned expectedId; // 0: no method was there
};

// Method ids: 1 A, 2 B, 3 C (over A), 4 D, 5 E, 6 F, 7 G; 11 and 12 inlined into A.
const std::vector<Sample> kSamples = {
    {150, 0x10005, 100, kAlpha, 1}, {199, 0x1003f, 100, kAlpha, 1}, {100, 0x10000, 100, kAlpha, 1},
    {200, 0x10005, 100, kAlpha, 3}, {900, 0x10005, 100, kAlpha, 3}, {99, 0x10005, 100, kAlpha, 0},
    {120, 0x20004, 100, kAlpha, 2}, {350, 0x30001, 100, kAlpha, 4}, {250, 0x30001, 100, kAlpha, 0},
    {55, 0x10005, 200, kAlpha, 5},  {65, 0x11010, 200, kAlpha, 6},  {150, 0x10005, 100, kBeta, 7},
    {150, 0x50000, 100, kAlpha, 0}, {150, 0x10040, 100, kAlpha, 0}, {150, 0x10005, 999, kAlpha, 0},
};

class FacadesTest : public ::testing::Test {
protected:
    void SetUp() override {
        TraceRuntimeInfo java;
        java.runtimeType = quarvel_runtime_java;
        java.version = "17.0.1";
        java.name = "OpenJDK 64-Bit Server VM";

        TraceMethodLoad update = method(3, 250, 0x10008, 4, "");
        update.regions[0].bytes = {1, 2, 3, 4};
        TraceUpdateV2 updateV2;
        updateV2.methodId = 2;
        updateV2.loadTime = 150;
        updateV2.startAddress = 0x20000;
        updateV2.length = 4;
        updateV2.bytes = {9, 9, 9, 9};

        TraceBuilder()
            .magic()
            .collector(ctJitProfiler)
            .runtimeInfo(java)
            .load(3, method(1, 100, 0x10000, 64, "run"), false)
            .load(3, method(2, 100, 0x20000, 32, "native64", "lib64.so", quarvel_arch_varda64), true)
            .inlineLoad(inlined(11, 1, 110, 0x10010, 8, "helper"))
            .inlineLoad(inlined(12, 11, 110, 0x10012, 2, "leaf"))
            .load(3, method(3, 200, 0x10000, 64, "runAgain"), false)
            .update(update)
            .updateV2(updateV2)
            .writeTo(dir.file("alpha.100.jit"));
        TraceBuilder()
            .magic()
            .load(2, method(4, 300, 0x30000, 16, "later"), false)
            .writeTo(dir.file("alpha.100.trace"));
        TraceBuilder()
            .magic()
            .load(0, method(5, 50, 0x10000, 32, "old0"), true)
            .load(1, method(6, 60, 0x11000, 32, "old1"), true)
            .writeTo(dir.file("alpha-200.jit"));
        TraceBuilder()
            .magic()
            .load(3, method(7, 100, 0x10000, 64, "other"), true)
            .writeTo(dir.file("beta.example.com.100.jit"));
        TraceBuilder().raw({'h', 'i'}).writeTo(dir.file("README.txt"));
    }

    unsigned host(const IJitLoader::Ptr& loader, const char* name) {
        unsigned id = 99;
        EXPECT_EQ(meSuccess, loader->getHostIdByName(name, &id));
        return id;
    }

    TempDir dir;
};

TEST_F(FacadesTest, LoaderResolvesSamplesToTheRightMethodOverTime) {
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    ISymbolResolver::Ptr resolver = makeResolver({dir.path()});
    ASSERT_TRUE(resolver);

    std::vector<u64> rvas(kSamples.size());
    for (size_t i = 0; i < kSamples.size(); ++i) {
        const Sample& s = kSamples[i];
        SCOPED_TRACE("sample " + std::to_string(i));
        const quarvel_error_t status = resolve(loader, s.host, s.pid, s.time, s.address, &rvas[i]);
        if (s.expectedId == 0) {
            EXPECT_EQ(meNotFound, status);
            continue;
        }
        ASSERT_EQ(meSuccess, status);
        // The resolver, given the same paths, resolves the loader's jit rva to the same method
        // (and back to the address: one_answer_test).
        ISymbol::Ptr symbol = resolver->getSymbol(rvas[i]);
        ASSERT_TRUE(symbol);
        EXPECT_EQ(s.expectedId, symbol->getMethodID());
    }
    // Reused addresses get distinct jit rvas per method; different processes too.
    EXPECT_NE(rvas[0], rvas[4]);
    EXPECT_NE(rvas[0], rvas[9]);
    EXPECT_NE(rvas[0], rvas[11]);
}

TEST_F(FacadesTest, LoaderOutputsAndModules) {
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    const unsigned alpha = host(loader, kAlpha);
    EXPECT_NE(0u, alpha);
    EXPECT_EQ(0u, host(loader, "gamma"));
    EXPECT_EQ(meInvalidPointer, loader->getHostIdByName(kAlpha, nullptr));

    u64 rva = 0;
    IModule::Ptr module;
    ASSERT_EQ(meSuccess, loader->resolveJitPoint(150, 0x10005, 100, alpha, &rva, module));
    ASSERT_TRUE(module);
    EXPECT_STREQ("app.jar", module->getFilePath());
    // A 64-bit module of a profiler file that also has 32-bit modules is renamed.
    ASSERT_EQ(meSuccess, loader->resolveJitPoint(120, 0x20004, 100, alpha, &rva, module));
    EXPECT_STREQ("lib64.so (64)", module->getFilePath());

    // Failures leave both outputs as they were.
    u64 kept = 1234;
    IModule::Ptr keptModule = module;
    EXPECT_EQ(meNotFound, loader->resolveJitPoint(99, 0x10005, 100, alpha, &kept, keptModule));
    EXPECT_EQ(1234u, kept);
    EXPECT_EQ(module, keptModule);
    EXPECT_EQ(meNotFound, loader->resolveJitPoint(150, 0x10005, 100, 0, &kept, keptModule));
    EXPECT_EQ(meNotFound, loader->resolveJitPoint(150, 0x10005, 4242, alpha, &kept, keptModule));
    EXPECT_EQ(1234u, kept);
    EXPECT_EQ(meInvalidPointer, loader->resolveJitPoint(150, 0x10005, 100, alpha, nullptr, keptModule));

    // The region loaded over A's range after 150 is C's.
    ICodeRegion::Ptr region;
    ASSERT_EQ(meSuccess, loader->findOverlappedRegion(150, 0x10000, 0x10040, 100, alpha, region));
    EXPECT_EQ(200u, region->getLoadTime());
    EXPECT_EQ(0x10000u, region->getStartVirtualAddress());

    EXPECT_FALSE(loader->getModuleEvaluator(nullptr));
    IModuleEvaluator::Ptr native = loader->getModuleEvaluator("C:\\Windows\\assembly\\NativeImages_v4.0\\x.ni.dll");
    ASSERT_TRUE(native);
    EXPECT_EQ(meSuccess, native->isNativeImage());
    EXPECT_EQ(meNotFound, loader->getModuleEvaluator("/usr/lib/libfoo.so")->isNativeImage());
}

TEST_F(FacadesTest, LoaderFindSymbolReadsEverything) {
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    ISymbol::Ptr symbol;
    ASSERT_EQ(meSuccess, loader->findSymbol("app.jar", 4, symbol));
    ASSERT_TRUE(symbol);
    EXPECT_EQ(4u, symbol->getMethodID());
    EXPECT_EQ(300u, symbol->getLoadTime());
    ISymbol::Ptr none;
    EXPECT_EQ(meNotFound, loader->findSymbol("nothing.jar", 4, none));
    EXPECT_FALSE(none);
    EXPECT_EQ(meInvalidPointer, loader->findSymbol(nullptr, 4, none));
    // Addresses resolve as before after the whole set was read: one_answer_test.
}

TEST_F(FacadesTest, LoaderReadsAProcessOnlyWhenFirstAsked) {
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    u64 rva = 0;
    ASSERT_EQ(meSuccess, resolve(loader, kAlpha, 100, 150, 0x10005, &rva));

    // Process 100 was read: its files are no longer needed.
    stdfs::remove(dir.file("alpha.100.jit"));
    stdfs::remove(dir.file("alpha.100.trace"));
    u64 again = 0;
    ASSERT_EQ(meSuccess, resolve(loader, kAlpha, 100, 150, 0x10005, &again));
    EXPECT_EQ(rva, again);
    EXPECT_EQ(meSuccess, resolve(loader, kAlpha, 100, 350, 0x30001));

    // Process 200 was not: its file is opened at its first query, and a file
    // that cannot be opened then is refused once, not retried by every query.
    stdfs::rename(dir.file("alpha-200.jit"), dir.file("elsewhere"));
    EXPECT_EQ(meNotFound, resolve(loader, kAlpha, 200, 55, 0x10005));
    stdfs::rename(dir.file("elsewhere"), dir.file("alpha-200.jit"));
    EXPECT_EQ(meNotFound, resolve(loader, kAlpha, 200, 55, 0x10005));
}

TEST_F(FacadesTest, ResolverTranslatesAndFindsCallees) {
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ISymbolResolver::Ptr resolver = makeResolver({dir.path()});
    ASSERT_TRUE(loader && resolver);
    u64 inA = 0, inB = 0, inE = 0;
    ASSERT_EQ(meSuccess, resolve(loader, kAlpha, 100, 150, 0x10005, &inA));
    ASSERT_EQ(meSuccess, resolve(loader, kAlpha, 100, 120, 0x20004, &inB));
    ASSERT_EQ(meSuccess, resolve(loader, kAlpha, 200, 55, 0x10005, &inE));

    // A call from A into B lands at B's jit rva, seen at A's load time.
    u64 callee = 0;
    ASSERT_EQ(meSuccess, resolver->getCalleeRegion(inA, 0x20004, &callee));
    EXPECT_EQ(inB, callee);
    callee = 77;
    EXPECT_EQ(meNotFound, resolver->getCalleeRegion(inA, 0x30001, &callee)); // D loads later
    EXPECT_EQ(meNotFound, resolver->getCalleeRegion(1, 0x20004, &callee));
    EXPECT_EQ(77u, callee);
    EXPECT_EQ(meInvalidPointer, resolver->getCalleeRegion(inA, 0x20004, nullptr));

    u64 rva = 0;
    EXPECT_EQ(meSuccess, resolver->translateToJitRva(0, 0xabc, "alpha.100.jit", &rva));
    EXPECT_EQ(0xabcu, rva);
    EXPECT_EQ(meNotFound, resolver->translateToJitRva(1, 0x10005, nullptr, &rva));
    EXPECT_EQ(meJitFileNotFound, resolver->translateToJitRva(1, 0x10005, "alpha.300.jit", &rva));
    // The first method of each file translates through the file's range.
    ASSERT_EQ(meSuccess, resolver->translateToJitRva(5, 0x10005, "alpha-200.jit", &rva));
    EXPECT_EQ(inE, rva);
    ASSERT_EQ(meSuccess, resolver->translateToJitRva(1, 0x10005, (dir.path() + "/alpha.100.jit").c_str(), &rva));
    EXPECT_EQ(inA, rva);
    rva = 5;
    EXPECT_EQ(meNotFound, resolver->translateToJitRva(1, 0x90000, "alpha.100.jit", &rva));
    EXPECT_EQ(5u, rva);
}

TEST_F(FacadesTest, ResolverHostsAndSymbolList) {
    ISymbolResolver::Ptr resolver = makeResolver({dir.path()});
    ASSERT_TRUE(resolver);
    const char* name = "x";
    ASSERT_EQ(meSuccess, resolver->getHostNameById(0, &name));
    EXPECT_EQ(nullptr, name);
    ASSERT_EQ(meSuccess, resolver->getHostNameById(1, &name));
    EXPECT_STREQ(kAlpha, name);
    ASSERT_EQ(meSuccess, resolver->getHostNameById(2, &name));
    EXPECT_STREQ(kBeta, name);
    ASSERT_EQ(meSuccess, resolver->getHostNameById(3, &name));
    EXPECT_EQ(nullptr, name);
    EXPECT_EQ(meInvalidPointer, resolver->getHostNameById(1, nullptr));
    EXPECT_FALSE(resolver->getSymbol(0));
    EXPECT_FALSE(resolver->getSymbol(~0ull));

    // The symbol list outlives the caller's pointer to the resolver.
    generic_iterator_t<ISymbol::Ptr> it = resolver->getSymbols();
    resolver.reset();
    std::map<unsigned, int> seen;
    for (; !it.atEnd(); it.advance())
        ++seen[it.current()->getMethodID()];
    for (unsigned id : {1u, 3u, 4u, 5u, 6u, 7u})
        EXPECT_EQ(1, seen[id]) << id;
    // The update v2 of B is registered as a method of its own, even though
    // its region is refused (it shares B's jit rvas).
    EXPECT_LE(1, seen[2]);
}

// Which record ends a file for which architecture: ReadingPassFlow. Here: the
// resolver's factory passes its architecture on.
TEST_F(FacadesTest, ResolverArchitectureFilter) {
    Paths paths{dir.path()};
    ISymbolFileLocator::Ptr none;
    for (const auto& c : {std::make_pair(quarvel_arch_vx32, std::vector<unsigned>{1, 4}),
                          std::make_pair(quarvel_arch_vx64, std::vector<unsigned>{5, 6, 7})}) {
        std::vector<unsigned> ids;
        for (const ISymbol::Ptr& s : itemsOf(ISymbolResolver::create(paths.it(), none, c.first)->getSymbols()))
            ids.push_back(s->getMethodID());
        std::sort(ids.begin(), ids.end());
        EXPECT_EQ(c.second, ids) << c.first;
    }
}

TEST_F(FacadesTest, ResolverFromDescriptors) {
    const std::string path = dir.file("alpha-200.jit");
    const std::string missing = dir.file("missing.1.jit");
    std::vector<JitFileDescriptor> descriptors{{path.c_str(), 4242, "somewhere"}};
    generic_iterator_t<JitFileDescriptor> it(descriptors.begin(), descriptors.end());
    ISymbolFileLocator::Ptr none;
    ISymbolResolver::Ptr resolver = ISymbolResolver::create(it, none);
    ASSERT_TRUE(resolver);
    const char* name = nullptr;
    ASSERT_EQ(meSuccess, resolver->getHostNameById(1, &name));
    EXPECT_STREQ("somewhere", name);
    EXPECT_EQ(2u, itemsOf(resolver->getSymbols()).size());

    // Descriptors are trusted: an unreadable one still gives a resolver.
    std::vector<JitFileDescriptor> bad{{missing.c_str(), 1, "h"}};
    generic_iterator_t<JitFileDescriptor> badIt(bad.begin(), bad.end());
    ISymbolResolver::Ptr empty = ISymbolResolver::create(badIt, none);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(itemsOf(empty->getSymbols()).empty());

    // The loader is not so trusting.
    generic_iterator_t<JitFileDescriptor> badIt2(bad.begin(), bad.end());
    EXPECT_FALSE(IJitLoader::create(badIt2));
    generic_iterator_t<JitFileDescriptor> goodIt(descriptors.begin(), descriptors.end());
    IJitLoader::Ptr loader = IJitLoader::create(goodIt);
    ASSERT_TRUE(loader);
    unsigned somewhere = 0;
    ASSERT_EQ(meSuccess, loader->getHostIdByName("somewhere", &somewhere));
    u64 rva = 0;
    IModule::Ptr module;
    EXPECT_EQ(meSuccess, loader->resolveJitPoint(55, 0x10005, 4242, somewhere, &rva, module));
}

// A locator is asked for the assembly of a .NET method; without an assembly
// reader the method comes back as the trace described it.
class CountingLocator : public ISymbolFileLocator {
public:
    void locate(const char* modulePath, ILocatedFile::Ptr& assembly, ILocatedFile::Ptr& debugFile) override {
        ++calls;
        last = modulePath ? modulePath : "";
        assembly.reset();
        debugFile.reset();
    }
    int calls = 0;
    std::string last;
};

TEST_F(FacadesTest, DotNetMethodsWithoutAnAssemblyComeBackAsTheyAre) {
    TraceMethodLoad m = method(21, 100, 0x70000, 16, "Main");
    m.tail.moduleName = "/apps/Program.dll";
    TraceBuilder().load(3, m, true).writeTo(dir.file("dotnet.300.jit"));
    // The token is not in the load record: only .NET methods carry one. A
    // method without one is never sent to the locator.
    boost::intrusive_ptr<CountingLocator> counting(new CountingLocator());
    ISymbolFileLocator::Ptr locator(counting);
    Paths paths{dir.file("dotnet.300.jit")};
    ISymbolResolver::Ptr resolver = ISymbolResolver::create(paths.it(), locator);
    ASSERT_TRUE(resolver);
    const std::vector<ISymbol::Ptr> all = itemsOf(resolver->getSymbols());
    ASSERT_EQ(1u, all.size());
    ISymbol::Ptr s = resolver->getSymbol(all[0]->getStartJitRva());
    ASSERT_TRUE(s);
    EXPECT_EQ(21u, s->getMethodID());
    EXPECT_EQ(0, counting->calls);
}

TEST_F(FacadesTest, ProcessList) {
    IJitProcesses::Ptr processes = makeProcesses({dir.path()});
    ASSERT_TRUE(processes);
    EXPECT_EQ((std::vector<unsigned>{100, 200, 100}), itemsOf(processes->getJitProcessId()));
    EXPECT_EQ(3u, processes->getJitProcessId().remaining());
    // Loaders that read their processes in another order agree: one_answer_test.
}

} // namespace
} // namespace api_test
