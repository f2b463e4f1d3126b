// Jitdump files and perf maps through the file set and the reading pass into
// the data manager: which code answers at an address at a time, lines,
// moves, refusals that let the pass read on, perf map cuts that keep every
// whole line and say where, the pairing of a perf map with a jitdump, and jit
// rvas that do not depend on the decoding mode. (A jitdump cut at every byte:
// jitdump_reader_test; the pass over a cut one, and the last of several perf
// map lines over an address: the cli runtime goldens.)

#include "index/jit_data_manager.h"
#include "ingest/address_ranges.h"
#include "ingest/jit_files_manager.h"
#include "ingest/jitdump_line_table.h"
#include "ingest/trace_format.h"
#include "support/mapped_file.h"
#include "jitdump_writer.h"
#include "log_capture.h"
#include "path_list.h"
#include "temp_dir.h"
#include "trace_equality.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace quarvel;
using quarvel_test::JitdumpDebugFields;
using quarvel_test::JitdumpDebugLineFields;
using quarvel_test::JitdumpLoadFields;
using quarvel_test::JitdumpMoveFields;
using quarvel_test::JitdumpWriter;
using quarvel_test::TempDir;

namespace runtime_files_test {

const u32 kPid = 4242;

JitdumpLoadFields load(u64 time, u64 address, u32 size, const std::string& name) {
    JitdumpLoadFields f;
    f.timestamp = time;
    f.codeAddr = address;
    f.name = name;
    f.code.assign(size, 0x90);
    return f;
}

// Entries at address + bias + 0x10 * i, one line each, all of one file.
JitdumpDebugFields lines(u64 address, u64 bias, std::vector<int> lineAt, const std::string& file = "/app/a.js") {
    JitdumpDebugFields f;
    f.codeAddr = address;
    for (size_t i = 0; i < lineAt.size(); ++i) {
        JitdumpDebugLineFields e;
        e.address = address + bias + 0x10 * i;
        e.line = lineAt[i];
        e.file = file;
        f.entries.push_back(e);
    }
    return f;
}

JitdumpWriter dump() {
    JitdumpWriter w;
    quarvel_test::JitdumpHeaderFields header;
    header.pid = kPid;
    w.header(header);
    return w;
}

// A file set over some files, read in one pass.
struct ReadSet {
    JitFilesManager files;
    JitDataManager data;
    u32 host = 0;

    ReadSet(const std::vector<std::string>& paths, decoding_mode_t mode = dmCodeBytes) {
        EXPECT_EQ(meSuccess, files.initialize(quarvel_test::PathList(paths).it(), taAny));
        EXPECT_EQ(meSuccess, files.readJitFiles(mode, data));
        host = files.getHostID(localHostName());
    }

