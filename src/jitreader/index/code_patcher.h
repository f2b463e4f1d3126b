#ifndef QUARVEL_INDEX_CODE_PATCHER_H
#define QUARVEL_INDEX_CODE_PATCHER_H

#include "index/jit_rva_index.h"
#include "model/jit_method.h"
#include "model/region.h"
#include "support/result.h"

QUARVEL_NAMESPACE_BEGIN

// Rewrites the code copies of registered regions: a patch of some bytes
// (an update record), or a whole patched copy handed over as a method load.
class CodePatcher {
public:
    // True when rawMethod has regions and every one is a patched copy of a
    // registered region of the same method (same jit rvas, same addresses):
    // the stored regions then take the new bytes and nothing is registered.
    static bool takePatchedCopies(const JitMethod& rawMethod, const JitRvaIndex& jitRvas);

    // Puts the bytes of update (one region, raw id methodId) into region,
    // the region live at its address when it was written, of method.
    static Status patch(const Region& update, u32 methodId, Region& region, const JitMethod& method);
};

QUARVEL_NAMESPACE_END

#endif
