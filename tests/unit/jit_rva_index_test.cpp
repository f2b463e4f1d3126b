// The jit rva domain against a plain list: entries added in and out of
// order (several runs, merged), searched before and after the directories
// that freeze() builds, and after an add that drops them.

#include "index/jit_rva_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

using namespace quarvel;

namespace jit_rva_index_test {

// Disjoint ranges with gaps, so that lookups land in holes too; every
// farGapEvery-th gap (if any) is billions of jit rvas wide.
std::vector<RegionInfo> ranges(size_t count, std::mt19937& rng, size_t farGapEvery) {
    std::vector<RegionInfo> out;
    u64 at = 0x1000;
    for (size_t i = 0; i < count; ++i) {
        at += rng() % 3 == 0 ? 1 + rng() % 40 : 0;
        if (farGapEvery && i % farGapEvery == farGapEvery - 1)
            at += u64(1) << (32 + rng() % 24);
        RegionInfo info;
        info.startJitRva = at;
        info.length = 1 + rng() % 24;
        info.methodToken = static_cast<u32>(i + 1);
        out.push_back(info);
        at += info.length;
    }
    return out;
}

u32 expectedToken(const std::vector<RegionInfo>& added, u64 jitRva) {
    for (const RegionInfo& info : added)
        if (info.contains(jitRva))
            return info.methodToken;
    return 0;
}

// Every edge of every entry, and the ends of the domain.
::testing::AssertionResult matches(const JitRvaIndex& index, const std::vector<RegionInfo>& added) {
    std::vector<u64> probes = {0, 0xFFF, ~u64(0)};
    for (const RegionInfo& info : added)
        for (u64 rva : {info.startJitRva - 1, info.startJitRva, info.startJitRva + info.length / 2,
                        info.endJitRva() - 1, info.endJitRva()})
            probes.push_back(rva);
    for (u64 rva : probes) {
        const RegionInfo* found = index.find(rva);
        const u32 actual = found ? found->methodToken : 0;
        const u32 expected = expectedToken(added, rva);
        if (actual != expected)
            return ::testing::AssertionFailure() << "jit rva " << rva << ": expected entry " << expected << ", got "
                                                 << actual;
    }
    return ::testing::AssertionSuccess();
}

TEST(JitRvaIndex, FindsWhatAPlainListHoldsInEveryRunBeforeAndAfterFreezing) {
    struct Case {
        const char* name;
        size_t count;
        size_t shuffledBlock; // entries are added in order within blocks of this size, the blocks shuffled
        size_t farGapEvery;
    };
    const Case cases[] = {
        {"in order, one run", 700, 700, 0},
        {"blocks out of order, merged runs", 900, 37, 0},
        {"every entry out of order", 300, 1, 0},
        {"clusters far apart, in order", 2000, 2000, 500},
        {"sparse, every gap far, merged runs", 1500, 100, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::mt19937 rng(7);
        const std::vector<RegionInfo> all = ranges(c.count, rng, c.farGapEvery);
        std::vector<size_t> blocks;
        for (size_t b = 0; b * c.shuffledBlock < all.size(); ++b)
            blocks.push_back(b);
        std::shuffle(blocks.begin() + 1, blocks.end(), rng);

        JitRvaIndex index;
        std::vector<RegionInfo> added;
        for (size_t b : blocks)
            for (size_t i = b * c.shuffledBlock; i < std::min(all.size(), (b + 1) * c.shuffledBlock); ++i) {
                index.add(all[i]);
                added.push_back(all[i]);
            }
        ASSERT_TRUE(matches(index, added));
        index.freeze();
        ASSERT_TRUE(matches(index, added));

        // More entries past the end, frozen one batch at a time: each freeze
        // extends or rebuilds only the runs that changed, and must leave none
        // stale. The fourth batch starts far off, past what the last
        // directory's buckets can stretch to.
        u64 top = 0;
        for (const RegionInfo& info : added)
            top = std::max(top, info.endJitRva());
        for (size_t batch = 0; batch < 5; ++batch) {
            if (batch == 3)
                top += u64(1) << 40;
            for (size_t k = 0; k < 1 + batch * 40; ++k) {
                RegionInfo more;
                more.startJitRva = top + 4;
                top = more.startJitRva + 4;
                more.length = 4;
                more.methodToken = static_cast<u32>(900000 + added.size());
                index.add(more);
                added.push_back(more);
            }
            ASSERT_TRUE(matches(index, added));
            index.freeze();
            ASSERT_TRUE(matches(index, added));
        }
    }
}

} // namespace jit_rva_index_test
