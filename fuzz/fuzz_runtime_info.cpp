// Managed runtime info bodies (type 15): decoded, then turned into the usage
// category.
//
// Input: selector (bit 0: a wrong record type), decoding mode, body.

#include "fuzz_support.h"

#include "format/jit_file_decoder.h"
#include "format/record.h"

using namespace quarvel_3_13;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarvel_fuzz::InputCursor in(data, size);
    const uint8_t selector = in.u8();
    const auto mode = static_cast<decoding_mode_t>(in.u8() & 3);

    Record record;
    record.offset = 8;
    record.type = (selector & 1) ? quarvel_jt_FunctionInlineLoad32 : quarvel_jt_ManagedRuntimeInfo;
    record.data = in.restBytes();

    JitFileDecoder decoder(quarvel_fuzz::scratchDir() + "/absent.jit", 7, 1, 0x10000, mode);
    JitMethod::Ptr method(new JitMethod());
    if (!decoder.decodeManagedRuntimeInfo(record, method))
        return 0;
    decoder.reportManagedRuntimeInfo(method->runtimeInfo());
    return 0;
}