    // The name of the code at an address at a time, or "-".
    std::string nameAt(u64 address, u64 time, u32 pid = kPid) const {
        Region::Ptr region;
        JitMethod::Ptr method;
        if (data.findRegion(address, time, pid, host, region, method) != meSuccess)
            return "-";
        return method->getMethodName();
    }
    // The source line there, or 0.
    unsigned lineAt(u64 address, u64 time) const {
        JitMethod::Ptr method;
        u64 jitRva = 0;
        if (data.resolveJitPoint(address, time, kPid, host, method, jitRva) != meSuccess)
            return 0;
        const ISourceLocation::Ptr location = method->getSourceLocation(jitRva);
        return location ? location->getLine() : 0;
    }
    JitReadStats stats() const { return files.readStats(); }
};

struct Query {
    u64 address;
    u64 time;
    const char* name;
};

// --- what answers where and when --------------------------------------------

TEST(JitdumpThroughTheFileSet, EachLoadLivesFromItsTimeUntilCodeIsLoadedOverIt) {
    TempDir dir;
    JitdumpWriter w = dump();
    w.codeLoad(load(100, 0x1000, 0x40, "JS:~a"))
        .codeLoad(load(200, 0x2000, 0x20, "JS:*b"))
        .codeLoad(load(300, 0x1020, 0x40, "JS:*c")) // over the second half of a
        .codeLoad(load(400, 0x2000, 0x20, "JS:*b")) // the same name again: a load of its own
        .close(500);
    ReadSet set({w.writeTo(dir.file("jit-4242.dump"))});

    const Query queries[] = {
        {0x1000, 99, "-"},   {0x1000, 100, "JS:~a"}, {0x103f, 299, "JS:~a"},
        {0x1010, 300, "-"},  {0x1030, 300, "JS:*c"}, {0x105f, 1000, "JS:*c"},
        {0x1060, 1000, "-"}, {0x2010, 250, "JS:*b"}, {0x2010, 450, "JS:*b"},
    };
    for (const Query& q : queries)
        EXPECT_EQ(q.name, set.nameAt(q.address, q.time)) << std::hex << q.address << " at " << std::dec << q.time;

    // Four methods, raw ids 1..4 in file order: none collapses into another.
    std::vector<unsigned> ids;
    for (const JitMethod::Ptr& m : set.data.getJitMethods())
        ids.push_back(m->getRawMethodId());
    EXPECT_EQ((std::vector<unsigned>{1, 2, 3, 4}), ids);
    EXPECT_EQ(4u, set.stats().jitdumpCodeLoads);
    EXPECT_EQ(1u, set.stats().jitdumpOtherRecords);
}

TEST(JitdumpThroughTheFileSet, LinesComeFromTheDebugRecordWithTheBiasRemoved) {
    struct Case {
        u64 bias;
        bool debugAfterLoad;
    };
    for (const Case c : {Case{0x40, false}, Case{0, false}, Case{0x40, true}}) {
        TempDir dir;
        JitdumpWriter w = dump();
        if (!c.debugAfterLoad)
            w.debugInfo(lines(0x1000, c.bias, {10, 11, 12}));
        w.codeLoad(load(100, 0x1000, 0x30, "JS:*f"));
        if (c.debugAfterLoad) // a debug record is for the load after it, never before
            w.debugInfo(lines(0x1000, c.bias, {10, 11, 12}));
        ReadSet set({w.writeTo(dir.file("jit-4242.dump"))});
        const unsigned want[] = {10, 11, 12};
        for (u64 offset = 0; offset < 0x30; offset += 0x8)
            EXPECT_EQ(c.debugAfterLoad ? 0u : want[offset / 0x10], set.lineAt(0x1000 + offset, 100))
                << "bias " << c.bias << ", offset " << offset;
    }
}

TEST(JitdumpThroughTheFileSet, MovedCodeAnswersAtItsNewAddressAsTheSameMethod) {
    TempDir dir;
    JitdumpWriter w = dump();
    JitdumpMoveFields move;
    move.timestamp = 200;
    move.oldCodeAddr = 0x1000;
    move.newCodeAddr = 0x5000;
    move.codeSize = 0x30;
    w.debugInfo(lines(0x1000, 0x40, {7, 8, 9})).codeLoad(load(100, 0x1000, 0x30, "JS:*moved")).codeMove(move);
    JitdumpMoveFields stray = move; // nothing lives at its old address
    stray.oldCodeAddr = 0x9000;
    w.codeMove(stray);
    ReadSet set({w.writeTo(dir.file("jit-4242.dump"))});

    EXPECT_EQ("-", set.nameAt(0x5010, 199));
    EXPECT_EQ("JS:*moved", set.nameAt(0x5010, 200));
    EXPECT_EQ(8u, set.lineAt(0x5010, 200));
    EXPECT_EQ(1u, set.data.getJitMethods().size());
    EXPECT_EQ(1u, set.stats().refusedBodies);
}

TEST(JitdumpThroughTheFileSet, LoadsTheModelCannotHoldAreRefusedAndReadingGoesOn) {
    TempDir dir;
    JitdumpWriter w = dump();
    w.codeLoad(load(100, 0x1000, 0, "JS:*empty"))
        .codeLoad(load(110, 0, 0x10, "JS:*at-zero"))
        .codeLoad(load(120, 0xFFFFFFFFFFFFFFF0ull, 0x20, "JS:*wraps"))
        .codeLoad(load(130, 0x2000, 0x10, "JS:*kept"));
    ReadSet set({w.writeTo(dir.file("jit-4242.dump"))});

    EXPECT_EQ("JS:*kept", set.nameAt(0x2000, 130));
    const JitReadStats stats = set.stats();
    EXPECT_EQ(3u, stats.refusedBodies);
    ASSERT_EQ(3u, stats.refusals.size());
    for (const Reason& r : stats.refusals) {
        EXPECT_EQ(dir.file("jit-4242.dump"), r.file);
        EXPECT_NE(Reason::kNoOffset, r.offset);
    }
    EXPECT_EQ(0u, stats.failedFiles);
}

// --- cuts ------------------------------------------------------------------

TEST(PerfMapThroughTheFileSet, ACutAtAnyByteKeepsEveryWholeLineAndSaysWhere) {
    quarvel_test::LogCapture log;
    TempDir dir;
    const std::string text = "1000 10 one\n2000 10 two\n3000 10 three\n";
    for (size_t cut = 0; cut <= text.size(); ++cut) {
        const std::string path = dir.write("perf-4242.map", text.substr(0, cut));
        const size_t lineEnds = std::count(text.begin(), text.begin() + cut, '\n');
        const bool midLine = cut && text[cut - 1] != '\n';
        // A cut inside the first line's numbers leaves no perf map at all.
        if (detectTraceFormat(path, cut) != TraceFormat::perfMap)
            continue;
        JitFilesManager files;
        ASSERT_EQ(meSuccess, files.initialize(quarvel_test::PathList{path}.it(), taAny));
        JitDataManager data;
        files.readJitFiles(dmCodeBytes, data);
        EXPECT_EQ(lineEnds, data.getJitMethods().size()) << "cut at " << cut;
        const JitReadStats stats = files.readStats();
        EXPECT_EQ(midLine ? 1u : 0u, stats.damagedRecords + stats.refusedBodies) << "cut at " << cut;
        if (midLine && stats.damagedRecords) {
            EXPECT_EQ(text.rfind('\n', cut - 1) + 1, stats.refusals.at(0).offset) << "cut at " << cut;
        }
    }
}

// --- perf maps ----------------------------------------------------------------

TEST(PerfMapThroughTheFileSet, PairedWithAJitdumpTheDumpWinsWhereItHasCodeInEitherOrder) {
    for (const bool mapFirst : {false, true}) {
        TempDir dir;
        JitdumpWriter w = dump();
        w.codeLoad(load(100, 0x1000, 0x20, "JS:*dumped")).codeLoad(load(200, 0x1000, 0x20, "JS:*reloaded"));
        const std::string dumpPath = w.writeTo(dir.file("jit-4242.dump"));
        const std::string mapPath =
            dir.write("perf-4242.map", "1000 20 JS:*dumped\n1010 20 JS:*overlapping\n5000 10 stub<only-in-map>\n");
        ReadSet set(mapFirst ? std::vector<std::string>{mapPath, dumpPath}
                             : std::vector<std::string>{dumpPath, mapPath});

        const Query queries[] = {
            {0x1008, 50, "-"},  {0x1008, 150, "JS:*dumped"},        {0x1008, 250, "JS:*reloaded"},
            {0x1028, 250, "-"}, {0x5008, 250, "stub<only-in-map>"},
        };
        for (const Query& q : queries)
            EXPECT_EQ(q.name, set.nameAt(q.address, q.time))
                << (mapFirst ? "map first: " : "dump first: ") << std::hex << q.address << " at " << std::dec << q.time;
        EXPECT_EQ(2u, set.stats().perfMapEntriesLeftToJitdump);
    }
}

// --- the file set ---------------------------------------------------------------

TEST(RuntimeFilesInTheFileSet, JitRvasDoNotDependOnTheDecodingMode) {
    TempDir dir;
    JitdumpWriter w = dump();
    w.debugInfo(lines(0x1000, 0x40, {1}))
        .codeLoad(load(100, 0x1000, 0x30, "a"))
        .codeLoad(load(110, 0, 0x10, "refused, still takes its jit rvas"))
        .codeLoad(load(120, 0x2000, 0x20, "b"));
    const std::string dumpPath = w.writeTo(dir.file("jit-4242.dump"));
    const std::string mapPath = dir.write("perf-4242.map", "1000 10 left to the dump\n7000 10 c\n");
    std::vector<std::vector<u64>> seen;
    for (const decoding_mode_t mode : {dmCodeBytes, dmSkipSymbolic, dmNone}) {
        ReadSet set({dumpPath, mapPath}, mode);
        std::vector<u64> jitRvas;
        for (const u64 address : {0x1000, 0x2000, 0x7000}) {
            JitMethod::Ptr method;
            u64 jitRva = 0;
            EXPECT_EQ(meSuccess, set.data.resolveJitPoint(address, 1000, kPid, set.host, method, jitRva));
            jitRvas.push_back(jitRva);
        }
        seen.push_back(jitRvas);
        const bool bytes = set.data.getJitMethods().front()->regions().front()->content() != nullptr;
        EXPECT_EQ(mode == dmCodeBytes, bytes) << "mode " << mode;
    }
    const u64 base = JitFilesManager::kFirstJitRva;
    // The map's range follows the dump's; its first line takes jit rvas although the dump wins there.
    EXPECT_EQ((std::vector<u64>{base, base + 0x40, base + JitFileReader::kJitRvaStride + 0x10}), seen[0]);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(seen[0], seen[2]);
}

// Code bytes are views of the dump's mapping, which stays mapped while the
// model lives; past the process's limit of kept mappings they are copies,
// and the mapping goes with the reading.
TEST(RuntimeFilesInTheFileSet, CodeBytesAreViewsWithinTheKeepLimitAndCopiesPastIt) {
    TempDir dir;
    JitdumpLoadFields code = load(100, 0x1000, 0x30, "a");
    for (size_t i = 0; i < code.code.size(); ++i)
        code.code[i] = static_cast<uint8_t>(3 * i + 1);
    const std::string path = dump().codeLoad(code).writeTo(dir.file("jit-4242.dump"));
    const size_t limit = MappedFile::keepLimit();
    for (const bool room : {true, false}) {
        const size_t before = MappedFile::liveMappings();
        MappedFile::setKeepLimit(room ? limit : before);
        ReadSet set({path});
        MappedFile::setKeepLimit(limit);
        EXPECT_EQ(before + (room ? 1 : 0), MappedFile::liveMappings()) << room;
        ASSERT_EQ(1u, set.data.getJitMethods().size());
        const IByteBuffer::Ptr& bytes = set.data.getJitMethods().front()->regions().front()->content();
        ASSERT_TRUE(bytes);
        EXPECT_EQ(code.code, std::vector<uint8_t>(bytes->data(), bytes->data() + bytes->size())) << room;
    }
}

TEST(RuntimeFilesInTheFileSet, ADescriptorNamesTheProcessAndTheContentTheFormat) {
    TempDir dir;
    JitdumpWriter w = dump();
    w.codeLoad(load(100, 0x1000, 0x10, "JS:*f"));
    const std::string path = w.writeTo(dir.file("anything.bin"));
    JitFileDescriptor descriptor{path.c_str(), 77, "far-host"};
    std::vector<JitFileDescriptor> list{descriptor};
    generic_iterator_t<JitFileDescriptor> it(list.begin(), list.end());
    JitFilesManager files;
    ASSERT_EQ(meSuccess, files.initialize(it, taAny));
    JitDataManager data;
    files.readJitFiles(dmCodeBytes, data);
    Region::Ptr region;
    JitMethod::Ptr method;
    ASSERT_EQ(meSuccess, data.findRegion(0x1000, 100, 77, files.getHostID("far-host"), region, method));
    EXPECT_STREQ("JS:*f", method->getMethodName());
    // The name shows neither pid nor host; the file's jit rva range is found by it all the same.
    u64 base = 0, limit = 0;
    ASSERT_EQ(meSuccess, files.getJitFileRange("anything.bin", base, limit));
    EXPECT_EQ(JitFilesManager::kFirstJitRva, base);
    EXPECT_EQ(JitFilesManager::kFirstJitRva + JitFileReader::kJitRvaStride, limit);
}

// --- pieces ---------------------------------------------------------------------

TEST(JitdumpLineTable, RowsFromEntries) {
    struct Entry {
        u64 address;
        int line;
        const char* file;
    };
    struct Case {
        const char* what;
        u64 bias;
        std::vector<Entry> entries;
        std::vector<quarvel_line_number_entry> rows;
        const char* sourceFile;
    };
    const u64 at = 0x1000;
    const Case cases[] = {
        {"one row per entry up to the next, the last to the end",
         0,
         {{at, 5, "a"}, {at + 4, 6, "a"}},
         {{0, 4, 5}, {4, 0x20, 6}},
         "a"},
        {"the bias is removed", 0x40, {{at + 0x40, 5, "a"}, {at + 0x48, 6, "a"}}, {{0, 8, 5}, {8, 0x20, 6}}, "a"},
        {"the last of one address counts; equal neighbours merge",
         0,
         {{at, 1, "a"}, {at, 2, "a"}, {at + 8, 2, "a"}},
         {{0, 0x20, 2}},
         "a"},
        {"entries out of order are sorted", 0, {{at + 8, 6, "a"}, {at, 5, "a"}}, {{0, 8, 5}, {8, 0x20, 6}}, "a"},
        {"the most named file wins; another file's entry leaves a gap",
         0,
         {{at, 1, "b"}, {at + 4, 2, "a"}, {at + 8, 3, "a"}, {at + 12, 4, "b"}, {at + 16, 5, "a"}},
         {{4, 8, 2}, {8, 12, 3}, {16, 0x20, 5}},
         "a"},
        {"entries outside the code, and lines below 1, give no row",
         0,
         {{at - 4, 1, "a"}, {at, 0, "a"}, {at + 4, 3, "a"}, {at + 0x20, 4, "a"}},
         {{4, 0x20, 3}},
         "a"},
    };
    for (const Case& c : cases) {
        JitdumpDebugInfo info;
        info.codeAddr = at;
        for (const Entry& e : c.entries) {
            JitdumpDebugEntry entry;
            entry.address = e.address;
            entry.line = e.line;
            entry.file = e.file;
            info.entries.push_back(entry);
        }
        const JitdumpLines got = jitdumpLines(info, at, 0x20, c.bias);
        EXPECT_EQ(c.rows, got.rows) << c.what;
        EXPECT_EQ(c.sourceFile, got.sourceFile) << c.what;
    }
}

TEST(AddressRanges, MergesAndAnswersOverlaps) {
    AddressRanges ranges;
    ranges.add(0x100, 0x10);
    ranges.add(0x120, 0x10);
    ranges.add(0x110, 0x10);                  // joins the two
    ranges.add(0xFFFFFFFFFFFFFFF8ull, 0x100); // clipped at the top
    struct Probe {
        u64 start, size;
        bool overlaps;
    };
    for (const Probe p : {Probe{0xF0, 0x10, false}, Probe{0xF0, 0x11, true}, Probe{0x12F, 1, true},
                          Probe{0x130, 0x10, false}, Probe{0xFFFFFFFFFFFFFFF0ull, 0x10, true}, Probe{0x100, 0, false}})
        EXPECT_EQ(p.overlaps, ranges.overlaps(p.start, p.size)) << std::hex << p.start << "+" << p.size;
}

} // namespace
