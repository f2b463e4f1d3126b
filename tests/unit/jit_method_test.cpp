// Line tables and the queries a method answers by jit rva.

#include "check_listener.h"
#include "log_capture.h"
#include "model/jit_method.h"
#include "model/module.h"
#include "trace_equality.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

using namespace quarvel;
using quarvel_test::LogCapture;
using Table = JitMethod::LineTable;

namespace jit_method_test {

const auto N2M = quarvel_line_info_native_to_managed;
const auto M2S = quarvel_line_info_managed_to_source;
const auto N2S = quarvel_line_info_native_to_source;

// A method with three regions at jit rvas 1000, 1100 and 1200 (100 bytes each),
// with line tables for each region's range.
JitMethod::Ptr threeRangeMethod() {
    JitMethod::Ptr m(new JitMethod());
    m->setRawMethodId(5);
    m->setStartJitRva(1000);
    for (u64 i = 0; i < 3; ++i) {
        m->addCodeRegion(Region::Ptr(new Region(1, 7, 1000 + 100 * i, 10, 0, 0x5000 + 0x1000 * i, 100, nullptr)));
        const u32 line = static_cast<u32>(10 * (i + 1));
        EXPECT_TRUE(m->addLineNumberInfo(N2S, {{0, 50, line}, {50, 100, line + 1}}, Range(1000 + 100 * i, 100)));
    }
    return m;
}

std::vector<quarvel_line_number_entry> query(const JitMethod& m, quarvel_line_info_type type, u64 rva) {
    unsigned count = 0;
    if (m.getLineNumberInfo(type, nullptr, &count, rva) != meSuccess)
        return {};
    std::vector<quarvel_line_number_entry> entries(count);
    EXPECT_EQ(meSuccess, m.getLineNumberInfo(type, entries.data(), &count, rva));
    return entries;
}

TEST(JitMethodLineInfoTest, CountOnlyBufferTooSmallAndNullPointers) {
    const JitMethod::Ptr m = threeRangeMethod();
    unsigned count = 0;
    EXPECT_EQ(meSuccess, m->getLineNumberInfo(N2S, nullptr, &count, 0));
    EXPECT_EQ(2u, count);
    quarvel_line_number_entry one[1];
    count = 1;
    EXPECT_EQ(meInsufficientBuffer, m->getLineNumberInfo(N2S, one, &count, 0));
    EXPECT_EQ(1u, count) << "the required count is not written";
    EXPECT_EQ(meInvalidPointer, m->getLineNumberInfo(N2S, nullptr, nullptr, 0));
    EXPECT_EQ(meNotFound, m->getLineNumberInfo(static_cast<quarvel_line_info_type>(3), nullptr, &count, 0));
    EXPECT_EQ(meNotFound, m->getLineNumberInfo(N2S, nullptr, &count, 999)) << "outside every range";
    EXPECT_EQ(meNotFound, JitMethod().getLineNumberInfo(N2S, nullptr, &count, 0)) << "no tables at all";
}

// Rows are stored as deltas from the row before: whatever a trace holds
// (rows out of order, backwards, empty, at the ends of the 32-bit range) must
// come back exactly, and a table must not spill into its neighbours.
TEST(JitMethodLineInfoTest, AnyRowComesBackExactly) {
    const u32 top = 0xFFFFFFFFu;
    const std::vector<Table> tables = {
        {{0, 16, 10}, {16, 40, 11}, {40, 41, 11}, {41, 300, 9}},              // the usual shape
        {{top, 0, top}, {0, top, 0}, {5, 5, 5}, {top - 1, top, 0x80000000u}}, // wrapping, empty rows
        {{100, 90, 7}, {3, 200, 7000000}, {2, 1, 1}},                         // backwards, big steps
        {},
    };
    JitMethod m;
    ASSERT_TRUE(m.addLineNumberInfo(N2M, tables[0], Range(0, 100)));
    ASSERT_TRUE(m.addLineNumberInfo(M2S, tables[1], Range(0, 100)));
    ASSERT_TRUE(m.addLineNumberInfo(N2S, tables[2], Range(0, 100)));
    ASSERT_TRUE(m.addLineNumberInfo(N2S, tables[1], Range(200, 100))) << "a second range";
    const quarvel_line_info_type types[] = {N2M, M2S, N2S};
    for (size_t t = 0; t < 3; ++t) {
        const std::vector<quarvel_line_number_entry> got = query(m, types[t], 0);
        ASSERT_EQ(tables[t].size(), got.size()) << "table " << t;
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(tables[t][i].startOffset, got[i].startOffset) << "table " << t << " row " << i;
            EXPECT_EQ(tables[t][i].endOffset, got[i].endOffset) << "table " << t << " row " << i;
            EXPECT_EQ(tables[t][i].value, got[i].value) << "table " << t << " row " << i;
        }
    }
    EXPECT_EQ(tables[1].size(), m.getLineNumberInfo().table(1, N2S).size());
    EXPECT_TRUE(m.getLineNumberInfo().table(1, N2M).empty());
}

