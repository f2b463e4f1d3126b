// Inputs the fuzzers found, rebuilt with the trace writer, each named after
// what it broke. The fuzz corpus replay (tests/fuzz_replay) keeps the raw
// inputs; these say what must hold.

#include "jit_data_manager.h"
#include "jit_file_decoder.h"
#include "jit_file_reader.h"
#include "log_capture.h"
#include "trace_builder.h"

#include <gtest/gtest.h>

using namespace quarvel_3_13;
using quarvel_test::LogCapture;
using quarvel_test::makeLoad;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

namespace {

const u32 kPid = 7;
const u32 kHost = 1;

quarvel_error_t readFile(const std::string& path, JitDataManager& data) {
    JitFileDecoder decoder(path, kPid, kHost, 0x10000, dmCodeBytes);
    return JitFileReader().readJitFile(decoder, taAny, data);
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
    ASSERT_EQ(meSuccess, readFile(path, data));
    ASSERT_EQ(1u, data.getJitMethods().size());
    const Region::Ptr& region = data.getJitMethods().front()->regions().front();
    EXPECT_EQ(0xFFFFFFFFu, region->length());
    const IByteBuffer::Ptr bytes = region->getBytes();
    EXPECT_TRUE(!bytes || bytes->size() == 0) << bytes->size();
    EXPECT_TRUE(capture.assertions().empty());
}

} // namespace
