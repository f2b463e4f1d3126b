#ifndef QUARVEL_INDEX_ADDRESS_LOOKUP_H
#define QUARVEL_INDEX_ADDRESS_LOOKUP_H

#include "model/jit_method.h"
#include "model/region.h"

#include <quarvel/types.h>

QUARVEL_NAMESPACE_BEGIN

// What an address lookup in one address space found, or why it found nothing.
struct AddressLookup {
    enum Outcome {
        found,
        noSpace,  // nothing was ever loaded in the address space
        noRange,  // no code was ever loaded at the address
        tooEarly, // every region there was loaded after the moment asked for
        unloaded, // the region there had ended its life by then
        tooDeep   // a lookup while reading: the walk down to that moment passed the space's step limit
    };
    Outcome outcome = noRange;
    Region* region = nullptr;    // found, unloaded (not filled by a resolve)
    JitMethod* method = nullptr; // found, unloaded (not filled by a resolve)
    IModule* module = nullptr;   // found, unloaded: the method's module
    u32 slot = 0;                // found, unloaded: the region's slot in its address history
    u64 rangeStart = 0;          // the stretch of addresses the answer holds for
    u64 rangeEnd = 0;
    u64 jitRvaBias = 0; // found: jit rva = address + jitRvaBias (mod 2^64)

    bool ok() const { return outcome == found; }
};

QUARVEL_NAMESPACE_END

#endif
