#include "ingest/method_id_cache.h"

QUARVEL_NAMESPACE_BEGIN

BaseMethodId MethodIdCache::get(u32 rawId, const JitMethod::Ptr& method) {
    if (rawId == 0 || !method)
        return Md5HashGenerator::getHashValue(rawId, method);
    const Md5HashGenerator::RawIdKey key = Md5HashGenerator::rawIdKey(rawId, *method);
    // Consecutive raw ids (the common case) fall in different slots.
    Slot& slot = m_slots[(rawId * 0x9E3779B1u) >> (32 - kSlotBits)];
    if (!(slot.key == key)) {
        slot.key = key;
        if (!m_scope.holds(key))
            m_scope = Md5HashGenerator::RawIdScope(key);
        slot.id = Md5HashGenerator::hashRawId(rawId, m_scope);
    }
    return slot.id;
}

QUARVEL_NAMESPACE_END
