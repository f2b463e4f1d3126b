// The data manager against a naive byte-by-byte model of the same rules, on
// random histories with loads in and out of time order and unloads, and on
// the shapes that once made splitting explode. (Many threads on one finished
// index: the concurrency tests.)

#include "jit_data_manager_test_helpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>

using namespace dmtest;

namespace jit_data_manager_property_test {

const u64 kSpaceStart = 0x1000;
const u64 kSpaceSize = 256;
const u64 kNoAnswer = std::numeric_limits<u64>::max();

// Methods fall into a few modules, so that a sample answered with another
// region's module shows.
std::string moduleOf(u32 rawId) {
    return "module" + std::to_string(rawId % 5);
}

// One step of a history: a method load (a raw id, repeated ids are reloads
// of one method; a load time; disjoint regions), or an unload of a range.
struct Event {
    bool unload = false;
    u32 rawId = 0;
    u64 time = 0;
    std::vector<RegionShape> regions;
    u64 start = 0; // unload
    u32 length = 0;
};

enum class Shape {
    random,
    staggered, // load i covers [4i, 4i + 48): each overlaps the next eleven
    hotArea    // one area reloaded with bounds that alternate by 8 bytes
};

std::vector<Event> makeHistory(std::mt19937& rng, size_t count, Shape shape, bool inTimeOrder, bool withUnloads) {
    std::vector<u64> times(count);
    for (size_t i = 0; i < count; ++i)
        times[i] = 10 * (i + 1);
    if (!inTimeOrder)
        std::shuffle(times.begin(), times.end(), rng); // never equal

    std::vector<Event> events;
    u64 nextJitRva = 0x100000;
    u32 nextId = 1;
    for (size_t i = 0; i < count; ++i) {
        Event e;
        e.time = times[i];
        if (withUnloads && rng() % 6 == 0) {
            e.unload = true;
            e.start = kSpaceStart + rng() % kSpaceSize;
            e.length = static_cast<u32>(1 + rng() % 64);
            events.push_back(e);
            continue;
        }
        const bool reload = !events.empty() && events.back().rawId && rng() % 6 == 0;
        e.rawId = reload ? events[rng() % events.size()].rawId : 0;
        if (e.rawId == 0)
            e.rawId = nextId++;
        std::vector<Range> ranges;
        switch (shape) {
        case Shape::staggered:
            ranges.push_back(Range(kSpaceStart + 4 * (i % 52), 48));
            break;
        case Shape::hotArea:
            ranges.push_back(Range(kSpaceStart + 64 + 8 * (i % 2), 96));
            break;
        case Shape::random:
            for (size_t r = 0, n = 1 + rng() % 3; r < n; ++r) {
                const u64 start = kSpaceStart + rng() % kSpaceSize;
                const Range range(start,
                                  static_cast<u32>(std::min<u64>(1 + rng() % 48, kSpaceStart + kSpaceSize - start)));
                if (std::none_of(ranges.begin(), ranges.end(), [&](const Range& other) {
                        return range.start < other.end() && other.start < range.end();
                    }))
                    ranges.push_back(range);
            }
            break;
        }
        for (const Range& range : ranges) {
            e.regions.push_back({range.start, range.length, nextJitRva});
            nextJitRva += range.length + rng() % 16;
        }
        events.push_back(e);
    }
    return events;
}

// The rules, byte by byte. A new region ends the life of the region registered
// before it that has the greatest load time below its own, on every byte it
// covers, when that one is still live. An unload ends the life of every live
// region over its range loaded before it.
class ReferenceModel {
public:
    struct Answer {
        u32 rawId = 0; // 0: not found
        u64 jitRva = 0;
        bool operator==(const Answer& o) const { return rawId == o.rawId && jitRva == o.jitRva; }
    };

    ReferenceModel() : m_bytes(kSpaceSize) {}

