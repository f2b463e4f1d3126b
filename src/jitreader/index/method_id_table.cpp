#include "index/method_id_table.h"

QUARVEL_NAMESPACE_BEGIN

namespace {

// An id's 64-bit first half folded to 32 bits: what a slot keeps of it to
// tell ids apart without reading their methods, and what places it.
u32 tagOf(u64 part0) {
    return static_cast<u32>(part0 ^ (part0 >> 32));
}

size_t slotOf(u32 tag, size_t mask) {
    // Ids are digests or mixed already; the multiply spreads ids made in tests.
    return static_cast<size_t>((tag ^ (tag >> 15)) * 0x2C1B3C6Du) & mask;
}

} // namespace

void MethodIdTable::prefetch(const BaseMethodId& id) const {
    if (!m_ids.empty())
        __builtin_prefetch(&m_ids[slotOf(tagOf(id.part0), m_ids.size() - 1)]);
}

u32 MethodIdTable::find(const BaseMethodId& id) const {
    if (m_ids.empty())
        return kNone;
    // An inline's parent is most often the method added last, still in cache.
    const JitMethod::Ptr& last = m_methods.back();
    if (last && last->getMethodId() == id)
        return static_cast<u32>(m_methods.size() - 1);
    const size_t mask = m_ids.size() - 1;
    const u32 tag = tagOf(id.part0);
    for (size_t i = slotOf(tag, mask);; i = (i + 1) & mask) {
        const IdSlot& slot = m_ids[i];
        if (slot.index == kNone)
            return kNone;
        const JitMethod::Ptr& method = m_methods[slot.index];
        if (slot.tag == tag && method && method->getMethodId() == id)
            return slot.index;
    }
}

void MethodIdTable::grow() {
    BulkVector<IdSlot> old;
    old.swap(m_ids);
    m_ids.assign(old.empty() ? 64 : old.size() * 2, IdSlot{0, kNone});
    const size_t mask = m_ids.size() - 1;
    for (const IdSlot& slot : old) {
        if (slot.index == kNone)
            continue;
        size_t i = slotOf(slot.tag, mask);
        while (m_ids[i].index != kNone)
            i = (i + 1) & mask;
        m_ids[i] = slot;
    }
}

u32 MethodIdTable::add(const JitMethod::Ptr& method) {
    if ((m_methods.size() + 1) * 4 > m_ids.size() * 3)
        grow();
    const u32 index = static_cast<u32>(m_methods.size());
    m_methods.push_back(method);
    const u32 tag = tagOf(method->getMethodId().part0);
    const size_t mask = m_ids.size() - 1;
    size_t i = slotOf(tag, mask);
    while (m_ids[i].index != kNone)
        i = (i + 1) & mask;
    m_ids[i] = IdSlot{tag, index};
    return index;
}

QUARVEL_NAMESPACE_END
