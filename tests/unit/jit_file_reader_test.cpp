// The reading pass: the model it builds from each record, where a file's pass
// ends and where it reads on, the jit rvas it hands out, the 64-bit module
// rename, updates, and the file set's two pass forms.

#include "format/jit_file_decoder.h"
#include "index/jit_data_manager.h"
#include "ingest/jit_file_reader.h"
#include "ingest/jit_files_manager.h"
#include "ingest/managed_runtime_info.h"
#include "model/md5_hash_generator.h"
#include "support/mapped_file.h"

#include "byte_buffers.h"
#include "log_capture.h"
#include "path_list.h"
#include "trace_builder.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarvel;
using quarvel_test::bytesOf;
using quarvel_test::LogCapture;
using quarvel_test::makeLoad;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

namespace jit_file_reader_test {

const u32 kPid = 42;
const u32 kHost = 1;
const u64 kBase = 1000;

TraceMethodLoad load(u32 id, u64 time, u64 address, uint16_t arch = quarvel_arch_vx64,
                     const std::string& module = "app.dll") {
    TraceMethodLoad l = makeLoad(id, time, address, 16, "m" + std::to_string(id));
    l.tail.moduleArch = arch;
    l.tail.moduleName = module;
    return l;
}

struct Pass {
    quarvel_error_t status;
    JitReadStats stats;
};

// Reads trace bytes held in memory, as process kPid of host kHost.
Pass readTrace(const TraceBuilder& trace, JitDataManager& data, target_arch_t arch = taAny,
               decoding_mode_t mode = dmCodeBytes) {
    JitReadStats stats;
    ModuleCache modules;
    JitFileDecoder decoder("h.42.jit", ByteSpan(trace.bytes()), kPid, kHost, kBase, mode);
    JitFileReader reader(&stats, modules);
    const quarvel_error_t status = reader.readJitFile(decoder, arch, data);
    return Pass{status, stats};
}

std::vector<u32> registeredIds(const JitDataManager& data) {
    std::vector<u32> ids;
    for (const JitMethod::Ptr& m : data.getJitMethods())
        ids.push_back(m->getRawMethodId());
    return ids;
}

JitMethod::Ptr methodOf(const JitDataManager& data, u32 id) {
    for (const JitMethod::Ptr& m : data.getJitMethods())
        if (m->getRawMethodId() == id)
            return m;
    return JitMethod::Ptr();
}

std::string moduleOf(const JitDataManager& data, u32 id) {
    const JitMethod::Ptr m = methodOf(data, id);
    return m && m->getModule() ? m->getModule()->getFilePath() : "<none>";
}

// ---------------------------------------------------------------------------
// The model built from a load

TraceMethodLoad javaLoad() {
    TraceMethodLoad load;
    load.hashKey = 77;
    load.methodId = 5;
    load.loadTime = 0x1122334455ull;
    load.regions.push_back(TraceCodeRegion{0x400000, 16, std::vector<uint8_t>(16, 0x10)});
    load.regions.push_back(TraceCodeRegion{0x400080, 0, {}}); // empty: skipped, takes no jit rva
    load.regions.push_back(TraceCodeRegion{0x400100, 32, std::vector<uint8_t>(32, 0x40)});
    load.tail.moduleName = "app.so";
    load.tail.methodName = "run(Ljava/lang/String;I)V";
    load.tail.className = "Lpkg/Foo;";
    load.tail.sourceFile = "Foo.java";
    load.tail.checksumType = 1;
    load.tail.checksum = "abc";
    load.tail.language = quarvel_language_java;
    load.tail.lines.nativeToSource = {{0, 16, 10}, {16, 48, 11}};
    return load;
}

TEST(ReadingPassModel, EveryVersionBuildsTheSameMethodButForItsIdentity) {
    for (int version = 0; version < 4; ++version) {
        JitDataManager data;
        ASSERT_EQ(meSuccess, readTrace(TraceBuilder().load(version, javaLoad()), data).status);
        const JitMethod::Ptr method = methodOf(data, 5);
        ASSERT_TRUE(method) << version;
        EXPECT_EQ(0x1122334455ull, method->getLoadTime());
        EXPECT_EQ(kBase, method->getStartJitRva());
        ASSERT_EQ(2u, method->regionCount()) << version;
        const Region& first = *method->regions()[0];
        const Region& second = *method->regions()[1];
        EXPECT_EQ(kBase, first.startJitRva());
        EXPECT_EQ(kBase + 16, second.startJitRva());
        EXPECT_EQ(0x400100u, second.startAddress());
        EXPECT_EQ(kPid, second.processId());
        EXPECT_EQ(kHost, second.hostId());
        ASSERT_TRUE(second.content());
        EXPECT_EQ(0x40, second.content()->data()[31]);

        EXPECT_STREQ("pkg::Foo::run", method->getMethodName());
        EXPECT_STREQ("pkg::Foo::run(java::lang::String, int)", method->getQualifiedMethodName());
        EXPECT_EQ("app.so", moduleOf(data, 5));
        ASSERT_TRUE(method->getSourceFile());
        EXPECT_STREQ("abc", method->getSourceFile()->getChecksum());
        ASSERT_TRUE(method->getSourceLocation(kBase + 20));
        EXPECT_EQ(11u, method->getSourceLocation(kBase + 20)->getLine());

        // Newer records hash their key with host, pid and architecture; older ones the names.
        const std::string identity =
            version >= 2 ? "77.1.422" : "0pkg::Foo::run(java::lang::String, int)pkg::Fooapp.so2";
        EXPECT_EQ(Md5HashGenerator::hashText(identity), method->getMethodId()) << version;
    }
}

TEST(ReadingPassModel, ModulesAndTheirStatus) {
    const struct {
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
    TraceBuilder trace;
    u32 id = 1;
    for (const auto& c : cases) {
        TraceMethodLoad l = load(id, 100, 0x1000 * id);
        l.tail.moduleName = c.module;
        l.tail.language = c.language;
        trace.load(c.version, l);
        ++id;
    }
    JitDataManager data;
    ASSERT_EQ(meSuccess, readTrace(trace, data).status);
    id = 1;
    for (const auto& c : cases) {
        const JitMethod::Ptr method = methodOf(data, id++);
        ASSERT_TRUE(method);
        EXPECT_STREQ(c.path, method->getModule()->getFilePath()) << c.version << " '" << c.module << "'";
        EXPECT_EQ(c.status, method->getModule()->isBogus()) << c.version << " '" << c.module << "'";
    }
}

// Only Java names are unmangled, and hidden classes keep their address.
// Common Java names take a shorter way than the others; all are stored the
// same way, and a class name seen before is not mistaken for a similar one.
TEST(ReadingPassModel, NamesOfEveryFormAreStoredAlike) {
    const uint16_t java = quarvel_language_java;
    const struct {
        const char* className;
        const char* methodName;
        uint16_t language;
        const char* expectedClass;
        const char* expectedName;
        const char* expectedQualified;
    } cases[] = {
        // .NET and native names starting with the descriptor letter stay as they are.
        {"Logger", "Log", 0, "Logger", "Logger::Log", "Logger::Log"},
        {"Lib.Loader", "Load(I)V", 0, "Lib::Loader", "Lib::Loader::Load", "Lib::Loader::Load(I)V"},
        // Descriptor-form class names mark Java code even without a language.
        {"Lpkg/Foo;", "run(I)V", 0, "pkg::Foo", "pkg::Foo::run", "pkg::Foo::run(int)"},
        {"pkg.Foo", "run([J)V", java, "pkg::Foo", "pkg::Foo::run", "pkg::Foo::run(long[])"},
        // Hidden classes (lambdas) in either form the virtual machine gives them.
        {"LShop$$Lambda$1/0x00007f1700000a08;", "applyAsInt(I)I", java, "Shop$$Lambda$1/0x00007f1700000a08",
         "Shop$$Lambda$1/0x00007f1700000a08::applyAsInt", "Shop$$Lambda$1/0x00007f1700000a08::applyAsInt(int)"},
        {"Lpkg/Hot$$Lambda$2.0x00007f90e0001958;", "get()Ljava/lang/Object;", java,
         "pkg::Hot$$Lambda$2/0x00007f90e0001958", "pkg::Hot$$Lambda$2/0x00007f90e0001958::get",
         "pkg::Hot$$Lambda$2/0x00007f90e0001958::get()"},
        {"Lpkg/Foo;", "run(Ljava/lang/String;[[I)V", java, "pkg::Foo", "pkg::Foo::run",
         "pkg::Foo::run(java::lang::String, int[][])"},
        {"Lpkg/Foo;", "put(Ljava/util/Map<Ljava/lang/String;Ljava/lang/Integer;>;)V", java, "pkg::Foo", "pkg::Foo::put",
         "pkg::Foo::put(java::util::Map<java::lang::String,java::lang::Integer>)"},
        {"Lpkg/Foo;", "m(La//b;)V", java, "pkg::Foo", "pkg::Foo::m", "pkg::Foo::m(a::b)"},
        {"Lpkg/Foo;", "cut(Ljava/lang/Str)V", java, "pkg::Foo", "pkg::Foo::cut", "pkg::Foo::cut(java::lang::Str)V)"},
        {"Lpkg/Foo;", "run(java.lang.String)", java, "pkg::Foo", "pkg::Foo::run", "pkg::Foo::run(java::lang::String)"},
        {"Lpkg/Foo;", "<clinit>", java, "pkg::Foo", "pkg::Foo::<clinit>", "pkg::Foo::<clinit>"},
        {"Lpkg/Foo;", "_ZN2ns3Foo3barEic", java, "pkg::Foo", "ns::Foo::bar", "ns::Foo::bar(int, char)"},
        {"Lpkg/Foo;", "", java, "pkg::Foo", "", ""},
        {"", "run(I)V", java, "", "run", "run(int)"},
        {"Lpkg/Foo", "run(I)V", java, "pkg::Foo", "pkg::Foo::run", "pkg::Foo::run(int)"},
        {"Lpkg/Foo", "Run", 0, "Lpkg/Foo", "Lpkg/Foo::Run", "Lpkg/Foo::Run"},
        {"Lib.Loader", "Load.Inner(I)V", 0, "Lib::Loader", "Lib::Loader::Load::Inner", "Lib::Loader::Load::Inner(I)V"},
        {"Plain", "...", 0, "Plain", "Plain::", "Plain::"},
        {"", "...", 0, "", "", ""},
    };
    TraceBuilder trace;
    u32 id = 1;
    for (const auto& c : cases) {
        TraceMethodLoad l = load(id, 100, 0x1000 * id);
        l.tail.className = c.className;
        l.tail.methodName = c.methodName;
        l.tail.language = c.language;
        trace.load(2, l);
        ++id;
    }
    JitDataManager data;
    ASSERT_EQ(meSuccess, readTrace(trace, data).status);
    id = 1;
    for (const auto& c : cases) {
        const JitMethod::Ptr method = methodOf(data, id++);
        ASSERT_TRUE(method);
        EXPECT_STREQ(c.expectedClass, method->getClassName()) << c.className << " " << c.methodName;
        EXPECT_STREQ(c.expectedName, method->getMethodName()) << c.className << " " << c.methodName;
        EXPECT_STREQ(c.expectedQualified, method->getQualifiedMethodName()) << c.className << " " << c.methodName;
    }
}

// ---------------------------------------------------------------------------
// Where a pass ends, and where it reads on

// The last collector type of a file wins.
TEST(ReadingPassFlow, MagicAndCollectorTypesAloneRegisterNothing) {
    JitDataManager data;
    const Pass pass = readTrace(TraceBuilder().magic(0x1234).collector(ctUnknown).collector(ctJitProfiler), data);
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_TRUE(data.getJitMethods().empty());
    EXPECT_EQ(ctJitProfiler, data.getCollectorType());
    EXPECT_EQ(1u, pass.stats.magicRecords);
    EXPECT_EQ(2u, pass.stats.records[quarvel_jt_CollectorType]);
}

TEST(ReadingPassFlow, MagicPastOffsetZeroEndsTheFile) {
    JitDataManager data;
    const Pass pass =
        readTrace(TraceBuilder().magic().load(3, load(1, 100, 0x1000)).magic().load(3, load(2, 100, 0x2000)), data);
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_EQ(std::vector<u32>{1}, registeredIds(data));
    EXPECT_EQ(1u, pass.stats.secondTraces);
}

TEST(ReadingPassFlow, TheOtherVariantEndsTheFile) {
    const struct {
        const char* name;
        target_arch_t arch;
        std::vector<bool> is64; // one load per entry, ids 1, 2, ...
        std::vector<u32> registered;
    } cases[] = {
        {"any accepts both", taAny, {false, true, false}, {1, 2, 3}},
        {"x86 stops at the 64-bit variant", taX86, {false, true, false}, {1}},
        {"x86 with a 64-bit first record", taX86, {true, false}, {}},
        {"x86-64 stops at the 32-bit variant", taX86_64, {true, false, true}, {1}},
        {"value 3 refuses the first variant", static_cast<target_arch_t>(3), {false}, {}},
        {"value 3 refuses the second variant", static_cast<target_arch_t>(3), {true}, {}},
    };
    for (const auto& c : cases)
        for (int version = 0; version <= 3; ++version) {
            TraceBuilder trace;
            for (size_t i = 0; i < c.is64.size(); ++i)
                trace.load(version, load(static_cast<u32>(i + 1), 100, 0x1000 * (i + 1)), c.is64[i]);
            JitDataManager data;
            const Pass pass = readTrace(trace, data, c.arch);
            EXPECT_EQ(meSuccess, pass.status) << c.name << " v" << version;
            EXPECT_EQ(c.registered, registeredIds(data)) << c.name << " v" << version;
            EXPECT_EQ(c.registered.size() < c.is64.size() ? 1u : 0u, pass.stats.architectureFiltered)
                << c.name << " v" << version;
        }
}

// A refused record costs only itself: a damaged body (regions that are all
// empty), a record the model refuses (an inline that crosses an attached
// one), and every later record is read. A load without code regions is
// registered: its names and lines stay, it owns no address.
TEST(ReadingPassFlow, ARefusedRecordNeverCostsTheRestOfTheFile) {
    TraceMethodLoad allEmpty = load(2, 100, 0x2000);
    allEmpty.regions[0].codeSize = 0;
    TraceMethodLoad noRegions = load(3, 100, 0x3000);
    noRegions.regions.clear();
    TraceMethodLoad parent = load(10, 100, 0x10000);
    parent.regions[0].codeSize = 0x100;
    parent.regions[0].bytes.assign(0x100, 0x90);
    const TraceInlineLoad inner = quarvel_test::makeInline(11, 10, 100, 0x10010, 0x20);
    const TraceInlineLoad crossing = quarvel_test::makeInline(12, 10, 100, 0x10020, 0x20);

    TraceBuilder trace;
    trace.collector(ctJitProfiler)
        .load(3, load(1, 100, 0x1000))
        .load(3, allEmpty)
        .load(3, noRegions)
        .load(3, parent)
        .inlineLoad(inner)
        .inlineLoad(crossing)
        .load(3, load(4, 100, 0x4000));
    JitDataManager data;
    LogCapture log;
    const Pass pass = readTrace(trace, data);
    EXPECT_EQ(meSuccess, pass.status) << log.dump();
    const std::vector<u32> ids = registeredIds(data);
    for (u32 id : {1u, 3u, 10u, 4u})
        EXPECT_NE(ids.end(), std::find(ids.begin(), ids.end(), id)) << id;
    ASSERT_TRUE(methodOf(data, 3));
    EXPECT_EQ(0u, methodOf(data, 3)->regionCount());
    EXPECT_EQ(1u, pass.stats.refusedBodies);        // every region empty
    EXPECT_EQ(1u, pass.stats.refusedByDataManager); // the crossing inline
    // Each refusal names the file and points into the record it refused; the
    // model's carries its own reason.
    for (const Reason& reason : pass.stats.refusals)
        EXPECT_EQ("h.42.jit", reason.file);
    ASSERT_EQ(2u, pass.stats.refusals.size());
    EXPECT_GE(pass.stats.refusals.front().offset, trace.recordStarts()[2]);
    EXPECT_LT(pass.stats.refusals.front().offset, trace.recordStarts()[3]);
    const Reason& refusal = pass.stats.refusals.back();
    EXPECT_GE(refusal.offset, trace.recordStarts()[6]);
    EXPECT_LT(refusal.offset, trace.recordStarts()[7]);
    EXPECT_EQ(std::string::npos, refusal.message.find("see the log")) << refusal.text();
    EXPECT_NE(std::string::npos, refusal.message.find("inline")) << refusal.text();
}

// ---------------------------------------------------------------------------
// Jit rvas

// Each region takes its jit rva as it is read, whatever becomes of the rest
// of its record, so both decoding modes hand out the same jit rvas: a
// version 0 load cut inside its tail is refused in every mode and still
// takes its jit rvas.
TEST(ReadingPassJitRvas, EveryModeHandsOutTheSameJitRvas) {
    TraceMethodLoad cutTail = load(2, 100, 0x2000);
    std::vector<uint8_t> body = jittrace::encodeMethodLoad(cutTail, 0);
    body.resize(body.size() - 3);
    TraceBuilder trace;
    trace.load(0, load(1, 100, 0x1000)).sized(quarvel_jt_FunctionLoad64, body).load(0, load(3, 100, 0x3000));
    for (decoding_mode_t mode : {dmCodeBytes, dmSkipSymbolic, dmNone}) {
        JitDataManager data;
        const Pass pass = readTrace(trace, data, taAny, mode);
        ASSERT_EQ(meSuccess, pass.status);
        EXPECT_EQ(1u, pass.stats.refusedBodies) << mode;
        const JitMethod::Ptr third = methodOf(data, 3);
        ASSERT_TRUE(third) << mode;
        EXPECT_EQ(kBase + 32, third->getStartJitRva()) << mode;
    }
}

TEST(ReadingPassJitRvas, AFileCannotRunPastItsRange) {
    // Two regions that together overrun the file's jit rva range: the second
    // record is refused with a reason, and nothing lands in the next range.
    TraceMethodLoad big = load(1, 100, 0x1000);
    big.regions[0] = TraceCodeRegion{0x1000, 0xFFFFFFF0u, {}};
    TraceBuilder trace;
    for (u32 i = 0; i < 300; ++i) {
        big.methodId = big.hashKey = i + 1;
        big.regions[0].startAddress = 0x1000 + u64(i) * 0x100000000ull;
        trace.load(3, big);
    }
    JitDataManager data;
    LogCapture log;
    const Pass pass = readTrace(trace, data);
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_EQ(256u, data.getJitMethods().size());
    EXPECT_EQ(44u, pass.stats.refusedBodies);
    for (const JitMethod::Ptr& m : data.getJitMethods())
        EXPECT_LE(m->regions()[0]->startJitRva() + m->regions()[0]->length(), kBase + JitFileReader::kJitRvaStride);
    EXPECT_NE(std::string::npos, pass.stats.refusals.back().message.find("jit rva range"))
        << pass.stats.refusals.back().text();
}

// ---------------------------------------------------------------------------
// 64-bit module names, updates, runtime info

TEST(ReadingPassModules, ModulesOf64BitCodeAreRenamedInProfilerFilesOfBothKinds) {
    const struct {
        const char* name;
        u32 collector;
        bool withArch0;
        const char* expected;
    } cases[] = {
        {"profiler file of both kinds", ctJitProfiler, true, "b.dll (64)"},
        {"other collector", ctUnknown, true, "b.dll"},
        {"no 32-bit module seen", ctJitProfiler, false, "b.dll"},
    };
    for (const auto& c : cases) {
        TraceBuilder trace;
        trace.collector(c.collector);
        if (c.withArch0)
            trace.load(3, load(1, 100, 0x1000, quarvel_arch_vx32, "a.dll"));
        trace.load(3, load(2, 100, 0x2000, quarvel_arch_varda64, "b.dll"))
            .load(3, load(3, 100, 0x3000, quarvel_arch_varda64, "b.dll"));
        JitDataManager data;
        ASSERT_EQ(meSuccess, readTrace(trace, data).status);
        EXPECT_EQ(c.expected, moduleOf(data, 2)) << c.name;
        // Methods of one module share its renamed object.
        EXPECT_EQ(methodOf(data, 2)->getModule(), methodOf(data, 3)->getModule()) << c.name;
        if (c.withArch0) {
            EXPECT_EQ("a.dll", moduleOf(data, 1)) << c.name;
        }
    }
}

// A patched call site (update v2) rewrites the live region's bytes in place:
// one method, one region, the same jit rva and line tables before and after.
TEST(ReadingPassUpdates, UpdateV2PatchesTheLiveRegionInPlace) {
    for (decoding_mode_t mode : {dmCodeBytes, dmSkipSymbolic}) {
        TraceMethodLoad loaded = load(1, 100, 0x1000);
        loaded.tail.lines.nativeToSource = {{0, 16, 7}};
        const TraceUpdateV2 update{1, 150, 0x1004, 4, {1, 2, 3, 4}};
        JitDataManager data;
        LogCapture log;
        const Pass pass =
            readTrace(TraceBuilder().collector(ctJitProfiler).load(3, loaded).updateV2(update), data, taAny, mode);
        EXPECT_EQ(meSuccess, pass.status);
        EXPECT_TRUE(log.errors().empty()) << log.dump();
        ASSERT_EQ(std::vector<u32>{1}, registeredIds(data));
        data.finalize();
        const JitMethod::Ptr method = data.getJitMethods().front();
        ASSERT_EQ(1u, method->regionCount());
        const Region& region = *method->regions().front();
        for (u64 time : {120u, 200u}) {
            JitMethod::Ptr found;
            u64 jitRva = 0;
            ASSERT_EQ(meSuccess, data.resolveJitPoint(0x1005, time, kPid, kHost, found, jitRva)) << time;
            EXPECT_EQ(method.get(), found.get());
            EXPECT_EQ(region.startJitRva() + 5, jitRva);
            ASSERT_TRUE(found->getSourceLocation(jitRva));
            EXPECT_EQ(7u, found->getSourceLocation(jitRva)->getLine());
        }
        if (mode & dmCodeBytes) {
            ASSERT_TRUE(region.content());
            const unsigned char* bytes = region.content()->data();
            EXPECT_EQ((std::vector<unsigned char>{0xCC, 0xCC, 0xCC, 0xCC, 1, 2, 3, 4, 0xCC}),
                      std::vector<unsigned char>(bytes, bytes + 9));
        } else {
            EXPECT_FALSE(region.content()) << "no bytes are kept in this mode";
        }
    }
}

// Read from a file, code bytes are views of the file's mapping (copies past
// the process's limit of mapped files): they must be the record's bytes,
// outlive the reading and a new trace written under the file's name, and
// take a patch as copies do.
TEST(ReadingPassUpdates, CodeBytesReadFromAFileOutliveTheReading) {
    const auto pattern = [](uint8_t seed, size_t size) {
        std::vector<uint8_t> bytes(size);
        for (size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<uint8_t>(seed + 7 * i);
        return bytes;
    };
    TraceBuilder trace;
    trace.collector(ctJitProfiler);
    for (u32 id = 1; id <= 3; ++id) {
        TraceMethodLoad loaded = load(id, 100, 0x1000 * id);
        loaded.regions.front().bytes = pattern(static_cast<uint8_t>(id), 16);
        loaded.regions.push_back(TraceCodeRegion{0x1000 * id + 0x800, 0, {}}); // empty: no bytes
        loaded.regions.push_back(TraceCodeRegion{0x1000 * id + 0x100, 40, pattern(static_cast<uint8_t>(id * 50), 40)});
        trace.load(3, loaded);
    }
    TraceInlineLoad inlined = quarvel_test::makeInline(9, 2, 110, 0x2104, 8);
    inlined.region.bytes = pattern(0xA0, 8);
    trace.inlineLoad(inlined);
    trace.updateV2(TraceUpdateV2{3, 150, 0x3004, 4, {1, 2, 3, 4}});

    const auto bytesOfRegion = [](const Region& region) {
        const IByteBuffer::Ptr& content = region.content();
        return content ? std::vector<uint8_t>(content->data(), content->data() + content->size())
                       : std::vector<uint8_t>();
    };
    // Views while the process has room for one more mapping; copies past
    // the limit, with the same bytes.
    const size_t limit = MappedFile::keepLimit();
    for (const size_t room : {limit, size_t(0)}) {
        SCOPED_TRACE(room ? "views" : "copies");
        TempDir dir;
        const std::string path = dir.file("h.42.jit");
        trace.writeTo(path);
        const size_t mappingsBefore = MappedFile::liveMappings();
        MappedFile::setKeepLimit(room ? limit : mappingsBefore);
        JitDataManager data;
        {
            JitReadStats stats;
            ModuleCache modules;
            JitFileDecoder decoder(path, kPid, kHost, kBase, dmCodeBytes);
            JitFileReader reader(&stats, modules);
            ASSERT_EQ(meSuccess, reader.readJitFile(decoder, taAny, data));
            EXPECT_EQ(0u, stats.refusedBodies);
        }
        MappedFile::setKeepLimit(limit);
        EXPECT_EQ(mappingsBefore + (room ? 1 : 0), MappedFile::liveMappings());
        // A new process with the same id writes its trace under the same name.
        JitTraceWriter rewriter;
        ASSERT_TRUE(rewriter.open(path)) << rewriter.errorText();
        ASSERT_TRUE(rewriter.writeMagic());
        rewriter.close();
        data.finalize();

        for (u32 id = 1; id <= 3; ++id) {
            JitMethod::Ptr method = methodOf(data, id);
            ASSERT_TRUE(method) << id;
            ASSERT_EQ(2u, method->regionCount()) << id;
            std::vector<uint8_t> first = pattern(static_cast<uint8_t>(id), 16);
            if (id == 3) // patched in place
                std::copy_n(std::vector<uint8_t>{1, 2, 3, 4}.begin(), 4, first.begin() + 4);
            EXPECT_EQ(first, bytesOfRegion(*method->regions()[0])) << id;
            EXPECT_EQ(pattern(static_cast<uint8_t>(id * 50), 40), bytesOfRegion(*method->regions()[1])) << id;
            if (id == 2) {
                ASSERT_EQ(1u, method->regions()[1]->inlinedRegions().size());
                EXPECT_EQ(pattern(0xA0, 8), bytesOfRegion(*method->regions()[1]->inlinedRegions().front()));
            }
        }
    }
}

TEST(ReadingPassUpdates, UpdateV2WithoutLiveCodeIsRefusedAndReadingGoesOn) {
    const TraceUpdateV2 nowhere{9, 150, 0x9000, 4, {1, 2, 3, 4}};
    const TraceUpdateV2 tooLong{1, 150, 0x1008, 32, {1, 2, 3, 4}};
    const TraceUpdateV2 ofNoId{7, 150, 0x3004, 4, {1, 2, 3, 4}}; // code of a load with raw id 0
    JitDataManager data;
    LogCapture log;
    const Pass pass = readTrace(TraceBuilder()
                                    .load(3, load(1, 100, 0x1000))
                                    .load(3, load(0, 100, 0x3000))
                                    .updateV2(nowhere)
                                    .updateV2(tooLong)
                                    .updateV2(ofNoId)
                                    .load(3, load(2, 100, 0x2000)),
                                data);
    EXPECT_EQ(meSuccess, pass.status);
    EXPECT_EQ((std::vector<u32>{1, 0, 2}), registeredIds(data));
    EXPECT_EQ(3u, pass.stats.refusedBodies);
    ASSERT_EQ(3u, pass.stats.refusals.size());
    EXPECT_EQ(ErrorKind::notFound, pass.stats.refusals[0].kind);
    EXPECT_NE(std::string::npos, pass.stats.refusals[1].message.find("because it's size is small"));
    EXPECT_EQ(ErrorKind::badInput, pass.stats.refusals[2].kind);
    EXPECT_NE(std::string::npos, pass.stats.refusals[2].message.find("without a raw id"))
        << pass.stats.refusals[2].message;
    EXPECT_TRUE(log.contains("updMethod->getRawMethodId()", log4cplus::ERROR_LOG_LEVEL)) << log.dump();
    EXPECT_TRUE(log.contains("Failed to decode a UPDATE_V2 record", log4cplus::ERROR_LOG_LEVEL)) << log.dump();
}

// An update (type 10) applies only under decoding mode exactly dmCodeBytes.
TEST(ReadingPassUpdates, UpdateRecordsApplyOnlyWhenCodeBytesAreKept) {
    const struct {
        decoding_mode_t mode;
        bool applied;
    } cases[] = {
        {dmNone, false}, {dmCodeBytes, true}, {dmSkipSymbolic, false}, {static_cast<decoding_mode_t>(3), false}};
    TraceMethodLoad update = load(1, 200, 0x1004);
    update.regions[0].codeSize = 4;
    update.regions[0].bytes = {1, 2, 3, 4};
    const TraceBuilder trace = TraceBuilder().collector(ctJitProfiler).load(3, load(1, 100, 0x1000)).update(update);
    for (const auto& c : cases) {
        JitDataManager data;
        const Pass pass = readTrace(trace, data, taAny, c.mode);
        ASSERT_EQ(meSuccess, pass.status);
        EXPECT_EQ(c.applied ? 0u : 1u, pass.stats.ignoredUpdates) << c.mode;
        // Without dmCodeBytes no code bytes are kept at all.
        std::vector<uint8_t> expected(c.mode & dmCodeBytes ? 16 : 0, 0xCC);
        if (c.applied)
            for (int i = 0; i < 4; ++i)
                expected[4 + i] = static_cast<uint8_t>(i + 1);
        EXPECT_EQ(expected, bytesOf(data.getJitMethods().at(0)->regions().at(0)->getBytes().get())) << c.mode;
    }
}

TEST(ReadingPassRuntimeInfo, JavaRuntimesGetTheirCategory) {
    const struct {
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
    for (const auto& c : cases)
        EXPECT_EQ(c.category, managedRuntimeCategory(TraceRuntimeInfo{c.type, c.version, c.name})) << c.name;
}

// ---------------------------------------------------------------------------
// The file set's passes

quarvel_error_t init(JitFilesManager& files, const std::string& path) {
    return files.initialize(quarvel_test::PathList{path}.it(), taAny);
}

// A process is read once; a file of it that cannot be opened is refused
// once, said once, and the process's other files are read all the same. The
// all-processes pass then reads only what is left, past a damaged file and
// an unopenable one.
TEST(FileSetPasses, EachProcessIsReadOnceAndEachFailingFileRefusedOnce) {
    TempDir dir;
    TraceBuilder().load(3, load(1, 100, 0x1000)).writeTo(dir.file("h.1.jit"));
    TraceBuilder().load(3, load(3, 100, 0x3000)).writeTo(dir.file("h.1.trace"));
    TraceBuilder().load(3, load(4, 100, 0x4000)).writeTo(dir.file("h.1.zzz"));
    TraceBuilder damaged;
    damaged.load(3, load(2, 100, 0x2000)).raw({0xFF, 0xFF, 0, 0, 4, 0, 0, 0}); // unknown type
    damaged.writeTo(dir.file("h.2.jit"));
    TraceBuilder().load(3, load(5, 100, 0x5000)).writeTo(dir.file("h.3.jit"));
    JitFilesManager files;
    ASSERT_EQ(meSuccess, init(files, dir.path()));
    boost::filesystem::remove(dir.file("h.1.trace"));
    boost::filesystem::remove(dir.file("h.3.jit"));
    EXPECT_EQ(meEndOfData, files.processState(1, 1));
    EXPECT_EQ(meNotFound, files.processState(4, 1));
    EXPECT_EQ(meNotFound, files.processState(1, 2));
    JitDataManager data;
    LogCapture log;
    EXPECT_EQ(meNotFound, files.readJitFiles(4, 1, dmCodeBytes, data));
    EXPECT_EQ(meNotFound, files.readJitFiles(1, 2, dmCodeBytes, data));
    EXPECT_EQ(meSuccess, files.readJitFiles(1, 1, dmCodeBytes, data));
    EXPECT_EQ((std::vector<u32>{1, 4}), registeredIds(data));
    EXPECT_EQ(meSuccess, files.processState(1, 1));
    EXPECT_EQ(meEndOfData, files.processState(2, 1));
    const size_t errors = log.errors().size();
    const size_t filesRead = files.readStats().files;
    EXPECT_EQ(meSuccess, files.readJitFiles(1, 1, dmCodeBytes, data));
    EXPECT_EQ(errors, log.errors().size()) << "refused once";
    EXPECT_EQ(filesRead, files.readStats().files) << "read once";
    EXPECT_FALSE(files.isWholeSetRead());

    EXPECT_EQ(meSuccess, files.readJitFiles(dmCodeBytes, data));
    EXPECT_EQ(filesRead + 2, files.readStats().files);
    EXPECT_EQ((std::vector<u32>{1, 4, 2}), registeredIds(data));
    EXPECT_TRUE(files.isWholeSetRead());
    EXPECT_EQ(meSuccess, files.processState(2, 1));
    const JitReadStats stats = files.readStats();
    EXPECT_EQ(3u, stats.failedFiles);
    ASSERT_EQ(3u, stats.refusals.size());
    EXPECT_EQ(dir.file("h.1.trace"), stats.refusals[0].file);
    EXPECT_EQ(meFileOpenError, stats.refusals[0].code);
    EXPECT_EQ(dir.file("h.2.jit"), stats.refusals[1].file);
    EXPECT_EQ("record type", stats.refusals[1].field);
    EXPECT_EQ(dir.file("h.3.jit"), stats.refusals[2].file);
}

} // namespace
