// The tool's sample readers: integer-exact perf times, CSV and perf lines,
// and bad lines reported by number while good ones are kept.

#include "drain.h"
#include "printer.h"
#include "sample_csv_writer.h"
#include "samples.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

namespace samples_test {

using namespace quarvel_jit;

struct SampleInput {
    SamplesFormat format = SamplesFormat::Auto;
    std::vector<Sample> samples;
    std::vector<std::string> errors;
};

SampleInput readSamples(std::istream& in, SamplesFormat format) {
    SampleReader reader(in, format);
    SampleInput got;
    got.samples = drain<Sample>(reader);
    got.format = reader.format();
    got.errors = reader.errors();
    return got;
}

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

// Most lines take a one-pass path; the rest (and every error) the general
// one. Both must give the same answer at each edge between them.
TEST(SampleParsing, PerfLinesAtTheEdgesOfTheCommonForm) {
    struct Case {
        const char* line;
        bool ok;
        unsigned pid;
        uint64_t time;
        uint64_t address;
    } cases[] = {
        {"7 1.000000001: 1", true, 7, 1000000001ull, 1},
        {"7 9999999999.999999999: ffffffffffffffff", true, 7, 9999999999999999999ull, ~0ull},
        {"7 18446744073.709551615: 1", true, 7, 18446744073709551615ull, 1},
        {"7 18446744073.709551616: 1", false, 0, 0, 0},
        {"4294967295 1.0: 1", true, 4294967295u, 1000000000ull, 1},
        {"4294967296 1.0: 1", false, 0, 0, 0},
        {"7 1.5: 0x1f", true, 7, 1500000000ull, 0x1f},
        {"7 1.5: 1f [unknown] (/tmp/x)", true, 7, 1500000000ull, 0x1f},
        {"7\t1.5:\t1f", true, 7, 1500000000ull, 0x1f},
        {"7 1.5: 10000000000000000", false, 0, 0, 0},
        {"7 1.: 1", true, 7, 1000000000ull, 1},
        {"7 1: 1", true, 7, 1000000000ull, 1},
        {"7 1.5 1", false, 0, 0, 0},
        {"7 1.5: 1g", false, 0, 0, 0},
    };
    for (const Case& c : cases) {
        std::istringstream in(c.line);
        const SampleInput got = readSamples(in, SamplesFormat::Perf);
        ASSERT_EQ(c.ok ? 1u : 0u, got.samples.size()) << c.line;
        EXPECT_EQ(c.ok ? 0u : 1u, got.errors.size()) << c.line;
        if (!c.ok)
            continue;
        EXPECT_EQ(c.pid, got.samples[0].pid) << c.line;
        EXPECT_EQ(c.time, got.samples[0].time) << c.line;
        EXPECT_EQ(c.address, got.samples[0].address) << c.line;
    }
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

// The text is read in blocks: a line crossing a block's end, a line longer
// than a block, CRLF endings and a last line without its newline must each
// still give their sample (or error) under their own line number.
TEST(SampleParsing, LinesSurviveBlockBoundaries) {
    std::string text;
    std::vector<uint64_t> addresses; // by line number - 1; 0: no sample on that line
    for (uint64_t i = 1; i <= 9000; ++i) {
        if (i == 4000) {
            text += "# " + std::string(200000, 'c') + "\n"; // longer than a block
            addresses.push_back(0);
            continue;
        }
        if (i == 6000) {
            text += "  77 1." + std::string(150000, '9') + ":  10\n"; // a bad line, also longer than a block
            addresses.push_back(0);
            continue;
        }
        // Lengths that vary so that lines end at every offset of a block.
        const std::string pad(i % 37, ' ');
        char ip[20];
        std::snprintf(ip, sizeof ip, "%llx", static_cast<unsigned long long>(0x1000 + i));
        text += pad + "77 " + std::to_string(i) + ".5: " + pad + ip + (i % 3 ? "\n" : "\r\n");
        addresses.push_back(0x1000 + i);
    }
    text += "78 1.0: ff"; // no newline at the end
    addresses.push_back(0xff);

    std::istringstream in(text);
    const SampleInput got = readSamples(in, SamplesFormat::Auto);
    ASSERT_EQ(SamplesFormat::Perf, got.format);
    ASSERT_EQ(1u, got.errors.size());
    EXPECT_EQ(0u, got.errors[0].rfind("6000: bad time", 0)) << got.errors[0].substr(0, 40);
    size_t next = 0;
    for (size_t line = 1; line <= addresses.size(); ++line) {
        if (addresses[line - 1] == 0)
            continue;
        ASSERT_LT(next, got.samples.size()) << "line " << line;
        const Sample& s = got.samples[next++];
        EXPECT_EQ(line, s.line);
        EXPECT_EQ(addresses[line - 1], s.address) << "line " << line;
    }
    EXPECT_EQ(next, got.samples.size());
    EXPECT_EQ(78u, got.samples.back().pid);
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