    void apply(const Event& e) {
        if (e.unload) {
            for (Entry& r : m_regions)
                if (r.shape.address < e.start + e.length && e.start < r.shape.address + r.shape.length &&
                    r.unloadTime == 0 && r.loadTime < e.time)
                    r.unloadTime = e.time;
            return;
        }
        for (const RegionShape& shape : e.regions)
            add(e.rawId, e.time, shape);
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

    // At the first address of [start, end) that ever held code, the start
    // jit rva of the first region loaded there strictly after timestamp.
    u64 loadedAfter(u64 start, u64 end, u64 timestamp) const {
        u64 a = start;
        while (a < end && !covered(a))
            ++a;
        if (a == end)
            return kNoAnswer;
        const Entry* best = nullptr;
        for (size_t h : m_bytes[a - kSpaceStart])
            if (m_regions[h].loadTime > timestamp && (!best || m_regions[h].loadTime < best->loadTime))
                best = &m_regions[h];
        return best ? best->shape.jitRva : kNoAnswer;
    }

    u32 resolveJitRva(u64 jitRva) const {
        for (const Entry& e : m_regions)
            if (e.shape.jitRva <= jitRva && jitRva - e.shape.jitRva < e.shape.length)
                return e.rawId;
        return 0;
    }

    // Every region's life as the manager must have recorded it.
    ::testing::AssertionResult sameLives(const JitDataManager& manager) const {
        for (const Entry& e : m_regions) {
            const RegionInfo* info = manager.findJitRvaRegion(e.shape.jitRva);
            if (!info)
                return ::testing::AssertionFailure() << "region at jit rva " << e.shape.jitRva << " is missing";
            if (info->region->unloadTime() != e.unloadTime)
                return ::testing::AssertionFailure()
                       << "region " << e.shape.address << "+" << e.shape.length << " loaded at " << e.loadTime
                       << ": unload time " << info->region->unloadTime() << ", expected " << e.unloadTime;
        }
        return ::testing::AssertionSuccess();
    }

private:
    struct Entry {
        u32 rawId;
        RegionShape shape;
        u64 loadTime;
        u64 unloadTime;
    };

    void add(u32 rawId, u64 loadTime, const RegionShape& shape) {
        const size_t index = m_regions.size();
        m_regions.push_back({rawId, shape, loadTime, 0});
        for (u64 a = shape.address; a < shape.address + shape.length; ++a) {
            const size_t* previous = nullptr;
            for (const size_t& h : m_bytes[a - kSpaceStart])
                if (m_regions[h].loadTime < loadTime &&
                    (!previous || m_regions[h].loadTime > m_regions[*previous].loadTime))
                    previous = &h;
            if (previous && m_regions[*previous].unloadTime == 0)
                m_regions[*previous].unloadTime = loadTime;
        }
        for (u64 a = shape.address; a < shape.address + shape.length; ++a)
            m_bytes[a - kSpaceStart].push_back(index);
    }

    std::vector<Entry> m_regions;
    std::vector<std::vector<size_t>> m_bytes;
};

void apply(JitDataManager& manager, const Event& e) {
    if (e.unload)
        ASSERT_TRUE(manager.processCodeUnload(kPid, kHost, e.start, e.length, e.time).ok());
    else
        ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, makeMethod(e.rawId, e.time, e.regions, std::string(), kPid, kHost,
                                                                         moduleOf(e.rawId)))
                        .ok());
}

::testing::AssertionResult sameCoverage(const JitDataManager& manager, const ReferenceModel& model) {
    for (u64 a = kSpaceStart - 1; a <= kSpaceStart + kSpaceSize; ++a) {
        ICodeRegion::Ptr region;
        // Every load time is above 0: whatever holds code was loaded after it.
        const bool stored = manager.findOverlappedRegion(a, a + 1, 0, kPid, kHost, region) == meSuccess;
        if (stored != model.covered(a))
            return ::testing::AssertionFailure() << "address " << a << " is " << (stored ? "" : "not ") << "covered";
    }
    return ::testing::AssertionSuccess();
}

ReferenceModel::Answer resolveWith(const JitDataManager& manager, u64 address, u64 timestamp) {
    ReferenceModel::Answer answer;
    JitMethod::Ptr method;
    u64 jitRva = 0;
    if (manager.resolveJitPoint(address, timestamp, kPid, kHost, method, jitRva) == meSuccess) {
        answer.rawId = method->getRawMethodId();
        answer.jitRva = jitRva;
    }
    // The sample path answers from the query index's own copies: it must
    // give the same jit rva and the module of the same method.
    IModule* module = nullptr;
    u64 sampleRva = 0;
    const bool sampled = manager.resolveJitPoint(address, timestamp, kPid, kHost, module, sampleRva) == meSuccess;
    if (sampled != (answer.rawId != 0))
        ADD_FAILURE() << "address " << address << ", tsc " << timestamp << ": the sample path "
                      << (sampled ? "found" : "missed") << " what the method lookup did not";
    else if (sampled && (sampleRva != jitRva || !module || moduleOf(answer.rawId) != module->getFilePath()))
        ADD_FAILURE() << "address " << address << ", tsc " << timestamp << ": the sample path gave jit rva "
                      << sampleRva << " in " << (module ? module->getFilePath() : "no module") << ", expected "
                      << jitRva << " in " << moduleOf(answer.rawId);
    return answer;
}

