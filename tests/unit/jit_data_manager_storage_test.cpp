// What the data manager keeps for the shapes that once made reading explode:
// structure counts, not times, so that copying histories again (O(n^2) nodes)
// or re-indexing every process per finalisation fails here.

#include "jit_data_manager_test_helpers.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace dmtest;

namespace {

// The sizes while reading (history links, latest regions) and once finalised (query index).
JitDataManager::IndexStats readShape(JitDataManager& manager, size_t n, u64 (*startOf)(size_t), u32 length) {
    for (size_t i = 0; i < n; ++i) {
        const u32 id = static_cast<u32>(i + 1);
        EXPECT_TRUE(
            manager.processMethodLoadRecord(kPid, kHost, makeMethod(id, 10 * (i + 1), {{startOf(i), length, 0x100000 + i * 0x10000}}))
                .ok());
    }
    JitDataManager::IndexStats stats = manager.indexStats();
    manager.finalize();
    const JitDataManager::IndexStats frozen = manager.indexStats();
    stats.pieces = frozen.pieces;
    stats.pieceEntries = frozen.pieceEntries;
    return stats;
}

// Load i covers [16i, 16i + 16n) at time i: each overlaps the n - 1 before it.
TEST(JitDataManagerStorage, StaggeredOverlapStaysLinear) {
    for (size_t n : {200, 800}) {
        SCOPED_TRACE(n);
        JitDataManager manager;
        const JitDataManager::IndexStats stats =
            readShape(manager, n, [](size_t i) { return 0x10000 + 16 * u64(i); }, static_cast<u32>(16 * n));
        EXPECT_EQ(n, stats.regions);
        EXPECT_LE(stats.topIntervals, 2 * n);
        EXPECT_LE(stats.belowLinks, 2 * n);
        EXPECT_LE(stats.pieces, 2 * n);
        // A region spanning many pieces sits in O(log n) tree nodes.
        EXPECT_LE(stats.pieceEntries, 2 * n * static_cast<size_t>(std::log2(2.0 * n) + 1) + 4 * n);
        // Load 5 lives until load 6 covers part of it; at its first 16 bytes,
        // which load 6 does not cover, nothing lives after that.
        EXPECT_EQ(5u, ownerAt(manager, 0x10000 + 16 * 4 + 8, 55));
        EXPECT_EQ(0u, ownerAt(manager, 0x10000 + 16 * 4 + 8, 65));
        EXPECT_EQ(6u, ownerAt(manager, 0x10000 + 16 * 5 + 8, 65));
        EXPECT_EQ(n, ownerAt(manager, 0x10000 + 16 * n, 10 * n + 5));
    }
}

// One hot area reloaded n times with bounds that alternate by 8 bytes.
TEST(JitDataManagerStorage, AlternatingHotAreaStaysLinear) {
    const size_t n = 2000;
    JitDataManager manager;
    const JitDataManager::IndexStats stats =
        readShape(manager, n, [](size_t i) { return 0x10000 + 8 * u64(i % 2); }, 256);
    EXPECT_LE(stats.topIntervals, 3u);
    EXPECT_LE(stats.belowLinks, 2 * n);
    EXPECT_LE(stats.pieces, 3u);
    EXPECT_LE(stats.pieceEntries, 2 * n);
    EXPECT_EQ(1001u, ownerAt(manager, 0x10004, 10010));
    EXPECT_EQ(0u, ownerAt(manager, 0x10004, 10020)); // load 1002 starts 8 bytes on: 1001 has ended
    EXPECT_EQ(1002u, ownerAt(manager, 0x10010, 10020));
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
            ASSERT_TRUE(manager
                            .processMethodLoadRecord(kPid + p, kHost,
                                                     makeMethod(id, 100 + m, {{0x1000 + 0x100 * m, 0x80, jitRva}}, "",
                                                                kPid + p))
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
