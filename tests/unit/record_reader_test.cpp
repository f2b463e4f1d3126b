// Record framing: every status and message of getNextRecord, and what a file
// cut at any byte gives back.

#include "format/jit_file_decoder.h"
#include "log_capture.h"
#include "trace_builder.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <vector>

using namespace quarvel;
using quarvel_test::LogCapture;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

namespace record_reader_test {

const std::string kSuffix = ", at file: vcs/quarvel3/src/jitreader/jit_file_decoder:";

// A record's body is valid until the next record: each read keeps a copy.
struct Read {
    quarvel_error_t status;
    Record record;
    std::vector<uint8_t> data;
    Reason reason;
};

std::vector<Read> readAll(const std::string& path, size_t limit = 100) {
    JitFileDecoder decoder(path, 42, 1, 0, dmCodeBytes);
    std::vector<Read> reads;
    for (size_t i = 0; i < limit; ++i) {
        Read r;
        r.status = decoder.getNextRecord(r.record);
        r.data.assign(r.record.data.begin(), r.record.data.end());
        r.record.data = ByteSpan();
        if (r.status != meSuccess && r.status != meEndOfData)
            r.reason = decoder.lastError();
        reads.push_back(r);
        if (r.status != meSuccess)
            break;
    }
    return reads;
}

using Bytes = std::vector<uint8_t>;

// The one ERROR line of a refused record, without its source suffix.
std::string errorText(const LogCapture& log) {
    const auto errors = log.errors();
    if (errors.size() != 1)
        return "<" + std::to_string(errors.size()) + " errors>\n" + log.dump();
    const std::string& e = errors.front();
    const size_t at = e.find(kSuffix);
    return at == std::string::npos ? "<no suffix> " + e : e.substr(0, at);
}

struct FramingCase {
    const char* name;
    std::vector<uint8_t> file;
    std::vector<quarvel_error_t> statuses;
    const char* error; // the ERROR line, or "" for none
    const char* field; // the field the reason names
    uint64_t offset;   // where the reason points
};

class RecordFramingTest : public ::testing::TestWithParam<FramingCase> {};

TEST_P(RecordFramingTest, StatusesAndMessages) {
    const FramingCase& c = GetParam();
    TempDir dir;
    const std::string path = TraceBuilder().raw(c.file).writeTo(dir.file("h.1.jit"));
    LogCapture log;
    const auto reads = readAll(path);
    std::vector<quarvel_error_t> statuses;
    for (const Read& r : reads)
        statuses.push_back(r.status);
    EXPECT_EQ(c.statuses, statuses);
    if (*c.error) {
        EXPECT_EQ(c.error, errorText(log));
        const Reason& reason = reads.back().reason;
        EXPECT_EQ(c.field, reason.field) << reason.text();
        EXPECT_EQ(c.offset, reason.offset) << reason.text();
        EXPECT_EQ(path, reason.file);
    } else {
        EXPECT_TRUE(log.errors().empty()) << log.dump();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RecordFramingTest,
    ::testing::Values(FramingCase{"EmptyFile", {}, {meEndOfData}, "", "", 0},
                      FramingCase{"ThreeBytes", Bytes({0, 0, 0x40}), {meEndOfData}, "", "", 0},
                      FramingCase{
                          "MagicZeroAccepted", TraceBuilder().magic(0).bytes(), {meSuccess, meEndOfData}, "", "", 0},
                      FramingCase{"MagicCutInValue",
                                  Bytes({0, 0, 0x40, 0, 1, 2}),
                                  {meBadRecord},
                                  "Couldn't process the magic trace",
                                  "magic value",
                                  4},
                      FramingCase{"CollectorCutInValue",
                                  Bytes({13, 0, 0, 0, 1}),
                                  {meBadRecord},
                                  "Couldn't process the collector type trace",
                                  "collector type",
                                  4},
                      FramingCase{"SizedCutInSize",
                                  Bytes({6, 0, 0, 0, 9, 0}),
                                  {meBadRecord},
                                  "Couldn't read size of the jit trace",
                                  "record size",
                                  4},
                      FramingCase{"SizeZero",
                                  Bytes({8, 0, 0, 0, 0, 0, 0, 0}),
                                  {meBadRecord},
                                  "Couldn't read content of the jit trace",
                                  "record size",
                                  4},
                      FramingCase{"BodyShorterThanSize",
                                  Bytes({15, 0, 0, 0, 10, 0, 0, 0, 1, 2, 3}),
                                  {meBadRecord},
                                  "Couldn't read content of the jit trace",
                                  "record body",
                                  8},
                      FramingCase{"SizeClaimsGigabytes",
                                  Bytes({15, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1}),
                                  {meBadRecord},
                                  "Couldn't read content of the jit trace",
                                  "record body",
                                  8},
                      FramingCase{"TypeOne",
                                  Bytes({1, 0, 0, 0, 4, 0, 0, 0}),
                                  {meBadRecord},
                                  "Couldn't recognize type of the jit trace",
                                  "record type",
                                  0},
                      FramingCase{"TypeThree",
                                  Bytes({3, 0, 0, 0, 4, 0, 0, 0}),
                                  {meBadRecord},
                                  "Couldn't recognize type of the jit trace",
                                  "record type",
                                  0},
                      FramingCase{"TypeSixteen",
                                  Bytes({16, 0, 0, 0, 4, 0, 0, 0}),
                                  {meBadRecord},
                                  "Couldn't recognize type of the jit trace",
                                  "record type",
                                  0}),
    [](const ::testing::TestParamInfo<FramingCase>& info) { return info.param.name; });

// The sized types, the neighbours of the unknown types 1 and 3 among them.
TEST(RecordReaderTest, EverySizedTypeIsFramedAndOffsetsFollowTheRecords) {
    TraceBuilder trace;
    trace.magic(7).collector(1);
    const std::vector<uint32_t> sizedTypes = {0, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14, 15};
    for (uint32_t type : sizedTypes)
        trace.sized(type, std::vector<uint8_t>(type + 1, static_cast<uint8_t>(type)));
    TempDir dir;
    const auto reads = readAll(trace.writeTo(dir.file("h.1.jit")));
    ASSERT_EQ(trace.recordStarts().size() + 1, reads.size());
    for (size_t i = 0; i < trace.recordStarts().size(); ++i) {
        EXPECT_EQ(meSuccess, reads[i].status);
        EXPECT_EQ(trace.recordStarts()[i], reads[i].record.offset);
    }
    EXPECT_EQ(0u, reads[0].record.offset);
    EXPECT_EQ(8u, reads[1].record.offset);
    EXPECT_EQ((std::vector<uint8_t>{7, 0, 0, 0}), reads[0].data);
    EXPECT_EQ(std::vector<uint8_t>(11, 10), reads[2 + 8].data);
    EXPECT_EQ(meEndOfData, reads.back().status);
}

TEST(RecordReaderTest, SizedRecordsLogTheirNameAtInfo) {
    TempDir dir;
    const std::string path = TraceBuilder()
                                 .magic()
                                 .collector(3)
                                 .sized(0, {1})
                                 .sized(10, {1})
                                 .sized(11, {1})
                                 .sized(14, {1})
                                 .sized(15, {1})
                                 .writeTo(dir.file("h.1.jit"));
    LogCapture log;
    readAll(path);
    EXPECT_EQ(
        (std::vector<std::string>{"JIT TRACE: MethodLoad", "JIT TRACE: MethodUpdate", "JIT TRACE: MethodInlineLoad",
                                  "JIT TRACE: MethodUpdate_v2", "JIT TRACE: ManagedRuntimeInfo"}),
        log.messages(log4cplus::INFO_LOG_LEVEL));
    EXPECT_TRUE(log.contains("JIT TRACE: Magic", log4cplus::TRACE_LOG_LEVEL));
    EXPECT_TRUE(log.contains("JIT TRACE: CollectorType", log4cplus::TRACE_LOG_LEVEL));
    EXPECT_TRUE(log.contains("Value: 3", log4cplus::TRACE_LOG_LEVEL));
}

TEST(RecordReaderTest, UnopenableFilesReportFileOpenError) {
    TempDir dir;
    LogCapture log;
    Record record;
    JitFileDecoder missing(dir.file("missing.1.jit"), 1, 1, 0, dmNone);
    EXPECT_EQ(meFileOpenError, missing.getNextRecord(record));
    EXPECT_EQ("Couldn't open the jit file", errorText(log));

    // Traces are never read through a symbolic link.
    const std::string target = TraceBuilder().magic().writeTo(dir.file("real.1.jit"));
    boost::filesystem::create_symlink(target, dir.file("link.1.jit"));
    log.clear();
    JitFileDecoder linked(dir.file("link.1.jit"), 1, 1, 0, dmNone);
    EXPECT_EQ("jitPath: " + dir.file("link.1.jit") + " is a symlink. Please, provide the file with actual path",
              errorText(log));
    log.clear();
    EXPECT_EQ(meFileOpenError, linked.getNextRecord(record));
    EXPECT_EQ("Couldn't open the jit file", errorText(log));
}

// A file cut at any byte: no crash, and exactly the records that end before
// the cut come back, followed by end of data (cut between records) or a bad record.
TEST(RecordReaderTest, TruncatedAtEveryOffsetKeepsTheCompleteRecords) {
    TraceBuilder trace;
    trace.magic().collector(1);
    quarvel_test::TraceMethodLoad load = quarvel_test::makeLoad(1, 100, 0x1000, 24);
    trace.load(3, load).load(2, load).inlineLoad(quarvel_test::makeInline(2, 1, 100, 0x1004, 4));
    trace.updateV2(quarvel::TraceUpdateV2{1, 150, 0x1000, 4, {1, 2, 3, 4}});
    trace.runtimeInfo(quarvel::TraceRuntimeInfo{1, "17.0.15", "OpenJDK 64-Bit Server VM"});
    std::vector<size_t> ends(trace.recordStarts().begin() + 1, trace.recordStarts().end());
    ends.push_back(trace.bytes().size());

    TempDir dir;
    const std::string path = dir.file("h.1.jit");
    for (size_t cut = 0; cut <= trace.bytes().size(); ++cut) {
        trace.writeTo(path, cut);
        LogCapture log;
        const auto reads = readAll(path);
        const size_t complete =
            static_cast<size_t>(std::count_if(ends.begin(), ends.end(), [&](size_t e) { return e <= cut; }));
        const bool atBoundary = cut == 0 || std::find(ends.begin(), ends.end(), cut) != ends.end();
        const size_t expectedReads = complete + 1;
        ASSERT_EQ(expectedReads, reads.size()) << "cut at " << cut;
        for (size_t i = 0; i < complete; ++i)
            ASSERT_EQ(meSuccess, reads[i].status) << "cut at " << cut;
        // A cut inside a type word is the end of data; anywhere else inside a record it is a bad record.
        const size_t recordStart = complete < trace.recordStarts().size() ? trace.recordStarts()[complete] : cut;
        const bool insideType = !atBoundary && cut - recordStart < 4;
        EXPECT_EQ(atBoundary || insideType ? meEndOfData : meBadRecord, reads.back().status) << "cut at " << cut;
    }
}

} // namespace
