// The pool behind the model objects: blocks that never overlap, keep the
// alignment asked for, come back after being freed, and stay whole
// when several threads allocate and free at once (objects are released by
// whichever thread drops the last reference). The variable-size blocks and
// large arrays built on it: each block goes back to the pool of its own size.

#include "support/block_heap.h"
#include "support/bulk_memory.h"
#include "support/growing_array.h"
#include "support/object_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

using namespace quarvel;

namespace object_pool_test {

TEST(ObjectPool, BlocksAreDisjointAlignedAndReusedAcrossChunks) {
    const struct {
        size_t size;
        size_t alignment;
    } cases[] = {{1, 16}, {24, 16}, {100, 16}, {4000, 16}, {88, 8}, {4, 4}};
    for (const auto& c : cases) {
        const size_t size = c.size;
        SCOPED_TRACE(size);
        ObjectPool pool(size, c.alignment);
        ASSERT_GE(pool.blockSize(), size);
        // A class's own alignment packs its objects tight.
        EXPECT_LT(pool.blockSize(), std::max(size, sizeof(void*)) + c.alignment);
        // More than one chunk's worth.
        const size_t count = ObjectPool::kChunkBytes / pool.blockSize() + 50;
        std::vector<char*> blocks;
        for (size_t i = 0; i < count; ++i) {
            char* block = static_cast<char*>(pool.allocate());
            ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(block) % std::max(c.alignment, alignof(void*)));
            std::memset(block, static_cast<int>(i & 0xFF), size);
            blocks.push_back(block);
        }
        std::vector<char*> sorted = blocks;
        std::sort(sorted.begin(), sorted.end());
        for (size_t i = 1; i < sorted.size(); ++i)
            ASSERT_GE(sorted[i] - sorted[i - 1], static_cast<std::ptrdiff_t>(size)) << "blocks overlap";
        for (size_t i = 0; i < count; ++i)
            ASSERT_EQ(static_cast<char>(i & 0xFF), blocks[i][size - 1]) << "a block was overwritten";

        // Freed blocks are handed out again before the pool grows.
        const std::set<char*> freed(blocks.begin(), blocks.begin() + 10);
        for (char* block : freed)
            pool.deallocate(block);
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(1u, freed.count(static_cast<char*>(pool.allocate())));
    }
}

TEST(ObjectPool, ThreadsAllocatingAndFreeingNeverShareABlock) {
    ObjectPool pool(48);
    const int kThreads = 4;
    const int kRounds = 20000;
    std::vector<std::thread> threads;
    std::vector<int> corrupted(kThreads, 0);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&pool, &corrupted, t] {
            std::vector<uint64_t*> held;
            for (int i = 0; i < kRounds; ++i) {
                uint64_t* block = static_cast<uint64_t*>(pool.allocate());
                block[0] = block[5] = (uint64_t(t) << 32) | uint64_t(i);
                held.push_back(block);
                if (i % 3 == 2) {
                    // Free two, checking that nobody else wrote into them meanwhile.
                    for (int k = 0; k < 2; ++k) {
                        uint64_t* back = held.back();
                        held.pop_back();
                        corrupted[t] += back[0] != back[5] || (back[0] >> 32) != uint64_t(t);
                        pool.deallocate(back);
                    }
                }
            }
            for (uint64_t* block : held) {
                corrupted[t] += (block[0] >> 32) != uint64_t(t);
                pool.deallocate(block);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(0, corrupted[t]) << "thread " << t;
}

// Sizes on both sides of every boundary between the pooled classes and the
// general heap: the blocks must hold their bytes without overlapping, and a
// freed block must return to its own class (it is the next one handed out
// for that size, and no other size gets it).
TEST(BlockHeap, EverySizeKeepsItsBytesAndGoesBackToItsClass) {
    const size_t largest = block_heap::kLargestPooled;
    std::vector<size_t> sizes = {0, 1, 1000, largest - 1, largest, largest + 1, 5 * largest};
    for (size_t n = 7; n <= largest + 2; n += 8)
        for (size_t d : {0, 1, 2})
            sizes.push_back(n + d);
    std::vector<char*> blocks;
    for (size_t i = 0; i < sizes.size(); ++i) {
        char* block = static_cast<char*>(block_heap::allocate(sizes[i]));
        ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(block) % block_heap::kAlignment);
        std::memset(block, static_cast<int>(i & 0xFF), sizes[i]);
        blocks.push_back(block);
    }
    for (size_t i = 0; i < sizes.size(); ++i)
        for (size_t b = 0; b < sizes[i]; ++b)
            ASSERT_EQ(static_cast<char>(i & 0xFF), blocks[i][b]) << "size " << sizes[i] << " overwritten";
#if QUARVEL_POOLED_OBJECTS
    for (size_t i = 0; i < sizes.size(); ++i) {
        if (sizes[i] > largest)
            continue;
        char* const freed = blocks[i];
        block_heap::free(freed, sizes[i]);
        blocks[i] = static_cast<char*>(block_heap::allocate(sizes[i]));
        EXPECT_EQ(freed, blocks[i]) << "size " << sizes[i];
    }
#endif
    for (size_t i = 0; i < sizes.size(); ++i)
        block_heap::free(blocks[i], sizes[i]);
    block_heap::free(nullptr, 0);
}

