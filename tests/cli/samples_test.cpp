// The tool's sample readers: integer-exact perf times, CSV and perf lines,
// and bad lines reported by number while good ones are kept.

#include "printer.h"
#include "sample_csv_writer.h"
#include "samples.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

namespace samples_test {

using namespace quarvel_jit;

TEST(SampleParsing, PerfTimesAreExactIntegerNanoseconds) {
    struct Case {
        const char* text;
        bool ok;
        uint64_t ns;
    } cases[] = {
        {"785.213867049", true, 785213867049ull},
        {"0.000000001", true, 1},
        {"1.5", true, 1500000000ull},
        {"42", true, 42000000000ull},
        {"18446744073.709551615", true, 18446744073709551615ull},
        {"18446744073.709551616", false, 0}, // one past the largest
        {"1.0000000001", false, 0},          // finer than a nanosecond
        {"1.2x", false, 0},
        {".5", false, 0},
        {"", false, 0},
    };
    for (const Case& c : cases) {
        uint64_t ns = 0;
        EXPECT_EQ(c.ok, parsePerfTime(c.text, ns)) << c.text;
        if (c.ok) {
            EXPECT_EQ(c.ns, ns) << c.text;
        }
    }
}

TEST(SampleParsing, AddressesAreHexWithPrefixOrDecimal) {
    uint64_t v = 0;
    EXPECT_TRUE(parseAddress("0x7f12ABcd1234", v));
    EXPECT_EQ(0x7f12abcd1234ull, v);
    EXPECT_TRUE(parseAddress("4096", v));
    EXPECT_EQ(4096u, v);
    EXPECT_TRUE(parseAddress("0xffffffffffffffff", v));
    EXPECT_FALSE(parseAddress("0x1ffffffffffffffff", v));
    EXPECT_FALSE(parseAddress("0x", v));
    EXPECT_FALSE(parseAddress("12ab", v));
    EXPECT_FALSE(parseAddress("-1", v));
}

TEST(SampleParsing, PerfTextIsDetectedAndBadLinesAreNumbered) {
    std::istringstream in("# header comment\n"
                          "  4242 785.213867049:   7f12abcd1234\n"
                          "  4242/4243 785.3:   0x10\n"
                          "  4242 785.3   10\n"
                          "garbage\n");
    const SampleInput got = readSamples(in, SamplesFormat::Auto);
    EXPECT_EQ(SamplesFormat::Perf, got.format);
    ASSERT_EQ(2u, got.samples.size());
    EXPECT_EQ(2u, got.samples[0].line);
    EXPECT_EQ(4242u, got.samples[0].pid);
    EXPECT_EQ(785213867049ull, got.samples[0].time);
    EXPECT_EQ(0x7f12abcd1234ull, got.samples[0].address);
    EXPECT_EQ(785300000000ull, got.samples[1].time);
    ASSERT_EQ(2u, got.errors.size());
    EXPECT_EQ("4: bad time '785.3' (sec.nanosec followed by ':')", got.errors[0]);
    EXPECT_EQ("5: expected 'pid time: ip'", got.errors[1]);
}

// The four-column form and its errors: the malformed_samples golden.
TEST(SampleParsing, CsvWithoutHostColumnOrHeader) {
    std::istringstream noHost("time,address,pid\n10,0x20,30\n10,0x20,30,h\n");
    const SampleInput b = readSamples(noHost, SamplesFormat::Csv);
    ASSERT_EQ(1u, b.samples.size());
    ASSERT_EQ(1u, b.errors.size());
    EXPECT_EQ("3: expected 3 columns (time,address,pid), found 4", b.errors[0]);

    // Forced CSV without its header: reported, the rows still read.
    std::istringstream headless("10,0x20,30\n11,0x21,31,h\n");
    const SampleInput c = readSamples(headless, SamplesFormat::Csv);
    EXPECT_EQ(1u, c.samples.size());
    ASSERT_EQ(1u, c.errors.size());
    EXPECT_EQ("1: expected the header time,address,pid or time,address,pid,host", c.errors[0]);
}

// Rows go out in blocks: none may be lost or doubled where a row crosses a
// block's end, nor where one field (a quoted name of 100k bytes) is longer
// than a block.
TEST(SampleCsv, RowsSurviveBlockBoundariesAndFieldsLongerThanABlock) {
    std::ostringstream out;
    std::string expected = "line,time,address,pid,host,status,jit_rva,method,module,source_file,source_line,inlined\n";
    {
        SampleCsvWriter writer(out);
        for (size_t i = 1; i <= 3000; ++i) {
            SampleResult r;
            r.inputLine = i;
            r.time = 18446744073709551615ull - i;
            r.address = 0x7f0000000000ull + i;
            r.pid = 4242;
            r.host = "host";
            r.status = SampleStatus::Resolved;
            r.jitRva = i;
            r.method.name = i == 1500 ? std::string(100000, 'x') + ",y" : "m" + std::to_string(i);
            r.module = "mod";
            r.method.sourceFile = "a.js";
            r.method.line = static_cast<unsigned>(i);
            writer.add(r);
            std::string name;
            appendCsvField(name, r.method.name);
            char hexAddress[32], hexRva[32];
            std::snprintf(hexAddress, sizeof hexAddress, "0x%llx", static_cast<unsigned long long>(r.address));
            std::snprintf(hexRva, sizeof hexRva, "0x%llx", static_cast<unsigned long long>(r.jitRva));
            expected += std::to_string(i) + "," + std::to_string(r.time) + "," + hexAddress + ",4242,host,resolved," +
                        hexRva + "," + name + ",mod,a.js," + std::to_string(i) + ",\n";
        }
    }
    EXPECT_EQ(expected.size(), out.str().size());
    EXPECT_TRUE(expected == out.str());
}

} // namespace
