// Body decoders of the trace records: method loads (versions 0 to 3), inline
// loads, updates of version 2 and the managed runtime info. Every fixture is
// written with the trace writer into a temporary file and read back through
// the record reader.

#include "format/jit_file_decoder.h"
#include "model/md5_hash_generator.h"
#include "model/module.h"
#include "support/usage_statistics.h"

#include "log_capture.h"
#include "trace_builder.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace quarvel_3_13;
using namespace quarvel_test;

const u32 kPid = 4242;
const u32 kHost = 1;
const jit_rva_t kJitRvaBase = 1000;

std::unique_ptr<JitFileDecoder> openTrace(const TempDir& dir, const TraceBuilder& trace,
                                          decoding_mode_t mode = dmCodeBytes) {
    const std::string path = trace.writeTo(dir.file("trace.jit"));
    return std::unique_ptr<JitFileDecoder>(new JitFileDecoder(path, kPid, kHost, kJitRvaBase, mode));
}

Record nextRecord(JitFileDecoder& decoder) {
    Record record;
    EXPECT_EQ(meSuccess, decoder.getNextRecord(record));
    return record;
}

bool decodeLoad(JitFileDecoder& decoder, int version, const Record& record, JitMethod::Ptr& method,
                uint8_t* inlineFlag = nullptr) {
    switch (version) {
    case 0: return decoder.decodeMethodLoadRecordV0(record, method);
    case 1: return decoder.decodeMethodLoadRecordV1(record, method);
    case 2: return decoder.decodeMethodLoadRecordV2(record, method);
    default: {
        uint8_t flag = 0;
        return decoder.decodeMethodLoadRecordV3(record, method, inlineFlag ? inlineFlag : &flag);
    }
    }
}

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i)
        bytes[i] = static_cast<uint8_t>(seed + i);
    return bytes;
}

void putU16(std::vector<uint8_t>& body, size_t at, uint16_t v) {
    body[at] = static_cast<uint8_t>(v);
    body[at + 1] = static_cast<uint8_t>(v >> 8);
}

