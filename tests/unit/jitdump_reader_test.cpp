// The jitdump reader: files made by the test writer come back field for
// field in either byte order; a file cut at any byte keeps exactly its
// complete records; each kind of damage stops the reading with a reason that
// names the field, its offset and the bad value.

#include "format/jitdump_reader.h"
#include "format/perf_map_reader.h"
#include "jitdump_writer.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

using namespace quarvel;
using quarvel_test::JitdumpDebugFields;
using quarvel_test::JitdumpLoadFields;
using quarvel_test::JitdumpWriter;
using quarvel_test::TempDir;

namespace jitdump_reader_test {

typedef std::vector<uint8_t> Bytes;

// What one record said, copied out so that it outlives the buffer.
struct Seen {
    JitdumpRecordKind kind;
    uint64_t offset;
    uint64_t end;
    std::string name;
};

struct ReadResult {
    bool opened = false;
    Reason openReason;
    std::vector<Seen> records;
    std::optional<Reason> stop;
    bool truncated = false;
    uint64_t completeEnd = 0;
};

// Reads from a heap buffer of exactly the file's size, so a read past it shows under the sanitizer.
ReadResult readAll(const Bytes& file) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[file.size() + (file.empty() ? 1 : 0)]);
    std::copy(file.begin(), file.end(), exact.get());
    ReadResult out;
    Expected<JitdumpReader> reader = JitdumpReader::fromBytes(exact.get(), file.size(), "t.dump");
    if (!reader) {
        out.openReason = reader.reason();
        return out;
    }
    out.opened = true;
    JitdumpRecord r;
    while (reader->next(r))
        out.records.push_back(
            {r.kind, r.offset, r.end(), r.kind == JitdumpRecordKind::codeLoad ? std::string(r.load.name) : ""});
    if (reader->stopReason())
        out.stop = *reader->stopReason();
    out.truncated = reader->truncated();
    out.completeEnd = reader->completeEnd();
    return out;
}

JitdumpLoadFields load(uint64_t codeAddr, const std::string& name, size_t codeSize = 8, uint64_t index = 0) {
    JitdumpLoadFields l;
    l.codeAddr = codeAddr;
    l.name = name;
    l.codeIndex = index;
    l.timestamp = 1000 + index;
    for (size_t i = 0; i < codeSize; ++i)
        l.code.push_back(static_cast<uint8_t>(0x90 + i));
    return l;
}

// Every record type once, padding where writers put it, an unknown record.
JitdumpWriter everyRecord(JitdumpWriter::Order order, uint32_t headerSize) {
    JitdumpWriter w(order);
    quarvel_test::JitdumpHeaderFields h;
    h.totalSize = headerSize;
    h.pid = 77;
    h.elfMachine = 183;
    h.timestamp = 0x1122334455667788ULL;
    h.flags = 1;
    w.header(h);
    JitdumpLoadFields first = load(0x7f0000001000, "JS:*first one.js:1", 5, 0);
    first.tid = 9;
    first.padding = 3;
    w.codeLoad(first);
    JitdumpDebugFields d;
    d.timestamp = 1500;
    d.codeAddr = 0x7f0000002000;
    d.entries = {{0x7f0000002000, 3, 1, "/src/a.js", false},
                 {0x7f0000002004, 4, 0, "", true},
                 {0x7f0000002008, -1, 7, "b.js", false}};
    d.padding = 5;
    w.debugInfo(d);
    w.codeLoad(load(0x7f0000002000, "JS:~second", 16, 1));
    quarvel_test::JitdumpMoveFields m;
    m.timestamp = 2000;
    m.oldCodeAddr = 0x7f0000002000;
    m.newCodeAddr = 0x7f0000003000;
    m.codeSize = 16;
    m.codeIndex = 1;
    w.codeMove(m);
    quarvel_test::JitdumpUnwindingFields u;
    u.timestamp = 2500;
    u.data = Bytes(12, 0xEE);
    u.ehFrameHdrSize = 4;
    u.mappedSize = 12;
    w.unwindingInfo(u);
    w.record(99, 2600, Bytes(7, 0x55));
    w.close(3000);
    return w;
}

