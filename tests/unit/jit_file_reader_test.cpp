// The reading pass: which records reach the data manager, where a file's
// pass ends, the 64-bit module rename, and the file set's two pass forms.

#include "index/jit_data_manager.h"
#include "format/jit_file_decoder.h"
#include "ingest/jit_file_reader.h"
#include "ingest/jit_files_manager.h"
#include "log_capture.h"
#include "trace_builder.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarvel_3_13;
using quarvel_test::LogCapture;
using quarvel_test::makeLoad;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

namespace {

const u32 kPid = 42;
const u32 kHost = 1;
const u64 kBase = 1000;

TraceMethodLoad load(u32 id, u64 time, u64 address, uint16_t arch = quarvel_arch_vx64, const std::string& module = "app.dll") {
    TraceMethodLoad l = makeLoad(id, time, address, 16, "m" + std::to_string(id));
    l.tail.moduleArch = arch;
    l.tail.moduleName = module;
    return l;
}

struct Pass {
    quarvel_error_t status;
    JitReadStats stats;
};

Pass readFile(const std::string& path, JitDataManager& data, target_arch_t arch = taAny,
              decoding_mode_t mode = dmCodeBytes) {
    JitReadStats stats;
    JitFileDecoder decoder(path, kPid, kHost, kBase, mode);
    JitFileReader reader(&stats);
    const quarvel_error_t status = reader.readJitFile(decoder, arch, data);
    return Pass{status, stats};
}

std::vector<u32> registeredIds(const JitDataManager& data) {
    std::vector<u32> ids;
    for (const JitMethod::Ptr& m : data.getJitMethods())
        ids.push_back(m->getRawMethodId());
    return ids;
}

std::string moduleOf(const JitDataManager& data, u32 id) {
    for (const JitMethod::Ptr& m : data.getJitMethods())
        if (m->getRawMethodId() == id && m->getModule())
            return m->getModule()->getFilePath();
    return "<none>";
}

TEST(JitFileReaderTest, MagicAndCollectorTypeAloneRegisterNothing) {
    TempDir dir;
    const std::string path = TraceBuilder().magic(0x1234).collector(ctJitProfiler).writeTo(dir.file("h.1.jit"));
    JitDataManager data;
    const Pass pass = readFile(path, data);
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_TRUE(data.getJitMethods().empty());
    EXPECT_EQ(ctJitProfiler, data.getCollectorType());
    EXPECT_EQ(1u, pass.stats.magicRecords);
    EXPECT_EQ(1u, pass.stats.records[quarvel_jt_CollectorType]);
}

TEST(JitFileReaderTest, MagicPastOffsetZeroEndsTheFile) {
    TempDir dir;
    const std::string path = TraceBuilder()
                                 .magic()
                                 .load(3, load(1, 100, 0x1000))
                                 .magic()
                                 .load(3, load(2, 100, 0x2000))
                                 .writeTo(dir.file("h.1.jit"));
    JitDataManager data;
    const Pass pass = readFile(path, data);
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_EQ(std::vector<u32>{1}, registeredIds(data));
    EXPECT_EQ(1u, pass.stats.secondTraces);
}

struct ArchCase {
    const char* name;
    target_arch_t arch;
    std::vector<bool> is64; // one load per entry, ids 1, 2, ...
    std::vector<u32> registered;
};

class JitFileReaderArchTest : public ::testing::TestWithParam<ArchCase> {};

TEST_P(JitFileReaderArchTest, OtherVariantEndsTheFile) {
    const ArchCase& c = GetParam();
    for (int version = 0; version <= 3; ++version) {
        TempDir dir;
        TraceBuilder trace;
        for (size_t i = 0; i < c.is64.size(); ++i)
            trace.load(version, load(static_cast<u32>(i + 1), 100, 0x1000 * (i + 1)), c.is64[i]);
        JitDataManager data;
        const Pass pass = readFile(trace.writeTo(dir.file("h.1.jit")), data, c.arch);
        EXPECT_EQ(meSuccess, pass.status) << c.name << " v" << version;
        EXPECT_EQ(c.registered, registeredIds(data)) << c.name << " v" << version;
        EXPECT_EQ(c.registered.size() < c.is64.size() ? 1u : 0u, pass.stats.architectureFiltered)
            << c.name << " v" << version;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Filter, JitFileReaderArchTest,
    ::testing::Values(ArchCase{"any accepts both", taAny, {false, true, false}, {1, 2, 3}},
                      ArchCase{"x86 stops at the 64-bit variant", taX86, {false, true, false}, {1}},
                      ArchCase{"x86 with a 64-bit first record", taX86, {true, false}, {}},
                      ArchCase{"x86-64 stops at the 32-bit variant", taX86_64, {true, false, true}, {1}},
                      ArchCase{"x86-64 with a 32-bit first record", taX86_64, {false}, {}},
                      ArchCase{"value 3 refuses the first variant", static_cast<target_arch_t>(3), {false}, {}},
                      ArchCase{"value 3 refuses the second variant", static_cast<target_arch_t>(3), {true}, {}}));

TEST(JitFileReaderTest, DamagedRecordKeepsWhatWasReadBefore) {
    TempDir dir;
    TraceBuilder trace;
    trace.load(3, load(1, 100, 0x1000)).load(3, load(2, 100, 0x2000));
    // Cut inside the body of the second record.
    const std::string path = trace.writeTo(dir.file("h.1.jit"), trace.bytes().size() - 5);
    LogCapture log;
    JitDataManager data;
    const Pass pass = readFile(path, data);
    EXPECT_EQ(meBadRecord, pass.status);
    EXPECT_EQ(std::vector<u32>{1}, registeredIds(data));
    EXPECT_EQ(1u, pass.stats.damagedRecords);
    EXPECT_EQ(1u, pass.stats.failedFiles);
    bool named = false;
    for (const std::string& e : log.errors())
        named = named || (e.find("Stopped reading jit file " + path + " at offset " +
                                 std::to_string(trace.recordStarts()[1])) != std::string::npos);
    EXPECT_TRUE(named) << log.dump();
}

TEST(JitFileReaderTest, RefusedBodyIsDroppedAndReadingGoesOn) {
    TempDir dir;
    TraceMethodLoad empty = load(2, 100, 0x2000);
    empty.regions[0].codeSize = 0; // every region empty: the record is refused
    const std::string path =
        TraceBuilder().load(3, load(1, 100, 0x1000)).load(3, empty).load(3, load(3, 100, 0x3000)).writeTo(
            dir.file("h.1.jit"));
    LogCapture log;
    JitDataManager data;
    const Pass pass = readFile(path, data);
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_EQ((std::vector<u32>{1, 3}), registeredIds(data));
    EXPECT_EQ(1u, pass.stats.refusedBodies);
}

TEST(JitFileReaderTest, RefusedUpdateV2IsLoggedAndReadingGoesOn) {
    TempDir dir;
    TraceUpdateV2 update;
    update.methodId = 9;
    update.loadTime = 150;
    update.startAddress = 0x9000; // no region there
    update.length = 4;
    update.bytes = {1, 2, 3, 4};
    const std::string path = TraceBuilder()
                                 .load(3, load(1, 100, 0x1000))
                                 .updateV2(update)
                                 .load(3, load(2, 100, 0x2000))
                                 .writeTo(dir.file("h.1.jit"));
    LogCapture log;
    JitDataManager data;
    const Pass pass = readFile(path, data);
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_EQ((std::vector<u32>{1, 2}), registeredIds(data));
    EXPECT_TRUE(log.contains("Failed to decode a UPDATE_V2 record", log4cplus::ERROR_LOG_LEVEL)) << log.dump();
}

// A patched call site (update v2) rewrites the live region's bytes in place:
// one method, one region, the same jit rva and line tables before and after.
class JitFileReaderUpdateV2Test : public ::testing::TestWithParam<decoding_mode_t> {};

TEST_P(JitFileReaderUpdateV2Test, PatchesTheLiveRegionInPlace) {
    TempDir dir;
    TraceMethodLoad loaded = load(1, 100, 0x1000);
    loaded.tail.lines.nativeToSource = {{0, 16, 7}};
    TraceUpdateV2 update;
    update.methodId = 1;
    update.loadTime = 150;
    update.startAddress = 0x1004;
    update.length = 4;
    update.bytes = {1, 2, 3, 4};
    const std::string path = TraceBuilder().collector(ctJitProfiler).load(3, loaded).updateV2(update).writeTo(
        dir.file("h.1.jit"));
    LogCapture log;
    JitDataManager data;
    const Pass pass = readFile(path, data, taAny, GetParam());
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_TRUE(log.errors().empty()) << log.dump();
    ASSERT_EQ(std::vector<u32>{1}, registeredIds(data));
    const JitMethod::Ptr method = data.getJitMethods().front();
    ASSERT_EQ(1u, method->regionCount());
    const Region& region = *method->regions().front();

    // Samples before and after the patch resolve to the same jit rva and line.
    for (u64 time : {120u, 200u}) {
        JitMethod::Ptr found;
        u64 jitRva = 0;
        ASSERT_EQ(meSuccess, data.resolveJitPoint(0x1005, time, kPid, kHost, found, jitRva)) << time;
        EXPECT_EQ(method.get(), found.get());
        EXPECT_EQ(region.startJitRva() + 5, jitRva);
        ASSERT_TRUE(found->getSourceLocation(jitRva));
        EXPECT_EQ(7u, found->getSourceLocation(jitRva)->getLine());
    }
    if (GetParam() & dmCodeBytes) {
        ASSERT_TRUE(region.content());
        const unsigned char* bytes = region.content()->data();
        EXPECT_EQ((std::vector<unsigned char>{0xCC, 0xCC, 0xCC, 0xCC, 1, 2, 3, 4, 0xCC}),
                  std::vector<unsigned char>(bytes, bytes + 9));
        EXPECT_EQ(1u, region.markup().size());
    } else {
        EXPECT_FALSE(region.content()) << "no bytes are kept in this mode";
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, JitFileReaderUpdateV2Test, ::testing::Values(dmCodeBytes, dmSkipSymbolic));

// An update (type 10) applies only under decoding mode exactly dmCodeBytes.
struct UpdateCase {
    decoding_mode_t mode;
    bool applied;
};

class JitFileReaderUpdateTest : public ::testing::TestWithParam<UpdateCase> {};

TEST_P(JitFileReaderUpdateTest, UpdateRecord) {
    const UpdateCase& c = GetParam();
    TempDir dir;
    TraceMethodLoad update = load(1, 200, 0x1004);
    update.regions[0].codeSize = 4;
    update.regions[0].bytes = {1, 2, 3, 4};
    const std::string path = TraceBuilder()
                                 .collector(ctJitProfiler)
                                 .load(3, load(1, 100, 0x1000))
                                 .update(update)
                                 .writeTo(dir.file("h.1.jit"));
    LogCapture log;
    JitDataManager data;
    const Pass pass = readFile(path, data, taAny, c.mode);
    ASSERT_EQ(meSuccess, pass.status) << log.dump();
    ASSERT_EQ(std::vector<u32>{1}, registeredIds(data));
    EXPECT_EQ(c.applied ? 0u : 1u, pass.stats.ignoredUpdates);
    EXPECT_TRUE(log.errors().empty()) << log.dump();

    const Region::Ptr& region = data.getJitMethods()[0]->regions().at(0);
    const IByteBuffer::Ptr bytes = region->getBytes();
    if (!(c.mode & dmCodeBytes)) {
        EXPECT_TRUE(!bytes || bytes->size() == 0);
        return;
    }
    ASSERT_TRUE(bytes);
    ASSERT_EQ(16u, bytes->size());
    const std::vector<uint8_t> got(bytes->data(), bytes->data() + bytes->size());
    std::vector<uint8_t> expected(16, 0xCC);
    if (c.applied)
        for (int i = 0; i < 4; ++i)
            expected[4 + i] = static_cast<uint8_t>(i + 1);
    EXPECT_EQ(expected, got);
}

INSTANTIATE_TEST_SUITE_P(Modes, JitFileReaderUpdateTest,
                         ::testing::Values(UpdateCase{dmNone, false}, UpdateCase{dmCodeBytes, true},
                                           UpdateCase{dmSkipSymbolic, false},
                                           UpdateCase{static_cast<decoding_mode_t>(3), false}));

struct RenameCase {
    const char* name;
    u32 collector;
    bool withArch0;
    const char* expected;
};

class JitFileReaderRenameTest : public ::testing::TestWithParam<RenameCase> {};

TEST_P(JitFileReaderRenameTest, Modules64) {
    const RenameCase& c = GetParam();
    TempDir dir;
    TraceBuilder trace;
    trace.collector(c.collector);
    if (c.withArch0)
        trace.load(3, load(1, 100, 0x1000, quarvel_arch_vx32, "a.dll"));
    trace.load(3, load(2, 100, 0x2000, quarvel_arch_varda64, "b.dll"));
    JitDataManager data;
    ASSERT_EQ(meSuccess, readFile(trace.writeTo(dir.file("h.1.jit")), data).status);
    EXPECT_EQ(c.expected, moduleOf(data, 2)) << c.name;
    if (c.withArch0) {
        EXPECT_EQ("a.dll", moduleOf(data, 1)) << c.name;
    }
}

INSTANTIATE_TEST_SUITE_P(Rename, JitFileReaderRenameTest,
                         ::testing::Values(RenameCase{"profiler file of both kinds", ctJitProfiler, true, "b.dll (64)"},
                                           RenameCase{"other collector", ctUnknown, true, "b.dll"},
                                           RenameCase{"no 32-bit module seen", ctJitProfiler, false, "b.dll"}));

TEST(JitFileReaderTest, PatchModuleName64ChecksItsInput) {
    LogCapture log;
    JitMethodStorage methods{JitMethod::Ptr(), JitMethod::Ptr(new JitMethod())};
    JitFileReader::patchModuleName64(methods);
    EXPECT_EQ((std::vector<std::string>{"method", "module"}), log.assertions());
}

TEST(JitFileReaderTest, StatsCountRecordsAndBytes) {
    TempDir dir;
    TraceRuntimeInfo info;
    info.runtimeType = quarvel_runtime_java;
    info.version = "11.0.2";
    info.name = "OpenJDK";
    TraceBuilder trace;
    trace.magic().collector(ctJitProfiler).runtimeInfo(info).load(3, load(1, 100, 0x1000)).load(
        2, load(2, 100, 0x2000));
    JitDataManager data;
    const Pass pass = readFile(trace.writeTo(dir.file("h.1.jit")), data);
    ASSERT_EQ(meSuccess, pass.status);
    EXPECT_EQ(1u, pass.stats.files);
    EXPECT_EQ(trace.bytes().size(), pass.stats.bytes);
    EXPECT_EQ(5u, pass.stats.totalRecords());
    EXPECT_EQ(1u, pass.stats.records[quarvel_jt_ManagedRuntimeInfo]);
    EXPECT_EQ(1u, pass.stats.records[quarvel_jt_FunctionLoad64_v3]);
    EXPECT_EQ(1u, pass.stats.records[quarvel_jt_FunctionLoad64_v2]);
}

// --- the file set's passes ---------------------------------------------------

quarvel_error_t init(JitFilesManager& files, const std::string& path) {
    std::vector<const char*> raw{path.c_str()};
    generic_iterator_t<const char*> it(raw.begin(), raw.end());
    return files.initialize(it, taAny);
}

TEST(JitFilesReadingPassTest, FilesOfOneProcessGetConsecutiveJitRvas) {
    TempDir dir;
    TraceBuilder first;
    first.load(3, load(1, 100, 0x1000));
    first.writeTo(dir.file("h.7.jit"));
    TraceBuilder().load(3, load(2, 100, 0x2000)).writeTo(dir.file("h.7.trace"));
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, dir.path()));
    JitDataManager data;
    ASSERT_EQ(meSuccess, files.readJitFiles(7, 1, dmCodeBytes, data));
    ASSERT_EQ((std::vector<u32>{1, 2}), registeredIds(data));
    EXPECT_EQ(JitFilesManager::kFirstJitRva, data.getJitMethods()[0]->regions()[0]->startJitRva());
    // The second file's code starts where the first file's range ends.
    EXPECT_EQ(JitFilesManager::kFirstJitRva + first.bytes().size(),
              data.getJitMethods()[1]->regions()[0]->startJitRva());
}

TEST(JitFilesReadingPassTest, OneProcessIsReadOnce) {
    TempDir dir;
    TraceBuilder().load(3, load(1, 100, 0x1000)).writeTo(dir.file("h.1.jit"));
    TraceBuilder().load(3, load(2, 100, 0x2000)).writeTo(dir.file("h.2.jit"));
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, dir.path()));
    JitDataManager data;
    EXPECT_EQ(meNotFound, files.readJitFiles(3, 1, dmCodeBytes, data));
    EXPECT_EQ(meNotFound, files.readJitFiles(1, 2, dmCodeBytes, data));
    EXPECT_EQ(meSuccess, files.readJitFiles(1, 1, dmCodeBytes, data));
    EXPECT_EQ(meSuccess, files.processState(1, 1));
    EXPECT_EQ(meEndOfData, files.processState(2, 1));
    EXPECT_EQ(meSuccess, files.readJitFiles(1, 1, dmCodeBytes, data));
    EXPECT_EQ(1u, files.readStats().files);
    EXPECT_EQ(std::vector<u32>{1}, registeredIds(data));
    // The all-processes pass reads only what is left.
    EXPECT_EQ(meSuccess, files.readJitFiles(dmCodeBytes, data));
    EXPECT_EQ(2u, files.readStats().files);
    EXPECT_EQ((std::vector<u32>{1, 2}), registeredIds(data));
    EXPECT_TRUE(files.isWholeSetRead());
}