void putU32(std::vector<uint8_t>& body, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        body[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

void putU64(std::vector<uint8_t>& body, size_t at, uint64_t v) {
    for (int i = 0; i < 8; ++i)
        body[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

const JitMethod::LineTable kManagedToSource = {{0, 4, 10}, {4, 9, 11}};
const JitMethod::LineTable kNativeToManaged = {{0, 16, 0}, {16, 48, 4}};
const JitMethod::LineTable kNativeToSource = {{0, 16, 10}, {16, 40, 11}, {40, 48, 12}};

// A Java method of two regions (16 and 32 bytes), every field set.
TraceMethodLoad javaLoad() {
    TraceMethodLoad load;
    load.hashKey = 77;
    load.methodId = 5;
    load.loadTime = 0x1122334455ull;
    load.regions.push_back(TraceCodeRegion{0x400000, 16, pattern(16, 0x10)});
    load.regions.push_back(TraceCodeRegion{0x400100, 32, pattern(32, 0x40)});
    load.tail.moduleName = "app.so";
    load.tail.moduleArch = quarvel_arch_vx64;
    load.tail.methodName = "run(Ljava/lang/String;I)V";
    load.tail.className = "Lpkg/Foo;";
    load.tail.sourceFile = "Foo.java";
    load.tail.checksumType = 1;
    load.tail.checksum = "abc";
    load.tail.language = quarvel_language_java;
    load.tail.lines.managedToSource = kManagedToSource;
    load.tail.lines.nativeToManaged = kNativeToManaged;
    load.tail.lines.nativeToSource = kNativeToSource;
    return load;
}

void expectTable(const JitMethod::LineTable& expected, const JitMethod::LineTable& actual) {
    ASSERT_EQ(expected.size(), actual.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i].startOffset, actual[i].startOffset);
        EXPECT_EQ(expected[i].endOffset, actual[i].endOffset);
        EXPECT_EQ(expected[i].value, actual[i].value);
    }
}

std::string modulePath(const JitMethod& method) { return method.info()->module()->getFilePath(); }

// ---------------------------------------------------------------------------
// Method loads

class MethodLoadTest : public ::testing::TestWithParam<int> {};

TEST_P(MethodLoadTest, DecodesEveryField) {
    const int version = GetParam();
    const TraceMethodLoad load = javaLoad();
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().load(version, load));
    LogCapture log;

    JitMethod::Ptr method(new JitMethod());
    ASSERT_TRUE(decodeLoad(*decoder, version, nextRecord(*decoder), method)) << log.dump();
    EXPECT_TRUE(log.errors().empty()) << log.dump();

    EXPECT_EQ(5u, method->getRawMethodId());
    EXPECT_EQ(load.loadTime, method->getLoadTime());
    EXPECT_EQ(1000u, method->getStartJitRva());
    ASSERT_EQ(2u, method->regionCount());
    const Region& first = *method->regions()[0];
    const Region& second = *method->regions()[1];
    EXPECT_EQ(1000u, first.startJitRva());
    EXPECT_EQ(1016u, second.startJitRva());
    EXPECT_EQ(1048u, decoder->nextJitRva());
    EXPECT_EQ(0x400000u, first.startAddress());
    EXPECT_EQ(16u, first.length());
    EXPECT_EQ(0x400100u, second.startAddress());
    EXPECT_EQ(32u, second.length());
    for (const Region::Ptr& region : method->regions()) {
        EXPECT_EQ(kPid, region->processId());
        EXPECT_EQ(kHost, region->hostId());
        EXPECT_EQ(load.loadTime, region->loadTime());
        EXPECT_EQ(0u, region->unloadTime());
    }
    ASSERT_TRUE(second.content());
    EXPECT_EQ(load.regions[1].bytes,
              std::vector<uint8_t>(second.content()->data(), second.content()->data() + second.content()->size()));

    // Java names are unmangled before they are stored.
    EXPECT_STREQ("pkg::Foo", method->getClassName());
    EXPECT_STREQ("pkg::Foo::run", method->getMethodName());
    EXPECT_STREQ("pkg::Foo::run(java::lang::String, int)", method->getQualifiedMethodName());

    EXPECT_EQ("app.so", modulePath(*method));
    EXPECT_EQ(meNotFound, method->getModule()->isBogus());
    EXPECT_EQ(quarvel_arch_vx64, method->getModule()->getArchitecture());

    const ISourceFile::Ptr source = method->getSourceFile();
    ASSERT_TRUE(source);
    EXPECT_STREQ("Foo.java", source->getSourceFileName());
    EXPECT_STREQ("abc", source->getChecksum());
    EXPECT_EQ(1u, source->getChecksumType());
    EXPECT_EQ(5u, source->getLanguageType());

    // One holder keyed by the offsets of the whole code.
    const JitMethod::LineInfoMap& lines = method->getLineNumberInfo();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(Range(0, 48), lines.begin()->first);
    expectTable(kNativeToManaged, lines.begin()->second.tables[quarvel_line_info_native_to_managed]);
    expectTable(kManagedToSource, lines.begin()->second.tables[quarvel_line_info_managed_to_source]);
    expectTable(kNativeToSource, lines.begin()->second.tables[quarvel_line_info_native_to_source]);

    // Newer records hash their key with host, pid and architecture; older ones the names.
    const std::string identity = version >= 2 ? "77.1.42422"
                                              : "0pkg::Foo::run(java::lang::String, int)pkg::Fooapp.so2";
    EXPECT_EQ(identity, Md5HashGenerator::identityText(version >= 2 ? 77 : 0, method));
    EXPECT_EQ(Md5HashGenerator::hashText(identity), method->getMethodId());
    EXPECT_TRUE(method->getParentId().isEmpty());
}

TEST_P(MethodLoadTest, WithoutCodeBytesModeSkipsBytesButFindsNextRegion) {
    const int version = GetParam();
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().load(version, javaLoad()), dmNone);
    JitMethod::Ptr method(new JitMethod());
    ASSERT_TRUE(decodeLoad(*decoder, version, nextRecord(*decoder), method));
    ASSERT_EQ(2u, method->regionCount());
    EXPECT_FALSE(method->regions()[0]->content());
    EXPECT_FALSE(method->regions()[1]->content());
    EXPECT_EQ(0x400100u, method->regions()[1]->startAddress());
    EXPECT_STREQ("Foo.java", method->getSourceFile()->getSourceFileName());
}

TEST_P(MethodLoadTest, EmptyRegionsAreSkippedAndAllEmptyIsRefused) {
    const int version = GetParam();
    TraceMethodLoad load = javaLoad();
    load.regions.insert(load.regions.begin() + 1, TraceCodeRegion{0x400080, 0, pattern(4, 0)});
    TraceMethodLoad allEmpty = javaLoad();
    for (TraceCodeRegion& region : allEmpty.regions)
        region.codeSize = 0;
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().load(version, load).load(version, allEmpty));
    LogCapture log;

    JitMethod::Ptr method(new JitMethod());
    ASSERT_TRUE(decodeLoad(*decoder, version, nextRecord(*decoder), method));
    ASSERT_EQ(2u, method->regionCount());
    EXPECT_EQ(1016u, method->regions()[1]->startJitRva());
    EXPECT_EQ(0x400100u, method->regions()[1]->startAddress());
    EXPECT_EQ(1048u, decoder->nextJitRva());

    JitMethod::Ptr refused(new JitMethod());
    EXPECT_FALSE(decodeLoad(*decoder, version, nextRecord(*decoder), refused));
    ASSERT_EQ(1u, log.errors().size()) << log.dump();
    EXPECT_NE(std::string::npos, log.errors()[0].find("The bytes of the code are not supplied"));
    EXPECT_NE(std::string::npos, log.errors()[0].find(dir.file("trace.jit")));
    EXPECT_EQ(1048u, decoder->nextJitRva());
}

