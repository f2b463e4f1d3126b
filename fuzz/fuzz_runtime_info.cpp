// Managed runtime info bodies (type 15): decoded, then turned into the usage
// category.
//
// Input: selector (unused), decoding mode (unused), body.

#include "fuzz_support.h"

#include "format/record_bodies.h"
#include "ingest/managed_runtime_info.h"

using namespace quarvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarvel_fuzz::InputCursor in(data, size);
    (void)in.u8();
    (void)in.u8();
    const std::vector<uint8_t> body = in.restBytes();
    Record record;
    record.offset = 8;
    record.type = quarvel_jt_ManagedRuntimeInfo;
    record.data = ByteSpan(body);
    const Expected<TraceRuntimeInfo> info = decodeRuntimeInfo(record, "fuzz");
    if (info)
        reportManagedRuntimeInfo(*info);
    return 0;
}
