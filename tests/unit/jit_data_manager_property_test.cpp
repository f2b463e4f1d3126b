// The data manager against a naive byte-by-byte model of the same rules, and
// the same answers from many threads.

#include "jit_data_manager_test_helpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <random>
#include <thread>

using namespace dmtest;

namespace jit_data_manager_property_test {

const u64 kSpaceStart = 0x1000;
const u64 kSpaceSize = 256;

// One method-load record: a raw id (repeated ids are reloads of one method),
// a load time and disjoint regions.
struct RecordShape {
    u32 rawId;
    u64 loadTime;
    std::vector<RegionShape> regions;
};

std::vector<RecordShape> randomRecords(std::mt19937& rng, size_t count) {
    std::vector<u64> times(count);
    for (size_t i = 0; i < count; ++i)
        times[i] = 10 * (i + 1);
    std::shuffle(times.begin(), times.end(), rng); // out-of-order load times, never equal

    std::vector<RecordShape> records;
    u64 nextJitRva = 0x100000;
    u32 nextId = 1;
    for (size_t i = 0; i < count; ++i) {
        RecordShape record;
        const bool reload = !records.empty() && rng() % 6 == 0;
        record.rawId = reload ? records[rng() % records.size()].rawId : nextId++;
        record.loadTime = times[i];
        const size_t regionCount = 1 + rng() % 3;
        for (size_t r = 0; r < regionCount; ++r) {
            const u64 start = kSpaceStart + rng() % kSpaceSize;
            const u32 length = static_cast<u32>(std::min<u64>(1 + rng() % 48, kSpaceStart + kSpaceSize - start));
            const Range range(start, length);
            const bool clash = std::any_of(record.regions.begin(), record.regions.end(), [&](const RegionShape& other) {
                return range.start < other.address + other.length && other.address < range.end();
            });
            if (clash)
                continue;
            record.regions.push_back({start, length, nextJitRva});
            nextJitRva += length + rng() % 16;
        }
        records.push_back(record);
    }
    return records;
}

// The rules, byte by byte: a new region ends the life of every region
// registered before it that has the greatest load time below its own on some
// byte it covers, when that region is still live.
class ReferenceModel {
public:
    struct Answer {
        u32 rawId = 0; // 0: not found
        u64 jitRva = 0;
        bool operator==(const Answer& o) const { return rawId == o.rawId && jitRva == o.jitRva; }
    };

    ReferenceModel() : m_bytes(kSpaceSize) {}

    void add(u32 rawId, u64 loadTime, const RegionShape& shape) {
        const size_t index = m_regions.size();
        m_regions.push_back({rawId, shape, loadTime, 0});
        for (u64 a = shape.address; a < shape.address + shape.length; ++a) {
            std::vector<size_t>& history = m_bytes[a - kSpaceStart];
            const size_t* previous = nullptr;
            for (const size_t& h : history)
                if (m_regions[h].loadTime < loadTime && (!previous || m_regions[h].loadTime > m_regions[*previous].loadTime))
                    previous = &h;
            if (previous && m_regions[*previous].unloadTime == 0)
                m_regions[*previous].unloadTime = loadTime;
        }
        for (u64 a = shape.address; a < shape.address + shape.length; ++a)
            m_bytes[a - kSpaceStart].push_back(index);
    }

    bool covered(u64 address) const {
        return address >= kSpaceStart && address < kSpaceStart + kSpaceSize && !m_bytes[address - kSpaceStart].empty();
    }

    Answer resolve(u64 address, u64 timestamp) const {
        Answer answer;
        if (!covered(address))
            return answer;
        const Entry* best = nullptr;
        for (size_t h : m_bytes[address - kSpaceStart])
            if (m_regions[h].loadTime <= timestamp && (!best || m_regions[h].loadTime > best->loadTime))
                best = &m_regions[h];
        if (!best || (best->unloadTime > best->loadTime && best->unloadTime <= timestamp))
            return answer;
        answer.rawId = best->rawId;
        answer.jitRva = best->shape.jitRva + (address - best->shape.address);
        return answer;
    }

