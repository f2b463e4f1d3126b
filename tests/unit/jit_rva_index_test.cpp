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

// Disjoint ranges with gaps, so that lookups land in holes too.
std::vector<RegionInfo> ranges(size_t count, std::mt19937& rng) {
    std::vector<RegionInfo> out;
    u64 at = 0x1000;
    for (size_t i = 0; i < count; ++i) {
        at += rng() % 3 == 0 ? 1 + rng() % 40 : 0;
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

::testing::AssertionResult matches(const JitRvaIndex& index, const std::vector<RegionInfo>& added, u64 last) {
    for (u64 rva = 0xFF0; rva <= last + 8; ++rva) {
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
    };
    const Case cases[] = {
        {"in order, one run", 700, 700},
        {"blocks out of order, merged runs", 900, 37},
        {"every entry out of order", 300, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::mt19937 rng(7);
        const std::vector<RegionInfo> all = ranges(c.count, rng);
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
        const u64 last = all.back().endJitRva();
        ASSERT_TRUE(matches(index, added, last));
        index.freeze();
        ASSERT_TRUE(matches(index, added, last));

        // One more entry past the end: the directories no longer cover every run.
        RegionInfo more;
        more.startJitRva = last + 4;
        more.length = 4;
        more.methodToken = 999999;
        index.add(more);
        added.push_back(more);
        ASSERT_TRUE(matches(index, added, more.endJitRva()));
        index.freeze();
        ASSERT_TRUE(matches(index, added, more.endJitRva()));
    }
}

} // namespace jit_rva_index_test
