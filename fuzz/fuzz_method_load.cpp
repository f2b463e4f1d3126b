// Method load bodies, versions 0 to 3 (and the update type that shares the
// version 3 layout): decoded on their own, then read as a one-record trace
// through the reading pass into a data manager, and queried.
//
// Input: selector, decoding mode, body.
//   selector bits 0-1: version; bit 2: the second (64-bit) type of the pair;
//   bit 3: version 3 decodes a method update record (type 10); bit 4: the
//   profiler collector.
//   mode bits 0-1: decoding mode; bit 7: a jit rva base near the top of the
//   64-bit space, so that jit rvas run into the end.

#include "fuzz_support.h"

#include "format/record_bodies.h"
#include "index/jit_data_manager.h"

#include <quarvel/jittrace_writer.h>

using namespace quarvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarvel_fuzz::InputCursor in(data, size);
    const uint8_t selector = in.u8();
    const uint8_t modeByte = in.u8();
    const int version = selector & 3;
    const bool update = version == 3 && (selector & 8);
    const u32 type =
        update ? static_cast<u32>(quarvel_jt_FunctionUpdate) : jittrace::methodLoadType(version, selector & 4);

    // The body alone, at its exact size: a read past it shows. Decoding twice
    // gives the same answer, and the reading modes agree on acceptance.
    const std::vector<uint8_t> body = in.restBytes();
    Record record;
    record.offset = 8;
    record.type = type;
    record.data = ByteSpan(body);
    BodyOptions lean;
    lean.keepCodeBytes = false;
    lean.keepLineTables = false;
    const DecodedMethodLoad full = decodeMethodLoad(record, version, "fuzz", BodyOptions());
    const DecodedMethodLoad skipping = decodeMethodLoad(record, version, "fuzz", lean);
    if (full.status.ok() != skipping.status.ok() || full.load.regions.size() != skipping.load.regions.size())
        __builtin_trap();

    const jit_rva_t base = (modeByte & 0x80) ? ~u64(0) - 0x1000 : 0x10000;
    const auto mode = static_cast<decoding_mode_t>(modeByte & 3);
    JitDataManager dataManager;
    quarvel_fuzz::readTrace(quarvel_fuzz::frameRecord(type, body.data(), body.size(),
                                                      selector & 0x10 ? static_cast<uint32_t>(ctJitProfiler) : 0u),
                            mode, base, dataManager);
    dataManager.finalize();
    for (const JitMethod::Ptr& method : dataManager.getJitMethods())
        quarvel_fuzz::exerciseMethod(*method);
    quarvel_fuzz::queryDataManager(dataManager, size);
    return 0;
}