// A method's first tables are encoded on the stack up to a number of rows and
// in two passes beyond: rows whose every number takes five bytes, at that
// number and one past it, spread unevenly over the three tables.
TEST(JitMethodLineInfoTest, FirstTablesComeBackExactlyAtAnySize) {
    for (const size_t rows : {LineTables::kOnePassRows, LineTables::kOnePassRows + 1}) {
        Table tables[LineTables::kTypes];
        for (size_t i = 0; i < rows; ++i) {
            const u32 big = 0x80000000u + static_cast<u32>(i);
            // Each row far from the one before: every delta zigzags to five bytes.
            tables[i % 5 == 0 ? 0 : (i % 2) + 1].push_back({i % 2 ? big : 0, i % 2 ? 0 : big, i % 2 ? 0 : big});
        }
        LineTables::Span spans[LineTables::kTypes];
        for (size_t t = 0; t < LineTables::kTypes; ++t)
            spans[t] = {tables[t].data(), tables[t].size()};
        JitMethod m;
        ASSERT_TRUE(m.addLineNumberInfo(Range(0, 100), spans)) << rows << " rows";
        for (size_t t = 0; t < LineTables::kTypes; ++t)
            EXPECT_EQ(tables[t], m.getLineNumberInfo().table(0, static_cast<quarvel_line_info_type>(t)).rows())
                << rows << " rows, table " << t;
    }
}

TEST(JitMethodLineInfoTest, EachRangeAnswersWithItsTablesAndTheFirstTableAddedStays) {
    const JitMethod::Ptr m = threeRangeMethod();
    EXPECT_TRUE(m->addLineNumberInfo(N2S, {{0, 10, 5}}, Range(900, 10))) << "a range below the others";
    EXPECT_EQ(5u, query(*m, N2S, 905).front().value);
    EXPECT_EQ(30u, query(*m, N2S, 1250).front().value);
    EXPECT_EQ(21u, query(*m, N2S, 1199).back().value);

    LogCapture log;
    EXPECT_FALSE(m->addLineNumberInfo(N2S, {{0, 1, 99}}, Range(1100, 100)));
    EXPECT_EQ(20u, query(*m, N2S, 1100).front().value);
    // A set of tables with one already there adds none of them.
    const Table m2s{{2, 3, 7}}, n2s{{0, 1, 99}};
    LineTables::Span tables[LineTables::kTypes];
    tables[M2S] = {m2s.data(), m2s.size()};
    tables[N2S] = {n2s.data(), n2s.size()};
    EXPECT_FALSE(m->addLineNumberInfo(Range(1000, 1), tables));
    EXPECT_TRUE(query(*m, M2S, 1000).empty());
    EXPECT_EQ(2u, log.errors().size());
    // Another table of the same range is accepted into the existing holder.
    EXPECT_TRUE(m->addLineNumberInfo(N2M, {{0, 100, 4}}, Range(1010, 1)));
    EXPECT_EQ(4u, query(*m, N2M, 1000).front().value);
}

struct LocationCase {
    const char* name;
    Table n2m, m2s, n2s;
    u64 rva;
    unsigned line; // 0: no location
};

