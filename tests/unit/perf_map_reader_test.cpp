// The perf map reader: the line forms writers use, the malformed lines it
// skips (each counted with its line number and reason), and detection by
// content.

#include "format/perf_map_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace quarvel;

namespace perf_map_reader_test {

struct LineCase {
    const char* name;
    std::string line;
    bool ok;
    uint64_t start;
    uint64_t size;
    std::string entryName; // or, for a malformed line, a part of the reason
};

class PerfMapLine : public ::testing::TestWithParam<LineCase> {};

TEST_P(PerfMapLine, ParsesOrSaysWhy) {
    const LineCase& c = GetParam();
    PerfMapEntry e;
    std::string why;
    ASSERT_EQ(c.ok, PerfMapReader::parseLine(c.line, e, why)) << why;
    if (c.ok) {
        EXPECT_EQ(c.start, e.start);
        EXPECT_EQ(c.size, e.size);
        EXPECT_EQ(c.entryName, e.name);
    } else {
        EXPECT_NE(std::string::npos, why.find(c.entryName)) << why;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Forms, PerfMapLine,
    ::testing::Values(
        LineCase{"BareHex", "7f3c2a001000 1a4 JS:*fib /app/x.js:3", true, 0x7f3c2a001000, 0x1a4, "JS:*fib /app/x.js:3"},
        LineCase{"PrefixedHex", "0x00007f3c2a001000 0x00000000000001a4 Interpreter", true, 0x7f3c2a001000, 0x1a4,
                 "Interpreter"},
        LineCase{"UpperCaseHex", "0X7F3C2A001000 1A4 void Foo::bar(int)", true, 0x7f3c2a001000, 0x1a4,
                 "void Foo::bar(int)"},
        LineCase{"TabsAndRuns", "\t1000\t \t20  name  with  runs ", true, 0x1000, 0x20, "name  with  runs "},
        LineCase{"SixteenDigits", "ffffffffffff0000 ffff n", true, 0xffffffffffff0000, 0xffff, "n"},
        LineCase{"ZeroSize", "1000 0 empty", true, 0x1000, 0, "empty"},
        LineCase{"BadStart", "zz1000 20 n", false, 0, 0, "START 'zz1000' is not hexadecimal"},
        LineCase{"BadSize", "1000 2g n", false, 0, 0, "SIZE '2g' is not hexadecimal"},
        LineCase{"OnlyPrefix", "0x 20 n", false, 0, 0, "START '0x' has no digits"},
        LineCase{"NoSize", "1000", false, 0, 0, "SIZE is missing"},
        LineCase{"NoName", "1000 20", false, 0, 0, "no name after START and SIZE"},
        LineCase{"BlankName", "1000 20  \t ", false, 0, 0, "no name"},
        LineCase{"SeventeenDigits", "10000000000000000 20 n", false, 0, 0, "more than 16 hexadecimal digits"},
        LineCase{"PastTheAddressSpace", "ffffffffffffff00 100 n", false, 0, 0, "passes the end of the address space"},
        LineCase{"ZeroByte", std::string("1000 20 na\0me", 13), false, 0, 0, "zero byte"}),
    [](const ::testing::TestParamInfo<LineCase>& info) { return std::string(info.param.name); });

struct Read {
    std::vector<std::pair<uint64_t, std::string>> entries; // line number, name
    uint64_t malformed = 0;
    std::vector<uint64_t> problemLines;
    std::vector<std::string> problems;
    bool endedMidLine = false;
};

// From a heap buffer of exactly the text's size.
Read readAll(const std::string& text) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[text.size() + 1]);
    std::copy(text.begin(), text.end(), exact.get());
    PerfMapReader reader = PerfMapReader::fromBytes(exact.get(), text.size(), "perf-1.map");
    Read out;
    PerfMapEntry e;
    while (reader.next(e))
        out.entries.emplace_back(e.line, std::string(e.name));
    out.malformed = reader.malformedLines();
    for (const PerfMapProblem& p : reader.problems()) {
        out.problemLines.push_back(p.line);
        out.problems.push_back(p.reason.text());
    }
    out.endedMidLine = reader.endedMidLine();
    return out;
}