TEST_P(MethodLoadTest, NoRegionsStillReadsTheTail) {
    const int version = GetParam();
    TraceMethodLoad load = javaLoad();
    load.regions.clear();
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().load(version, load));
    JitMethod::Ptr method(new JitMethod());
    ASSERT_TRUE(decodeLoad(*decoder, version, nextRecord(*decoder), method));
    EXPECT_EQ(0u, method->regionCount());
    EXPECT_STREQ("pkg::Foo::run", method->getMethodName());
    EXPECT_STREQ("Foo.java", method->getSourceFile()->getSourceFileName());
    EXPECT_EQ(1000u, decoder->nextJitRva());
}

TEST_P(MethodLoadTest, RefusesOtherRecordTypes) {
    const int version = GetParam();
    TempDir dir;
    // The same body under the type of another version.
    auto decoder = openTrace(dir, TraceBuilder().load((version + 1) % 4, javaLoad()));
    LogCapture log;
    JitMethod::Ptr method(new JitMethod());
    EXPECT_FALSE(decodeLoad(*decoder, version, nextRecord(*decoder), method));
    EXPECT_EQ(1u, log.assertions().size());
    EXPECT_EQ(0u, method->regionCount());
}

INSTANTIATE_TEST_SUITE_P(Versions, MethodLoadTest, ::testing::Values(0, 1, 2, 3));

TEST(MethodLoad, SkipSymbolicModeSkipsTheTailOfOldVersionsOnly) {
    TempDir dir;
    TraceBuilder trace;
    for (int version = 0; version < 4; ++version)
        trace.load(version, javaLoad());
    auto decoder = openTrace(dir, trace, dmSkipSymbolic);
    for (int version = 0; version < 4; ++version) {
        JitMethod::Ptr method(new JitMethod());
        ASSERT_TRUE(decodeLoad(*decoder, version, nextRecord(*decoder), method)) << version;
        EXPECT_EQ("app.so", modulePath(*method)) << version;
        EXPECT_EQ(meNotFound, method->getModule()->isBogus()) << version;
        if (version < 2) {
            EXPECT_STREQ("", method->getMethodName()) << version;
            EXPECT_FALSE(method->getSourceFile()) << version;
            EXPECT_TRUE(method->getLineNumberInfo().empty()) << version;
        } else {
            EXPECT_STREQ("pkg::Foo::run", method->getMethodName()) << version;
            EXPECT_EQ(1u, method->getLineNumberInfo().size()) << version;
        }
    }
}

TEST(MethodLoad, ModuleNamesAndStatusOfNewerVersions) {
    struct Case {
        int version;
        const char* module;
        uint16_t language;
        const char* path;
        quarvel_error_t status;
    } cases[] = {
        {2, "", quarvel_language_java, "[Compiled Java code]", meSuccess},
        {3, "", quarvel_language_java, "[Compiled Java code]", meSuccess},
        {2, "", 0, "[Dynamic code]", meSuccess},
        {2, "[Dynamic code]", 0, "[Dynamic code]", meSuccess},
        {3, "[Compiled Java code]", 0, "[Compiled Java code]", meSuccess},
        {2, "libjvm.so", quarvel_language_java, "libjvm.so", meNotFound},
        // Older versions know only real modules.
        {0, "", quarvel_language_java, "[Dynamic code]", meNotFound},
        {1, "[Dynamic code]", 0, "[Dynamic code]", meNotFound},
    };
    TempDir dir;
    TraceBuilder trace;
    for (const Case& c : cases) {
        TraceMethodLoad load = javaLoad();
        load.tail.moduleName = c.module;
        load.tail.language = c.language;
        trace.load(c.version, load);
    }
    auto decoder = openTrace(dir, trace);
    for (const Case& c : cases) {
        JitMethod::Ptr method(new JitMethod());
        ASSERT_TRUE(decodeLoad(*decoder, c.version, nextRecord(*decoder), method));
        EXPECT_EQ(c.path, modulePath(*method)) << c.version << " '" << c.module << "'";
        EXPECT_EQ(c.status, method->getModule()->isBogus()) << c.version << " '" << c.module << "'";
    }
}