// Growing through the shared blocks, the general heap and a mapping of its
// own, and shrinking back, keeps every element; two arrays growing side by
// side through the same block sizes never share a block.
TEST(BulkVector, GrowsAcrossItsOwnMappingsWithoutLosingElements) {
    BulkVector<uint64_t> v;
    BulkVector<uint64_t> beside;
    const size_t n = 3 * (bulk_memory::kHugePage / sizeof(uint64_t)) + 7;
    for (size_t i = 0; i < n; ++i) {
        v.push_back(i * 2654435761u);
        if (i < 64 * 1024)
            beside.push_back(~i);
    }
    for (size_t i = 0; i < beside.size(); ++i)
        ASSERT_EQ(~i, beside[i]);
#if QUARVEL_POOLED_OBJECTS
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(v.data()) % bulk_memory::kHugePage);
#endif
    for (size_t i = 0; i < n; ++i)
        ASSERT_EQ(i * 2654435761u, v[i]);
    v.resize(100);
    v.shrink_to_fit();
    BulkVector<uint64_t> copy = v;
    for (size_t i = 0; i < 100; ++i)
        ASSERT_EQ(i * 2654435761u, copy[i]);
}

// The same path for the array that grows in place: past the shared blocks
// into a mapping of its own, then moved to larger mappings page by page.
// Appending one of its own elements while it moves must copy the value first.
// Moving the array hands over its mapping; swapping with an empty one frees it.
TEST(GrowingArray, KeepsEveryElementAsItsMappingMoves) {
    GrowingArray<uint64_t> v;
    std::vector<uint64_t> expected;
    const size_t n = 5 * (bulk_memory::kHugePage / sizeof(uint64_t)) + 3;
    for (size_t i = 0; i < n; ++i) {
        const bool full = v.size() == v.capacity() && !v.empty();
        expected.push_back(full ? v[0] : (i + 1) * 2654435761u);
        if (full)
            v.push_back(v[0]); // a reference into the storage that moves
        else
            v.push_back((i + 1) * 2654435761u);
#if QUARVEL_POOLED_OBJECTS
        if (v.capacity() * sizeof(uint64_t) >= bulk_memory::kHugePage) {
            ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(v.data()) % bulk_memory::kHugePage);
        }
#endif
    }
    ASSERT_EQ(n, v.size());
    for (size_t i = 0; i < n; ++i)
        ASSERT_EQ(expected[i], v[i]) << i;

    GrowingArray<uint64_t> moved(std::move(v));
    ASSERT_EQ(n, moved.size());
    EXPECT_EQ(expected[n - 1], moved[n - 1]);
    GrowingArray<uint64_t>().swap(moved);
    EXPECT_EQ(0u, moved.capacity());
}

// Mappings given back during a read lend their huge pages to the next ones,
// which still hold what is written to them and never share a page; outside
// a read, and once the last one ends, pages go back to the system.
TEST(PageRecycling, PagesGivenBackDuringAReadMoveIntoTheNextArrays) {
#if !QUARVEL_POOLED_OBJECTS
    GTEST_SKIP() << "sanitizer builds take large arrays from the general heap";
#else
    const size_t perPage = bulk_memory::kHugePage / sizeof(uint64_t);
    auto filled = [](size_t count, uint64_t seed) {
        BulkVector<uint64_t> v(count);
        for (size_t i = 0; i < count; ++i)
            v[i] = seed + i;
        return v;
    };
    auto holds = [](const BulkVector<uint64_t>& v, uint64_t seed) {
        for (size_t i = 0; i < v.size(); ++i)
            if (v[i] != seed + i)
                return false;
        return true;
    };

    filled(2 * perPage, 1); // no read: given back at once
    EXPECT_EQ(0u, bulk_memory::PageRecycling::keptPages());
    {
        const bulk_memory::PageRecycling outer;
        {
            const bulk_memory::PageRecycling inner; // a second reader
            filled(2 * perPage, 2);
            EXPECT_EQ(2u, bulk_memory::PageRecycling::keptPages());
        }
        EXPECT_EQ(2u, bulk_memory::PageRecycling::keptPages()) << "another read still runs";

        const size_t reused = bulk_memory::PageRecycling::reusedPages();
        const BulkVector<uint64_t> first = filled(3 * perPage, 3);  // two kept pages, one fresh
        const BulkVector<uint64_t> second = filled(2 * perPage, 4); // fresh
        EXPECT_EQ(reused + 2, bulk_memory::PageRecycling::reusedPages());
        EXPECT_EQ(0u, bulk_memory::PageRecycling::keptPages());
        EXPECT_TRUE(holds(first, 3));
        EXPECT_TRUE(holds(second, 4));

        // A growing array's new tail takes kept pages too.
        filled(perPage, 5);
        GrowingArray<uint64_t> grown;
        for (size_t i = 0; i < 3 * perPage; ++i)
            grown.push_back(i);
        EXPECT_EQ(reused + 3, bulk_memory::PageRecycling::reusedPages());
        for (size_t i = 0; i < grown.size(); ++i)
            ASSERT_EQ(i, grown[i]);
        EXPECT_TRUE(holds(first, 3));

        filled(2 * perPage, 6);
        EXPECT_EQ(2u, bulk_memory::PageRecycling::keptPages());
    }
    EXPECT_EQ(0u, bulk_memory::PageRecycling::keptPages()) << "the last read gave them back";
#endif
}

} // namespace object_pool_test
