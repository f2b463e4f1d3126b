#ifndef QUARVEL_INGEST_METHOD_ID_CACHE_H
#define QUARVEL_INGEST_METHOD_ID_CACHE_H

#include "model/md5_hash_generator.h"

QUARVEL_NAMESPACE_BEGIN

// The ids of the raw ids hashed last, so that a raw id seen again soon is not
// hashed again: an inline names the method it sits in, loaded just before,
// and a method update repeats the id of the load it patches.
class MethodIdCache {
public:
    // Md5HashGenerator::getHashValue, remembered for raw ids other than 0
    // (0 takes the id from the names, which this does not key on).
    BaseMethodId get(u32 rawId, const JitMethod::Ptr& method);

private:
    struct Slot {
        Md5HashGenerator::RawIdKey key; // rawId 0: empty
        BaseMethodId id;
    };
    static const unsigned kSlotBits = 6;

    Slot m_slots[1u << kSlotBits] = {};
    // The text after the id, written again only when a record's host,
    // process or architecture differs from the one before.
    Md5HashGenerator::RawIdScope m_scope{Md5HashGenerator::RawIdKey()};
};

QUARVEL_NAMESPACE_END

#endif