TEST(MethodLoad, OnlyJavaNamesAreUnmangled) {
    struct Case {
        const char* className;
        const char* methodName;
        uint16_t language;
        const char* expectedClass;
        const char* expectedQualified;
    } cases[] = {
        // .NET and native names starting with the descriptor letter stay as they are.
        {"Logger", "Log", 0, "Logger", "Logger::Log"},
        {"Lib.Loader", "Load(I)V", 0, "Lib::Loader", "Lib::Loader::Load(I)V"},
        // Descriptor-form class names mark Java code even without a language.
        {"Lpkg/Foo;", "run(I)V", 0, "pkg::Foo", "pkg::Foo::run(int)"},
        {"pkg.Foo", "run([J)V", quarvel_language_java, "pkg::Foo", "pkg::Foo::run(long[])"},
    };
    TempDir dir;
    TraceBuilder trace;
    for (const Case& c : cases) {
        TraceMethodLoad load = javaLoad();
        load.tail.className = c.className;
        load.tail.methodName = c.methodName;
        load.tail.language = c.language;
        trace.load(2, load);
    }
    auto decoder = openTrace(dir, trace);
    for (const Case& c : cases) {
        JitMethod::Ptr method(new JitMethod());
        ASSERT_TRUE(decoder->decodeMethodLoadRecordV2(nextRecord(*decoder), method));
        EXPECT_STREQ(c.expectedClass, method->getClassName()) << c.className;
        EXPECT_STREQ(c.expectedQualified, method->getQualifiedMethodName()) << c.className;
    }
}

TEST(MethodLoad, Version3InlineFlagAndArchitectureFlags) {
    TraceMethodLoad inlined = javaLoad();
    inlined.inlineFlag = 1;
    inlined.tail.moduleArch = quarvel_arch_vx32;
    TraceMethodLoad wide = javaLoad();
    wide.tail.moduleArch = quarvel_arch_varda64;
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().load(3, inlined).load(3, wide).update(javaLoad()));

    uint8_t flag = 7;
    JitMethod::Ptr method(new JitMethod());
    ASSERT_TRUE(decoder->decodeMethodLoadRecordV3(nextRecord(*decoder), method, &flag));
    EXPECT_EQ(1, flag);
    // An inline takes its jit rvas from its parent later.
    EXPECT_EQ(0u, method->getStartJitRva());
    EXPECT_EQ(0u, method->regions()[0]->startJitRva());
    EXPECT_EQ(0u, method->regions()[1]->startJitRva());
    EXPECT_EQ(1000u, decoder->nextJitRva());
    EXPECT_TRUE(decoder->sawArchitecture0());
    EXPECT_FALSE(decoder->sawArchitecture1());

    method.reset(new JitMethod());
    ASSERT_TRUE(decoder->decodeMethodLoadRecordV3(nextRecord(*decoder), method, &flag));
    EXPECT_EQ(0, flag);
    EXPECT_EQ(1000u, method->regions()[0]->startJitRva());
    EXPECT_EQ(1048u, decoder->nextJitRva());
    EXPECT_TRUE(decoder->sawArchitecture1());

    // A method update has the same layout.
    method.reset(new JitMethod());
    ASSERT_TRUE(decoder->decodeMethodLoadRecordV3(nextRecord(*decoder), method, &flag));
    EXPECT_EQ(2u, method->regionCount());
}

TEST(MethodLoad, WrappingCodeRangeIsRefused) {
    TraceMethodLoad load = javaLoad();
    load.regions[1].startAddress = ~0ull - 8;
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().load(2, load));
    LogCapture log;
    JitMethod::Ptr method(new JitMethod());
    EXPECT_FALSE(decoder->decodeMethodLoadRecordV2(nextRecord(*decoder), method));
    ASSERT_EQ(1u, log.errors().size());
    EXPECT_NE(std::string::npos, log.errors()[0].find("Invalid code range"));
    EXPECT_EQ(1000u, decoder->nextJitRva());
}

// ---------------------------------------------------------------------------
// Inline loads

TraceInlineLoad javaInline() {
    TraceInlineLoad load;
    load.methodId = 9;
    load.parentId = 5;
    load.loadTime = 0x1122334456ull;
    load.region = TraceCodeRegion{0x400004, 8, pattern(8, 0x90)};
    load.tail.moduleName = "";
    load.tail.methodName = "get()I";
    load.tail.className = "Lpkg/Bar;";
    load.tail.sourceFile = "Bar.java";
    load.tail.language = quarvel_language_java;
    load.tail.lines.nativeToSource = {{0, 8, 30}};
    return load;
}

