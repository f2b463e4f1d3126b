// What the data manager keeps for the shapes that once made reading explode:
// structure counts, not times, so that copying histories again (O(n^2) nodes)
// or re-indexing every process per finalisation fails here.

#include "jit_data_manager_test_helpers.h"

#include <gtest/gtest.h>

#include <cmath>

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
