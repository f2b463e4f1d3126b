// Inline children of a region, jit rva normalisation and byte updates.

#include "byte_buffers.h"
#include "log_capture.h"
#include "model/jit_method.h"
#include "model/region.h"

#include <gtest/gtest.h>

#include <vector>

using namespace quarvel;
using quarvel_test::LogCapture;

namespace region_test {

using quarvel_test::bufferOf;
using quarvel_test::bytesOf;

Region::Ptr region(u64 jitRva, u64 address, u32 length, IByteBuffer::Ptr content = nullptr) {
    return Region::Ptr(new Region(1, 42, jitRva, 100, 0, address, length, content));
}

JitMethod::Ptr named(const char* name, u32 rawId) {
    JitMethod::Ptr method(new JitMethod());
    method->info()->setMethodName(name);
    method->setRawMethodId(rawId);
    return method;
}

TEST(RegionInlineTest, FirstAttachedChildWinsAndEndsAreExclusive) {
    const Region::Ptr parent = region(1000, 0x4000, 64);
    EXPECT_EQ(-1, parent->getInlineIndex(1000)) << "no children yet";
    EXPECT_FALSE(parent->getInlinedSymbol(1000));
    parent->addChildRegion(region(1010, 0x400A, 10), named("first", 1));
    parent->addChildRegion(region(1012, 0x400C, 20), named("second", 2));
    EXPECT_EQ(0, parent->getInlineIndex(1012));
    EXPECT_STREQ("first", parent->getInlinedSymbol(1019)->getMethodName());
    EXPECT_EQ(1, parent->getInlineIndex(1020)) << "1020 = first's start + length is outside it";
    EXPECT_EQ(-1, parent->getInlineIndex(1032));
    EXPECT_EQ(2u, parent->getInlinedRegions().remaining());
}

// A region holds its bytes and its inline tree apart or together, whichever
// came first: copies and later additions keep both.
TEST(RegionExtrasTest, CopiesAndAdditionsKeepBytesAndTree) {
    struct Case {
        const char* name;
        bool bytes;
        bool tree;
    };
    const Case cases[] = {
        {"neither", false, false}, {"bytes", true, false}, {"tree", false, true}, {"both", true, true}};
    const std::vector<uint8_t> code = {1, 2, 3, 4, 5, 6, 7, 8};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Region::Ptr original = region(1000, 0x4000, 8, c.bytes ? bufferOf(code) : nullptr);
        if (c.tree)
            original->addChildRegion(region(1002, 0x4002, 2), named("inlined", 1));
        const Region::Ptr copy(new Region(*original));
        for (const Region::Ptr& r : {original, copy}) {
            EXPECT_EQ(c.bytes, r->hasContent());
            EXPECT_EQ(c.bytes ? code : std::vector<uint8_t>(), bytesOf(r->getBytes().get()));
            EXPECT_EQ(c.tree ? 1u : 0u, r->inlinedRegions().size());
        }

        // Bytes arriving after the tree, and a patch of the copy alone.
        copy->setContent(bufferOf(code));
        ASSERT_EQ(meSuccess, copy->addBytesUpdate(0x4000, 2, bufferOf({9, 9}), quarvel_segment_code, ""));
        EXPECT_EQ((std::vector<uint8_t>{9, 9, 3, 4, 5, 6, 7, 8}), bytesOf(copy->getBytes().get()));
        EXPECT_EQ(c.tree ? 1u : 0u, copy->inlinedRegions().size());
        if (c.tree) {
            EXPECT_STREQ("inlined", copy->getInlinedSymbol(1002)->getMethodName());
        }
        EXPECT_EQ(c.bytes ? code : std::vector<uint8_t>(), bytesOf(original->getBytes().get()));
        EXPECT_TRUE(original->markup().empty());
        EXPECT_EQ(1u, copy->markup().size());
    }
}

TEST(RegionInlineTest, DumpInlinesIndentsEachLevel) {
    const Region::Ptr parent = region(1000, 0x4000, 64);
    const Region::Ptr child = region(0, 0x4010, 16);
    child->addChildRegion(region(0, 0x4012, 2), named("leaf", 0x1b));
    parent->addChildRegion(child, named("mid", 0xa));
    std::ostringstream os;
    parent->dumpInlines(os, 4);
    EXPECT_EQ("\n   #0 mid (method id = 0xa, ip range = 0x4010-0x4020)"
              "\n       #0 leaf (method id = 0x1b, ip range = 0x4012-0x4014)",
              os.str());
}

struct UpdateCase {
    const char* name;
    u64 address;
    u32 length;
    std::vector<unsigned char> bytes;
    quarvel_segment_type_t type;
    std::vector<unsigned char> content; // the region's bytes afterwards; unchanged: refused
};

class RegionUpdateTest : public ::testing::TestWithParam<UpdateCase> {};

