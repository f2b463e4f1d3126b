#ifndef QUARVEL_INDEX_INLINE_ATTACHER_H
#define QUARVEL_INDEX_INLINE_ATTACHER_H

#include "index/method_registry.h"
#include "model/base_method_id.h"
#include "model/jit_method.h"
#include "model/region.h"
#include "support/bulk_memory.h"
#include "support/result.h"

#include <map>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Puts inlined methods into the inline trees of their parents' regions.
//
// Files of the jit profiler name the parent by id, and records come in any
// order: an inline whose parent is not there yet waits, and is attached when
// the parent is registered. Every inline can itself be the parent of later
// (nested) inlines. An inline that is attached or refused stops waiting.
// Other collectors find the parent region by address (the caller does).
//
// An inline region gets its jit rvas from the region it is attached to: at
// once when that region has its own, else at finalisation, which walks only
// the trees that grew below unsettled regions since the last one.
class InlineAttacher {
public:
    explicit InlineAttacher(const MethodRegistry& methods) : m_methods(methods) {}

    // A jit profiler inline: attached to its parent, or waiting for it.
    Status attachById(const JitMethod::Ptr& inlineMethod);
    // An inline whose parent region was found by address.
    Status attachToRegion(const JitMethod::Ptr& inlineMethod, const Region::Ptr& parentRegion,
                          const JitMethod& parentMethod);
    // A newly registered jit profiler method: the inlines waiting for it are attached.
    void offerParent(const JitMethod::Ptr& parentMethod);

    // Gives the inline regions attached below unsettled regions since the
    // last call their jit rvas, where those regions have theirs by now.
    void normalizePending();

    size_t waitingCount() const { return m_waiting.size(); }
    // Starts loading the slots attachById reads in the table of inlines:
    // the parent's when it is an inline itself, and the inline's own.
    void prefetch(const BaseMethodId& parentId, const BaseMethodId& ownId) const {
        m_inlineParents.prefetch(parentId);
        m_inlineParents.prefetch(ownId);
    }

private:
    typedef std::multimap<BaseMethodId, JitMethod::Ptr, BaseMethodId::Comparator> Waiting;

    // Attaches inlineMethod below a live region of parentMethod (jit
    // profiler) or below parentRegion (others). Success without attaching
    // when no region of the parent can take it: it keeps waiting.
    Status attach(const JitMethod::Ptr& inlineMethod, Region::Ptr parentRegion, const JitMethod& parentMethod,
                  bool byId, bool topLevel);
    // The inlines waiting for parentMethod, attached; refused ones dropped.
    void attachWaiting(const JitMethod& parentMethod, bool topLevel);
    void forget(const JitMethod::Ptr& inlineMethod);
    // The inline no longer parents anything (it was refused).
    void releaseParent(const JitMethod::Ptr& inlineMethod);
    // Inline jit rvas of the tree below root, for children not settled yet.
    quarvel_error_t normalizeTree(Region& root) const;
    // normalizeTree, with an error naming owner when part of the tree failed.
    void normalizeTreeOf(Region& root, const JitMethod& owner) const;

    const MethodRegistry& m_methods;
    // Every inline by its own id: the parents of nested inlines. An inline
    // that was refused is released.
    MethodIdTable m_inlineParents;
    // Inlines that are neither attached nor refused, by their parent's id.
    Waiting m_waiting;
    // Regions without jit rvas yet whose inline trees grew since the last
    // normalisation, with the method that owns each.
    struct Grown {
        Region::Ptr region;
        JitMethod::Ptr owner;
        bool topLevel;
    };
    BulkVector<Grown> m_grown;
};

QUARVEL_NAMESPACE_END

#endif