    u32 resolveJitRva(u64 jitRva) const {
        for (const Entry& e : m_regions)
            if (e.shape.jitRva <= jitRva && jitRva - e.shape.jitRva < e.shape.length)
                return e.rawId;
        return 0;
    }

private:
    struct Entry {
        u32 rawId;
        RegionShape shape;
        u64 loadTime;
        u64 unloadTime;
    };
    std::vector<Entry> m_regions;
    std::vector<std::vector<size_t>> m_bytes;
};

::testing::AssertionResult domainMatchesCoverage(const JitDataManager& manager, const ReferenceModel& model) {
    const SingleRegionDomain* domain = manager.getSingleRegionDomain(kPid, kHost);
    ::testing::AssertionResult disjoint = domainIsDisjoint(domain);
    if (!disjoint)
        return disjoint;
    for (u64 a = kSpaceStart - 1; a <= kSpaceStart + kSpaceSize; ++a) {
        const bool stored = domain && domain->find(Range(a, 1)) != domain->end();
        if (stored != model.covered(a))
            return ::testing::AssertionFailure() << "address " << a << " is " << (stored ? "" : "not ")
                                                 << "in the domain";
    }
    return ::testing::AssertionSuccess();
}

struct Query {
    u64 address;
    u64 timestamp;
};

std::vector<Query> randomQueries(std::mt19937& rng, const std::vector<RecordShape>& records, size_t count) {
    std::vector<Query> queries;
    const u64 maxTime = 10 * (records.size() + 2);
    for (size_t i = 0; i < count; ++i) {
        Query q;
        q.address = kSpaceStart - 8 + rng() % (kSpaceSize + 16);
        switch (rng() % 3) {
        case 0: // exactly at a load time, or just around it
            q.timestamp = records[rng() % records.size()].loadTime + (rng() % 3) - 1;
            break;
        default:
            q.timestamp = rng() % maxTime;
        }
        queries.push_back(q);
    }
    return queries;
}

ReferenceModel::Answer resolveWith(const JitDataManager& manager, const Query& q) {
    ReferenceModel::Answer answer;
    JitMethod::Ptr method;
    u64 jitRva = 0;
    if (manager.resolveJitPoint(q.address, q.timestamp, kPid, kHost, method, jitRva) == meSuccess) {
        answer.rawId = method->getRawMethodId();
        answer.jitRva = jitRva;
    }
    return answer;
}

TEST(JitDataManagerProperty, MatchesTheByteByByteModel) {
    for (unsigned seed = 1; seed <= 25; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        const std::vector<RecordShape> records = randomRecords(rng, 40);
        JitDataManager manager;
        ReferenceModel model;
        for (const RecordShape& record : records) {
            ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(
                                     kPid, kHost, makeMethod(record.rawId, record.loadTime, record.regions)));
            for (const RegionShape& shape : record.regions)
                model.add(record.rawId, record.loadTime, shape);
            ASSERT_TRUE(domainMatchesCoverage(manager, model));
        }
        manager.finalize();

        size_t found = 0;
        for (const Query& q : randomQueries(rng, records, 2000)) {
            const ReferenceModel::Answer expected = model.resolve(q.address, q.timestamp);
            const ReferenceModel::Answer actual = resolveWith(manager, q);
            ASSERT_TRUE(expected == actual) << "address " << q.address << ", tsc " << q.timestamp << ": expected "
                                            << expected.rawId << "/" << expected.jitRva << ", got " << actual.rawId
                                            << "/" << actual.jitRva;
            found += expected.rawId != 0;
        }
        EXPECT_GT(found, 100u); // the samples do reach code, not only gaps

        for (u64 jitRva = 0x100000 - 4; jitRva < 0x100000 + 40 * 3 * 64; jitRva += 1 + rng() % 7) {
            JitMethod::Ptr method;
            const quarvel_error_t ret = manager.resolveJitPoint(jitRva, method);
            const u32 expected = model.resolveJitRva(jitRva);
            ASSERT_EQ(expected ? meSuccess : meNotFound, ret) << jitRva;
            if (expected) {
                ASSERT_EQ(expected, method->getRawMethodId()) << jitRva;
            }
        }
    }
}

