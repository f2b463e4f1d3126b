#include "support/byte_cursor.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

using quarvel::ByteCursor;

namespace {

// Runs of u32 values are read as one copy: each value must still come out
// in the host's order, and a short or absurd count must fail like any read.
TEST(ByteCursor, U32RunsKeepTheDataOrderAndFailLikeSingleReads) {
    const std::vector<uint8_t> bytes = {1, 0, 0, 0, 0, 0, 0, 2, 0xAA};
    const struct {
        ByteCursor::Order order;
        size_t count;
        bool ok;
        std::vector<uint32_t> values;
    } cases[] = {
        {ByteCursor::Order::little, 2, true, {1, 0x02000000}},
        {ByteCursor::Order::big, 2, true, {0x01000000, 2}},
        {ByteCursor::Order::little, 0, true, {}},
        {ByteCursor::Order::little, 3, false, {}},            // 12 bytes needed, 9 there
        {ByteCursor::Order::little, SIZE_MAX / 2, false, {}}, // count * 4 would wrap
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.count);
        ByteCursor cursor(bytes.data(), bytes.size(), c.order, 100);
        std::vector<uint32_t> out(c.ok ? c.count : 0);
        EXPECT_EQ(c.ok, cursor.u32s(out.data(), c.count, "rows"));
        if (c.ok) {
            EXPECT_EQ(c.values, out);
            EXPECT_EQ(c.count * 4, cursor.offset());
        } else {
            EXPECT_EQ(0u, cursor.offset());
            EXPECT_NE(std::string::npos, cursor.error().find("at offset 100 while reading rows")) << cursor.error();
        }
    }
}

} // namespace
