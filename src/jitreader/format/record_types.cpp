#include "format/record_types.h"

#include <quarvel/jittrace_format.h>

QUARVEL_NAMESPACE_BEGIN

namespace {

const char* const kLoad = "JIT TRACE: MethodLoad";

const RecordTypeInfo kTypes[] = {
    {quarvel_jt_FunctionLoad32, kLoad, Framing::sized, BodyKind::methodLoad, 0, false},
    {quarvel_jt_FunctionLoad64, kLoad, Framing::sized, BodyKind::methodLoad, 0, true},
    {quarvel_jt_FunctionLoad32_v1, kLoad, Framing::sized, BodyKind::methodLoad, 1, false},
    {quarvel_jt_FunctionLoad64_v1, kLoad, Framing::sized, BodyKind::methodLoad, 1, true},
    {quarvel_jt_FunctionLoad32_v2, kLoad, Framing::sized, BodyKind::methodLoad, 2, false},
    {quarvel_jt_FunctionLoad64_v2, kLoad, Framing::sized, BodyKind::methodLoad, 2, true},
    {quarvel_jt_FunctionLoad32_v3, kLoad, Framing::sized, BodyKind::methodLoad, 3, false},
    {quarvel_jt_FunctionLoad64_v3, kLoad, Framing::sized, BodyKind::methodLoad, 3, true},
    {quarvel_jt_FunctionUpdate, "JIT TRACE: MethodUpdate", Framing::sized, BodyKind::methodUpdate, 3, false},
    {quarvel_jt_FunctionInlineLoad32, "JIT TRACE: MethodInlineLoad", Framing::sized, BodyKind::inlineLoad, -1, false},
    {quarvel_jt_FunctionInlineLoad64, "JIT TRACE: MethodInlineLoad", Framing::sized, BodyKind::inlineLoad, -1, true},
    {quarvel_jt_CollectorType, "JIT TRACE: CollectorType", Framing::value, BodyKind::collectorType, -1, false},
    {quarvel_jt_FunctionUpdate_v2, "JIT TRACE: MethodUpdate_v2", Framing::sized, BodyKind::updateV2, -1, false},
    {quarvel_jt_ManagedRuntimeInfo, "JIT TRACE: ManagedRuntimeInfo", Framing::sized, BodyKind::runtimeInfo, -1, false},
    {quarvel_jt_Magic, "JIT TRACE: Magic", Framing::value, BodyKind::magic, -1, false},
};

} // namespace

const RecordTypeInfo* recordTypeInfo(u32 type) {
    for (const RecordTypeInfo& info : kTypes)
        if (info.type == type)
            return &info;
    return nullptr;
}

bool excludedByArchitecture(const RecordTypeInfo& info, target_arch_t arch) {
    if (info.body != BodyKind::methodLoad)
        return false;
    // Values above taX86_64 exclude both variants.
    const bool firstExcluded = arch >= taX86_64;
    const bool secondExcluded = arch != taAny && arch != taX86_64;
    return info.secondVariant ? secondExcluded : firstExcluded;
}

QUARVEL_NAMESPACE_END
