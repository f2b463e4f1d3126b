// The call-stack readers: perf script text in the shapes perf prints (and the
// ways it gets damaged or cut short), and CSV with a stack column.

#include "drain.h"
#include "stack_reader.h"

#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <string>
#include <vector>

namespace stack_reader_test {

using namespace quarvel_jit;

struct Read {
    std::vector<StackSample> samples;
    StackInputStats stats;
    StackFormat format = StackFormat::Auto;
};

Read readAll(const std::string& text, StackFormat format = StackFormat::Auto) {
    std::istringstream in(text);
    StackReader reader(in, format);
    Read r;
    r.samples = drain<StackSample>(reader);
    r.stats = reader.stats();
    r.format = reader.format();
    return r;
}

// "pid/tid@time: addr,addr,..." with the leaf first, to compare samples at a glance.
std::string brief(const StackSample& s) {
    std::ostringstream os;
    os << s.pid;
    if (s.hasTid)
        os << '/' << s.tid;
    os << '@' << s.time << ':';
    for (size_t i = 0; i < s.frames.size(); ++i)
        os << (i ? "," : " ") << std::hex << s.frames[i].address << std::dec;
    return os.str();
}

// Malformed lines, dropped samples and samples that may be cut short.
using Counts = std::array<uint64_t, 3>;

// A damaged frame, a damaged header and an input that ends inside a frame:
// the stacks_bad_input golden.
TEST(StackReader, PerfTextInTheShapesPerfPrints) {
    struct Case {
        const char* what;
        std::string text;
        std::vector<std::string> samples;
        Counts counts;
    } cases[] = {
        {"call chains, each closed by an empty line",
         "24238/24240  1340.741138651: \n"
         "\t          bb5345 Method::link_method (/usr/lib/jvm/lib/server/libjvm.so)\n"
         "\t    7f39c0952f2f [unknown] (/tmp/perf-24238.map)\n"
         "\n"
         "   42/43          0.000000005: \n"
         "\tffffffff8225f2d9 pvm_irq_enable ([kernel.kallsyms])\n"
         "\n",
         {"24238/24240@1340741138651: bb5345,7f39c0952f2f", "42/43@5: ffffffff8225f2d9"},
         {0, 0, 0}},
        {"samples that carry their ip in the header (no call chains), with and without a symbol",
         "  4242 785.213867049:   7f12abcd1234\n"
         "  4242/4250 785.3:      10 main (/usr/bin/app)\n",
         {"4242@785213867049: 7f12abcd1234", "4242/4250@785300000000: 10"},
         {0, 0, 0}},
        {"a command name (with spaces) and an event name around pid and time",
         "Thread pool 1  77/78  12.5: cpu-clock: \n\t1000 f (m)\n\n",
         {"77/78@12500000000: 1000"},
         {0, 0, 0}},
        {"CRLF line ends and frames whose tab became spaces",
         "1/1 1.0: \r\n    abc sym (mod)\r\n    0xdef [unknown] ([unknown])\r\n\r\n",
         {"1/1@1000000000: abc,def"},
         {0, 0, 0}},
        {"a header right after the last frame, without the empty line",
         "1/1 1.0: \n\t10 a (m)\n2/2 2.0: \n\t20 b (m)\n\n",
         {"1/1@1000000000: 10", "2/2@2000000000: 20"},
         {0, 0, 0}},
        {"frames before the first header (the input starts inside a sample)",
         "\t10 a (m)\n\t11 b (m)\n\n2/2 2.0: \n\t20 b (m)\n\n",
         {"2/2@2000000000: 20"},
         {1, 1, 0}},
        {"a sample without frames", "1/1 1.0: \n\n2/2 2.0: \n\t20 b (m)\n\n", {"2/2@2000000000: 20"}, {1, 1, 0}},
        {"the input ends before the last sample's empty line: it may have lost callers",
         "1/1 1.0: \n\t10 a (m)\n\n2/2 2.0: \n\t20 b (m)\n\t21 c (m)\n",
         {"1/1@1000000000: 10"},
         {0, 0, 1}},
        {"the input ends in the middle of a one-line sample",
         "1/1 1.0: 10\n2/2 2.0: 7f12",
         {"1/1@1000000000: 10"},
         {0, 0, 1}},
        {"comments between samples",
         "# captured on: x\n#\n1/1 1.0: \n\t10 a (m)\n\n# more\n",
         {"1/1@1000000000: 10"},
         {0, 0, 0}},
    };
    for (const Case& c : cases) {
        const Read r = readAll(c.text);
        EXPECT_EQ(StackFormat::Perf, r.format) << c.what;
        std::vector<std::string> got;
        for (const StackSample& s : r.samples)
            got.push_back(brief(s));
        EXPECT_EQ(c.samples, got) << c.what;
        EXPECT_EQ(c.counts, (Counts{r.stats.malformedLines, r.stats.droppedSamples, r.stats.truncatedSamples}))
            << c.what;
        EXPECT_EQ(c.samples.size(), r.stats.samples) << c.what;
    }
}

TEST(StackReader, PerfFramesSplitSymbolFromTheLastParenthesisedModule) {
    struct Case {
        const char* line;
        bool ok;
        uint64_t address;
        const char* symbol;
        const char* module;
    } cases[] = {
        {"7f39c0941260 [unknown] (/tmp/perf-24238.map)", true, 0x7f39c0941260, "[unknown]", "/tmp/perf-24238.map"},
        {"10 Hot::sumRange(int, int) (/tmp/perf-1.map)", true, 0x10, "Hot::sumRange(int, int)", "/tmp/perf-1.map"},
        {"10 operator()(int) const (/lib/a (deleted))", true, 0x10, "operator()(int) const", "/lib/a (deleted)"},
        {"10 f(int)", true, 0x10, "f(int)", ""},
        {"0x10 f (m)", true, 0x10, "f", "m"},
        {"10", true, 0x10, "", ""},
        {"10 (m)", true, 0x10, "", "m"},
        {"xyz f (m)", false, 0, "", ""},
        {"10000000000000000 f (m)", false, 0, "", ""},
    };
    for (const Case& c : cases) {
        RawFrame f;
        EXPECT_EQ(c.ok, parsePerfFrame(c.line, f)) << c.line;
        if (!c.ok)
            continue;
        EXPECT_EQ(c.address, f.address) << c.line;
        EXPECT_EQ(c.symbol, f.symbol) << c.line;
        EXPECT_EQ(c.module, f.module) << c.line;
    }
}

TEST(StackReader, CsvColumnsByNameWithTheCallersInnermostFirst) {
    const Read r = readAll("stack,pid,time,address,tid\n"
                           "0x20;0x30;48,7,100,0x10,8\n"
                           ",7,101,0x11,\n"
                           "0x20;zz,7,102,0x12,8\n"
                           "0x20,7,103\n"
                           "0x20,7,104,0x13,8");
    EXPECT_EQ(StackFormat::Csv, r.format);
    ASSERT_EQ(2u, r.samples.size());
    EXPECT_EQ("7/8@100: 10,20,30,30", brief(r.samples[0]));
    EXPECT_EQ("7@101: 11", brief(r.samples[1]));
    EXPECT_EQ(2u, r.stats.malformedLines);
    EXPECT_EQ(1u, r.stats.truncatedSamples); // the last row has no line end
    ASSERT_EQ(3u, r.stats.errors.size());
    EXPECT_EQ("4: bad return address 'zz' in the stack (hex with 0x, or decimal)", r.stats.errors[0]);
    EXPECT_EQ("5: expected 5 columns, found 3", r.stats.errors[1]);
}

TEST(StackReader, CsvWithoutTheRequiredColumnsReadsNothing) {
    const Read r = readAll("time,pid,stack\n1,2,0x3\n");
    EXPECT_TRUE(r.samples.empty());
    EXPECT_EQ(1u, r.stats.malformedLines);
}

TEST(StackReader, ThePlainSampleCsvIsAStackOfOneFrame) {
    const Read r = readAll("time,address,pid,host\n5,0x10,7,h\n");
    ASSERT_EQ(1u, r.samples.size());
    EXPECT_EQ("7@5: 10", brief(r.samples[0]));
    EXPECT_EQ("h", r.samples[0].host);
}

TEST(StackReader, ErrorsKeptAreBoundedWhileAllAreCounted) {
    std::string text = "time,address,pid\n";
    for (int i = 0; i < 1000; ++i)
        text += "x,0x10,1\n";
    const Read r = readAll(text);
    EXPECT_EQ(1000u, r.stats.malformedLines);
    EXPECT_EQ(StackReader::kMaxErrors, r.stats.errors.size());
}

} // namespace
