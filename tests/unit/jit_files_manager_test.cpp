// The jit file set: file names, grouping by host and process, jit rva
// ranges, the pid array, and which paths initialisation accepts.

#include "ingest/jit_file_reader.h"
#include "ingest/jit_files_manager.h"
#include "ingest/trace_format.h"
#include "log_capture.h"
#include "path_list.h"
#include "sequence.h"
#include "trace_builder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

using namespace quarvel;
using quarvel_test::itemsOf;
using quarvel_test::LogCapture;
using quarvel_test::TempDir;

namespace jit_files_manager_test {

// A file of `size` bytes that starts like a trace (a Magic record), so that a
// directory scan takes it for one.
void writeFile(const std::string& path, size_t size) {
    std::string bytes(size, 'x');
    const char magic[8] = {0, 0, 0x40, 0, 0, 0, 0, 0};
    bytes.replace(0, std::min<size_t>(size, 8), magic, std::min<size_t>(size, 8));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

const u64 kStride = JitFileReader::kJitRvaStride;

quarvel_error_t init(JitFilesManager& files, const std::vector<std::string>& paths, target_arch_t arch = taAny) {
    return files.initialize(quarvel_test::PathList(paths).it(), arch);
}

// --- names ----------------------------------------------------------------

struct NameCase {
    const char* name;
    bool ok;
    const char* host;
    unsigned pid;
};

class JitFileNameTest : public ::testing::TestWithParam<NameCase> {};

TEST_P(JitFileNameTest, ParsesHostAndPid) {
    const NameCase& c = GetParam();
    JitFilesManager files;
    unsigned pid = 777;
    std::string host = "untouched";
    const quarvel_error_t ret = files.parseJitFileName(c.name, pid, host);
    if (c.ok) {
        ASSERT_EQ(meSuccess, ret) << c.name;
        EXPECT_EQ(c.host, host) << c.name;
        EXPECT_EQ(c.pid, pid) << c.name;
    } else {
        EXPECT_EQ(meNotFound, ret) << c.name;
        EXPECT_EQ(777u, pid) << c.name;
        EXPECT_EQ("untouched", host) << c.name;
    }
}

INSTANTIATE_TEST_SUITE_P(Names, JitFileNameTest,
                         ::testing::Values(
                             // host "." pid "." extension; the host keeps its own dots and dashes
                             NameCase{"node1.example.com.4242.jit", true, "node1.example.com", 4242},
                             NameCase{"my-host.4242.trace", true, "my-host", 4242},
                             NameCase{"host.1.jit", true, "host", 1}, NameCase{"a.b-c.7.x", true, "a.b-c", 7},
                             NameCase{"h.4294967295.jit", true, "h", 4294967295u},
                             // host "-" pid "." extension
                             NameCase{"my-host-4242.jit", true, "my-host", 4242},
                             NameCase{"node1.example-17.jit", true, "node1.example", 17},
                             NameCase{"h-0.jit", true, "h", 0}, NameCase{"a-b.42-7.jit", true, "a-b.42", 7},
                             // not a jit file name
                             NameCase{"", false, "", 0}, NameCase{"jit", false, "", 0},
                             NameCase{"4242.jit", false, "", 0}, NameCase{"-4242.jit", false, "", 0},
                             NameCase{".4242.jit", false, "", 0}, NameCase{"host.jit", false, "", 0},
                             NameCase{"host.4242.", false, "", 0}, NameCase{"host.4242", false, "", 0},
                             NameCase{"host-abc.jit", false, "", 0}, NameCase{"host.42a.jit", false, "", 0},
                             NameCase{"host-.jit", false, "", 0}, NameCase{"host..jit", false, "", 0},
                             NameCase{"host.4294967296.jit", false, "", 0}, NameCase{"host.-5.jit", false, "", 0},
                             NameCase{"host.+5.jit", false, "", 0}, NameCase{"README", false, "", 0}));

// --- initialisation and grouping -------------------------------------------

TEST(JitFilesManagerTest, DirectoryIsReadInAscendingNameOrderWithOneStrideEach) {
    TempDir dir;
    writeFile(dir.file("h.5.trace"), 300);
    writeFile(dir.file("h.5.jit"), 200);
    writeFile(dir.file("h.10.jit"), 100);
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, {dir.path()}));
    ASSERT_EQ(3u, files.fileCount());

    const unsigned host = files.getHostID("h");
    ASSERT_EQ(1u, host);
    // "h.10.jit" < "h.5.jit" < "h.5.trace"
    const ProcessJitInfo* p10 = files.getProcessJitInfo(10, host);
    const ProcessJitInfo* p5 = files.getProcessJitInfo(5, host);
    ASSERT_TRUE(p10 && p5);
    ASSERT_EQ(1u, p10->files.size());
    ASSERT_EQ(2u, p5->files.size());
    EXPECT_EQ(JitFilesManager::kFirstJitRva, p10->files[0].jitRvaBase);
    EXPECT_EQ(100u, p10->files[0].size);
    EXPECT_EQ("h.5.jit", p5->files[0].fileName);
    EXPECT_EQ(JitFilesManager::kFirstJitRva + kStride, p5->files[0].jitRvaBase);
    EXPECT_EQ("h.5.trace", p5->files[1].fileName);
    EXPECT_EQ(JitFilesManager::kFirstJitRva + 2 * kStride, p5->files[1].jitRvaBase);
    EXPECT_EQ(300u, p5->files[1].size);
    EXPECT_EQ(nullptr, files.getProcessJitInfo(5, host + 1));
    EXPECT_EQ(nullptr, files.getProcessJitInfo(6, host));
}

