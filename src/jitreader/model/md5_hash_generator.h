#ifndef QUARVEL_MODEL_MD5_HASH_GENERATOR_H
#define QUARVEL_MODEL_MD5_HASH_GENERATOR_H

#include "model/base_method_id.h"
#include "model/jit_method.h"

#include <string>

QUARVEL_NAMESPACE_BEGIN

// Turns a raw id (or, without one, the method's names) into its 128-bit id.
class Md5HashGenerator {
public:
    // rawId != 0: "<rawId>.<host>.<pid><arch>" of the first region and module.
    // rawId == 0: "<token><qualified name><class name><module path><arch>".
    static BaseMethodId getHashValue(u32 rawId, const JitMethod::Ptr& method);
    // The identity text getHashValue digests.
    static std::string identityText(u32 rawId, const JitMethod::Ptr& method);
    // MD5 of the text, as two little-endian 64-bit halves.
    static BaseMethodId hashText(const std::string& text);
};

QUARVEL_NAMESPACE_END

#endif
