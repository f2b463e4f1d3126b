// Method load bodies, versions 0 to 3 (and the update type that shares the
// version 3 layout), decoded, registered in a data manager and queried.
//
// Input: selector, decoding mode, body.
//   selector bits 0-1: version; bit 2: the second (64-bit) type of the pair;
//   bit 3: version 3 decodes a method update record (type 10).
//   mode bits 0-1: decoding mode; bit 7: a jit rva base near the top of the
//   64-bit space, so that jit rvas run into the end.

#include "fuzz_support.h"

#include "index/jit_data_manager.h"
#include "format/jit_file_decoder.h"
#include "format/record.h"

#include <quarvel/jittrace_writer.h>

using namespace quarvel_3_13;

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

    Record record;
    record.offset = 8;
    record.type =
        update ? static_cast<u32>(quarvel_jt_FunctionUpdate) : jittrace::methodLoadType(version, selector & 4);
    record.data = in.restBytes(); // exact size: a read past the body shows

    const jit_rva_t base = (modeByte & 0x80) ? ~u64(0) - 0x1000 : 0x10000;
    const auto mode = static_cast<decoding_mode_t>(modeByte & 3);
    // The path does not exist: body decoders never touch the file.
    JitFileDecoder decoder(quarvel_fuzz::scratchDir() + "/absent.jit", 7, 1, base, mode);

    JitMethod::Ptr method(new JitMethod());
    uint8_t inlineFlag = 0;
    bool decoded = false;
    switch (version) {
    case 0: decoded = decoder.decodeMethodLoadRecordV0(record, method); break;
    case 1: decoded = decoder.decodeMethodLoadRecordV1(record, method); break;
    case 2: decoded = decoder.decodeMethodLoadRecordV2(record, method); break;
    default: decoded = decoder.decodeMethodLoadRecordV3(record, method, &inlineFlag); break;
    }
    quarvel_fuzz::exerciseMethod(*method);
    if (!decoded)
        return 0;

    // A second decode of the same body agrees with the first.
    JitMethod::Ptr again(new JitMethod());
    uint8_t flag = 0;
    if (version == 3 && !decoder.decodeMethodLoadRecordV3(record, again, &flag))
        __builtin_trap();

    JitDataManager dataManager;
    dataManager.setCollectorType(selector & 0x10 ? ctJitProfiler : ctUnknown);
    if (update)
        (void)dataManager.processMethodUpdateRecord(7, 1, method);
    else if (inlineFlag == 1)
        (void)dataManager.processMethodInlineLoadRecord(7, 1, method);
    else
        (void)dataManager.processMethodLoadRecord(7, 1, method);
    dataManager.finalize();
    quarvel_fuzz::queryDataManager(dataManager, size);
    return 0;
}
