#include "index/jit_id_converter.h"

#include <gtest/gtest.h>

#include <limits>

using namespace quarvel;

namespace jit_id_converter_test {

const u64 kNoLimit = std::numeric_limits<u64>::max();

// n regions: jit rvas 0x1000, 0x2000, ...; 0x10 bytes each; addresses 0x50000, 0x60000, ...
JitIdConverter makeConverter(size_t n) {
    std::vector<u64> starts, lengths, addresses;
    for (size_t i = 0; i < n; ++i) {
        starts.push_back(0x1000 * (i + 1));
        lengths.push_back(0x10);
        addresses.push_back(0x50000 + 0x10000 * i);
    }
    JitIdConverter converter;
    converter.initialize(starts, lengths, addresses);
    return converter;
}

TEST(JitIdConverter, EmptyAnswersNotFound) {
    const JitIdConverter converter;
    u64 jitRva = 7;
    u32 index = 7;
    EXPECT_EQ(meNotFound, converter.convert(0, 0x50000, 0x1000, kNoLimit, jitRva));
    EXPECT_EQ(meNotFound, converter.findJitRva(0x1000, index));
    EXPECT_EQ(7u, jitRva);
}

TEST(JitIdConverter, OneElementAnswersThroughIndexZero) {
    const JitIdConverter converter = makeConverter(1);
    struct Case {
        u32 offset;
        u64 address, base, limit;
        quarvel_error_t expected;
        u64 jitRva;
    };
    const Case cases[] = {
        {0, 0x50000, 0x1000, kNoLimit, meSuccess, 0x1000},
        {0, 0x5000F, 0, kNoLimit, meSuccess, 0x100F}, // any base: no search with one element
        {0, 0x50004, kNoLimit, kNoLimit, meSuccess, 0x1004},
        {0, 0x50010, 0x1000, kNoLimit, meNotFound, 0}, // one past the end
        {0, 0x4FFFF, 0x1000, kNoLimit, meNotFound, 0},
        {1, 0x50000, 0x1000, kNoLimit, meNotFound, 0}, // the offset carries the index past the end
        {0, 0x50000, 0x1000, 0x1000, meNotFound, 0},   // start at the limit
        {0, 0x50000, 0x1000, 0x1001, meSuccess, 0x1000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.address);
        u64 jitRva = 0;
        EXPECT_EQ(c.expected, converter.convert(c.offset, c.address, c.base, c.limit, jitRva));
        if (c.expected == meSuccess) {
            EXPECT_EQ(c.jitRva, jitRva);
        }
    }
    u32 index = 9;
    EXPECT_EQ(meSuccess, converter.findJitRva(0, index));
    EXPECT_EQ(0u, index);
}

TEST(JitIdConverter, SearchFindsStoredKeysAndStaysInsideTheVector) {
    for (size_t n = 2; n <= 40; ++n) {
        SCOPED_TRACE(n);
        const JitIdConverter converter = makeConverter(n);
        u32 index = 0;
        for (size_t i = 0; i < n; ++i) {
            ASSERT_EQ(meSuccess, converter.findJitRva(0x1000 * (i + 1), index));
            EXPECT_EQ(i, index);
            // A key between two stored ones ends next to it.
            ASSERT_EQ(meSuccess, converter.findJitRva(0x1000 * (i + 1) + 0x800, index));
            EXPECT_LT(index, n);
            EXPECT_LE(index, i + 1);
            EXPECT_GE(index + 1, i);
        }
        // Below the first element the index would step below 0: it stays at 0.
        for (u64 key : {u64(0), u64(1), u64(0xFFF)}) {
            ASSERT_EQ(meSuccess, converter.findJitRva(key, index));
            EXPECT_EQ(0u, index);
        }
        ASSERT_EQ(meSuccess, converter.findJitRva(kNoLimit, index));
        EXPECT_EQ(n - 1, index);
    }
}

TEST(JitIdConverter, IndexOffsetShiftsTheSearchedPosition) {
    const JitIdConverter converter = makeConverter(4);
    u64 jitRva = 0;
    // Base 0x2000 is index 1; offset 2 lands on index 3 (address 0x80000).
    ASSERT_EQ(meSuccess, converter.convert(2, 0x80003, 0x2000, kNoLimit, jitRva));
    EXPECT_EQ(0x4003u, jitRva);
    EXPECT_EQ(meNotFound, converter.convert(2, 0x60003, 0x2000, kNoLimit, jitRva));
    EXPECT_EQ(meNotFound, converter.convert(3, 0x80003, 0x2000, kNoLimit, jitRva));
    EXPECT_EQ(meNotFound, converter.convert(std::numeric_limits<u32>::max(), 0x80003, 0x4000, kNoLimit, jitRva));
}

} // namespace
