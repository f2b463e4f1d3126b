// The C interface of the trace writer, driven from C (c_writer.c) and read
// back here: its bytes must equal those of the C++ encoders (so that the
// reader's tests of those bytes hold for it), and threaded appends must leave
// whole records.

#include "c_writer.h"
#include "trace_builder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>

namespace {

using namespace quarvel_test;

std::vector<uint8_t> readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

uint32_t u32At(const std::vector<uint8_t>& b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 | uint32_t(b[at + 3]) << 24;
}

TraceMethodTail tail(const std::string& method) {
    TraceMethodTail t;
    t.moduleName = "c.jar";
    t.moduleArch = quarvel_arch_vx64;
    t.methodName = method;
    t.className = "demo.CWritten";
    t.sourceFile = "CWritten.java";
    t.checksumType = 1;
    t.checksum = "abc";
    t.lines.nativeToSource = {{0, 8, 10}, {8, 16, 11}};
    return t;
}

TEST(CTraceWriter, EveryRecordMatchesTheCppEncoders) {
    TempDir dir;
    const std::string path = dir.file("host.1.jit");
    ASSERT_EQ(0, c_write_every_record(path.c_str()));

    const std::vector<uint8_t> code = {0x55, 0x48, 0x89, 0xe5, 0x90, 0x90, 0x90, 0x90,
                                       0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0xc9, 0xc3};
    TraceMethodLoad load;
    load.hashKey = 7;
    load.methodId = 7;
    load.loadTime = 100;
    load.regions = {TraceCodeRegion{0x10000, 16, code}};
    load.tail = tail("run");
    TraceInlineLoad inl;
    inl.methodId = 8;
    inl.parentId = 7;
    inl.loadTime = 100;
    inl.region = TraceCodeRegion{0x10004, 8, std::vector<uint8_t>(code.begin() + 4, code.begin() + 12)};
    inl.tail = tail("helper");
    TraceMethodLoad update = load;
    update.loadTime = 120;
    TraceUpdateV2 patch;
    patch.methodId = 7;
    patch.loadTime = 150;
    patch.startAddress = 0x10006;
    patch.length = 2;
    patch.bytes = {0xcc, 0xcc};

    TraceBuilder expected;
    expected.magic(0)
        .collector(1)
        .runtimeInfo(TraceRuntimeInfo{quarvel_runtime_java, "17.0.2", "OpenJDK 64-Bit Server VM"})
        .load(3, load, true)
        .inlineLoad(inl, true)
        .update(update)
        .updateV2(patch);
    EXPECT_EQ(expected.bytes(), readAll(path));
}

TEST(CTraceWriter, ThreadedAppendsLeaveEveryRecordWhole) {
    TempDir dir;
    const std::string path = dir.file("host.2.jit");
    ASSERT_EQ(0, c_write_threaded(path.c_str(), 4, 50));

    const std::vector<uint8_t> bytes = readAll(path);
    std::set<uint32_t> ids;
    size_t at = 0;
    while (at + 8 <= bytes.size()) {
        ASSERT_EQ(uint32_t(quarvel_jt_FunctionLoad64_v3), u32At(bytes, at)) << "at offset " << at;
        const uint32_t size = u32At(bytes, at + 4);
        ASSERT_LE(at + 8 + size, bytes.size());
        ids.insert(u32At(bytes, at + 8 + 4)); // hash key, then the method id
        at += 8 + size;
    }
    EXPECT_EQ(bytes.size(), at);
    EXPECT_EQ(200u, ids.size());
    EXPECT_EQ(1u, *ids.begin());
    EXPECT_EQ(200u, *ids.rbegin());
}

TEST(CTraceWriter, BadArgumentsAreRefusedAndWriteNothing) {
    TempDir dir;
    EXPECT_EQ(0, c_check_refusals(dir.file("host.3.jit").c_str()));
}

} // namespace