struct OrderCase {
    JitdumpWriter::Order order;
    uint32_t headerSize;
};

class JitdumpRoundTrip : public ::testing::TestWithParam<OrderCase> {};

TEST_P(JitdumpRoundTrip, EveryFieldComesBack) {
    const JitdumpWriter w = everyRecord(GetParam().order, GetParam().headerSize);
    const Bytes& file = w.bytes();
    Expected<JitdumpReader> reader = JitdumpReader::fromBytes(file.data(), file.size(), "t.dump");
    ASSERT_TRUE(reader) << reader.reason().text();
    const JitdumpHeader& h = reader->header();
    EXPECT_EQ(GetParam().order == JitdumpWriter::Order::big, h.bigEndian);
    EXPECT_EQ(1u, h.version);
    EXPECT_EQ(GetParam().headerSize, h.totalSize);
    EXPECT_EQ(183u, h.elfMachine);
    EXPECT_EQ(77u, h.pid);
    EXPECT_EQ(0x1122334455667788ULL, h.timestamp);
    EXPECT_TRUE(h.archTimestamp());
    EXPECT_EQ(0u, h.unknownFlags());

    JitdumpRecord r;
    std::vector<JitdumpRecordKind> kinds;
    size_t i = 0;
    while (reader->next(r)) {
        ASSERT_LT(i, w.recordStarts().size());
        EXPECT_EQ(w.recordStarts()[i], r.offset) << "record " << i;
        kinds.push_back(r.kind);
        switch (i++) {
        case 0:
            EXPECT_EQ(1000u, r.timestamp);
            EXPECT_EQ(4242u, r.load.pid);
            EXPECT_EQ(9u, r.load.tid);
            EXPECT_EQ(0x7f0000001000u, r.load.vma);
            EXPECT_EQ(0x7f0000001000u, r.load.codeAddr);
            EXPECT_EQ(5u, r.load.codeSize);
            EXPECT_EQ(0u, r.load.codeIndex);
            EXPECT_EQ("JS:*first one.js:1", r.load.name);
            // The code is a view into the file, not a copy.
            EXPECT_EQ(file.data() + r.load.codeOffset, r.load.code);
            EXPECT_EQ(Bytes({0x90, 0x91, 0x92, 0x93, 0x94}), Bytes(r.load.code, r.load.code + r.load.codeSize));
            break;
        case 1: {
            EXPECT_EQ(1500u, r.timestamp);
            EXPECT_EQ(0x7f0000002000u, r.debugInfo.codeAddr);
            const auto& e = r.debugInfo.entries;
            ASSERT_EQ(3u, e.size());
            EXPECT_EQ(0x7f0000002000u, e[0].address);
            EXPECT_EQ(3, e[0].line);
            EXPECT_EQ(1, e[0].discriminator);
            EXPECT_EQ("/src/a.js", e[0].file);
            EXPECT_FALSE(e[0].sameFileAsPrevious);
            EXPECT_EQ(0x7f0000002004u, e[1].address);
            EXPECT_EQ("/src/a.js", e[1].file);
            EXPECT_TRUE(e[1].sameFileAsPrevious);
            EXPECT_EQ(-1, e[2].line);
            EXPECT_EQ(7, e[2].discriminator);
            EXPECT_EQ("b.js", e[2].file);
            break;
        }
        case 2:
            EXPECT_EQ("JS:~second", r.load.name);
            EXPECT_EQ(16u, r.load.codeSize);
            EXPECT_EQ(1u, r.load.codeIndex);
            break;
        case 3:
            EXPECT_EQ(2000u, r.timestamp);
            EXPECT_EQ(0x7f0000002000u, r.move.oldCodeAddr);
            EXPECT_EQ(0x7f0000003000u, r.move.newCodeAddr);
            EXPECT_EQ(0x7f0000003000u, r.move.vma);
            EXPECT_EQ(16u, r.move.codeSize);
            EXPECT_EQ(1u, r.move.codeIndex);
            break;
        case 4:
            EXPECT_EQ(12u, r.unwinding.unwindDataSize);
            EXPECT_EQ(4u, r.unwinding.ehFrameHdrSize);
            EXPECT_EQ(12u, r.unwinding.mappedSize);
            EXPECT_EQ(file.data() + r.unwinding.dataOffset, r.unwinding.data);
            break;
        case 5:
            EXPECT_EQ(99u, r.id);
            EXPECT_EQ(16u + 7u, r.totalSize);
            break;
        case 6:
            EXPECT_EQ(3000u, r.timestamp);
            break;
        }
    }
    using K = JitdumpRecordKind;
    EXPECT_EQ(
        std::vector<K>({K::codeLoad, K::debugInfo, K::codeLoad, K::codeMove, K::unwindingInfo, K::unknown, K::close}),
        kinds);
    EXPECT_EQ(nullptr, reader->stopReason());
    EXPECT_EQ(file.size(), reader->completeEnd());
}

