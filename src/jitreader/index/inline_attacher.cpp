#include "index/inline_attacher.h"

#include "index/refusal.h"
#include "support/assertion.h"
#include "support/log.h"

#include <algorithm>
#include <set>

QUARVEL_NAMESPACE_BEGIN

using index::IpRange;
using index::ipSpan;

namespace {

bool overlaps(const Range& a, const Range& b) {
    return a.start < b.end() && b.start < a.end();
}

bool liesInside(const Range& inner, const Range& outer) {
    return outer.start <= inner.start && inner.end() <= outer.end();
}

IpRange ipRange(const Range& range) {
    return ipSpan(range.start, range.end());
}
IpRange ipRange(const Region& region) {
    return ipSpan(region.startAddress(), region.endAddress());
}

// True when target is root or lies anywhere in root's inline tree.
bool inTree(const Region* target, const Region& root) {
    if (root.inlinedRegions().empty())
        return target == &root; // a new inline, nearly always: no walk, no allocation
    std::vector<const Region*> stack(1, &root);
    std::set<const Region*> seen;
    while (!stack.empty()) {
        const Region* region = stack.back();
        stack.pop_back();
        if (region == target)
            return true;
        if (!seen.insert(region).second)
            continue;
        for (const Region::Ptr& child : region->inlinedRegions())
            if (child)
                stack.push_back(child.get());
    }
    return false;
}

} // namespace

Status InlineAttacher::attachById(const JitMethod::Ptr& inlineMethod) {
    const u32 rawId = inlineMethod->getRawMethodId();
    JitMethod* parent = nullptr;
    bool parentIsTopLevel = false;
    const u32 registered = m_methods.find(inlineMethod->getParentId());
    if (registered != MethodRegistry::kNone) {
        parent = m_methods.at(registered).get();
        parentIsTopLevel = true;
    } else {
        const u32 cached = m_inlineParents.find(inlineMethod->getParentId());
        if (cached != MethodIdTable::kNone)
            parent = m_inlineParents.at(cached).get();
    }

    // It may be the parent of later inlines, and of inlines that came before it.
    if (m_inlineParents.find(inlineMethod->getMethodId()) == MethodIdTable::kNone)
        m_inlineParents.add(inlineMethod);
    else
        QV_TRACE("Already cached inline method (method id = " << rawId << ")");
    attachWaiting(*inlineMethod, false);

    if (!parent || inlineMethod->isInlineAttached()) {
        if (!parent)
            QV_TRACE("Couldn't inline method (method id = "
                     << rawId << ") because parent method is not found. Inline method is cached.");
        if (!inlineMethod->isInlineAttached()) {
            m_waiting.emplace(inlineMethod->getParentId(), inlineMethod);
            QV_TRACE("Cached 'inline as a parent' method (method id = " << rawId << ", parent id = "
                                                                        << inlineMethod->getRawParentId() << ")");
        }
        return Status::success();
    }

    QV_INFO("Found parent method (method id = " << parent->getRawMethodId() << ", name = " << parent->getMethodName()
                                                << ", load time = " << parent->getLoadTime() << ")");
    const Status status = attach(inlineMethod, Region::Ptr(), *parent, true, parentIsTopLevel);
    if (!status) {
        forget(inlineMethod);
        return status;
    }
    if (!inlineMethod->isInlineAttached()) {
        m_waiting.emplace(inlineMethod->getParentId(), inlineMethod);
        QV_TRACE("Cached 'inline as a parent' method (method id = " << rawId << ", parent id = "
                                                                    << inlineMethod->getRawParentId() << ")");
    }
    return status;
}

Status InlineAttacher::attachToRegion(const JitMethod::Ptr& inlineMethod, const Region::Ptr& parentRegion,
                                      const JitMethod& parentMethod) {
    QV_INFO("Found parent method (method id = " << parentMethod.getRawMethodId()
                                                << ", name = " << parentMethod.getMethodName()
                                                << ", load time = " << parentMethod.getLoadTime() << ")");
    return attach(inlineMethod, parentRegion, parentMethod, false, true);
}

void InlineAttacher::offerParent(const JitMethod::Ptr& parentMethod) {
    attachWaiting(*parentMethod, true);
}

void InlineAttacher::releaseParent(const JitMethod::Ptr& inlineMethod) {
    const u32 parent = m_inlineParents.find(inlineMethod->getMethodId());
    if (parent != MethodIdTable::kNone && m_inlineParents.at(parent) == inlineMethod)
        m_inlineParents.release(parent);
}

