// Several threads on one facade give what one thread gives. A binary of its
// own (label "concurrency"): the ThreadSanitizer build runs exactly these.

#include "api_fixture.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

namespace api_test {
namespace concurrency_test {

const unsigned kProcesses = 8;
const unsigned kMethodsPerProcess = 40;
const unsigned kThreads = 8;

struct Query {
    u64 time;
    u64 address;
    unsigned pid;
};

struct Answer {
    quarvel_error_t status;
    u64 rva;
    std::string module;
    bool operator==(const Answer& o) const { return status == o.status && rva == o.rva && module == o.module; }
};

// Runs body(t) for t = 0 .. kThreads - 1 on threads that start together.
template <typename Body>
void together(Body body) {
    std::atomic<unsigned> ready{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < kThreads)
                std::this_thread::yield();
            body(t);
        });
    }
    for (std::thread& th : threads)
        th.join();
}

// Each process reuses a few code slots over time, so answers depend on the time stamp.
class ConcurrentFacadesTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (unsigned p = 0; p < kProcesses; ++p) {
            const unsigned pid = 1000 + p;
            for (unsigned part = 0; part < 2; ++part) {
                TraceBuilder trace;
                trace.magic().collector(ctJitProfiler);
                for (unsigned m = 0; m < kMethodsPerProcess / 2; ++m) {
                    const unsigned index = part * (kMethodsPerProcess / 2) + m;
                    const u64 time = 100 + index * 10;
                    const u64 slot = 0x100000 + (index % 5) * 0x100;
                    trace.load(3, method(index + 1, time, slot, 0x80, "m" + std::to_string(index),
                                         "mod" + std::to_string(p) + ".jar", quarvel_arch_vx64));
                }
                trace.writeTo(dir.file("node-" + std::to_string(pid) + (part ? ".trace" : ".jit")));
            }
        }
        for (unsigned p = 0; p < kProcesses; ++p)
            for (u64 t = 95; t < 100 + kMethodsPerProcess * 10 + 20; t += 7)
                for (unsigned s = 0; s < 5; ++s)
                    queries.push_back(Query{t, 0x100000 + s * 0x100 + (t % 0x80), 1000 + p});
        // An address no method ever held and a process no file names.
        queries.push_back(Query{500, 0x900000, 1000});
        queries.push_back(Query{500, 0x100000, 77});
    }

    Answer ask(const IJitLoader::Ptr& loader, unsigned hostId, const Query& q) {
        Answer a{meSuccess, 0, ""};
        IModule::Ptr module;
        a.status = loader->resolveJitPoint(q.time, q.address, q.pid, hostId, &a.rva, module);
        if (module)
            a.module = module->getFilePath();
        return a;
    }

    TempDir dir;
    std::vector<Query> queries;
};

TEST_F(ConcurrentFacadesTest, LoaderThreadsAgreeWithOneThread) {
    IJitLoader::Ptr reference = makeLoader({dir.path()});
    ASSERT_TRUE(reference);
    unsigned host = 0;
    ASSERT_EQ(meSuccess, reference->getHostIdByName("node", &host));
    ASSERT_NE(0u, host);
    std::vector<Answer> expected;
    for (const Query& q : queries)
        expected.push_back(ask(reference, host, q));
    size_t found = 0;
    for (const Answer& a : expected)
        found += a.status == meSuccess;
    ASSERT_GT(found, queries.size() / 2);

    // Each thread starts on another process, so the first queries trigger
    // the lazy reads from several threads at once.
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    std::vector<std::vector<Answer>> results(kThreads);
    together([&](unsigned t) {
        std::vector<Answer>& mine = results[t];
        mine.resize(queries.size());
        const size_t start = queries.size() * t / kThreads;
        for (size_t i = 0; i < queries.size(); ++i) {
            const size_t k = (start + i) % queries.size();
            mine[k] = ask(loader, host, queries[k]);
        }
    });
    for (unsigned t = 0; t < kThreads; ++t)
        for (size_t i = 0; i < queries.size(); ++i)
            ASSERT_TRUE(expected[i] == results[t][i]) << "thread " << t << " query " << i;
}