// The region covers 0x1000..0x1008 and holds bytes 1..8. A refusal returns
// meNotFound, logs one error and leaves the bytes as they were.
TEST_P(RegionUpdateTest, AppliesOrRefuses) {
    const UpdateCase& c = GetParam();
    const std::vector<unsigned char> before{1, 2, 3, 4, 5, 6, 7, 8};
    const Region::Ptr r = region(1, 0x1000, 8, bufferOf(before));
    LogCapture log;
    const bool refused = c.content == before;
    EXPECT_EQ(refused ? meNotFound : meSuccess,
              r->addBytesUpdate(c.address, c.length, c.bytes.empty() ? nullptr : bufferOf(c.bytes), c.type, "t"));
    EXPECT_EQ(c.content, bytesOf(r->content().get()));
    EXPECT_EQ(refused ? 1u : 0u, log.errors().size()) << log.dump();
}

const std::vector<unsigned char> kUnchanged{1, 2, 3, 4, 5, 6, 7, 8};
const quarvel_segment_type_t kCode = quarvel_segment_code;

INSTANTIATE_TEST_SUITE_P(
    Cases, RegionUpdateTest,
    ::testing::Values(
        UpdateCase{"Whole", 0x1000, 8, {9, 9, 9, 9, 9, 9, 9, 9}, kCode, {9, 9, 9, 9, 9, 9, 9, 9}},
        UpdateCase{"Head", 0x1000, 2, {9, 9}, kCode, {9, 9, 3, 4, 5, 6, 7, 8}},
        UpdateCase{"Middle", 0x1003, 2, {9, 9}, kCode, {1, 2, 3, 9, 9, 6, 7, 8}},
        UpdateCase{"Tail", 0x1006, 2, {9, 9}, kCode, {1, 2, 3, 4, 5, 6, 9, 9}},
        UpdateCase{
            "PaddingIgnoresContent", 0x1002, 3, {9, 9, 9}, quarvel_segment_padding, {1, 2, 0x90, 0x90, 0x90, 6, 7, 8}},
        UpdateCase{"ZeroAddress", 0, 2, {9, 9}, kCode, kUnchanged},
        UpdateCase{"ZeroLength", 0x1000, 0, {9}, kCode, kUnchanged},
        UpdateCase{"NoContent", 0x1000, 2, {}, kCode, kUnchanged},
        UpdateCase{"UnknownType", 0x1000, 2, {9, 9}, static_cast<quarvel_segment_type_t>(4), kUnchanged},
        UpdateCase{"PastTheEnd", 0x1007, 2, {9, 9}, kCode, kUnchanged},
        UpdateCase{"BeforeTheStart", 0xFFF, 2, {9, 9}, kCode, kUnchanged},
        UpdateCase{"HugeLengthDoesNotWrap", 0x1001, 0xFFFFFFFF, {9}, kCode, kUnchanged}),
    [](const ::testing::TestParamInfo<UpdateCase>& info) { return info.param.name; });

TEST(RegionUpdateMarkupTest, SameRangeKeepsOrChangesTypeAndPartialOverlapIsRefused) {
    const Region::Ptr r = region(1, 0x1000, 8, bufferOf({1, 2, 3, 4, 5, 6, 7, 8}));
    LogCapture log;
    ASSERT_EQ(meSuccess, r->addBytesUpdate(0x1002, 2, bufferOf({9, 9}), quarvel_segment_padding, "a"));
    // Type 3 keeps the recorded type (padding), so the bytes are no-operations again.
    ASSERT_EQ(meSuccess, r->addBytesUpdate(0x1002, 2, bufferOf({7, 7}), quarvel_segment_unchanged, "b"));
    EXPECT_EQ(quarvel_segment_padding, r->markup().begin()->second.segType);
    EXPECT_EQ((std::vector<unsigned char>{1, 2, 0x90, 0x90, 5, 6, 7, 8}), bytesOf(r->content().get()));
    // Another type changes the record and still rewrites the bytes.
    ASSERT_EQ(meSuccess, r->addBytesUpdate(0x1002, 2, bufferOf({7, 7}), quarvel_segment_code, "c"));
    EXPECT_EQ(quarvel_segment_code, r->markup().begin()->second.segType);
    EXPECT_EQ((std::vector<unsigned char>{1, 2, 7, 7, 5, 6, 7, 8}), bytesOf(r->content().get()));
    // Partly overlapping an earlier update: refused, bytes unchanged.
    EXPECT_EQ(meNotFound, r->addBytesUpdate(0x1003, 2, bufferOf({5, 5}), quarvel_segment_code, "d"));
    EXPECT_EQ((std::vector<unsigned char>{1, 2, 7, 7, 5, 6, 7, 8}), bytesOf(r->content().get()));
    EXPECT_EQ(1u, log.errors().size()) << log.dump();
    EXPECT_EQ(1u, r->markup().size());
}

TEST(RegionUpdateMarkupTest, ReadersKeepTheBufferTheyHold) {
    const Region::Ptr r = region(1, 0x1000, 4, bufferOf({1, 2, 3, 4}));
    const IByteBuffer::Ptr before = r->getBytes();
    ASSERT_EQ(meSuccess, r->addBytesUpdate(0x1000, 4, bufferOf({5, 6, 7, 8}), quarvel_segment_code, ""));
    EXPECT_EQ(1, before->data()[0]);
    EXPECT_EQ(5, r->getBytes()->data()[0]);
}

} // namespace