class JitMethodSourceLocationTest : public ::testing::TestWithParam<LocationCase> {};

TEST_P(JitMethodSourceLocationTest, ResolvesThroughTheTables) {
    const LocationCase& c = GetParam();
    JitMethod m;
    m.info()->setSourceFile(SourceFile("Hot.java", "", 0, 5));
    const Range key(2000, 64);
    for (auto t : {std::make_pair(N2M, c.n2m), std::make_pair(M2S, c.m2s), std::make_pair(N2S, c.n2s)}) {
        if (!t.second.empty()) {
            ASSERT_TRUE(m.addLineNumberInfo(t.first, t.second, key));
        }
    }
    ISourceLocation::Ptr location = m.getSourceLocation(c.rva);
    if (!c.line) {
        EXPECT_FALSE(location);
        return;
    }
    ASSERT_TRUE(location);
    EXPECT_EQ(c.line, location->getLine());
    EXPECT_STREQ("Hot.java", location->getSourceFile()->getSourceFileName());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, JitMethodSourceLocationTest,
    ::testing::Values(
        LocationCase{"NativeToSource", {}, {}, {{0, 16, 3}, {16, 64, 4}}, 2020, 4},
        LocationCase{"NativeToSourceExactStart", {}, {}, {{16, 16, 8}}, 2016, 8},
        LocationCase{"ThroughIntermediateOffsets", {{0, 32, 7}, {32, 64, 9}}, {{0, 8, 40}, {8, 16, 41}}, {}, 2033, 41},
        LocationCase{"ManagedExactStart", {{0, 64, 12}}, {{12, 12, 50}}, {}, 2001, 50},
        LocationCase{"UnknownIntermediateOffset", {{0, 64, 0xFFFFFFFF}}, {{0, 100, 1}}, {}, 2010, 0},
        LocationCase{"NoNativeEntry", {{0, 8, 1}}, {{0, 100, 1}}, {}, 2010, 0},
        LocationCase{"NoManagedEntry", {{0, 64, 200}}, {{0, 100, 1}}, {}, 2010, 0},
        LocationCase{"OutsideTheRange", {}, {}, {{0, 64, 3}}, 2064, 0},
        LocationCase{"EmptyTables", {}, {}, {}, 2010, 0}),
    [](const ::testing::TestParamInfo<LocationCase>& info) { return info.param.name; });

TEST(JitMethodSourceRangeTest, FoldsLinesOfNativeToSourceTables) {
    const JitMethod::Ptr m = threeRangeMethod();
    quarvel_line_number_entry first{}, last{};
    ASSERT_EQ(meSuccess, m->getSourceRange(&first, &last, 0));
    // Entry 0 of later tables is not folded in once min and max are set: 20 and 30 never count.
    EXPECT_EQ(10u, first.value);
    EXPECT_EQ(31u, last.value);
    EXPECT_EQ(meNotFound, m->getSourceRange(nullptr, &last, 0));

    JitMethod zeros;
    zeros.addLineNumberInfo(N2S, {{0, 1, 0}, {1, 2, 0}}, Range(0, 2));
    EXPECT_EQ(meNotFound, zeros.getSourceRange(&first, &last, 0));
}

TEST(JitMethodTest, AddressAndPidByJitRva) {
    const JitMethod::Ptr m = threeRangeMethod();
    u64 va = 0;
    EXPECT_EQ(meSuccess, m->getVirtualAddress(1105, &va));
    EXPECT_EQ(0x6005u, va);
    unsigned pid = 0;
    EXPECT_EQ(meSuccess, m->getPid(1299, pid));
    EXPECT_EQ(7u, pid);
    EXPECT_EQ(meNotFound, m->getPid(1300, pid)) << "just past the last region";
    EXPECT_EQ(meNotFound, JitMethod().getVirtualAddress(1, &va));
    EXPECT_EQ(3u, m->getRegions().remaining());
}