TEST_F(ConcurrentFacadesTest, LoaderSymbolSearchWhileProcessesAreRead) {
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    unsigned host = 0;
    ASSERT_EQ(meSuccess, loader->getHostIdByName("node", &host));
    std::atomic<unsigned> failures{0};
    together([&](unsigned t) {
        for (unsigned p = 0; p < kProcesses; ++p) {
            const unsigned pid = 1000 + (p + t) % kProcesses;
            if (t % 2) {
                ISymbol::Ptr symbol;
                if (loader->findSymbol(("mod" + std::to_string(pid - 1000) + ".jar").c_str(), 3, symbol) != meSuccess)
                    ++failures;
            } else if (ask(loader, host, Query{125, 0x100210, pid}).status != meSuccess) {
                ++failures;
            }
        }
    });
    EXPECT_EQ(0u, failures.load());
}

// The jit id converter is built by the first translation, whichever thread
// asks: threads that race to build it, and to look jit rvas, hosts and
// processes up meanwhile, give the answers of one thread on a resolver that
// built it alone.
TEST_F(ConcurrentFacadesTest, ResolverTranslationsRaceToBuildTheConverter) {
    struct Translation {
        std::string file;
        u64 address;
    };
    std::vector<Translation> translations;
    for (unsigned p = 0; p < kProcesses; ++p)
        for (const char* suffix : {".jit", ".trace"})
            for (u64 address = 0x100000 - 4; address < 0x100000 + 0x90; address += 3)
                translations.push_back(Translation{"node-" + std::to_string(1000 + p) + suffix, address});
    // A raw method id no method bears: every call converts plainly.
    const unsigned kNoMethod = 0xFFFFFF;
    auto translate = [&](const ISymbolResolver::Ptr& resolver, const Translation& t) {
        u64 rva = 0;
        return resolver->translateToJitRva(kNoMethod, t.address, t.file.c_str(), &rva) == meSuccess ? rva : ~u64(0);
    };

    ISymbolResolver::Ptr reference = makeResolver({dir.path()});
    ASSERT_TRUE(reference);
    std::vector<u64> expected;
    for (const Translation& t : translations)
        expected.push_back(translate(reference, t));
    ASSERT_GT(std::count_if(expected.begin(), expected.end(), [](u64 v) { return v != ~u64(0); }), 100);
    const std::vector<ISymbol::Ptr> all = itemsOf(reference->getSymbols());

    ASSERT_EQ(kProcesses * kMethodsPerProcess, all.size());

    ISymbolResolver::Ptr resolver = makeResolver({dir.path()});
    IJitProcesses::Ptr processes = makeProcesses({dir.path()});
    ASSERT_TRUE(resolver && processes);
    std::vector<std::vector<u64>> results(kThreads);
    std::atomic<unsigned> mismatches{0};
    together([&](unsigned t) {
        if (processes->getJitProcessId().remaining() != kProcesses)
            ++mismatches;
        std::vector<u64>& mine = results[t];
        mine.resize(translations.size());
        const size_t start = translations.size() * t / kThreads;
        for (size_t i = 0; i < translations.size(); ++i) {
            const size_t k = (start + i) % translations.size();
            mine[k] = translate(resolver, translations[k]);
            const ISymbol::Ptr& s = all[k % all.size()];
            const ISymbol::Ptr got = resolver->getSymbol(s->getStartJitRva());
            // Names that are prefixes of the qualified name get their C strings on first use, here by
            // several threads at once.
            if (!got || got->getStartJitRva() != s->getStartJitRva() ||
                std::strcmp(got->getMethodName(), s->getMethodName()) != 0 ||
                std::strcmp(got->getClassName(), s->getClassName()) != 0)
                ++mismatches;
            const char* name = nullptr;
            if (resolver->getHostNameById(1, &name) != meSuccess || !name)
                ++mismatches;
        }
    });
    EXPECT_EQ(0u, mismatches.load());
    for (unsigned t = 0; t < kThreads; ++t)
        EXPECT_TRUE(expected == results[t]) << "thread " << t;
}

} // namespace
} // namespace api_test