TEST(InlineLoad, BothTypesDecodeAlike) {
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().inlineLoad(javaInline(), false).inlineLoad(javaInline(), true));
    for (int i = 0; i < 2; ++i) {
        JitMethod::Ptr method(new JitMethod());
        ASSERT_TRUE(decoder->decodeMethodInlineLoadRecord(nextRecord(*decoder), method));
        EXPECT_EQ(9u, method->getRawMethodId());
        EXPECT_EQ(5u, method->getRawParentId());
        EXPECT_EQ(0x1122334456ull, method->getLoadTime());
        EXPECT_EQ(0u, method->getStartJitRva());
        ASSERT_EQ(1u, method->regionCount());
        EXPECT_EQ(0u, method->regions()[0]->startJitRva());
        EXPECT_EQ(0x400004u, method->regions()[0]->startAddress());
        EXPECT_EQ(8u, method->regions()[0]->length());
        EXPECT_EQ(kPid, method->regions()[0]->processId());
        EXPECT_STREQ("pkg::Bar::get", method->getMethodName());
        EXPECT_EQ("[Compiled Java code]", modulePath(*method));
        EXPECT_EQ(meSuccess, method->getModule()->isBogus());
        EXPECT_EQ(1u, method->getLineNumberInfo().size());
        EXPECT_EQ(Md5HashGenerator::hashText("9.1.42422"), method->getMethodId());
        EXPECT_EQ(Md5HashGenerator::hashText("5.1.42422"), method->getParentId());
    }
    EXPECT_EQ(1000u, decoder->nextJitRva());
}

TEST(InlineLoad, RefusesInvalidFields) {
    struct Case {
        void (*corrupt)(std::vector<uint8_t>&);
        const char* message;
    } cases[] = {
        {[](std::vector<uint8_t>& b) { putU64(b, 8, 0); }, "Invalid load time: 0"},
        {[](std::vector<uint8_t>& b) { putU16(b, 16, 2); }, "Invalid number of code regions: 2"},
        {[](std::vector<uint8_t>& b) { putU16(b, 16, 0); }, "Invalid number of code regions: 0"},
        {[](std::vector<uint8_t>& b) { putU64(b, 18, 0); }, "Invalid start address of code range: 0"},
        {[](std::vector<uint8_t>& b) { putU32(b, 26, 0); }, "Invalid size of code range: 0"},
        {[](std::vector<uint8_t>& b) { putU32(b, 30, 0xFFFFFFF0u); },
         "Invalid number of code range's bytes: 4294967280"},
    };
    TempDir dir;
    TraceBuilder trace;
    for (const Case& c : cases) {
        std::vector<uint8_t> body = jittrace::encodeInlineLoad(javaInline());
        c.corrupt(body);
        trace.sized(quarvel_jt_FunctionInlineLoad64, body);
    }
    auto decoder = openTrace(dir, trace);
    LogCapture log;
    for (const Case& c : cases) {
        log.clear();
        JitMethod::Ptr method(new JitMethod());
        EXPECT_FALSE(decoder->decodeMethodInlineLoadRecord(nextRecord(*decoder), method)) << c.message;
        ASSERT_EQ(1u, log.errors().size()) << c.message << "\n" << log.dump();
        EXPECT_NE(std::string::npos, log.errors()[0].find(c.message)) << log.errors()[0];
        EXPECT_NE(std::string::npos, log.errors()[0].find(dir.file("trace.jit"))) << log.errors()[0];
    }
}

TEST(InlineLoad, RefusesOtherTypes) {
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().sized(quarvel_jt_FunctionLoad64_v2, jittrace::encodeInlineLoad(javaInline())));
    LogCapture log;
    JitMethod::Ptr method(new JitMethod());
    EXPECT_FALSE(decoder->decodeMethodInlineLoadRecord(nextRecord(*decoder), method));
    ASSERT_EQ(1u, log.assertions().size());
    EXPECT_EQ("record.type == QUARVEL3_TRACE_JITTRACE(FunctionInlineLoad32) || "
              "record.type == QUARVEL3_TRACE_JITTRACE(FunctionInlineLoad64)",
              log.assertions()[0]);
}

// ---------------------------------------------------------------------------
// Updates, version 2

// Stands in for the data manager: one live region of one method.
class FakeSearch : public JitFileDecoder::SearchRegionCallback {
public:
    FakeSearch() {
        method.reset(new JitMethod());
        method->setRawMethodId(5);
        method->info()->setModule(IModule::Ptr(new Module("app.so", meNotFound, quarvel_arch_vx64)));
        method->info()->setClassName("pkg.Foo");
        method->info()->setMethodName("run");
        IByteBuffer::Ptr bytes = IByteBuffer::create();
        bytes->assign(std::vector<uint8_t>(64, 0xCC).data(), 64);
        region.reset(new Region(kHost, kPid, 2000, 100, 0, 0x400000, 64, bytes));
        method->addCodeRegion(region);
    }
    quarvel_error_t findRegion(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId, Region::Ptr& found,
                               JitMethod::Ptr& foundMethod) const override {
        asked.push_back({virtualAddress, timestamp, pid, hostId});
        if (!region->addressRange().contains(virtualAddress))
            return meNotFound;
        found = region;
        foundMethod = method;
        return meSuccess;
    }
    struct Query {
        u64 address, time;
        u32 pid, host;
    };
    mutable std::vector<Query> asked;
    Region::Ptr region;
    JitMethod::Ptr method;
};