TEST(JitMethodTest, ClonesShareInfoAndRegionsButNotLineMaps) {
    const JitMethod::Ptr m = threeRangeMethod();
    m->setInlineAttached(true);
    const JitMethod::Ptr c = m->clone();
    EXPECT_EQ(m->info().get(), c->info().get());
    EXPECT_EQ(m->regions()[1].get(), c->regions()[1].get());
    EXPECT_TRUE(c->isInlineAttached());
    c->normalizeLineNumberInfoJitRvaRanges(1);
    EXPECT_EQ(1000u, m->getLineNumberInfo().range(0).start);
    EXPECT_EQ(1001u, c->getLineNumberInfo().range(0).start);
}

// The region list grows in place of a vector: it must keep every region and
// its reference count through growth (also when the region added is one of
// its own, whose slot moves), copies and moves, whether it holds its only
// region in place or a block (also one reserved ahead and still empty, or
// one that a null first element needs).
TEST(JitMethodTest, RegionListKeepsRegionsAndTheirCountsThroughGrowth) {
    const auto refs = [](const Region::Ptr& r) -> int {
        r->addRef();
        return static_cast<int>(r->release());
    };
    const Region::Ptr first(new Region(1, 7, 1000, 10, 0, 0x5000, 100, nullptr));
    for (size_t reserved : {0, 3}) {
        for (int count : {1, 2, 9}) {
            SCOPED_TRACE(std::to_string(reserved) + " reserved, " + std::to_string(count) + " regions");
            {
                RegionList list;
                list.reserve(reserved);
                EXPECT_TRUE(list.empty());
                EXPECT_THROW(list.at(0), std::out_of_range);
                for (int i = 0; i < count; ++i)
                    list.push_back(i == 0 ? first : list[0]); // full at 1, 2, 4 and 8
                EXPECT_EQ(size_t(count), list.size());
                EXPECT_EQ(count + 1, refs(first));
                RegionList copy = list;
                EXPECT_EQ(2 * count + 1, refs(first));
                RegionList moved = std::move(copy);
                EXPECT_TRUE(copy.empty());
                EXPECT_EQ(2 * count + 1, refs(first));
                EXPECT_EQ(size_t(count), size_t(moved.end() - moved.begin()));
                for (const Region::Ptr& region : moved)
                    EXPECT_EQ(first.get(), region.get());
                moved = list;
                EXPECT_EQ(2 * count + 1, refs(first));
                moved = RegionList();
                EXPECT_EQ(count + 1, refs(first));
            }
            EXPECT_EQ(1, refs(first));
        }
    }
    // A null first element is an element too, in order before the next.
    RegionList withNull;
    withNull.push_back(Region::Ptr());
    withNull.push_back(first);
    ASSERT_EQ(2u, withNull.size());
    EXPECT_FALSE(withNull[0]);
    EXPECT_EQ(first.get(), withNull[1].get());
}

TEST(JitMethodTest, ValidationChecksTheFirstRegionsLines) {
    JitMethod m;
    m.addCodeRegion(Region::Ptr(new Region(1, 1, 100, 1, 0, 0x100, 16, nullptr)));
    EXPECT_TRUE(m.validateSymbolicInfo());
    m.addLineNumberInfo(N2S, {{0, 16, 1}, {16, 17, 2}}, Range(100, 16));
    LogCapture log;
    EXPECT_FALSE(m.validateSymbolicInfo());
    EXPECT_EQ(1u, log.errors().size());
}

// Comparing a registered method with a new record of it only logs.
TEST(JitMethodTest, ComparingSourceFilesChangesNeitherMethod) {
    JitMethod registered;
    JitMethod::Ptr supplied(new JitMethod());
    registered.info()->setSourceFile(SourceFile("A.java", "", 0, 0));
    supplied->info()->setSourceFile(SourceFile("B.java", "", 0, 0));
    LogCapture log;
    registered.compareSymbolicInfoTo(supplied);
    EXPECT_STREQ("A.java", registered.getSourceFile()->getSourceFileName());
    EXPECT_STREQ("B.java", supplied->getSourceFile()->getSourceFileName());
    quarvel_test::ExpectInternalChecks expected;
    registered.compareSymbolicInfoTo(JitMethod::Ptr());
    EXPECT_EQ((std::vector<std::string>{"jitMethod"}), expected.conditions());
}

} // namespace
