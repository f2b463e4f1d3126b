// The small encodings of the runtime's event trace: variable-length
// integers at and past their widths, UTF-16 text with surrogates.

#include "format/nettrace_primitives.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarvel;

namespace nettrace_primitives_test {

typedef std::vector<uint8_t> Bytes;

TEST(NettracePrimitives, VariableLengthIntegersAtAndPastTheirWidth) {
    const struct {
        Bytes bytes;
        bool ok32;
        uint32_t value32;
        bool ok64;
        uint64_t value64;
        size_t consumed; // when accepted
    } cases[] = {
        {{0x00}, true, 0, true, 0, 1},
        {{0x7F}, true, 127, true, 127, 1},
        {{0x80, 0x01}, true, 128, true, 128, 2},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0x0F}, true, 0xFFFFFFFF, true, 0xFFFFFFFF, 5},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0x1F}, false, 0, true, 0x1FFFFFFFFull, 5},
        {{0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, false, 0, true, 1ull << 35, 6},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}, false, 0, true, UINT64_MAX, 10},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02}, false, 0, false, 0, 0},
        {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}, false, 0, false, 0, 0},
        {{0x80}, false, 0, false, 0, 0}, // ends while more bytes are announced
        {{}, false, 0, false, 0, 0},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        ByteCursor a(c.bytes);
        uint32_t v32 = 0;
        EXPECT_EQ(nettrace::readVarUInt32(a, v32, "value"), c.ok32) << a.error();
        if (c.ok32) {
            EXPECT_EQ(v32, c.value32);
            EXPECT_EQ(a.offset(), c.consumed);
        } else {
            EXPECT_FALSE(a.ok());
        }
        ByteCursor b(c.bytes);
        uint64_t v64 = 0;
        EXPECT_EQ(nettrace::readVarUInt64(b, v64, "value"), c.ok64) << b.error();
        if (c.ok64) {
            EXPECT_EQ(v64, c.value64);
            EXPECT_EQ(b.offset(), c.consumed);
        }
    }
}

Bytes units(const std::vector<uint16_t>& u) {
    Bytes b;
    for (uint16_t v : u) {
        b.push_back(static_cast<uint8_t>(v));
        b.push_back(static_cast<uint8_t>(v >> 8));
    }
    return b;
}

TEST(NettracePrimitives, Utf16TextBecomesUtf8) {
    const struct {
        std::vector<uint16_t> units;
        std::string utf8;
    } cases[] = {
        {{'a', 'b', 0}, "ab"},
        {{0}, ""},
        {{0xE9, 0}, "\xC3\xA9"},
        {{0x20AC, 0}, "\xE2\x82\xAC"},
        {{0xD83D, 0xDE00, 0}, "\xF0\x9F\x98\x80"}, // a surrogate pair
        {{0xD83D, 'x', 0},
         "\xEF\xBF\xBD"
         "x"},                               // a high surrogate alone
        {{0xDE00, 0}, "\xEF\xBF\xBD"},       // a low surrogate alone
        {{'a', 0xD83D, 0}, "a\xEF\xBF\xBD"}, // a high surrogate at the end
    };
    for (const auto& c : cases) {
        const Bytes b = units(c.units);
        ByteCursor cursor(b);
        std::string out;
        ASSERT_TRUE(nettrace::readUtf16String(cursor, out, "text")) << cursor.error();
        EXPECT_EQ(out, c.utf8);
        EXPECT_TRUE(cursor.atEnd());
    }
    // No terminating unit within the data (an odd trailing byte does not count).
    for (const Bytes& b : {units({'a', 'b'}), Bytes{'a', 0, 0}, Bytes{}}) {
        ByteCursor cursor(b);
        std::string out;
        EXPECT_FALSE(nettrace::readUtf16String(cursor, out, "name"));
        EXPECT_NE(cursor.error().find("unterminated name"), std::string::npos) << cursor.error();
    }
}

TEST(NettracePrimitives, LengthPrefixedUtf8NeverReadsPastItsData) {
    const Bytes ok = {3, 'a', 'b', 'c', 'z'};
    ByteCursor c(ok);
    std::string s;
    ASSERT_TRUE(nettrace::readUtf8String(c, s, "name"));
    EXPECT_EQ(s, "abc");
    EXPECT_EQ(c.remaining(), 1u);
    const Bytes shortText = {0x85, 0x01, 'a'}; // claims 133 bytes
    ByteCursor d(shortText);
    EXPECT_FALSE(nettrace::readUtf8String(d, s, "name"));
    EXPECT_NE(d.error().find("133 bytes needed"), std::string::npos) << d.error();
}

} // namespace