TraceUpdateV2 update(u64 start, u32 length, std::vector<uint8_t> bytes) {
    TraceUpdateV2 u;
    u.methodId = 5;
    u.loadTime = 200;
    u.startAddress = start;
    u.length = length;
    u.bytes = std::move(bytes);
    return u;
}

TEST(UpdateV2, PatchesACopyOfTheFoundRegion) {
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().updateV2(update(0x400010, 4, {1, 2, 3, 4})));
    FakeSearch search;
    decoder->setSearchRegionCallback(&search);
    LogCapture log;

    JitMethod::Ptr method(new JitMethod());
    ASSERT_TRUE(decoder->decodeMethodUpdateRecordV2(nextRecord(*decoder), method)) << log.dump();
    ASSERT_EQ(1u, search.asked.size());
    EXPECT_EQ(0x400010u, search.asked[0].address);
    EXPECT_EQ(200u, search.asked[0].time);
    EXPECT_EQ(kPid, search.asked[0].pid);
    EXPECT_EQ(kHost, search.asked[0].host);
    EXPECT_TRUE(log.contains("Update range: 4194320-4194324, loadTime = 200"));

    ASSERT_EQ(1u, method->regionCount());
    const Region::Ptr& patched = method->regions()[0];
    EXPECT_NE(search.region, patched);
    EXPECT_EQ(2000u, patched->startJitRva());
    EXPECT_EQ(0x400000u, patched->startAddress());
    const unsigned char* bytes = patched->content()->data();
    EXPECT_EQ(0xCC, bytes[15]);
    EXPECT_EQ(1, bytes[16]);
    EXPECT_EQ(4, bytes[19]);
    EXPECT_EQ(0xCC, bytes[20]);
    EXPECT_EQ(0xCC, search.region->content()->data()[16]); // the live region is untouched

    EXPECT_EQ(5u, method->getRawMethodId());
    EXPECT_EQ(200u, method->getLoadTime());
    EXPECT_EQ("app.so", modulePath(*method));
    EXPECT_STREQ("pkg::Foo::run", method->getMethodName());
    EXPECT_EQ(Md5HashGenerator::hashText("5.1.42422"), method->getMethodId());
}

TEST(UpdateV2, RefusesBadUpdates) {
    struct Case {
        std::vector<uint8_t> body;
        bool withSearch;
        const char* message;
    } cases[] = {
        {jittrace::encodeUpdateV2(update(0x400010, 4, {1, 2, 3, 4})), false, "Couldn't find a range to be updated"},
        {jittrace::encodeUpdateV2(update(0x500000, 4, {1, 2, 3, 4})), true, "Couldn't find a range to be updated"},
        {jittrace::encodeUpdateV2(update(0x400030, 32, {1, 2, 3, 4})), true,
         "Couldn't update the detected range (4194304-4194368) because it's size is small"},
        {[] {
             TraceUpdateV2 u = update(0x400010, 4, {1});
             u.loadTime = 0;
             return jittrace::encodeUpdateV2(u);
         }(),
         true, "Invalid load time: 0"},
        {jittrace::encodeUpdateV2(update(0, 4, {1})), true, "Invalid start address of code range: 0"},
        {jittrace::encodeUpdateV2(update(0x400010, 0, {1})), true, "Invalid length of code range: 0"},
        {jittrace::encodeUpdateV2(update(0x400010, 4, {})), true, "Invalid number of code range's bytes: 0"},
        {[] {
             std::vector<uint8_t> b = jittrace::encodeUpdateV2(update(0x400010, 4, {1, 2}));
             b.push_back(0);
             return b;
         }(),
         true, "unexpected bytes after the code bytes"},
    };
    TempDir dir;
    TraceBuilder trace;
    for (const Case& c : cases)
        trace.sized(quarvel_jt_FunctionUpdate_v2, c.body);
    auto decoder = openTrace(dir, trace);
    FakeSearch search;
    LogCapture log;
    for (const Case& c : cases) {
        log.clear();
        decoder->setSearchRegionCallback(c.withSearch ? &search : nullptr);
        JitMethod::Ptr method(new JitMethod());
        EXPECT_FALSE(decoder->decodeMethodUpdateRecordV2(nextRecord(*decoder), method)) << c.message;
        ASSERT_EQ(1u, log.errors().size()) << c.message << "\n" << log.dump();
        EXPECT_NE(std::string::npos, log.errors()[0].find(c.message)) << log.errors()[0];
        EXPECT_EQ(0u, method->regionCount());
    }
}