TEST(JitFilesReadingPassTest, UnopenableFileFailsTheProcessUntilItCanBeRead) {
    TempDir dir;
    TraceBuilder trace;
    trace.load(3, load(1, 100, 0x1000));
    trace.writeTo(dir.file("h.1.jit"));
    TraceBuilder().load(3, load(2, 100, 0x2000)).writeTo(dir.file("h.1.trace"));
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, dir.path()));
    boost::filesystem::rename(dir.file("h.1.trace"), dir.file("moved"));
    JitDataManager data;
    LogCapture log;
    EXPECT_EQ(meFileOpenError, files.readJitFiles(1, 1, dmCodeBytes, data));
    EXPECT_EQ(meEndOfData, files.processState(1, 1));
    EXPECT_TRUE(log.contains(dir.file("h.1.trace"), log4cplus::ERROR_LOG_LEVEL)) << log.dump();
    // Once the file is back only it is read; the first file is not registered twice.
    boost::filesystem::rename(dir.file("moved"), dir.file("h.1.trace"));
    log.clear();
    EXPECT_EQ(meSuccess, files.readJitFiles(1, 1, dmCodeBytes, data));
    EXPECT_EQ((std::vector<u32>{1, 2}), registeredIds(data));
    EXPECT_TRUE(log.errors().empty()) << log.dump();
}

