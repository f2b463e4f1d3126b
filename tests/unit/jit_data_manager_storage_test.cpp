// What the data manager keeps for the shapes that once made reading explode:
// structure counts, not times, so that copying histories again (O(n^2) nodes)
// or re-indexing every process per finalisation fails here.

#include "jit_data_manager_test_helpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

using namespace dmtest;

namespace jit_data_manager_storage_test {

// The shapes that made splitting copy histories: the counts stay within a
// few entries per region (the tree of long regions within n log n), where
// copying gave n^2. Each case also checks a few lives, so a cheap but wrong
// index fails too.
TEST(JitDataManagerStorage, PathologicalShapesStayLinear) {
    struct Probe {
        u64 address;
        u64 time;
        u32 owner; // 0: nothing lives there then
    };
    struct Case {
        const char* name;
        size_t n;
        u64 (*startOf)(size_t i, size_t n);
        u32 (*lengthOf)(size_t n);
        size_t maxTopIntervals;
        size_t maxPieces;
        size_t maxEntriesPerRegion; // for nested shapes, per level of the tree (log2(2n) + 2)
        bool nested;
        std::vector<Probe> probes;
    };
    const Case cases[] = {
        // Load i covers [16i, 16i + 16n) at time 10(i + 1): each overlaps the n - 1 before it.
        {"staggered overlap",
         800,
         [](size_t i, size_t) { return 0x10000 + 16 * u64(i); },
         [](size_t n) { return static_cast<u32>(16 * n); },
         2 * 800,
         2 * 800,
         1,
         true,
         // Load 5 lives until load 6 covers part of it; at its first 16
         // bytes, which load 6 does not cover, nothing lives after that.
         {{0x10000 + 16 * 4 + 8, 55, 5},
          {0x10000 + 16 * 4 + 8, 65, 0},
          {0x10000 + 16 * 5 + 8, 65, 6},
          {0x10000 + 16 * 800, 8005, 800}}},
        // One hot area reloaded with bounds that alternate by 8 bytes.
        {"alternating hot area",
         2000,
         [](size_t i, size_t) { return 0x10000 + 8 * u64(i % 2); },
         [](size_t) { return u32(256); },
         3,
         3,
         2,
         false,
         // Load 1002 starts 8 bytes on: 1001 has ended below it.
         {{0x10004, 10010, 1001}, {0x10004, 10020, 0}, {0x10010, 10020, 1002}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        JitDataManager manager;
        for (size_t i = 0; i < c.n; ++i) {
            const u32 id = static_cast<u32>(i + 1);
            ASSERT_TRUE(
                manager
                    .processMethodLoadRecord(
                        kPid, kHost,
                        makeMethod(id, 10 * (i + 1), {{c.startOf(i, c.n), c.lengthOf(c.n), 0x100000 + i * 0x10000}}))
                    .ok());
        }
        const JitDataManager::IndexStats reading = manager.indexStats();
        EXPECT_EQ(c.n, reading.regions);
        EXPECT_LE(reading.topIntervals, c.maxTopIntervals);
        EXPECT_LE(reading.belowLinks, 2 * c.n);
        manager.finalize();
        const JitDataManager::IndexStats frozen = manager.indexStats();
        EXPECT_LE(frozen.pieces, c.maxPieces);
        const size_t perRegion =
            c.nested ? c.maxEntriesPerRegion * (static_cast<size_t>(std::log2(2.0 * c.n)) + 2) : c.maxEntriesPerRegion;
        EXPECT_LE(frozen.pieceEntries, perRegion * c.n);
        for (const Probe& p : c.probes)
            EXPECT_EQ(p.owner, ownerAt(manager, p.address, p.time)) << p.address << " at " << p.time;
    }
}

// The same shapes written backwards (each load older than all before it):
// every load goes in under the ones read before it. Walking down the links
// to its place cost O(n^2) steps for the hot area and O(n^3) for the
// staggered overlap; from the oldest regions it takes one or two.
TEST(JitDataManagerStorage, ShapesWrittenBackwardsTakeAFewStepsPerLoad) {
    struct Case {
        const char* name;
        u64 (*startOf)(size_t i);
        u32 length;
        u64 probe;      // an address, asked at the load time of load `owner`, then just before it
        u32 owner;      // 1-based
        u32 ownerEarly; // the owner just before: an older load there, or 0 for none
    };
    const size_t n = 600;
    const Case cases[] = {
        {"staggered overlap", [](size_t i) { return 0x10000 + 16 * u64(i); }, static_cast<u32>(16 * n),
         0x10000 + 16 * 4 + 8, 5, 0},
        {"alternating hot area", [](size_t i) { return 0x10000 + 8 * u64(i % 2); }, 256, 0x10004, 3, 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        JitDataManager manager;
        auto timeOf = [](size_t i) {
            return 10 * u64(n - i);
        };
        for (size_t i = 0; i < n; ++i) {
            const u32 id = static_cast<u32>(i + 1);
            ASSERT_TRUE(
                manager
                    .processMethodLoadRecord(
                        kPid, kHost, makeMethod(id, timeOf(i), {{c.startOf(i), c.length, 0x100000 + i * 0x10000}}))
                    .ok());
        }
        const JitDataManager::IndexStats reading = manager.indexStats();
        EXPECT_EQ(n, reading.regions);
        EXPECT_LE(reading.descentSteps, 3 * n);
        EXPECT_LE(reading.belowLinks, 2 * n);
        // Nothing is older than a new load, so no load ends another's life.
        manager.finalize();
        EXPECT_EQ(c.owner, ownerAt(manager, c.probe, timeOf(c.owner - 1)));
        EXPECT_EQ(c.ownerEarly, ownerAt(manager, c.probe, timeOf(c.owner - 1) - 1));
    }
}

// Loads out of time order in the middle of a deep history, all over one hot
// area: two files of one process read one after the other, whose load times
// interleave; loads in random time order; loads that are the latest and the
// earliest in turn; then updates of the first load, each looking it up under
// every later one. One region at a time, the first two walk 3M and 6M steps
// at n = 4000 and the updates 8M; along the pointers of the links' towers
// they take 16, 29, 13 and 11 a record. With one pointer a link (33, 48, 28
// and 19) the walks grew like log^2 n; without the pointers raised to regions
// slid in below (the skip list's insertion), random order took 126 and the
// turns 506.
TEST(JitDataManagerStorage, LoadsOutOfOrderSkipDownTheHistory) {
    const size_t n = 4000;
    std::vector<u64> interleaved(n);
    for (size_t i = 0; i < n; ++i) // the first file's loads at even times, the second's at odd ones
        interleaved[i] = i < n / 2 ? 20 * (i + 1) : 20 * (i - n / 2) + 10;
    std::vector<u64> shuffled(n);
    for (size_t i = 0; i < n; ++i)
        shuffled[i] = 10 * (i + 1);
    std::mt19937 rng(11);
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    std::vector<u64> converging(n); // the latest and the earliest in turn, meeting in the middle
    for (size_t i = 0; i < n; ++i)
        converging[i] = i % 2 ? 10 * i : 10 * (n - i);
    struct Case {
        const char* name;
        const std::vector<u64>& times;
        size_t maxStepsPerLoad;
    };
    const Case cases[] = {
        {"two files", interleaved, 24}, {"random order", shuffled, 40}, {"converging", converging, 20}};
    auto load = [](JitDataManager& manager, size_t i, u64 time) {
        return manager.processMethodLoadRecord(
            kPid, kHost,
            makeMethod(static_cast<u32>(i + 1), time, {{0x10000 + 8 * u64(i % 2), 256, 0x100000 + i * 0x1000}}));
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        JitDataManager manager;
        for (size_t i = 0; i < n; ++i)
            ASSERT_TRUE(load(manager, i, c.times[i]).ok());
        const JitDataManager::IndexStats stats = manager.indexStats();
        EXPECT_EQ(n, stats.regions);
        EXPECT_LE(stats.descentSteps, c.maxStepsPerLoad * n);
        // Each load holds its first 8 bytes from its load time on.
        manager.finalize();
        for (size_t i : {size_t(0), size_t(1), n / 2, n - 1})
            EXPECT_EQ(i + 1, ownerAt(manager, 0x10000 + 8 * u64(i % 2) + 4, c.times[i]));
    }
    JitDataManager manager;
    manager.setCollectorType(ctJitProfiler);
    for (size_t i = 0; i < n; ++i)
        ASSERT_TRUE(load(manager, i, 10 * u64(i + 1)).ok());
    for (size_t k = 0; k < n; ++k) {
        JitMethod::Ptr update(new JitMethod());
        update->setRawMethodId(1);
        update->addCodeRegion(makeRegion({0x10004, 4, 0}, 10, kPid, kHost, static_cast<uint8_t>(k)));
        ASSERT_TRUE(manager.processMethodUpdateRecord(kPid, kHost, update).ok());
    }
    EXPECT_LE(manager.indexStats().descentSteps, 16 * n);
}

// Loads slid in under one long region, each cutting one of its n stretches:
// over the small regions below it (the long one's links keep their number)
// and in the gaps between them (each adds two, and the run grows in place).
// Rewriting the long region's whole run for every load kept n^2 links
// (2-4 GB at n = 8000).
TEST(JitDataManagerStorage, LoadsSlidUnderALongRegionRewriteOnlyTheirStretch) {
    const size_t n = 2000;
    const u64 longTime = 100 * n;
    for (bool inGaps : {false, true}) {
        SCOPED_TRACE(inGaps ? "in the gaps" : "over the small regions");
        JitDataManager manager;
        u32 id = 1;
        auto load = [&manager, &id](u64 start, u32 length, u64 time) {
            const u32 raw = id++;
            return manager.processMethodLoadRecord(
                kPid, kHost, makeMethod(raw, time, {{start, length, 0x100000 + u64(raw) * 0x40000}}));
        };
        for (size_t i = 0; i < n; ++i)
            ASSERT_TRUE(load(0x10000 + 64 * i, 16, 10 * (i + 1)).ok());
        ASSERT_TRUE(load(0x10000, static_cast<u32>(64 * n), longTime).ok());
        for (size_t i = 0; i < n; ++i)
            ASSERT_TRUE(load(0x10000 + 64 * i + (inGaps ? 32 : 0), inGaps ? 8 : 16, 10 * (i + 1) + 5).ok());
        const JitDataManager::IndexStats stats = manager.indexStats();
        EXPECT_LE(stats.belowLinkStorage, 12 * n);
        if (!inGaps) { // in the gaps the run grows, and the links it moves count as steps
            EXPECT_LE(stats.descentSteps, 4 * n);
        }
        manager.finalize();
        const u64 at = 0x10000 + 64 * 700 + (inGaps ? 32 : 0);
        EXPECT_EQ(n + 2 + 700, ownerAt(manager, at, 10 * 701 + 5));
        EXPECT_EQ(inGaps ? 0u : 701u, ownerAt(manager, at, 10 * 701 + 4));
        EXPECT_EQ(n + 1, ownerAt(manager, at, longTime));
    }
}

// A step limit for one test; the default comes back after it.
class StepLimit {
public:
    explicit StepLimit(u64 limit) { AddressHistory::setStepLimit(limit); }
    ~StepLimit() { AddressHistory::setStepLimit(m_saved); }
    StepLimit(const StepLimit&) = delete;
    StepLimit& operator=(const StepLimit&) = delete;

private:
    const u64 m_saved = AddressHistory::stepLimit();
};

// Counts the accepted records and keeps the first refusal's reason.
struct Outcomes {
    size_t accepted = 0;
    std::string firstReason;
    void add(const Status& status) {
        if (status.ok())
            ++accepted;
        else if (firstReason.empty())
            firstReason = status.reason().message;
    }
};

// Loads over one area in random time order still take dozens of steps each;
// past the space's step limit such loads are refused with a reason, and loads
// later than everything still go in. With the limit used up, updates that
// look up an earlier moment are refused as well.
TEST(JitDataManagerStorage, LoadsOutOfOrderPastTheStepLimitAreRefused) {
    const StepLimit limit(2000);
    JitDataManager manager;
    manager.setCollectorType(ctJitProfiler);
    std::vector<u64> times(400);
    for (size_t i = 0; i < times.size(); ++i)
        times[i] = 10 * (i + 1);
    std::mt19937 rng(7);
    std::shuffle(times.begin(), times.end(), rng);
    Outcomes loads;
    for (size_t i = 0; i < times.size(); ++i)
        loads.add(manager.processMethodLoadRecord(
            kPid, kHost,
            makeMethod(static_cast<u32>(i + 1), times[i], {{0x10000 + 8 * u64(i % 2), 256, 0x100000 + i * 0x1000}})));
    EXPECT_LT(loads.accepted, times.size());
    EXPECT_GT(loads.accepted, 20u);
    EXPECT_NE(std::string::npos, loads.firstReason.find("more than the limit of 2000")) << loads.firstReason;
    const JitDataManager::IndexStats stats = manager.indexStats();
    EXPECT_EQ(loads.accepted, stats.regions);
    EXPECT_LE(stats.descentSteps, 2000u + times.size());
    // Later than everything: no walk, so it goes in.
    ASSERT_TRUE(
        manager.processMethodLoadRecord(kPid, kHost, makeMethod(1000, 100000, {{0x10000, 256, 0x900000}})).ok());
    // An update of the load at time 10 would walk down, past the limit.
    const size_t first = static_cast<size_t>(std::find(times.begin(), times.end(), 10) - times.begin());
    JitMethod::Ptr update(new JitMethod());
    update->setRawMethodId(static_cast<u32>(first + 1));
    update->addCodeRegion(makeRegion({0x10000 + 8 * u64(first % 2) + 4, 4, 0}, 10, kPid, kHost, 0xEE));
    const Status refused = manager.processMethodUpdateRecord(kPid, kHost, update);
    ASSERT_FALSE(refused.ok());
    EXPECT_NE(std::string::npos, refused.reason().message.find("looking for the range to update at load time 10"))
        << refused.reason().message;
    manager.finalize();
    EXPECT_EQ(1000u, ownerAt(manager, 0x10010, 100000));
}

// An unload checks every live region that went in below a later load: with
// n loads written backwards, all of them; and every latest region over its
// range. Those checks count against the limit as well; past it an unload is
// refused and changes nothing.
TEST(JitDataManagerStorage, UnloadsPastTheStepLimitAreRefused) {
    const StepLimit limit(2000);
    JitDataManager manager;
    const u32 loads = 300;
    for (u32 i = 0; i < loads; ++i)
        ASSERT_TRUE(manager
                        .processMethodLoadRecord(
                            kPid, kHost, makeMethod(i + 1, 10 * u64(loads - i), {{0x10000, 64, 0x100000 + i * 0x100}}))
                        .ok());
    // Load 300 is the oldest (time 10), load 1 the latest (time 3000).
    Outcomes unloads;
    for (u32 k = 0; k < 20; ++k)
        unloads.add(manager.processCodeUnload(kPid, kHost, 0x20000 + 0x100 * k, 16, 5000 + k));
    // 299 shadowed regions a check, against 2000 steps less those of the loads.
    EXPECT_GT(unloads.accepted, 0u);
    EXPECT_LT(unloads.accepted, 20u);
    const std::string& reason = unloads.firstReason;
    EXPECT_NE(std::string::npos, reason.find("Couldn't unload the code at ip range")) << reason;
    EXPECT_NE(std::string::npos, reason.find("more than the limit of 2000")) << reason;
    // A refused unload over the loads ends nothing: load 1 still lives after it.
    EXPECT_FALSE(manager.processCodeUnload(kPid, kHost, 0x10000, 64, 4000).ok());
    manager.finalize();
    EXPECT_EQ(1u, ownerAt(manager, 0x10010, 4500));

    // Unloads over a wide range look at every latest region in it, ended or
    // not: each counts as well, or n of them over n regions cost n^2.
    JitDataManager wide;
    for (u32 i = 0; i < loads; ++i)
        ASSERT_TRUE(wide.processMethodLoadRecord(
                            kPid, kHost,
                            makeMethod(i + 1, 10 * u64(i + 1), {{0x10000 + 0x100 * u64(i), 64, 0x100000 + i * 0x100}}))
                        .ok());
    Outcomes wideUnloads;
    for (u32 k = 0; k < 20; ++k)
        wideUnloads.add(wide.processCodeUnload(kPid, kHost, 0x10000, 0x100 * loads, 5000 + k));
    EXPECT_EQ(2000 / (loads - AddressHistory::kUncountedTops), wideUnloads.accepted);
    EXPECT_NE(std::string::npos, wideUnloads.firstReason.find("more than the limit of 2000"))
        << wideUnloads.firstReason;
    wide.finalize();
    EXPECT_EQ(0u, ownerAt(wide, 0x10010, 5010)); // the first unload ended them all
}

// Regions near both ends of the address space: their bounds do not fit one
// word beside their indices, so the frozen index sorts them another way.
// Each cluster is a staggered run; a load ends the one loaded before it there.
TEST(JitDataManagerStorage, BoundsFarApartIndexLikeNear) {
    const u64 bases[] = {0x10000, 0xFFFFFFFFFFF00000};
    const u32 loads = 40;
    JitDataManager manager;
    for (u32 i = 0; i < loads; ++i) {
        const u64 start = bases[i % 2] + 16 * (i / 2);
        ASSERT_TRUE(manager
                        .processMethodLoadRecord(kPid, kHost,
                                                 makeMethod(i + 1, 10 * (i + 1), {{start, 64, 0x100000 + i * 0x100}}))
                        .ok());
    }
    manager.finalize();
    for (u32 i = 0; i < loads; ++i) {
        const u64 start = bases[i % 2] + 16 * (i / 2);
        EXPECT_EQ(i + 1, ownerAt(manager, start + 8, 10 * (i + 1))) << i;
        EXPECT_EQ(i + 1, ownerAt(manager, start + 63, 10 * (i + 1) + 5)) << i;
        if (i + 2 < loads) {
            EXPECT_EQ(0u, ownerAt(manager, start + 8, 10 * (i + 3))) << i;
        }
    }
}

// Processes read one by one, each finalised: each finalisation indexes
// what its pass read, and earlier processes keep answering.
TEST(JitDataManagerStorage, FinalizationIsIncremental) {
    const u32 processes = 50;
    const u32 perProcess = 20;
    JitDataManager manager;
    u64 jitRva = 0x100000;
    for (u32 p = 0; p < processes; ++p) {
        for (u32 m = 0; m < perProcess; ++m) {
            const u32 id = p * perProcess + m + 1;
            ASSERT_TRUE(
                manager
                    .processMethodLoadRecord(
                        kPid + p, kHost, makeMethod(id, 100 + m, {{0x1000 + 0x100 * m, 0x80, jitRva}}, "", kPid + p))
                    .ok());
            jitRva += 0x80;
        }
        manager.finalize();
        EXPECT_EQ(size_t(perProcess) * (p + 1), manager.indexStats().indexedRegions);
    }
    for (u32 p = 0; p < processes; ++p)
        EXPECT_EQ(p * perProcess + 3, ownerAt(manager, 0x1210, 500, kPid + p));
}

} // namespace
