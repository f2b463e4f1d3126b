// One trace, one answer: over random traces (cut tails, empty regions, code
// without bytes, loads without regions, several files and processes, code
// reloaded at the same addresses), every address the loader resolves maps
// through the resolver's jit rva to a method that held that address at that
// time, and the loader gives the same answers whichever query comes first.

#include "api_fixture.h"

#include <map>
#include <random>
#include <tuple>

namespace api_test {
namespace one_answer_test {

struct RandomSample {
    u64 time;
    u64 address;
    unsigned pid;
};

struct Answer {
    quarvel_error_t status;
    u64 jitRva;
    bool operator==(const Answer& o) const { return status == o.status && jitRva == o.jitRva; }
};

// Writes one random trace file; the addresses of every process fall into
// one small window so that code is reloaded over older code.
void writeRandomTrace(std::mt19937& rng, const std::string& path, uint32_t& nextId) {
    auto pick = [&rng](uint32_t n) {
        return static_cast<uint32_t>(rng() % n);
    };
    TraceBuilder trace;
    trace.magic();
    if (pick(2))
        trace.collector(ctJitProfiler);
    const uint32_t records = 3 + pick(12);
    for (uint32_t r = 0; r < records; ++r) {
        const int version = static_cast<int>(pick(4));
        const uint32_t id = nextId++;
        TraceMethodLoad load =
            method(id, 100 + pick(40) * 10, 0x10000 + pick(16) * 0x40, 0x40 + pick(3) * 0x40, "m" + std::to_string(id));
        const uint32_t shape = pick(10);
        if (shape == 0)
            load.regions.clear(); // a load without code
        if (shape == 1)
            load.regions.push_back(TraceCodeRegion{0x20000 + pick(8) * 0x40, 0, {}}); // an empty region
        if (shape == 2)
            load.regions.push_back(TraceCodeRegion{0x30000 + pick(8) * 0x100, 0x80, {}}); // code without bytes
        if (shape == 3)
            for (TraceCodeRegion& region : load.regions)
                region.bytes.clear();
        std::vector<uint8_t> body = jittrace::encodeMethodLoad(load, version);
        if (shape == 4 || shape == 5) {
            // A tail cut short: the regions are whole, the names or tables are not.
            const size_t cut = 1 + pick(static_cast<uint32_t>(std::min<size_t>(body.size() - 1, 40)));
            body.resize(body.size() - cut);
        }
        trace.sized(jittrace::methodLoadType(version, pick(2) != 0), body);
    }
    trace.writeTo(path);
}

std::vector<Answer> resolveAll(const IJitLoader::Ptr& loader, const std::vector<RandomSample>& samples,
                               unsigned hostId) {
    std::vector<Answer> answers;
    for (const RandomSample& s : samples) {
        Answer a{meSuccess, 0};
        IModule::Ptr module;
        a.status = loader->resolveJitPoint(s.time, s.address, s.pid, hostId, &a.jitRva, module);
        answers.push_back(a);
    }
    return answers;
}

TEST(OneAnswer, LoaderAndResolverAgreeOnEveryRandomTraceInEitherQueryOrder) {
    size_t resolved = 0;
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        TempDir dir;
        uint32_t nextId = 1;
        const unsigned processes = 1 + rng() % 3;
        for (unsigned p = 0; p < processes; ++p)
            for (unsigned f = 0, files = 1 + rng() % 2; f < files; ++f)
                writeRandomTrace(rng, dir.file("box." + std::to_string(100 + p) + (f ? ".trace" : ".jit")), nextId);
        std::vector<RandomSample> samples;
        for (unsigned i = 0; i < 300; ++i)
            samples.push_back(RandomSample{95 + rng() % 450, 0x10000 + rng() % 0x500,
                                           static_cast<unsigned>(100 + rng() % processes)});

        // Order A: addresses first (each process read alone), then a symbol search.
        IJitLoader::Ptr first = makeLoader({dir.path()});
        ASSERT_TRUE(first);
        unsigned hostId = 0;
        ASSERT_EQ(meSuccess, first->getHostIdByName("box", &hostId));
        const std::vector<Answer> a = resolveAll(first, samples, hostId);
        ISymbol::Ptr none;
        first->findSymbol("app.jar", 1, none);
        EXPECT_EQ(a, resolveAll(first, samples, hostId));

        // Order B: the symbol search reads everything before any address query.
        IJitLoader::Ptr second = makeLoader({dir.path()});
        ASSERT_TRUE(second);
        second->findSymbol("app.jar", 1, none);
        EXPECT_EQ(a, resolveAll(second, samples, hostId));

        // Every answer names code that held the address at that time.
        ISymbolResolver::Ptr resolver = makeResolver({dir.path()});
        ASSERT_TRUE(resolver);
        for (size_t i = 0; i < samples.size(); ++i) {
            if (a[i].status != meSuccess)
                continue;
            ++resolved;
            const RandomSample& s = samples[i];
            const ISymbol::Ptr symbol = resolver->getSymbol(a[i].jitRva);
            ASSERT_TRUE(symbol) << "jit rva " << a[i].jitRva;
            u64 address = 0;
            unsigned pid = 0;
            ASSERT_EQ(meSuccess, symbol->getVirtualAddress(a[i].jitRva, &address));
            ASSERT_EQ(meSuccess, symbol->getPid(a[i].jitRva, pid));
            EXPECT_EQ(s.address, address) << "sample " << i;
            EXPECT_EQ(s.pid, pid) << "sample " << i;
            const ICodeRegion::Ptr region = regionAt(symbol, a[i].jitRva);
            ASSERT_TRUE(region);
            EXPECT_LE(region->getLoadTime(), s.time) << "sample " << i;
            EXPECT_TRUE(region->getUnloadTime() <= region->getLoadTime() || s.time < region->getUnloadTime())
                << "sample " << i;
        }
    }
    // The random traces must resolve a good share of their samples for the
    // agreement to mean something.
    EXPECT_GT(resolved, 1500u);
}

} // namespace
} // namespace api_test
