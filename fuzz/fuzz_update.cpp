// Method updates against a data manager that holds a few regions: the
// version 2 update body (type 14) and the version 3 layout update (type 10),
// each read as a one-record trace of the process.
//
// Input: selector (bit 0: type 10 instead of 14; bit 1: not the profiler
// collector; bit 2: byte updates applied to the regions directly), decoding
// mode, body. Direct byte updates: a series of {u8 region, u8 segment type,
// u64 address, u32 length, u16 n, n bytes}, applied to copies of the regions.
//
// The regions, all of process 7 on host 1 (the seeds aim at them):
//   raw id 1: [0x1000, 0x1100) with 256 code bytes, loaded at 100;
//   raw id 2: the same range with its bytes, reloaded at 200;
//   raw id 3: [0x2000, 0x3000) without code bytes, loaded at 100;
//   raw id 4: [0x10000000, +0xFFFFFFFF) without code bytes, loaded at 50;
//   raw id 5: [0x4000, 0x4100) with only 16 code bytes, loaded at 100;
//   raw id 6: [0x20000000, +0xFFFFFFFF) with 64 code bytes, loaded at 100.

#include "fuzz_support.h"

#include "index/jit_data_manager.h"

#include "model/md5_hash_generator.h"
#include "model/module.h"
#include <quarvel/jittrace_format.h>

#include <algorithm>
#include <vector>

using namespace quarvel;

namespace {

const u32 kPid = 7;
const u32 kHost = 1;

void addMethod(JitDataManager& dataManager, u32 rawId, u64 loadTime, u64 start, u32 length, jit_rva_t jitRva,
               size_t byteCount) {
    IByteBuffer::Ptr content;
    if (byteCount) {
        const std::vector<uint8_t> bytes(byteCount, 0xCC);
        content = IByteBuffer::create();
        content->assign(bytes.data(), static_cast<unsigned>(bytes.size()));
    }
    JitMethod::Ptr method(new JitMethod());
    method->setRawMethodId(rawId);
    method->setLoadTime(loadTime);
    method->setStartJitRva(jitRva);
    method->addCodeRegion(Region::Ptr(new Region(kHost, kPid, jitRva, loadTime, 0, start, length, content)));
    method->info()->setMethodName("m" + std::to_string(rawId));
    method->info()->setModule(IModule::Ptr(new Module("app.dll", meNotFound, quarvel_arch_vx64)));
    method->info()->setMethodId(Md5HashGenerator::getHashValue(rawId, method));
    (void)dataManager.processMethodLoadRecord(kPid, kHost, method);
}

} // namespace

// Region::addBytesUpdate with any segment type, range and content: the markup
// of several updates on one region, and padding of any claimed length.
void applyByteUpdates(const JitDataManager& dataManager, quarvel_fuzz::InputCursor& in) {
    std::vector<Region::Ptr> regions;
    for (const JitMethod::Ptr& method : dataManager.getJitMethods())
        for (const Region::Ptr& region : method->regions())
            if (region->content()) // a region without a code copy has no bytes to update
                regions.push_back(Region::Ptr(new Region(*region)));
    if (regions.empty())
        return;
    for (int i = 0; i < 8 && in.restSize() > 0; ++i) {
        Region& region = *regions[in.u8() % regions.size()];
        const auto segType = static_cast<quarvel_segment_type_t>(in.u8() % 5);
        const u64 address = region.startAddress() + in.u64();
        const u32 length = in.u32();
        // Two statements: the count must be taken off the input before what is left is measured.
        const size_t claimed = in.u16();
        const size_t n = std::min<size_t>(claimed, in.restSize());
        IByteBuffer::Ptr content = IByteBuffer::create();
        content->assign(in.rest(), static_cast<unsigned>(n));
        for (size_t k = 0; k < n; ++k)
            (void)in.u8();
        (void)region.addBytesUpdate(address, length, content, segType, "patch");
        if (const IByteBuffer::Ptr bytes = region.getBytes())
            if (bytes->size() && bytes->data()[bytes->size() - 1] == 0x42)
                (void)region.markup().size();
    }
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarvel_fuzz::InputCursor in(data, size);
    const uint8_t selector = in.u8();
    const auto mode = static_cast<decoding_mode_t>(in.u8() & 3);
    const bool layoutV3 = selector & 1;

    JitDataManager dataManager;
    dataManager.setCollectorType((selector & 2) ? ctUnknown : ctJitProfiler);
    addMethod(dataManager, 1, 100, 0x1000, 0x100, 0x100000, 0x100);
    addMethod(dataManager, 2, 200, 0x1000, 0x100, 0x200000, 0x100);
    addMethod(dataManager, 3, 100, 0x2000, 0x1000, 0x300000, 0);
    addMethod(dataManager, 4, 50, 0x10000000, 0xFFFFFFFFu, 0x400000, 0);
    addMethod(dataManager, 5, 100, 0x4000, 0x100, 0x200000000ull, 16);
    addMethod(dataManager, 6, 100, 0x20000000, 0xFFFFFFFFu, 0x300000000ull, 64);

    if (selector & 4) {
        applyByteUpdates(dataManager, in);
        return 0;
    }

    // As a trace of the process: type 10 goes to the update operation, type
    // 14 finds the live region and registers a patched copy.
    const u32 type = layoutV3 ? quarvel_jt_FunctionUpdate : quarvel_jt_FunctionUpdate_v2;
    const std::vector<uint8_t> body = in.restBytes();
    quarvel_fuzz::readTrace(
        quarvel_fuzz::frameRecord(type, body.data(), body.size(), (selector & 2) ? ctUnknown : ctJitProfiler), mode,
        0x500000000ull, dataManager);
    dataManager.finalize();
    quarvel_fuzz::queryDataManager(dataManager, size);
    return 0;
}