TEST(JitFilesManagerTest, ExplicitFilesKeepTheCallersOrder) {
    TempDir dir;
    writeFile(dir.file("h.1.jit"), 10);
    writeFile(dir.file("h.1.trace"), 20);
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, {dir.file("h.1.trace"), dir.file("h.1.jit")}));
    const ProcessJitInfo* p = files.getProcessJitInfo(1, files.getHostID("h"));
    ASSERT_TRUE(p);
    ASSERT_EQ(2u, p->files.size());
    EXPECT_EQ("h.1.trace", p->files[0].fileName);
    EXPECT_EQ(JitFilesManager::kFirstJitRva, p->files[0].jitRvaBase);
    EXPECT_EQ(JitFilesManager::kFirstJitRva + kStride, p->files[1].jitRvaBase);
}

TEST(JitFilesManagerTest, GetJitFileRange) {
    TempDir dir;
    writeFile(dir.file("a.1.jit"), 5000);
    writeFile(dir.file("b.2.jit"), 1000);
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, {dir.path()}));

    u64 base = 0, limit = 0;
    ASSERT_EQ(meSuccess, files.getJitFileRange("b.2.jit", base, limit));
    EXPECT_EQ(JitFilesManager::kFirstJitRva + kStride, base);
    EXPECT_EQ(JitFilesManager::kFirstJitRva + 2 * kStride, limit);
    // (A full path is taken by its file name: the facades' ResolverTranslatesAndFindsCallees.)
    for (const char* name : {"c.3.jit", "b.3.jit", "b.2.trace", "not a name", ""}) {
        base = 77;
        limit = 88;
        EXPECT_EQ(meJitFileNotFound, files.getJitFileRange(name, base, limit)) << name;
        EXPECT_EQ(77u, base) << name;
        EXPECT_EQ(88u, limit) << name;
    }
    EXPECT_EQ(meJitFileNotFound, files.getJitFileRange(nullptr, base, limit));
}

// Descriptors (a file's pid and host given by the caller): runtime_files_test
// and the facades' ResolverFromDescriptors.

TEST(JitFilesManagerTest, PidArrayListsEachHostsPidsInOrder) {
    TempDir dir;
    // Host "b" is met first (ascending names: "b-..." < "c..."), so it gets id 1.
    writeFile(dir.file("b-30.jit"), 1);
    writeFile(dir.file("b-4.jit"), 1);
    writeFile(dir.file("c.30.jit"), 1);
    writeFile(dir.file("c.7.jit"), 1);
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, {dir.path()}));
    const std::vector<unsigned> expected{4, 30, 7, 30};
    EXPECT_EQ(expected, itemsOf(files.getJitPidArray()));
    EXPECT_EQ(expected, itemsOf(files.getJitPidArray())); // the same array again

    // The iterator keeps the array alive after the set is gone.
    generic_iterator_t<unsigned> kept;
    {
        JitFilesManager other;
        ASSERT_EQ(meSuccess, init(other, {dir.path()}));
        kept = other.getJitPidArray();
    }
    EXPECT_EQ(4u, kept.remaining());
}

// Each initialisation adds files: the pid array of an empty set is rebuilt
// once processes appear, and the new files' ranges follow the old ones'.
TEST(JitFilesManagerTest, ReinitialisationAddsProcessesWithDisjointRanges) {
    TempDir dir;
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, {dir.path()}));
    EXPECT_TRUE(files.getJitPidArray().atEnd());
    writeFile(dir.file("h.1.jit"), 100);
    writeFile(dir.file("h.2.jit"), 50);
    ASSERT_EQ(meSuccess, init(files, {dir.file("h.1.jit")}));
    ASSERT_EQ(meSuccess, init(files, {dir.file("h.2.jit")}));
    EXPECT_EQ((std::vector<unsigned>{1, 2}), itemsOf(files.getJitPidArray()));
    const ProcessJitInfo* p2 = files.getProcessJitInfo(2, 1);
    ASSERT_TRUE(p2);
    EXPECT_EQ(JitFilesManager::kFirstJitRva + kStride, p2->files[0].jitRvaBase);
}

// --- which files a directory holds -----------------------------------------
// (missing paths, fifos, links and subdirectories: front_door_test)

// A directory takes files by their content: a trace, or a perf map (routed
// to this host whatever its name says), never a text named like a map.
TEST(JitFilesManagerTest, DirectoryTakesFilesByTheirContent) {
    TempDir dir;
    writeFile(dir.file("h.1.jit"), 10);
    std::ofstream(dir.file("other-1234.map")) << "not a symbol, a size and a name\n";
    std::ofstream(dir.file("perf-1234.map")) << "7f0000001000 20 JS:~foo\n";
    LogCapture log;
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, {dir.path()}));
    EXPECT_EQ(2u, files.fileCount());
    EXPECT_TRUE(files.getProcessJitInfo(1, files.getHostID("h")));
    EXPECT_TRUE(files.getProcessJitInfo(1234, files.getHostID(localHostName())));
    EXPECT_TRUE(log.errors().empty()) << log.dump();
}

} // namespace