// ---------------------------------------------------------------------------

struct Fixture {
    std::vector<RecordShape> records;
    std::vector<Query> queries;
    std::vector<std::pair<u64, u64>> translations; // (address, base jit rva)
};

Fixture makeFixture() {
    std::mt19937 rng(20240601);
    Fixture f;
    f.records = randomRecords(rng, 200);
    f.queries = randomQueries(rng, f.records, 3000);
    for (size_t i = 0; i < 1000; ++i) {
        const RecordShape& record = f.records[rng() % f.records.size()];
        if (record.regions.empty())
            continue;
        const RegionShape& region = record.regions[rng() % record.regions.size()];
        f.translations.emplace_back(region.address + rng() % (region.length + 2), region.jitRva);
    }
    return f;
}

void fill(JitDataManager& manager, const Fixture& f) {
    for (const RecordShape& record : f.records)
        ASSERT_EQ(meSuccess,
                  manager.processMethodLoadRecord(kPid, kHost, makeMethod(record.rawId, record.loadTime, record.regions)));
    manager.finalize();
}

struct Answers {
    std::vector<ReferenceModel::Answer> points;
    std::vector<u32> jitRvaOwners;
    std::vector<u64> translated; // ~0: refused
    bool operator==(const Answers& o) const {
        return points == o.points && jitRvaOwners == o.jitRvaOwners && translated == o.translated;
    }
};

Answers answer(const JitDataManager& manager, const Fixture& f, size_t rotation) {
    Answers a;
    const size_t nq = f.queries.size();
    a.points.resize(nq);
    a.jitRvaOwners.resize(nq);
    for (size_t k = 0; k < nq; ++k) {
        const size_t i = (k + rotation) % nq;
        a.points[i] = resolveWith(manager, f.queries[i]);
        JitMethod::Ptr method;
        a.jitRvaOwners[i] =
            a.points[i].rawId && manager.resolveJitPoint(a.points[i].jitRva, method) == meSuccess
                ? method->getRawMethodId()
                : 0;
    }
    const size_t nt = f.translations.size();
    a.translated.resize(nt);
    for (size_t k = 0; k < nt; ++k) {
        const size_t i = (k + rotation) % nt;
        u64 jitRva = 0;
        // Method id 0 names no method: the building call converts plainly too.
        a.translated[i] = manager.translateToJitRva(0, f.translations[i].first, f.translations[i].second,
                                                    std::numeric_limits<u64>::max(), jitRva) == meSuccess
                              ? jitRva
                              : std::numeric_limits<u64>::max();
    }
    return a;
}

TEST(JitDataManagerConcurrent, ManyThreadsGiveTheAnswersOfOne) {
    const Fixture f = makeFixture();
    JitDataManager reference;
    fill(reference, f);
    const Answers expected = answer(reference, f, 0);
    ASSERT_GT(std::count_if(expected.translated.begin(), expected.translated.end(),
                            [](u64 v) { return v != std::numeric_limits<u64>::max(); }),
              100);

    // A fresh manager: the threads race to build the jit id converter.
    JitDataManager shared;
    fill(shared, f);
    const size_t kThreads = 8;
    std::vector<Answers> results(kThreads);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] { results[t] = answer(shared, f, t * 397); });
    for (std::thread& thread : threads)
        thread.join();
    for (size_t t = 0; t < kThreads; ++t)
        EXPECT_TRUE(results[t] == expected) << "thread " << t;
}

} // namespace