// Random samples, in and around the space, at times around the loads.
::testing::AssertionResult sameAnswers(const JitDataManager& manager, const ReferenceModel& model, std::mt19937& rng,
                                       size_t events, size_t& hits) {
    const u64 maxTime = 10 * (events + 2);
    for (int i = 0; i < 1500; ++i) {
        const u64 address = kSpaceStart - 8 + rng() % (kSpaceSize + 16);
        const u64 timestamp = rng() % 3 ? rng() % maxTime : 10 * (1 + rng() % events) + rng() % 3 - 1;
        const ReferenceModel::Answer expected = model.resolve(address, timestamp);
        const ReferenceModel::Answer actual = resolveWith(manager, address, timestamp);
        if (!(expected == actual))
            return ::testing::AssertionFailure()
                   << "address " << address << ", tsc " << timestamp << ": expected " << expected.rawId << "/"
                   << expected.jitRva << ", got " << actual.rawId << "/" << actual.jitRva;
        hits += expected.rawId != 0;

        const u64 end = address + rng() % 24;
        ICodeRegion::Ptr region;
        const u64 after = manager.findOverlappedRegion(address, end, timestamp, kPid, kHost, region) == meSuccess
                              ? region->getStartJitRva()
                              : kNoAnswer;
        const u64 expectedAfter = model.loadedAfter(address, std::max(end, address + 1), timestamp);
        if (after != expectedAfter)
            return ::testing::AssertionFailure() << "overlapped region " << address << "-" << end << " after tsc "
                                                 << timestamp << ": expected " << expectedAfter << ", got " << after;
    }
    for (u64 jitRva = 0x100000 - 4; jitRva < 0x100000 + 80 * 3 * 64; jitRva += 1 + rng() % 7) {
        JitMethod::Ptr method;
        const u32 expected = model.resolveJitRva(jitRva);
        const u32 actual = manager.resolveJitPoint(jitRva, method) == meSuccess ? method->getRawMethodId() : 0;
        if (expected != actual)
            return ::testing::AssertionFailure()
                   << "jit rva " << jitRva << ": expected " << expected << ", got " << actual;
    }
    return ::testing::AssertionSuccess();
}

TEST(JitDataManagerProperty, MatchesTheByteByByteModel) {
    struct Variant {
        const char* name;
        Shape shape;
        bool inTimeOrder;
        bool withUnloads;
    };
    const Variant variants[] = {
        {"random", Shape::random, false, false},
        {"random with unloads", Shape::random, false, true},
        {"random in time order", Shape::random, true, true},
        {"staggered", Shape::staggered, true, false},
        {"staggered out of order", Shape::staggered, false, true},
        {"hot area", Shape::hotArea, true, true},
        {"hot area out of order", Shape::hotArea, false, false},
    };
    for (const Variant& variant : variants) {
        for (unsigned seed = 1; seed <= 12; ++seed) {
            SCOPED_TRACE(std::string(variant.name) + ", seed " + std::to_string(seed));
            std::mt19937 rng(seed);
            const std::vector<Event> events =
                makeHistory(rng, 60, variant.shape, variant.inTimeOrder, variant.withUnloads);
            JitDataManager manager;
            ReferenceModel model;
            size_t hits = 0;
            for (size_t i = 0; i < events.size(); ++i) {
                apply(manager, events[i]);
                model.apply(events[i]);
                ASSERT_TRUE(model.sameLives(manager)) << "after event " << i;
                ASSERT_TRUE(sameCoverage(manager, model)) << "after event " << i;
                if (i == events.size() / 2) {
                    // Queries before and after a finalisation, then more reading.
                    ASSERT_TRUE(sameAnswers(manager, model, rng, events.size(), hits));
                    manager.finalize();
                    ASSERT_TRUE(sameAnswers(manager, model, rng, events.size(), hits));
                } else if (i % 16 == 15) {
                    manager.finalize(); // reading on rebuilds what registration needs
                }
            }
            ASSERT_TRUE(sameAnswers(manager, model, rng, events.size(), hits));
            manager.finalize();
            ASSERT_TRUE(sameAnswers(manager, model, rng, events.size(), hits));
            EXPECT_GT(hits, 200u); // the samples do reach code, not only gaps
        }
    }
}

} // namespace