INSTANTIATE_TEST_SUITE_P(Orders, JitdumpRoundTrip,
                         ::testing::Values(OrderCase{JitdumpWriter::Order::little, 40},
                                           OrderCase{JitdumpWriter::Order::big, 40},
                                           OrderCase{JitdumpWriter::Order::little, 64},
                                           OrderCase{JitdumpWriter::Order::big, 72}),
                         [](const ::testing::TestParamInfo<OrderCase>& info) {
                             return std::string(info.param.order == JitdumpWriter::Order::big ? "Big" : "Little") +
                                    "Header" + std::to_string(info.param.headerSize);
                         });

class JitdumpCut : public ::testing::TestWithParam<JitdumpWriter::Order> {};

// A process killed while writing leaves a file cut anywhere: whatever the cut,
// the reader hands out exactly the records that end before it, then says the
// next one is cut and where it starts.
TEST_P(JitdumpCut, EveryCutKeepsExactlyTheCompleteRecords) {
    const JitdumpWriter w = everyRecord(GetParam(), 40);
    const std::vector<size_t>& starts = w.recordStarts();
    for (size_t cut = 0; cut <= w.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        const ReadResult got = readAll(w.cut(cut));
        if (cut < JitdumpReader::kHeaderSize) {
            ASSERT_FALSE(got.opened);
            EXPECT_EQ(meBadRecord, got.openReason.code);
            continue;
        }
        ASSERT_TRUE(got.opened) << got.openReason.text();
        size_t whole = 0;
        while (whole < starts.size() && (whole + 1 < starts.size() ? starts[whole + 1] : w.size()) <= cut)
            ++whole;
        ASSERT_EQ(whole, got.records.size());
        for (size_t i = 0; i < whole; ++i)
            EXPECT_EQ(starts[i], got.records[i].offset);
        const bool atBoundary = cut == w.size() || cut == starts[whole];
        if (atBoundary) {
            EXPECT_FALSE(got.stop) << got.stop->text();
            EXPECT_EQ(cut, got.completeEnd);
        } else {
            ASSERT_TRUE(got.stop);
            EXPECT_TRUE(got.truncated);
            EXPECT_EQ(starts[whole], got.stop->offset);
            EXPECT_EQ(starts[whole], got.completeEnd);
            EXPECT_EQ("t.dump", got.stop->file);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Orders, JitdumpCut, ::testing::Values(JitdumpWriter::Order::little, JitdumpWriter::Order::big),
                         [](const ::testing::TestParamInfo<JitdumpWriter::Order>& info) {
                             return std::string(info.param == JitdumpWriter::Order::big ? "Big" : "Little");
                         });

// Damage inside a record whose size fits the file: the records before it are
// kept, the reason names the field and the value, nothing after is read.
struct DamageCase {
    const char* name;
    void (*damage)(JitdumpWriter&); // writes the second record, damaged
    bool truncated;
    const char* field;
    uint64_t offsetInRecord; // of the bad field, from the damaged record's start
    const char* message;     // a part of the reason's message
};

class JitdumpDamage : public ::testing::TestWithParam<DamageCase> {};

TEST_P(JitdumpDamage, KeepsWhatCameBeforeAndSaysWhereAndWhy) {
    const DamageCase& c = GetParam();
    JitdumpWriter w;
    w.header().codeLoad(load(0x1000, "JS:*kept", 8, 0));
    c.damage(w);
    const size_t damagedAt = w.recordStarts()[1];
    w.codeLoad(load(0x3000, "JS:*after", 8, 2));
    const ReadResult got = readAll(w.bytes());
    ASSERT_TRUE(got.opened);
    ASSERT_EQ(1u, got.records.size());
    EXPECT_EQ("JS:*kept", got.records[0].name);
    ASSERT_TRUE(got.stop);
    EXPECT_EQ(c.truncated, got.truncated);
    EXPECT_EQ(c.field, got.stop->field);
    EXPECT_EQ(damagedAt + c.offsetInRecord, got.stop->offset);
    EXPECT_NE(std::string::npos, got.stop->message.find(c.message)) << got.stop->text();
    EXPECT_EQ(damagedAt, got.completeEnd);
}

Bytes body(std::initializer_list<std::pair<uint64_t, int>> fields) {
    Bytes b;
    for (const auto& f : fields)
        for (int i = 0; i < f.second; ++i)
            b.push_back(static_cast<uint8_t>(f.first >> (8 * i)));
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, JitdumpDamage,
    ::testing::Values(
        DamageCase{"SizeBelowThePrefix", [](JitdumpWriter& w) { w.codeLoad(load(0x2000, "x")).setRecordSize(1, 8); },
                   false, "record total_size", 4, "size 8 is smaller than the 16-byte prefix"},
        DamageCase{"SizePastTheEnd", [](JitdumpWriter& w) { w.codeLoad(load(0x2000, "x")).setRecordSize(1, 1u << 30); },
                   true, "record total_size", 0, "record of 1073741824 bytes is cut by the end of the file"},
        DamageCase{"CodeSizePastTheRecord",
                   [](JitdumpWriter& w) {
                       JitdumpLoadFields l = load(0x2000, "x");
                       l.codeSizeField = 0xFFFFFFFFFFFFFFF0ULL;
                       w.codeLoad(l);
                   },
                   false, "CODE_LOAD code_size", 40, "code_size 18446744073709551600 exceeds the 8 bytes"},
        DamageCase{"NameWithoutItsEnd",
                   [](JitdumpWriter& w) {
                       JitdumpLoadFields l = load(0x2000, "JS:*nameless", 0);
                       l.omitNameTerminator = true;
                       w.codeLoad(l);
                   },
                   false, "CODE_LOAD", 56, "unterminated CODE_LOAD name"},
        DamageCase{"LoadShorterThanItsFields", [](JitdumpWriter& w) { w.record(0, 5, Bytes(12, 0)); }, false,
                   "CODE_LOAD", 16 + 8, "while reading CODE_LOAD vma"},
        DamageCase{"MoveShorterThanItsFields", [](JitdumpWriter& w) { w.record(1, 5, Bytes(40, 0)); }, false,
                   "CODE_MOVE", 16 + 40, "while reading CODE_MOVE code_index"},
        DamageCase{"DebugCountPastTheRecord",
                   [](JitdumpWriter& w) {
                       JitdumpDebugFields d;
                       d.codeAddr = 0x2000;
                       d.entries = {{0x2000, 1, 0, "a.js", false}};
                       d.countField = 1ULL << 60;
                       w.debugInfo(d);
                   },
                   false, "CODE_DEBUG_INFO nr_entry", 24, "nr_entry 1152921504606846976 needs at least 17 bytes"},
        DamageCase{"DebugCountOneTooMany",
                   [](JitdumpWriter& w) {
                       JitdumpDebugFields d;
                       d.codeAddr = 0x2000;
                       d.entries = {{0x2000, 1, 0, "a.js", false}};
                       d.countField = 2;
                       w.debugInfo(d);
                   },
                   false, "CODE_DEBUG_INFO nr_entry", 24, "nr_entry 2"},
        DamageCase{"DebugFileNameWithoutItsEnd",
                   [](JitdumpWriter& w) {
                       Bytes b = body({{0x2000, 8}, {1, 8}, {0x2000, 8}, {5, 4}, {0, 4}});
                       b.insert(b.end(), {'a', '.', 'j', 's'});
                       w.record(2, 5, b);
                   },
                   false, "CODE_DEBUG_INFO", 16 + 32, "unterminated CODE_DEBUG_INFO entry file name"},
        DamageCase{"UnwindingSizePastTheRecord",
                   [](JitdumpWriter& w) {
                       quarvel_test::JitdumpUnwindingFields u;
                       u.data = Bytes(8, 1);
                       u.unwindDataSizeField = 100;
                       w.unwindingInfo(u);
                   },
                   false, "CODE_UNWINDING_INFO unwinding_size", 16, "unwinding_size 100 exceeds the 8 bytes"},
        DamageCase{"EhFrameHeaderLargerThanTheData",
                   [](JitdumpWriter& w) {
                       quarvel_test::JitdumpUnwindingFields u;
                       u.data = Bytes(8, 1);
                       u.ehFrameHdrSize = 16;
                       w.unwindingInfo(u);
                   },
                   false, "CODE_UNWINDING_INFO eh_frame_hdr_size", 24,
                   "eh_frame_hdr_size 16 exceeds unwinding_size 8"}),
    [](const ::testing::TestParamInfo<DamageCase>& info) { return std::string(info.param.name); });

// Headers that are refused before any record is read.
struct HeaderCase {
    const char* name;
    Bytes file;
    uint64_t offset;
    const char* field;
    const char* message;
};

class JitdumpHeaderRefused : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(JitdumpHeaderRefused, WithTheFieldAndValue) {
    const HeaderCase& c = GetParam();
    const ReadResult got = readAll(c.file);
    ASSERT_FALSE(got.opened);
    EXPECT_EQ(c.offset, got.openReason.offset);
    EXPECT_EQ(c.field, got.openReason.field);
    EXPECT_NE(std::string::npos, got.openReason.message.find(c.message)) << got.openReason.text();
    EXPECT_EQ("t.dump", got.openReason.file);
}

Bytes headerWith(uint32_t version, uint32_t totalSize) {
    quarvel_test::JitdumpHeaderFields h;
    h.version = version;
    h.totalSize = totalSize;
    return JitdumpWriter().header(h).bytes();
}

// Forty bytes of header whose total_size says more.
Bytes headerClaiming(uint32_t totalSize) {
    Bytes h = headerWith(1, 40);
    for (int i = 0; i < 4; ++i)
        h[8 + i] = static_cast<uint8_t>(totalSize >> (8 * i));
    return h;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, JitdumpHeaderRefused,
    ::testing::Values(HeaderCase{"Empty", {}, 0, "header", "not a jitdump"},
                      HeaderCase{"OtherMagic", Bytes(40, 'a'), 0, "magic", "magic 0x61616161 is not 0x4a695444"},
                      HeaderCase{"CutHeader", JitdumpWriter().header().cut(30), 24, "header", "the header is cut"},
                      HeaderCase{"VersionZero", headerWith(0, 40), 4, "version", "unsupported version 0"},
                      HeaderCase{"VersionThree", headerWith(3, 40), 4, "version", "unsupported version 3"},
                      HeaderCase{"HeaderSizeBelowItsFields", headerWith(1, 39), 8, "header total_size",
                                 "header size 39 is smaller than its 40 bytes"},
                      HeaderCase{"HeaderSizePastTheFile", headerClaiming(4096), 8, "header total_size",
                                 "header size 4096 passes the end of the file"}),
    [](const ::testing::TestParamInfo<HeaderCase>& info) { return std::string(info.param.name); });

// Version 2 is read; unknown flag bits are reported, not refused.
TEST(JitdumpReader, AHeaderOnlyDumpOfVersionTwoWithUnknownFlagsIsAnEmptyDump) {
    quarvel_test::JitdumpHeaderFields h;
    h.version = 2;
    h.flags = 0x21;
    const Bytes file = JitdumpWriter().header(h).bytes();
    Expected<JitdumpReader> reader = JitdumpReader::fromBytes(file.data(), file.size(), "t.dump");
    ASSERT_TRUE(reader) << reader.reason().text();
    EXPECT_TRUE(reader->header().archTimestamp());
    EXPECT_EQ(0x20u, reader->header().unknownFlags());
    JitdumpRecord r;
    EXPECT_FALSE(reader->next(r));
    EXPECT_EQ(nullptr, reader->stopReason());
}

// Unknown ids are stepped over by their size, the bare prefix included, and
// reading goes on with the records that follow.
TEST(JitdumpReader, UnknownRecordsAreSkippedBySize) {
    JitdumpWriter w;
    w.header().record(5, 0, {}).codeLoad(load(0x1000, "a")).record(0x7FFFFFFF, 0, Bytes(1000, 0xFF)).close();
    const ReadResult got = readAll(w.bytes());
    using K = JitdumpRecordKind;
    ASSERT_EQ(4u, got.records.size());
    EXPECT_EQ(K::unknown, got.records[0].kind);
    EXPECT_EQ(K::codeLoad, got.records[1].kind);
    EXPECT_EQ(K::unknown, got.records[2].kind);
    EXPECT_EQ(K::close, got.records[3].kind);
    EXPECT_FALSE(got.stop);
}

// Mapped files are read through the file set (runtime_files_test).
TEST(JitdumpReader, RefusesAMissingFile) {
    TempDir dir;
    Expected<JitdumpReader> missing = JitdumpReader::open(dir.file("jit-78.dump"));
    ASSERT_FALSE(missing);
    EXPECT_EQ(meFileOpenError, missing.reason().code);
    EXPECT_EQ(dir.file("jit-78.dump"), missing.reason().file);
}

struct DetectCase {
    const char* name;
    Bytes start;
    bool jitdump;
};

class JitdumpDetect : public ::testing::TestWithParam<DetectCase> {};

TEST_P(JitdumpDetect, ByTheMagicInEitherOrder) {
    const DetectCase& c = GetParam();
    EXPECT_EQ(c.jitdump, JitdumpReader::detect(c.start.data(), c.start.size()));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, JitdumpDetect,
    ::testing::Values(DetectCase{"LittleEndian", JitdumpWriter().header().cut(8), true},
                      DetectCase{"BigEndian", JitdumpWriter(JitdumpWriter::Order::big).header().cut(4), true},
                      DetectCase{"ThreeBytes", JitdumpWriter().header().cut(3), false},
                      DetectCase{"PerfMapText", Bytes{'1', '0', '0', '0', ' ', '2', '0', ' ', 'f', '\n'}, false},
                      DetectCase{"Zeros", Bytes(64, 0), false}, DetectCase{"Empty", Bytes{}, false}),
    [](const ::testing::TestParamInfo<DetectCase>& info) { return std::string(info.param.name); });

struct FileNameCase {
    const char* name;
    bool jitdump; // else a perf map
    bool ok;
    uint32_t pid;
};

class PidFileName : public ::testing::TestWithParam<FileNameCase> {};

TEST_P(PidFileName, TheRuntimesNamingOfItsFiles) {
    const FileNameCase& c = GetParam();
    uint32_t pid = 7;
    const bool ok =
        c.jitdump ? JitdumpReader::pidFromFileName(c.name, pid) : PerfMapReader::pidFromFileName(c.name, pid);
    ASSERT_EQ(c.ok, ok);
    EXPECT_EQ(c.ok ? c.pid : 7u, pid);
}

INSTANTIATE_TEST_SUITE_P(
    Names, PidFileName,
    ::testing::Values(FileNameCase{"jit-4242.dump", true, true, 4242},
                      FileNameCase{"jit-4294967295.dump", true, true, 4294967295u},
                      FileNameCase{"jit-4294967296.dump", true, false, 0}, FileNameCase{"jit-.dump", true, false, 0},
                      FileNameCase{"jit-12a.dump", true, false, 0}, FileNameCase{"jit--12.dump", true, false, 0},
                      FileNameCase{"jit-12.dump.1", true, false, 0}, FileNameCase{"perf-12.map", true, false, 0},
                      FileNameCase{"perf-12.map", false, true, 12}, FileNameCase{"perf-+12.map", false, false, 0},
                      FileNameCase{"perf-99999999999999999999999.map", false, false, 0},
                      FileNameCase{"xperf-12.map", false, false, 0}));

} // namespace