TEST(UpdateV2, RefusesOtherTypes) {
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().sized(quarvel_jt_FunctionUpdate,
                                                       jittrace::encodeUpdateV2(update(0x400010, 4, {1}))));
    LogCapture log;
    JitMethod::Ptr method(new JitMethod());
    EXPECT_FALSE(decoder->decodeMethodUpdateRecordV2(nextRecord(*decoder), method));
    ASSERT_EQ(1u, log.assertions().size());
    EXPECT_EQ("record.type == QUARVEL3_TRACE_JITTRACE(FunctionUpdate_v2)", log.assertions()[0]);
}

// ---------------------------------------------------------------------------
// Managed runtime info

class RecordingStatistics : public UsageStatistics {
public:
    void reportCategory(const std::string& category) override {
        std::lock_guard<std::mutex> lock(mutex);
        categories.push_back(category);
    }
    std::mutex mutex;
    std::vector<std::string> categories;
};

// Installs a recording sink for the test's lifetime.
class StatisticsScope {
public:
    StatisticsScope() : sink(std::make_shared<RecordingStatistics>()), previous(UsageStatistics::install(sink)) {}
    ~StatisticsScope() { UsageStatistics::install(previous); }
    std::shared_ptr<RecordingStatistics> sink;
    UsageStatistics::Ptr previous;
};

TEST(ManagedRuntimeInfo, ReportsJavaCategories) {
    struct Case {
        uint32_t type;
        const char* version;
        const char* name;
        const char* category; // empty: nothing reported
    } cases[] = {
        {quarvel_runtime_java, "11.0.2", "Java HotSpot(TM) 64-Bit Server VM", "mrte.java.hotspot11"},
        {quarvel_runtime_java, "17", "OpenJDK 64-Bit Server VM (HotSpot)", "mrte.java.hotspot17"},
        {quarvel_runtime_java, "1.8.0_292", "OpenJDK 64-Bit Server VM", "mrte.java.openjdk1"},
        {quarvel_runtime_java, "R28", "Oracle JRockit(R)", "mrte.java.jrockit28"},
        {quarvel_runtime_java, "jvm 8", "Eclipse OpenJ9 VM (J9)", "mrte.java.j98"},
        {quarvel_runtime_java, "", "Java HotSpot(TM)", "mrte.java.hotspotunknown"},
        {quarvel_runtime_java, "21", "Zing", "mrte.java.unknown21"},
        {quarvel_runtime_python, "3.11", "CPython", ""},
        {7, "1", "other", ""},
    };
    TempDir dir;
    TraceBuilder trace;
    for (const Case& c : cases)
        trace.runtimeInfo(TraceRuntimeInfo{c.type, c.version, c.name});
    auto decoder = openTrace(dir, trace);
    StatisticsScope statistics;
    LogCapture log;
    for (const Case& c : cases) {
        statistics.sink->categories.clear();
        JitMethod::Ptr method(new JitMethod());
        ASSERT_TRUE(decoder->decodeManagedRuntimeInfo(nextRecord(*decoder), method));
        EXPECT_EQ(c.type, method->runtimeInfo().runtimeType);
        EXPECT_EQ(c.version, method->runtimeInfo().version);
        EXPECT_EQ(c.name, method->runtimeInfo().name);
        decoder->reportManagedRuntimeInfo(method->runtimeInfo());
        if (*c.category)
            EXPECT_EQ(std::vector<std::string>{c.category}, statistics.sink->categories) << c.name;
        else
            EXPECT_TRUE(statistics.sink->categories.empty()) << c.name;
    }
    EXPECT_TRUE(log.contains("Report category 'mrte.java.hotspot11' to Google Analytics"));
    EXPECT_TRUE(log.contains("Managed runtime type is Python"));
    EXPECT_TRUE(log.contains("Managed runtime type is unknown - unable to construct mrte category to report Google Analytics"));
    EXPECT_TRUE(log.errors().empty());
}

TEST(ManagedRuntimeInfo, StringsStopAtZeroAndOtherTypesAreRefused) {
    std::vector<uint8_t> body = jittrace::encodeRuntimeInfo(TraceRuntimeInfo{1, std::string("11\0.2", 5), "VM"});
    TempDir dir;
    auto decoder = openTrace(dir, TraceBuilder().runtimeInfo(TraceRuntimeInfo{1, "11", "x"}).sized(quarvel_jt_ManagedRuntimeInfo, body));
    LogCapture log;
    JitMethod::Ptr method(new JitMethod());
    Record wrongType = nextRecord(*decoder);
    wrongType.type = quarvel_jt_FunctionUpdate_v2;
    EXPECT_FALSE(decoder->decodeManagedRuntimeInfo(wrongType, method));
    EXPECT_EQ(0u, method->runtimeInfo().runtimeType);
    ASSERT_TRUE(decoder->decodeManagedRuntimeInfo(nextRecord(*decoder), method));
    EXPECT_EQ("11", method->runtimeInfo().version);
    EXPECT_EQ("VM", method->runtimeInfo().name);
}

