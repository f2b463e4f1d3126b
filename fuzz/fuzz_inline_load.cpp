// Inline load bodies (types 11 and 12), decoded and exercised, then attached
// to a parent whose region covers the usual addresses.
//
// Input: selector (bit 0: type 12; bit 1: profiler collector), decoding mode, body.

#include "fuzz_support.h"

#include "index/jit_data_manager.h"
#include "format/jit_file_decoder.h"
#include "model/md5_hash_generator.h"
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
    record.type = (selector & 1) ? quarvel_jt_FunctionInlineLoad64 : quarvel_jt_FunctionInlineLoad32;
    record.data = in.restBytes();

    JitFileDecoder decoder(quarvel_fuzz::scratchDir() + "/absent.jit", 7, 1, 0x10000, mode);
    JitMethod::Ptr method(new JitMethod());
    const bool decoded = decoder.decodeMethodInlineLoadRecord(record, method);
    quarvel_fuzz::exerciseMethod(*method);
    if (!decoded)
        return 0;

    // A parent of raw id 1 over [0x1000, 0x3000): where the seeds place their inlines.
    JitDataManager dataManager;
    dataManager.setCollectorType((selector & 2) ? ctJitProfiler : ctUnknown);
    JitMethod::Ptr parent(new JitMethod());
    parent->setRawMethodId(1);
    parent->setLoadTime(1);
    parent->setStartJitRva(0x10000);
    parent->addCodeRegion(Region::Ptr(new Region(1, 7, 0x10000, 1, 0, 0x1000, 0x2000, IByteBuffer::Ptr())));
    parent->info()->setMethodId(Md5HashGenerator::getHashValue(1, parent));
    (void)dataManager.processMethodLoadRecord(7, 1, parent);
    (void)dataManager.processMethodInlineLoadRecord(7, 1, method);
    dataManager.finalize();
    quarvel_fuzz::queryDataManager(dataManager, size);
    return 0;
}