void InlineAttacher::forget(const JitMethod::Ptr& inlineMethod) {
    releaseParent(inlineMethod);
    const auto run = m_waiting.equal_range(inlineMethod->getParentId());
    for (auto it = run.first; it != run.second;)
        it = it->second == inlineMethod ? m_waiting.erase(it) : std::next(it);
}

void InlineAttacher::attachWaiting(const JitMethod& parentMethod, bool topLevel) {
    auto it = m_waiting.lower_bound(parentMethod.getMethodId());
    if (it == m_waiting.end() || it->first != parentMethod.getMethodId()) {
        QV_TRACE("Couldn't find any cached inline method for parent id = " << parentMethod.getRawMethodId());
        return;
    }
    while (it != m_waiting.end() && it->first == parentMethod.getMethodId()) {
        const JitMethod::Ptr inlineMethod = it->second;
        if (!inlineMethod->regionCount() || inlineMethod->isInlineAttached()) {
            it = m_waiting.erase(it);
            continue;
        }
        QV_INFO("Found cached inline method " << inlineMethod->describe());
        bool single = true;
        QV_CHECK(inlineMethod->regionCount() == 1, single = false);
        if (!single) {
            ++it;
            continue;
        }
        const Status status = attach(inlineMethod, Region::Ptr(), parentMethod, true, topLevel);
        if (!status) {
            // Refused: it waits no more, and parents nothing.
            it = m_waiting.erase(it);
            releaseParent(inlineMethod);
            continue;
        }
        it = inlineMethod->isInlineAttached() ? m_waiting.erase(it) : std::next(it);
    }
}

Status InlineAttacher::attach(const JitMethod::Ptr& inlineMethod, Region::Ptr parentRegion,
                              const JitMethod& parentMethod, bool byId, bool topLevel) {
    QV_CHECK(inlineMethod->regionCount() == 1,
             return index::refusal(ErrorKind::internal, meNotFound, "inlineMethod->regionCount() == 1"));
    const Region::Ptr& inlineRegion = inlineMethod->regions().front();
    const Range range = inlineRegion->addressRange();
    const u32 rawId = inlineMethod->getRawMethodId();

    if (byId) {
        // Only live regions take inlines; the first one the inline touches decides.
        for (const Region::Ptr& candidate : parentMethod.regions()) {
            if (candidate->unloadTime() != 0 || !overlaps(range, candidate->addressRange()))
                continue;
            if (!liesInside(range, candidate->addressRange()))
                QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                                "Couldn't inline method (method id = " << rawId << ", ip range = " << ipRange(range)
                                                                       << ") because it overlaps parent's ip range "
                                                                       << ipRange(*candidate));
            parentRegion = candidate;
            break;
        }
    } else if (parentRegion && !liesInside(range, parentRegion->addressRange())) {
        // Found by its first byte; its code must not run past the parent's.
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't inline method (method id = " << rawId << ", ip range = " << ipRange(range)
                                                               << ") because it overlaps parent's ip range "
                                                               << ipRange(*parentRegion));
    }

    if (!parentRegion) {
        QV_TRACE("Couldn't cached inline method (method id = "
                 << rawId << ", ip range = " << ipRange(range)
                 << ") because parent method has not ip range suitable for insert."
                 << " The cached inline method is stayed awaiting for a parent.");
        return Status::success();
    }

    // Inside an attached inline it goes one level down; crossing (or
    // enclosing) one is refused.
    Region::Ptr target = parentRegion;
    for (bool descended = true; descended;) {
        descended = false;
        for (const Region::Ptr& attached : target->inlinedRegions()) {
            const address_t startAddr = attached->startAddress();
            const address_t endAddr = attached->endAddress();
            QV_CHECK(startAddr, return index::refusal(ErrorKind::internal, meNotFound, "startAddr"));
            QV_CHECK(endAddr, return index::refusal(ErrorKind::internal, meNotFound, "endAddr"));
            if (!overlaps(range, attached->addressRange()))
                continue;
            if (!liesInside(range, attached->addressRange()))
                QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                                "Couldn't inline method (method id = "
                                    << rawId << ", ip range = " << ipRange(range)
                                    << ") because it intersects another parent's inline with range "
                                    << ipSpan(startAddr, endAddr));
            target = attached;
            descended = true;
            break;
        }
    }

    QV_CHECK(inlineMethod->getStartJitRva() == 0,
             return index::refusal(ErrorKind::internal, meNotFound, "inlineMethod->getStartJitRva() == 0"));
    // A region may appear once in the tree: below itself it would make a cycle.
    if (inTree(target.get(), *inlineRegion))
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't inline method (method id = "
                            << rawId << ", ip range = " << ipRange(range)
                            << ") because its parent's code region is inlined into it");

    target->addChildRegion(inlineRegion, inlineMethod);
    inlineMethod->setInlineAttached(true);
    if (target->startJitRva() != 0) {
        // The parent has its jit rvas for good: the new child and what waited
        // below it take theirs now, while they are in the cache, instead of
        // in a walk over every grown tree at finalisation.
        target->settleInline(target->inlinedRegions().size() - 1);
        if (!inlineRegion->inlinedRegions().empty())
            normalizeTreeOf(*inlineRegion, *inlineMethod);
    } else {
        m_grown.push_back(
            Grown{target, JitMethod::Ptr(const_cast<JitMethod*>(&parentMethod)), topLevel && target == parentRegion});
    }
    QV_INFO("Added inline method (method id = " << rawId << ") into parent's code region (method id = "
                                                << parentMethod.getRawMethodId() << ", ip range = " << ipRange(*target)
                                                << ")");
    return Status::success();
}

