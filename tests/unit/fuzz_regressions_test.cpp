// Inputs the fuzzers found, rebuilt with the trace writer, each named after
// what it broke. The fuzz corpus replay (tests/fuzz_replay) keeps the raw
// inputs; these say what must hold.

#include "byte_buffers.h"
#include "format/jit_file_decoder.h"
#include "index/jit_data_manager.h"
#include "ingest/jit_file_reader.h"
#include "log_capture.h"
#include "trace_builder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sys/resource.h>

using namespace quarvel;
using quarvel_test::bufferOf;
using quarvel_test::bytesOf;
using quarvel_test::LogCapture;
using quarvel_test::makeLoad;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

namespace fuzz_regressions_test {

const u32 kPid = 7;
const u32 kHost = 1;

// The peak resident memory of this process in KiB (0 when unknown). Each test
// runs in a process of its own, so a jump shows what the test itself touched.
u64 peakRssKb() {
    struct rusage usage {};
    return getrusage(RUSAGE_SELF, &usage) == 0 ? static_cast<u64>(usage.ru_maxrss) : 0;
}
const u64 kOneGiBInKb = 1024 * 1024;

quarvel_error_t readFile(const std::string& path, JitDataManager& data, u32 pid = kPid) {
    JitFileDecoder decoder(path, pid, kHost, 0x10000, dmCodeBytes);
    ModuleCache modules;
    return JitFileReader(nullptr, modules).readJitFile(decoder, taAny, data);
}

// A region whose code size claims 4 GiB and whose load carries no code bytes,
// then a method update (type 10) near its end: the patched copy was sized by
// the region's length, so a 200-byte file allocated and zero-filled 4 GiB.
TEST(FuzzRegressions, UpdateOfRegionWithoutBytesNeverSizesACopyByTheRegionLength) {
    LogCapture capture;
    TempDir dir;
    TraceMethodLoad huge = makeLoad(4, 50, 0x10000000, 1, "huge");
    huge.regions.front() = TraceCodeRegion{0x10000000, 0xFFFFFFFFu, {}};
    TraceMethodLoad patch = makeLoad(4, 60, 0x10000000 + 0xFFFFFF00ull, 16, "huge");
    const std::string path =
        TraceBuilder().collector(ctJitProfiler).load(3, huge).update(patch).writeTo(dir.file("host.7.jit"));

    JitDataManager data;
    const u64 before = peakRssKb();
    ASSERT_EQ(meSuccess, readFile(path, data));
    EXPECT_LT(peakRssKb(), before + kOneGiBInKb);
    ASSERT_EQ(1u, data.getJitMethods().size());
    const Region::Ptr& region = data.getJitMethods().front()->regions().front();
    EXPECT_EQ(0xFFFFFFFFu, region->length());
    EXPECT_TRUE(bytesOf(region->getBytes().get()).empty());
}

// A region whose length claims 4 GiB holds a 64-byte code copy; a padding
// update over nearly all of that length made a 4 GiB buffer of no-operations
// although only the 48 bytes the copy holds can change. Found by fuzz_update
// (direct byte updates: code, padding and unchanged over one range, then the
// long padding).
TEST(FuzzRegressions, PaddingOfAHugeRegionFillsOnlyTheCodeCopy) {
    LogCapture capture;
    Region region(1, 7, 0x300000000ull, 100, 0, 0x20000000, 0xFFFFFFFFu, bufferOf(std::vector<uint8_t>(64, 0xCC)));
    const u64 start = region.startAddress();
    const u64 before = peakRssKb();
    ASSERT_EQ(meSuccess,
              region.addBytesUpdate(start + 8, 4, bufferOf({0x90, 0x90, 0x90, 0x90}), quarvel_segment_code, "patch"));
    ASSERT_EQ(meSuccess, region.addBytesUpdate(start + 8, 4, bufferOf({}), quarvel_segment_padding, "patch"));
    ASSERT_EQ(meSuccess, region.addBytesUpdate(start + 8, 4, bufferOf({0xCC}), quarvel_segment_unchanged, "patch"));
    ASSERT_EQ(meSuccess,
              region.addBytesUpdate(start + 16, 0xF8000040u, bufferOf({}), quarvel_segment_padding, "patch"));
    EXPECT_LT(peakRssKb(), before + kOneGiBInKb);

    std::vector<uint8_t> expected(64, 0x90);
    std::fill(expected.begin(), expected.begin() + 8, 0xCC);
    std::fill(expected.begin() + 12, expected.begin() + 16, 0xCC);
    EXPECT_EQ(expected, bytesOf(region.getBytes().get()));
    EXPECT_EQ(2u, region.markup().size());
    EXPECT_TRUE(capture.errors().empty()) << capture.dump();
}

// Inlines the data manager would only have caught by an internal check: a
// version 3 load flagged as inline with a load time of 0 (the inline record's
// decoder refuses such a time; found by fuzz_method_load), and any inline in
// a file named for process 0. Both are refused as bad input by the reading
// pass; the parent stays.
TEST(FuzzRegressions, InlinesWithoutALoadTimeOrAProcessAreRefusedAsBadInput) {
    const struct {
        u32 pid;
        u64 inlineTime;
        const char* reason;
    } cases[] = {{kPid, 0, "Invalid load time: 0"}, {0, 60, "process id 0"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        LogCapture capture;
        TempDir dir;
        TraceMethodLoad inlined = makeLoad(0, c.inlineTime, 0x10000010, 16, "inlined");
        inlined.inlineFlag = 1;
        const std::string path = TraceBuilder()
                                     .collector(ctUnknown)
                                     .load(3, makeLoad(0, 50, 0x10000000, 64, "parent"))
                                     .load(3, inlined)
                                     .writeTo(dir.file("host.7.jit"));
        JitDataManager data;
        ASSERT_EQ(meSuccess, readFile(path, data, c.pid));
        EXPECT_EQ(1u, data.getJitMethods().size());
        ASSERT_EQ(1u, capture.errors().size()) << capture.dump();
        EXPECT_NE(std::string::npos, capture.errors().front().find(c.reason)) << capture.dump();
    }
}

} // namespace