TEST(ManagedRuntimeInfo, DefaultSinkAcceptsReports) {
    // Without an installed sink a report goes nowhere and does not fail.
    UsageStatistics::Ptr previous = UsageStatistics::install(nullptr);
    ASSERT_TRUE(UsageStatistics::instance());
    UsageStatistics::instance()->reportCategory("mrte.java.hotspot11");
    UsageStatistics::install(previous);
}

// ---------------------------------------------------------------------------
// Every body layout, cut at every length: each cut is refused with exactly one
// ERROR line, nothing is read past the body, and nothing crashes.

struct Layout {
    const char* name;
    uint32_t type;
    std::vector<uint8_t> body;
};

bool decodeAny(JitFileDecoder& decoder, const Record& record, JitMethod::Ptr& method) {
    uint8_t flag = 0;
    switch (record.type) {
    case quarvel_jt_FunctionLoad64: return decoder.decodeMethodLoadRecordV0(record, method);
    case quarvel_jt_FunctionLoad64_v1: return decoder.decodeMethodLoadRecordV1(record, method);
    case quarvel_jt_FunctionLoad64_v2: return decoder.decodeMethodLoadRecordV2(record, method);
    case quarvel_jt_FunctionLoad64_v3: return decoder.decodeMethodLoadRecordV3(record, method, &flag);
    case quarvel_jt_FunctionInlineLoad64: return decoder.decodeMethodInlineLoadRecord(record, method);
    case quarvel_jt_FunctionUpdate_v2: return decoder.decodeMethodUpdateRecordV2(record, method);
    case quarvel_jt_ManagedRuntimeInfo: return decoder.decodeManagedRuntimeInfo(record, method);
    default: ADD_FAILURE() << record.type; return false;
    }
}

TEST(TruncatedBodies, EveryCutIsRefusedOnce) {
    const Layout layouts[] = {
        {"load v0", quarvel_jt_FunctionLoad64, jittrace::encodeMethodLoad(javaLoad(), 0)},
        {"load v1", quarvel_jt_FunctionLoad64_v1, jittrace::encodeMethodLoad(javaLoad(), 1)},
        {"load v2", quarvel_jt_FunctionLoad64_v2, jittrace::encodeMethodLoad(javaLoad(), 2)},
        {"load v3", quarvel_jt_FunctionLoad64_v3, jittrace::encodeMethodLoad(javaLoad(), 3)},
        {"inline", quarvel_jt_FunctionInlineLoad64, jittrace::encodeInlineLoad(javaInline())},
        {"update v2", quarvel_jt_FunctionUpdate_v2, jittrace::encodeUpdateV2(update(0x400010, 4, {1, 2, 3, 4}))},
        {"runtime info", quarvel_jt_ManagedRuntimeInfo,
         jittrace::encodeRuntimeInfo(TraceRuntimeInfo{1, "11.0.2", "OpenJDK"})},
    };
    FakeSearch search;
    for (const Layout& layout : layouts) {
        TempDir dir;
        TraceBuilder trace;
        // The whole body first (it must decode), then every shorter cut.
        for (size_t n = layout.body.size(); n >= 1; --n)
            trace.sized(layout.type, std::vector<uint8_t>(layout.body.begin(), layout.body.begin() + n));
        auto decoder = openTrace(dir, trace);
        decoder->setSearchRegionCallback(&search);
        LogCapture log;

        JitMethod::Ptr whole(new JitMethod());
        ASSERT_TRUE(decodeAny(*decoder, nextRecord(*decoder), whole)) << layout.name << "\n" << log.dump();
        const jit_rva_t nextJitRva = decoder->nextJitRva();
        for (size_t n = layout.body.size() - 1; n >= 1; --n) {
            log.clear();
            const Record record = nextRecord(*decoder);
            ASSERT_EQ(n, record.data.size());
            JitMethod::Ptr method(new JitMethod());
            EXPECT_FALSE(decodeAny(*decoder, record, method)) << layout.name << " cut at " << n;
            EXPECT_EQ(1u, log.errors().size()) << layout.name << " cut at " << n << "\n" << log.dump();
            EXPECT_TRUE(log.assertions().empty()) << layout.name << " cut at " << n;
        }
        // Refused records leave the jit rva space alone.
        EXPECT_EQ(nextJitRva, decoder->nextJitRva()) << layout.name;
    }
}

} // namespace