// Region::normalizeInlineJitRvaRanges settles one level; the tree is walked
// here so that every level gets its jit rvas. The jit rva minus the address
// is the same at every depth of one region's tree. A child settled by an
// earlier normalisation is left alone, so that its line tables are never
// shifted twice.
quarvel_error_t InlineAttacher::normalizeTree(Region& root) const {
    quarvel_error_t result = meSuccess;
    // Attachment keeps the trees acyclic (a region is attached once, never
    // below itself): no visited set is needed.
    std::vector<Region*> stack(1, &root);
    while (!stack.empty()) {
        Region& region = *stack.back();
        stack.pop_back();
        const Region::InlinedRegions& children = region.inlinedRegions();
        const Region::InlinedMethods& methods = region.inlinedMethods();
        const size_t pending = static_cast<size_t>(std::count_if(
            children.begin(), children.end(), [](const Region::Ptr& child) { return child->startJitRva() == 0; }));

        quarvel_error_t ret = meSuccess;
        if (pending == children.size()) {
            ret = region.normalizeInlineJitRvaRanges(region.startJitRva(), region.startAddress());
        } else if (pending) {
            QV_CHECK(children.size() == methods.size(), ret = meNotFound);
            if (ret == meSuccess)
                for (size_t i = 0; i < children.size(); ++i)
                    if (children[i]->startJitRva() == 0)
                        region.settleInline(i);
        }
        if (ret != meSuccess) {
            result = ret;
            continue;
        }
        for (const Region::Ptr& child : children)
            stack.push_back(child.get());
    }
    return result;
}

void InlineAttacher::normalizePending() {
    BulkVector<Grown> grown;
    grown.swap(m_grown);
    // Each region once, whichever attachment named it.
    std::stable_sort(grown.begin(), grown.end(),
                     [](const Grown& a, const Grown& b) { return a.region.get() < b.region.get(); });
    for (size_t i = 0; i < grown.size(); ++i) {
        const Grown& g = grown[i];
        if (i > 0 && grown[i - 1].region == g.region)
            continue;
        Region& region = *g.region;
        if (!g.topLevel && region.startJitRva() == 0)
            continue; // an inline not settled yet: its own parent's walk reaches it
        const jit_rva_t jitRva = region.startJitRva();
        const address_t startAddr = region.startAddress();
        bool settled = true;
        QV_CHECK(jitRva, settled = false);
        QV_CHECK(startAddr, settled = false);
        if (!settled)
            continue;
        QV_TRACE("Normalize method's (method id = " << g.owner->getRawMethodId()
                                                    << ", startJitRva = " << g.owner->getStartJitRva()
                                                    << ") code region " << ipRange(region));
        normalizeTreeOf(region, *g.owner);
    }
}

void InlineAttacher::normalizeTreeOf(Region& root, const JitMethod& owner) const {
    if (normalizeTree(root) != meSuccess)
        QV_INDEX_ERROR("Couldn't normalize method's (method id = "
                       << owner.getRawMethodId() << ", startJitRva = " << owner.getStartJitRva() << ") code region "
                       << ipRange(root) << ". The inlines can't be resolved for this method.");
}

QUARVEL_NAMESPACE_END