TEST(JitFilesReadingPassTest, DamagedFileKeepsItsMethodsAndTheProcessCountsAsRead) {
    TempDir dir;
    TraceBuilder trace;
    trace.load(3, load(1, 100, 0x1000)).load(3, load(2, 100, 0x2000));
    trace.writeTo(dir.file("h.1.jit"), trace.bytes().size() - 3);
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, dir.path()));
    JitDataManager data;
    LogCapture log;
    EXPECT_EQ(meSuccess, files.readJitFiles(1, 1, dmCodeBytes, data));
    EXPECT_EQ(meSuccess, files.processState(1, 1));
    EXPECT_EQ(std::vector<u32>{1}, registeredIds(data));
    EXPECT_EQ(1u, files.readStats().failedFiles);
    EXPECT_TRUE(log.contains(dir.file("h.1.jit"), log4cplus::ERROR_LOG_LEVEL)) << log.dump();
}

TEST(JitFilesReadingPassTest, AllProcessesPassLogsAndSkipsFailingFiles) {
    TempDir dir;
    TraceBuilder().load(3, load(1, 100, 0x1000)).writeTo(dir.file("h.1.jit"));
    TraceBuilder().load(3, load(2, 100, 0x2000)).writeTo(dir.file("h.2.jit"));
    TraceBuilder damaged;
    damaged.load(3, load(3, 100, 0x3000)).raw({0xFF, 0xFF, 0, 0, 4, 0, 0, 0}); // unknown type
    damaged.writeTo(dir.file("h.3.jit"));
    TraceBuilder().load(3, load(4, 100, 0x4000)).writeTo(dir.file("h.4.jit"));
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, dir.path()));
    boost::filesystem::remove(dir.file("h.2.jit"));

    JitDataManager data;
    LogCapture log;
    EXPECT_EQ(meSuccess, files.readJitFiles(dmCodeBytes, data));
    EXPECT_EQ((std::vector<u32>{1, 3, 4}), registeredIds(data));
    EXPECT_TRUE(log.contains("Could not read jit file " + dir.file("h.2.jit"), log4cplus::ERROR_LOG_LEVEL))
        << log.dump();
    EXPECT_TRUE(log.contains("Could not read jit file " + dir.file("h.3.jit"), log4cplus::ERROR_LOG_LEVEL))
        << log.dump();
    EXPECT_TRUE(files.isWholeSetRead());
    EXPECT_EQ(meSuccess, files.processState(3, 1));
    EXPECT_EQ(2u, files.readStats().failedFiles);
}

} // namespace
