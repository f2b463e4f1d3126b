// Inline load bodies (types 11 and 12), read as a trace through the reading
// pass and attached to a parent whose region covers the usual addresses.
//
// Input: selector (bit 0: type 12; bit 1: profiler collector), decoding mode, body.

#include "fuzz_support.h"

#include "index/jit_data_manager.h"

#include "model/md5_hash_generator.h"
#include "model/module.h"
#include <quarvel/jittrace_format.h>

using namespace quarvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarvel_fuzz::InputCursor in(data, size);
    const uint8_t selector = in.u8();
    const auto mode = static_cast<decoding_mode_t>(in.u8() & 3);
    const u32 type = (selector & 1) ? quarvel_jt_FunctionInlineLoad64 : quarvel_jt_FunctionInlineLoad32;
    const std::vector<uint8_t> body = in.restBytes();

    // A parent of raw id 1 over [0x1000, 0x3000): where the seeds place their inlines.
    JitDataManager dataManager;
    dataManager.setCollectorType((selector & 2) ? ctJitProfiler : ctUnknown);
    JitMethod::Ptr parent(new JitMethod());
    parent->setRawMethodId(1);
    parent->setLoadTime(1);
    parent->setStartJitRva(0x10000);
    parent->addCodeRegion(Region::Ptr(new Region(1, 7, 0x10000, 1, 0, 0x1000, 0x2000, IByteBuffer::Ptr())));
    parent->info()->setModule(IModule::Ptr(new Module("app.dll", meNotFound, quarvel_arch_vx64)));
    parent->info()->setMethodId(Md5HashGenerator::getHashValue(1, parent));
    (void)dataManager.processMethodLoadRecord(7, 1, parent);

    quarvel_fuzz::readTrace(quarvel_fuzz::frameRecord(type, body.data(), body.size(),
                                                      (selector & 2) ? static_cast<uint32_t>(ctJitProfiler) : 0u),
                            mode, 0x20000, dataManager);
    dataManager.finalize();
    for (const JitMethod::Ptr& method : dataManager.getJitMethods())
        quarvel_fuzz::exerciseMethod(*method);
    quarvel_fuzz::queryDataManager(dataManager, size);
    return 0;
}
