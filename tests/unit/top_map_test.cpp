// The top map against a byte-by-byte owner table, under the ways loads
// arrive: code heaps filling upwards with freed blocks reused, loads placed
// downwards, and random overlaps; with directory pages of the usual size and
// of three chunks, which split and empty all the time. Also how many chunks
// each way leaves, and how many directory entries a read moves.

#include "index/top_map.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace quarvel;

namespace top_map_test {

const u32 kFree = 0xFFFFFFFFu;
const u64 kSpace = u64(1) << 18;

struct Assign {
    u64 start;
    u64 end;
};

enum class Pattern { heapsUpwards, heapsWithReuse, downwards, random };

std::vector<Assign> makeAssigns(Pattern pattern, size_t count, std::mt19937& rng) {
    std::vector<Assign> out;
    u64 bump[3] = {0, kSpace / 3, 2 * kSpace / 3};
    u64 low = kSpace;
    for (size_t i = 0; i < count; ++i) {
        const u64 length = 1 + rng() % 16;
        u64 start = 0;
        switch (pattern) {
        case Pattern::heapsUpwards:
        case Pattern::heapsWithReuse: {
            const size_t heap = i % 5 < 3 ? 0 : i % 5 == 3 ? 1 : 2;
            if (pattern == Pattern::heapsWithReuse && !out.empty() && rng() % 8 == 0) {
                start = out[rng() % out.size()].start; // a freed block reused
            } else {
                start = bump[heap];
                bump[heap] += length + rng() % 3;
            }
            break;
        }
        case Pattern::downwards:
            low -= length + rng() % 2;
            start = low;
            break;
        case Pattern::random:
            start = rng() % (kSpace - 64);
            break;
        }
        out.push_back(Assign{start, start + length});
    }
    return out;
}

// The map's intervals must be the maximal runs of one owner in the table.
::testing::AssertionResult sameIntervals(const TopMap& map, const std::vector<u32>& owner) {
    std::vector<TopMap::Interval> expected;
    for (u64 a = 0; a < owner.size(); ++a) {
        if (owner[a] == kFree)
            continue;
        if (!expected.empty() && expected.back().end == a && expected.back().slot == owner[a])
            ++expected.back().end;
        else
            expected.push_back(TopMap::Interval{a, a + 1, owner[a]});
    }
    std::vector<TopMap::Interval> actual;
    map.forEachOverlapping(0, kSpace, [&](const TopMap::Interval& i) { actual.push_back(i); });
    if (actual.size() != expected.size() || map.size() != expected.size())
        return ::testing::AssertionFailure() << "expected " << expected.size() << " intervals, visited "
                                             << actual.size() << ", size() " << map.size();
    for (size_t i = 0; i < actual.size(); ++i)
        if (actual[i].start != expected[i].start || actual[i].end != expected[i].end ||
            actual[i].slot != expected[i].slot)
            return ::testing::AssertionFailure()
                   << "interval " << i << ": expected [" << expected[i].start << ", " << expected[i].end << ") slot "
                   << expected[i].slot << ", got [" << actual[i].start << ", " << actual[i].end << ") slot "
                   << actual[i].slot;
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult sameLookups(const TopMap& map, const std::vector<u32>& owner, std::mt19937& rng) {
    for (int n = 0; n < 200; ++n) {
        const u64 a = rng() % kSpace;
        TopMap::Interval found{};
        if (map.find(a, found) != (owner[a] != kFree) || (owner[a] != kFree && found.slot != owner[a]))
            return ::testing::AssertionFailure() << "find(" << a << ")";
        u64 next = a;
        while (next < kSpace && owner[next] == kFree)
            ++next;
        TopMap::Interval after{};
        const bool any = map.firstEndingAfter(a, after);
        if (any != (next < kSpace) || (any && (after.slot != owner[next] || after.end <= a)))
            return ::testing::AssertionFailure() << "firstEndingAfter(" << a << ")";
    }
    return ::testing::AssertionSuccess();
}

TEST(TopMap, MatchesAnOwnerTableAndKeepsChunksFilled) {
    struct Case {
        const char* name;
        Pattern pattern;
        // Chunks at the end are at least this full on average: appends fill
        // them; a chunk split in the middle leaves two halves.
        double fill;
    };
    const Case cases[] = {
        {"heaps filling upwards", Pattern::heapsUpwards, 0.95},
        {"heaps with freed blocks reused", Pattern::heapsWithReuse, 0.5},
        {"placed downwards", Pattern::downwards, 0.95},
        {"random overlaps", Pattern::random, 0.5},
    };
    for (const size_t pageChunks : {TopMap::kPageChunks, size_t(3)}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + ", pages of " + std::to_string(pageChunks) + " chunks");
            std::mt19937 rng(7);
            const std::vector<Assign> assigns = makeAssigns(c.pattern, 8000, rng);
            TopMap map(pageChunks);
            std::vector<u32> owner(kSpace, kFree);
            for (size_t i = 0; i < assigns.size(); ++i) {
                const Assign& a = assigns[i];
                map.assign(a.start, a.end, static_cast<u32>(i));
                std::fill(owner.begin() + static_cast<std::ptrdiff_t>(a.start),
                          owner.begin() + static_cast<std::ptrdiff_t>(a.end), static_cast<u32>(i));
                if (i % 400 == 0 || i + 1 == assigns.size()) {
                    ASSERT_TRUE(sameIntervals(map, owner)) << "after assign " << i;
                    ASSERT_TRUE(sameLookups(map, owner, rng)) << "after assign " << i;
                }
            }
            EXPECT_GE(double(map.size()), c.fill * double(TopMap::kChunk) * double(map.chunkCount() - 3))
                << map.chunkCount() << " chunks for " << map.size() << " intervals";
            if (pageChunks == 3) {
                EXPECT_GE(map.pageCount(), map.chunkCount() / 3);
            }
        }
    }
}

// Three code heaps filling upwards, the lowest growing fastest: each new
// chunk of a lower heap lands in front of every chunk of the heaps above.
// Twice the loads must move about twice the directory entries; with one flat
// directory they moved four times as many.
TEST(TopMap, DirectoryMovesGrowLinearly) {
    auto movesFor = [](size_t loads) {
        TopMap map;
        u64 bump[3] = {0, u64(1) << 40, u64(2) << 40};
        for (size_t i = 0; i < loads; ++i) {
            u64& at = bump[i % 5 < 3 ? 0 : i % 5 == 3 ? 1 : 2];
            map.assign(at, at + 16, static_cast<u32>(i));
            at += 32;
        }
        return map.directoryMoves();
    };
    const u64 small = movesFor(200000);
    const u64 large = movesFor(400000);
    EXPECT_LE(double(large), 2.5 * double(small)) << small << " moves for 200k loads, " << large << " for 400k";
    EXPECT_LE(large, u64(400000 / 50) * TopMap::kPageChunks) << "more than a page a chunk";
}

} // namespace top_map_test
