#ifndef QUARVEL_INDEX_METHOD_ID_TABLE_H
#define QUARVEL_INDEX_METHOD_ID_TABLE_H

#include "model/base_method_id.h"
#include "model/jit_method.h"
#include "support/bulk_memory.h"

#include <quarvel/types.h>

#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Methods in the order they were added, found by their 128-bit id through an
// open hash of indices: 8 bytes a slot, no node per method. A released
// method leaves an empty place that find() passes over.
class MethodIdTable {
public:
    static const u32 kNone = 0xFFFFFFFFu;

    // Index of the method added under id and not released, or kNone.
    u32 find(const BaseMethodId& id) const;
    // Starts loading the slot find(id) reads first.
    void prefetch(const BaseMethodId& id) const;
    // Adds method under its current id; returns its index.
    u32 add(const JitMethod::Ptr& method);
    // Drops the table's hold on the method at index.
    void release(u32 index) { m_methods[index].reset(); }

    const JitMethodStorage& all() const { return m_methods; }
    const JitMethod::Ptr& at(u32 index) const { return m_methods[index]; }
    size_t size() const { return m_methods.size(); }

private:
    struct IdSlot { // 8 bytes
        u32 tag;    // of the id; equal tags still compare the whole ids
        u32 index;  // kNone: empty
    };
    void grow();

    JitMethodStorage m_methods;
    BulkVector<IdSlot> m_ids; // power-of-two size, at most 3/4 full
};

QUARVEL_NAMESPACE_END

#endif