TEST(PerfMapReader, SkipsBlankAndMalformedLinesAndKeepsLineNumbers) {
    const std::string text = "1000 10 a\r\n"
                             "\n"
                             "   \r\n"
                             "nonsense here\n"
                             "2000 20 b c\n"
                             "3000\n"
                             "4000 40 d";
    const Read got = readAll(text);
    EXPECT_EQ((std::vector<std::pair<uint64_t, std::string>>{{1, "a"}, {5, "b c"}, {7, "d"}}), got.entries);
    EXPECT_EQ(2u, got.malformed);
    EXPECT_EQ((std::vector<uint64_t>{4, 6}), got.problemLines);
    // The reason names the file, the line's offset and number, and what was wrong.
    EXPECT_EQ("perf-1.map: offset 17: line 4: START 'nonsense' is not hexadecimal", got.problems[0]);
    EXPECT_TRUE(got.endedMidLine);
}

TEST(PerfMapReader, AnOverlongLineIsSkippedUnparsed) {
    const std::string text = "1000 10 a\n" + std::string(PerfMapReader::kMaxLineLength + 1, 'x') + "\n2000 20 b\n";
    const Read got = readAll(text);
    EXPECT_EQ((std::vector<std::pair<uint64_t, std::string>>{{1, "a"}, {3, "b"}}), got.entries);
    ASSERT_EQ(1u, got.malformed);
    EXPECT_NE(std::string::npos, got.problems[0].find("line 2: a line of 65537 bytes")) << got.problems[0];
    EXPECT_FALSE(got.endedMidLine);
    // A line of exactly the limit is still read.
    const std::string longName(PerfMapReader::kMaxLineLength - 8, 'n');
    EXPECT_EQ(1u, readAll("1000 10 " + longName + "\n").entries.size());
}

TEST(PerfMapReader, CountsEveryMalformedLineButKeepsOnlyTheFirstReasons) {
    std::string text;
    for (int i = 0; i < 250; ++i)
        text += "garbage\n";
    text += "1000 10 last\n";
    const Read got = readAll(text);
    EXPECT_EQ(250u, got.malformed);
    EXPECT_EQ(PerfMapReader::kKeptProblems, got.problems.size());
    ASSERT_EQ(1u, got.entries.size());
    EXPECT_EQ(251u, got.entries[0].first);
}

// Opening a mapped file: runtime_files_test, through the file set.

struct DetectCase {
    const char* name;
    std::string start;
    bool perfMap;
};

class PerfMapDetect : public ::testing::TestWithParam<DetectCase> {};

TEST_P(PerfMapDetect, ByTheFirstLinesShape) {
    const DetectCase& c = GetParam();
    EXPECT_EQ(c.perfMap, PerfMapReader::detect(reinterpret_cast<const uint8_t*>(c.start.data()), c.start.size()));
}

INSTANTIATE_TEST_SUITE_P(Cases, PerfMapDetect,
                         ::testing::Values(DetectCase{"Entry", "7f0000001000 40 f\n", true},
                                           DetectCase{"AfterBlankLines", "\n  \r\n0x1000 0x40 f\r\nrest", true},
                                           DetectCase{"UnterminatedFirstLine", "1000 40 f", true},
                                           // A first line the window cuts counts by what it shows.
                                           DetectCase{"CutByTheWindow", "1000 40 " + std::string(8000, 'n'), true},
                                           DetectCase{"Prose", "hello world\n1000 40 f\n", false},
                                           DetectCase{"JitdumpMagic", std::string("DTiJ\1\0\0\0", 8), false},
                                           DetectCase{"OnlyBlank", "\n\n   \n", false}, DetectCase{"Empty", "", false}),
                         [](const ::testing::TestParamInfo<DetectCase>& info) { return std::string(info.param.name); });

} // namespace
