#include "index/jit_data_manager.h"

#include "support/assertion.h"
#include "support/log.h"

#include <quarvel/byte_buffer.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <limits>
#include <set>

namespace quarvel_3_13 {

namespace {

const u64 kInvalidJitRva = std::numeric_limits<u64>::max();

// An address range printed as decimal start "-" decimal end.
struct IpRange {
    u64 start;
    u64 end;
};

std::ostream& operator<<(std::ostream& os, const IpRange& r) { return os << std::dec << r.start << "-" << r.end; }

IpRange ipRange(const Range& range) { return IpRange{range.start, range.end()}; }
IpRange ipSpan(u64 start, u64 end) { return IpRange{start, end}; }
IpRange ipRange(const Region& region) { return IpRange{region.startAddress(), region.endAddress()}; }

// Every map keyed by Range adds start and length without overflow checks, so
// a range that wraps past the top of the 64-bit space is never stored.
bool fitsIn64(u64 start, u32 length) { return start <= std::numeric_limits<u64>::max() - length; }

bool overlaps(const Range& a, const Range& b) { return a.start < b.end() && b.start < a.end(); }

// inner lies inside outer (equal bounds included).
bool liesInside(const Range& inner, const Range& outer) {
    return outer.start <= inner.start && inner.end() <= outer.end();
}

std::string moduleName(const JitMethod& method) {
    const IModule::Ptr module = method.getModule();
    return module ? std::string(module->getFilePath()) : std::string();
}

jit_rva_t methodStartJitRva(const JitMethod& method) {
    if (method.getStartJitRva() || !method.regionCount())
        return method.getStartJitRva();
    return method.regions().front()->startJitRva();
}

// True when region is target or lies anywhere in target's inline tree.
bool inTree(const Region* target, const Region& root) {
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

JitDataManager::JitDataManager() = default;

JitDataManager::~JitDataManager() = default;

// ---------------------------------------------------------------------------
// Region domains

SingleRegionDomain& JitDataManager::createSingleRegionDomain(u32 processId, u32 hostId) {
    // The caller may change the domain: the flat copies are stale from here on.
    dropDomainIndex();
    return m_regionDomains[hostId][processId];
}

const SingleRegionDomain* JitDataManager::getSingleRegionDomain(u32 processId, u32 hostId) const {
    const auto host = m_regionDomains.find(hostId);
    if (host == m_regionDomains.end())
        return nullptr;
    const auto process = host->second.find(processId);
    if (process == host->second.end())
        return nullptr;
    return &process->second;
}

// ---------------------------------------------------------------------------
// Method registration

quarvel_error_t JitDataManager::processMethodLoadRecord(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod) {
    // Regions are placed in the address space they carry; the decoder gives
    // them the process and host of the file being read.
    (void)processId;
    (void)hostId;
    QV_CHECK(rawMethod, return meBadRecord);
    QV_CHECK(rawMethod->regionCount(), return meBadRecord);
    QV_CHECK(!rawMethod->getMethodId().isEmpty(), return meBadRecord);
    // Empty or wrapping ranges would break the ordering of the range maps.
    for (const Region::Ptr& region : rawMethod->regions()) {
        QV_CHECK(region, return meBadRecord);
        QV_CHECK(region->length(), return meBadRecord);
        QV_CHECK(fitsIn64(region->startAddress(), region->length()), return meBadRecord);
        QV_CHECK(fitsIn64(region->startJitRva(), region->length()), return meBadRecord);
    }

    // New bytes for code that is already registered (a patched call site):
    // the decoder hands over a patched copy of the live region, same jit rva,
    // same addresses. The stored region takes the bytes in place, so the code
    // keeps its jit rva and line tables; it is not a new load.
    if (applyPatchedCopies(*rawMethod))
        return meSuccess;

    // A copy: the stored method may be rawMethod itself, and it grows below.
    const std::vector<Region::Ptr> newRegions = rawMethod->regions();

    const auto inserted = m_methods.emplace(rawMethod->getMethodId(), JitMethod::Ptr());
    JitMethod::Ptr method; // the registered method that owns the new regions
    if (inserted.second) {
        inserted.first->second = rawMethod;
        method = rawMethod;
        m_allMethods.push_back(rawMethod);
        m_symbolTable.emplace(std::make_pair(moduleName(*rawMethod), rawMethod->getRawMethodId()),
                              ISymbol::Ptr(rawMethod.get()));
        // Decoders key line tables by offsets from the method's first byte;
        // a registered method answers by jit rva.
        rawMethod->normalizeLineNumberInfoJitRvaRanges(methodStartJitRva(*rawMethod));
        if (m_collectorType == ctJitProfiler)
            addCachedInlineMethods(rawMethod);
    } else {
        method = inserted.first->second;
        QV_TRACE("Detected already cached code region with the same method id "
                 << rawMethod->getRawMethodId() << ", name = " << rawMethod->getMethodName()
                 << ", load time = " << rawMethod->getLoadTime());
        if (method->getLoadTime() != rawMethod->getLoadTime()) {
            method->compareSymbolicInfoTo(rawMethod);
        } else {
            for (const Region::Ptr& region : newRegions)
                for (const Region::Ptr& stored : method->regions())
                    if (region->startAddress() == stored->startAddress()) {
                        QV_ERROR("Couldn't add a region (methodID="
                                 << rawMethod->getRawMethodId()
                                 << ") because there are two pre-jitted code ranges                         located "
                                    "on the same address space for the same method");
                        return meBadRecord;
                    }
        }
        // The stored method takes over the new regions (a reload, or more code
        // of the same load elsewhere) so that it answers for their jit rvas.
        jit_rva_t lowest = method->getStartJitRva();
        for (const Region::Ptr& region : newRegions) {
            method->addCodeRegion(region);
            QV_INFO("Added a new code region (ip range = " << ipRange(*region) << ") in method "
                                                           << method->getRawMethodId());
            lowest = std::min(lowest, region->startJitRva());
        }
        method->setStartJitRva(lowest);
        // The newcomer's line tables are offsets from its own first byte; kept
        // at its jit rvas they keep answering for the reloaded code.
        const jit_rva_t newStart = methodStartJitRva(*rawMethod);
        const JitMethod::LineInfoMap newLines = rawMethod->getLineNumberInfo();
        for (const auto& entry : newLines)
            for (quarvel_line_info_type type : {quarvel_line_info_native_to_managed, quarvel_line_info_managed_to_source,
                                                quarvel_line_info_native_to_source})
                if (!entry.second.tables[type].empty())
                    method->addLineNumberInfo(type, entry.second.tables[type],
                                              Range(entry.first.start + newStart, entry.first.length));
    }

    for (const Region::Ptr& region : newRegions) {
        const quarvel_error_t ret = placeRegion(region, method);
        if (ret != meSuccess)
            return ret;
    }
    return meSuccess;
}

bool JitDataManager::applyPatchedCopies(const JitMethod& rawMethod) {
    std::vector<Region*> stored;
    for (const Region::Ptr& region : rawMethod.regions()) {
        const auto found = m_jitRvaDomain.find(region->jitRvaRange());
        if (found == m_jitRvaDomain.end() || found->first != region->jitRvaRange() ||
            found->second.region == region || found->second.region->addressRange() != region->addressRange() ||
            found->second.method->getRawMethodId() != rawMethod.getRawMethodId())
            return false;
        stored.push_back(found->second.region.get());
    }
    for (size_t i = 0; i < stored.size(); ++i) {
        const Region& patched = *rawMethod.regions()[i];
        if (patched.content())
            stored[i]->takeBytesFrom(patched);
        QV_INFO("Updated code region (ip range = " << ipRange(patched) << ") from method "
                                                   << rawMethod.getRawMethodId() << ", name = "
                                                   << rawMethod.getMethodName() << ", load time = "
                                                   << rawMethod.getLoadTime());
    }
    return true;
}

quarvel_error_t JitDataManager::placeRegion(const Region::Ptr& region, const JitMethod::Ptr& method) {
    dropDomainIndex();
    if (!m_jitRvaDomain.emplace(region->jitRvaRange(), RegionInfo{region, method}).second) {
        QV_ERROR("Couldn't add a region (addr=" << region->startAddress() << ", size=" << region->length()
                                                << ", methodID=" << method->getRawMethodId()
                                                << ", jitRva=" << region->startJitRva()
                                                << ") because jit rva ranges are overlapped.");
        return meBadRecord;
    }

    // One allocation for the container and its count: there is one per region.
    JitMethodContainerPtr container = boost::make_shared<JitMethodContainer>();
    if (!container->timeDomain.emplace(region->loadTime(), region).second) {
        QV_ERROR("Couldn't add a region (addr=" << region->startAddress() << ", size=" << region->length()
                                                << ", methodID=" << method->getRawMethodId()
                                                << ", jitRva=" << region->startJitRva()
                                                << ") because load time values are overlapped.");
        return meBadRecord;
    }
    if (!container->regionIdDomain.emplace(region->startJitRva(), method).second) {
        QV_ERROR("Couldn't add a region (addr=" << region->startAddress() << ", size=" << region->length()
                                                << ", methodID=" << method->getRawMethodId()
                                                << ", jitRva=" << region->startJitRva()
                                                << ") because jit rva values are overlapped.");
        return meBadRecord;
    }

    SingleRegionDomain& domain = createSingleRegionDomain(region->processId(), region->hostId());
    if (domain.emplace(region->addressRange(), container).second)
        return meSuccess;

    const auto run = domain.equal_range(region->addressRange());
    SingleRegionDomain splittedRegions;
    const quarvel_error_t ret = splitRegions(region, method, run.first, run.second, domain, splittedRegions);
    if (ret != meSuccess)
        return ret;
    QV_CHECK(!splittedRegions.empty(), return meNotFound);

    domain.erase(run.first, run.second);
    for (const auto& piece : splittedRegions) {
        const bool placed = domain.emplace(piece).second;
        QV_CHECK(placed, return meNotFound);
    }

    // Every piece the new region covers must now resolve at its load time.
    // A piece only the stored range covers keeps the old history alone, whose
    // last region was just ended there: it is not checked.
    for (const auto& piece : splittedRegions) {
        if (!overlaps(piece.first, region->addressRange()))
            continue;
        Region::Ptr found;
        JitMethod::Ptr owner;
        const quarvel_error_t ret =
            findRegion(piece.first.start, region->loadTime(), region->processId(), region->hostId(), found, owner);
        bool resolved = true;
        QV_CHECK(ret == meSuccess, resolved = false);
        if (!resolved)
            continue;
        QV_INFO("Unloaded code region (ip range = " << ipRange(piece.first) << ") from method "
                                                    << owner->getRawMethodId() << ", name = " << owner->getMethodName()
                                                    << ", load time = " << owner->getLoadTime());
    }
    QV_INFO("Updated method's state");
    return meSuccess;
}

// Cuts the stored ranges [first, last), all overlapping the new region, and the
// new region into disjoint pieces; every address keeps its full history:
//  - the part of a stored range outside the new region keeps the old history
//    only (a copy of the stored container);
//  - the part a stored range shares with the new region gets the old history
//    plus the new region (a copy, or the stored container itself when the two
//    ranges are equal);
//  - a part of the new region that no stored range covers (before the first,
//    between two, after the last) gets the new region only.
quarvel_error_t JitDataManager::splitRegions(const Region::Ptr& region, const JitMethod::Ptr& method,
                                             SingleRegionDomain::iterator first, SingleRegionDomain::iterator last,
                                             SingleRegionDomain& domain, SingleRegionDomain& splittedRegions) const {
    (void)domain;
    QV_CHECK(splittedRegions.empty(), return meNotFound);
    const Range newRange = region->addressRange();
    QV_INFO("Code region (ip range = " << ipRange(newRange) << ")");

    u64 cursor = newRange.start; // first address of the new region not placed yet
    quarvel_error_t ret = meSuccess;
    for (auto it = first; it != last; ++it) {
        const Range stored = it->first;
        const JitMethodContainerPtr& storedContainer = it->second;
        QV_INFO("Overlapped code region (ip range = " << ipRange(stored) << ")");

        if (cursor < stored.start) {
            JitMethodContainerPtr fresh(new JitMethodContainer());
            if ((ret = modifyRegionAssosiatedData(method, region, *fresh)) != meSuccess ||
                (ret = addSplittedRegion(Range(cursor, static_cast<u32>(stored.start - cursor)), fresh,
                                         splittedRegions)) != meSuccess)
                return ret;
        }

        if (stored == newRange) {
            if ((ret = modifyRegionAssosiatedData(method, region, *storedContainer)) != meSuccess ||
                (ret = addSplittedRegion(stored, storedContainer, splittedRegions)) != meSuccess)
                return ret;
            cursor = stored.end();
            continue;
        }

        const u64 lo = std::max(stored.start, newRange.start);
        const u64 hi = std::min(stored.end(), newRange.end());
        if (stored.start < lo) {
            JitMethodContainerPtr head(new JitMethodContainer(*storedContainer));
            if ((ret = addSplittedRegion(Range(stored.start, static_cast<u32>(lo - stored.start)), head,
                                         splittedRegions)) != meSuccess)
                return ret;
        }
        JitMethodContainerPtr shared(new JitMethodContainer(*storedContainer));
        if ((ret = modifyRegionAssosiatedData(method, region, *shared)) != meSuccess ||
            (ret = addSplittedRegion(Range(lo, static_cast<u32>(hi - lo)), shared, splittedRegions)) != meSuccess)
            return ret;
        if (hi < stored.end()) {
            JitMethodContainerPtr tail(new JitMethodContainer(*storedContainer));
            if ((ret = addSplittedRegion(Range(hi, static_cast<u32>(stored.end() - hi)), tail, splittedRegions)) !=
                meSuccess)
                return ret;
        }
        cursor = std::max(cursor, hi);
    }

    if (cursor < newRange.end()) {
        JitMethodContainerPtr fresh(new JitMethodContainer());
        if ((ret = modifyRegionAssosiatedData(method, region, *fresh)) != meSuccess ||
            (ret = addSplittedRegion(Range(cursor, static_cast<u32>(newRange.end() - cursor)), fresh,
                                     splittedRegions)) != meSuccess)
            return ret;
    }
    return meSuccess;
}

quarvel_error_t JitDataManager::addSplittedRegion(const Range& range, const JitMethodContainerPtr& container,
                                                  SingleRegionDomain& splittedRegions) const {
    if (!splittedRegions.emplace(range, container).second) {
        QV_ERROR("Couldn't add a splitted region (ip range = " << ipRange(range) << ")");
        return meNotFound;
    }
    QV_INFO("Added a splitted region (ip range = " << ipRange(range) << ")");
    return meSuccess;
}

quarvel_error_t JitDataManager::modifyRegionAssosiatedData(const JitMethod::Ptr& method, const Region::Ptr& region,
                                                           JitMethodContainer& container) const {
    const auto inserted = container.timeDomain.emplace(region->loadTime(), region);
    if (!inserted.second) {
        QV_ERROR("Couldn't add a splitted region (ip range = " << ipRange(*region) << ", loadTime="
                                                                << region->loadTime() << ") in the single time domain");
        return meNotFound;
    }
    QV_INFO("Added a splitted region (ip range = " << ipRange(*region) << ", loadTime=" << region->loadTime()
                                                    << ") in the single time domain");

    // The region loaded last before this one ends its life here. Regions are
    // shared by every piece, so the whole older region ends; an unload time
    // that is set already stays.
    if (inserted.first != container.timeDomain.begin()) {
        const Region::Ptr& previous = std::prev(inserted.first)->second;
        if (previous->unloadTime() == 0) {
            previous->setUnloadTime(region->loadTime());
            QV_INFO("Set unload time = " << region->loadTime() << " for region (" << ipRange(*previous) << ")");
        }
    }

    if (!container.regionIdDomain.emplace(region->startJitRva(), method).second) {
        QV_ERROR("Couldn't add a splitted region (ip range = " << ipRange(*region) << ", jitRva="
                                                                << region->startJitRva()
                                                                << ") in the single region id domain");
        return meNotFound;
    }
    return meSuccess;
}

// ---------------------------------------------------------------------------
// Inline attachment

quarvel_error_t JitDataManager::processMethodInlineLoadRecord(u32 processId, u32 hostId,
                                                             const JitMethod::Ptr& rawMethod) {
    (void)processId;
    (void)hostId;
    QV_CHECK(rawMethod, return meNotFound);
    QV_CHECK(rawMethod->regionCount() == 1, return meNotFound);

    const u32 rawMethodId = rawMethod->getRawMethodId();
    const u32 rawParentId = rawMethod->getRawParentId();
    const bool byId = getCollectorType() == ctJitProfiler;
    if (byId) {
        if (rawMethodId == 0) {
            QV_ERROR("Couldn't inline method (method id = " << rawMethodId << ") because method id is invalid.");
            return meNotFound;
        }
        if (rawParentId == 0) {
            QV_ERROR("Couldn't inline method (method id = " << rawMethodId << ") because its parent id = "
                                                            << rawParentId << " is invalid.");
            return meNotFound;
        }
        QV_CHECK(!rawMethod->getMethodId().isEmpty(), return meNotFound);
        QV_CHECK(!rawMethod->getParentId().isEmpty(), return meNotFound);
    } else {
        QV_CHECK(rawMethodId == 0, return meNotFound);
        QV_CHECK(rawParentId == 0, return meNotFound);
    }

    const Region::Ptr& rawRegion = rawMethod->regions().front();
    QV_CHECK(rawRegion, return meNotFound);
    QV_CHECK(rawRegion->startAddress(), return meNotFound);
    QV_CHECK(rawRegion->length(), return meNotFound);
    QV_CHECK(rawRegion->processId(), return meNotFound);
    QV_CHECK(rawRegion->hostId(), return meNotFound);
    QV_CHECK(rawRegion->loadTime(), return meNotFound);
    // An inline region receives its jit rva from its parent in finalize().
    QV_CHECK(rawRegion->startJitRva() == 0, return meNotFound);
    QV_CHECK(fitsIn64(rawRegion->startAddress(), rawRegion->length()), return meNotFound);

    JitMethod::Ptr parentMethod;
    Region::Ptr parentRegion;
    if (byId) {
        if (findParentMethod(rawMethod->getParentId(), parentMethod) != meSuccess)
            findInlineMethod(rawMethod->getParentId(), parentMethod);
        // Cached either way: it may be the parent of later inlines, and it
        // waits for a parent that may come (or get a suitable region) later.
        cacheInlineMethod(rawMethod);
        cacheParentMethod(rawMethod);
        if (!parentMethod) {
            QV_TRACE("Couldn't inline method (method id = " << rawMethodId
                                                            << ") because parent method is not found. Inline method is "
                                                               "cached.");
            return meSuccess;
        }
        // An inline is attached once only.
        if (rawMethod->isInlineAttached())
            return meSuccess;
    } else {
        if (findRegion(rawRegion->startAddress(), rawRegion->loadTime(), rawRegion->processId(), rawRegion->hostId(),
                       parentRegion, parentMethod) != meSuccess) {
            QV_ERROR("Couldn't inline method (method id = " << rawMethodId << ") because parent method is not found.");
            return meNotFound;
        }
    }

    QV_CHECK(parentMethod, return meNotFound);
    QV_INFO("Found parent method (method id = " << parentMethod->getRawMethodId() << ", name = "
                                                << parentMethod->getMethodName()
                                                << ", load time = " << parentMethod->getLoadTime() << ")");
    return addInlineMethod(rawMethod, parentRegion, parentMethod);
}

quarvel_error_t JitDataManager::findParentMethod(const BaseMethodId& parentId, JitMethod::Ptr& method) const {
    QV_CHECK(getCollectorType() == ctJitProfiler, return meNotFound);
    QV_CHECK(!parentId.isEmpty(), return meNotFound);
    const auto found = m_methods.find(parentId);
    if (found == m_methods.end())
        return meNotFound;
    const JitMethod::Ptr& jitMethod = found->second;
    QV_CHECK(jitMethod->regionCount(), return meNotFound);
    method = jitMethod;
    return meSuccess;
}

quarvel_error_t JitDataManager::findInlineMethod(const BaseMethodId& parentId, JitMethod::Ptr& method) const {
    const auto found = m_inlineParents.find(parentId);
    if (found == m_inlineParents.end())
        return meNotFound;
    method = found->second;
    return meSuccess;
}

quarvel_error_t JitDataManager::cacheParentMethod(const JitMethod::Ptr& jitMethod) {
    QV_CHECK(jitMethod, return meNotFound);
    QV_CHECK(getCollectorType() == ctJitProfiler, return meNotFound);
    QV_CHECK(jitMethod->getRawMethodId(), return meNotFound);
    // Keyed by the parent's id: all inlines waiting for one parent form one run.
    m_waitingInlines.emplace(jitMethod->getParentId(), jitMethod);
    if (!jitMethod->getParentId().isEmpty())
        QV_TRACE("Cached 'inline as a parent' method (method id = " << jitMethod->getRawMethodId()
                                                                    << ", parent id = " << jitMethod->getRawParentId()
                                                                    << ")");
    else
        QV_TRACE("Cached parent method (method id = " << jitMethod->getRawMethodId() << ")");
    return meSuccess;
}

quarvel_error_t JitDataManager::cacheInlineMethod(const JitMethod::Ptr& inlineMethod) {
    QV_CHECK(inlineMethod, return meNotFound);
    QV_CHECK(getCollectorType() == ctJitProfiler, return meNotFound);
    if (!m_inlineParents.emplace(inlineMethod->getMethodId(), inlineMethod).second)
        QV_TRACE("Already cached inline method (method id = " << inlineMethod->getRawMethodId() << ")");
    return addCachedInlineMethods(inlineMethod);
}

quarvel_error_t JitDataManager::addInlineMethod(const JitMethod::Ptr& inlineMethod, Region::Ptr& parentRegion,
                                                const JitMethod::Ptr& parentMethod) {
    QV_CHECK(inlineMethod, return meNotFound);
    QV_CHECK(parentMethod, return meNotFound);
    QV_CHECK(inlineMethod->regionCount() == 1, return meNotFound);
    const Region::Ptr& inlineRegion = inlineMethod->regions().front();
    const Range range = inlineRegion->addressRange();

    if (getCollectorType() == ctJitProfiler) {
        QV_CHECK(!parentRegion, return meNotFound);
        // Only live regions can receive inlines; the first one the inline
        // touches decides.
        for (const Region::Ptr& candidate : parentMethod->regions()) {
            if (candidate->unloadTime() != 0 || !overlaps(range, candidate->addressRange()))
                continue;
            if (!liesInside(range, candidate->addressRange())) {
                QV_ERROR("Couldn't inline method (method id = " << inlineMethod->getRawMethodId() << ", ip range = "
                                                                << ipRange(range)
                                                                << ") because it overlaps parent's ip range "
                                                                << ipRange(*candidate));
                return meNotFound;
            }
            parentRegion = candidate;
            break;
        }
    } else if (parentRegion && !liesInside(range, parentRegion->addressRange())) {
        // Found by its first byte; its code must not run past the parent's.
        QV_ERROR("Couldn't inline method (method id = " << inlineMethod->getRawMethodId() << ", ip range = "
                                                        << ipRange(range) << ") because it overlaps parent's ip range "
                                                        << ipRange(*parentRegion));
        return meNotFound;
    }

    if (!parentRegion) {
        QV_TRACE("Couldn't cached inline method (method id = "
                 << inlineMethod->getRawMethodId() << ", ip range = " << ipRange(range)
                 << ") because parent method has not ip range suitable for insert."
                 << " The cached inline method is stayed awaiting for a parent.");
        return meSuccess;
    }

    // An inline that lies inside an attached inline goes one level down, into
    // that inline's region; one that crosses (or encloses) an attached inline
    // is refused.
    Region::Ptr target = parentRegion;
    for (bool descended = true; descended;) {
        descended = false;
        for (const Region::Ptr& attached : target->inlinedRegions()) {
            const address_t startAddr = attached->startAddress();
            const address_t endAddr = attached->endAddress();
            QV_CHECK(startAddr, return meNotFound);
            QV_CHECK(endAddr, return meNotFound);
            if (!overlaps(range, attached->addressRange()))
                continue;
            if (!liesInside(range, attached->addressRange())) {
                QV_ERROR("Couldn't inline method (method id = " << inlineMethod->getRawMethodId() << ", ip range = "
                                                                << ipRange(range)
                                                                << ") because it intersects another parent's inline "
                                                                   "with range "
                                                                << ipSpan(startAddr, endAddr));
                return meNotFound;
            }
            target = attached;
            descended = true;
            break;
        }
    }

    QV_CHECK(inlineMethod->getStartJitRva() == 0, return meNotFound);
    // A region may appear once in the tree: attaching it below itself would
    // make a cycle.
    if (inTree(target.get(), *inlineRegion)) {
        QV_ERROR("Couldn't inline method (method id = " << inlineMethod->getRawMethodId() << ", ip range = "
                                                        << ipRange(range)
                                                        << ") because its parent's code region is inlined into it");
        return meNotFound;
    }

    target->addChildRegion(inlineRegion, inlineMethod);
    inlineMethod->setInlineAttached(true);
    parentRegion = target;
    QV_INFO("Added inline method (method id = " << inlineMethod->getRawMethodId()
                                                << ") into parent's code region (method id = "
                                                << parentMethod->getRawMethodId() << ", ip range = "
                                                << ipRange(*target) << ")");
    return meSuccess;
}

quarvel_error_t JitDataManager::addCachedInlineMethods(const JitMethod::Ptr& parentMethod) {
    QV_CHECK(parentMethod, return meNotFound);
    QV_CHECK(getCollectorType() == ctJitProfiler, return meNotFound);
    const auto run = m_waitingInlines.equal_range(parentMethod->getMethodId());
    if (run.first == run.second) {
        QV_TRACE("Couldn't find any cached inline method for parent id = " << parentMethod->getRawMethodId());
        return meSuccess;
    }
    for (auto it = run.first; it != run.second; ++it) {
        const JitMethod::Ptr& inlineMethod = it->second;
        if (!inlineMethod->regionCount() || inlineMethod->isInlineAttached())
            continue;
        QV_INFO("Found cached inline method " << inlineMethod->describe());
        bool single = true;
        QV_CHECK(inlineMethod->regionCount() == 1, single = false);
        if (!single)
            continue;
        Region::Ptr parentRegion;
        addInlineMethod(inlineMethod, parentRegion, parentMethod);
    }
    return meSuccess;
}

// ---------------------------------------------------------------------------
// Method updates

quarvel_error_t JitDataManager::processMethodUpdateRecord(u32 processId, u32 hostId,
                                                         const JitMethod::Ptr& updateMethod) {
    if (getCollectorType() != ctJitProfiler) {
        QV_ERROR("Couldn't accept update because jit file must be                                      collected by "
                 "old version of Kelvo JIT agent");
        return meNotFound;
    }
    QV_CHECK(updateMethod, return meNotFound);
    const u32 methodId = updateMethod->getRawMethodId();
    if (methodId == 0) {
        QV_ERROR("Couldn't accept update because method ID is 0");
        return meNotFound;
    }
    if (updateMethod->regionCount() > 1) {
        QV_ERROR("Couldn't accept update (method id = " << methodId << ") because it has multiple code ranges");
        return meNotFound;
    }
    QV_CHECK(updateMethod->regionCount() == 1, return meNotFound);
    const Region::Ptr& update = updateMethod->regions().front();
    QV_CHECK(update, return meNotFound);

    Region::Ptr region;
    JitMethod::Ptr method;
    if (findRegion(update->startAddress(), update->loadTime(), processId, hostId, region, method) != meSuccess) {
        QV_ERROR("Couldn't accept update (method id = " << methodId << ") because a range to be updated is not found");
        return meNotFound;
    }
    if (method->getRawMethodId() != methodId) {
        QV_ERROR("Couldn't accept update (method id = " << methodId
                                                        << ") because a range to be updated has different method id = "
                                                        << method->getRawMethodId());
        return meNotFound;
    }
    // Overflow-safe: [update start, update end) inside [region start, region end).
    const u64 offset = update->startAddress() - region->startAddress(); // findRegion: start <= update start
    if (offset > region->length() || update->length() > region->length() - offset) {
        QV_ERROR("Couldn't accept update (ip range = " << ipSpan(update->startAddress(),
                                                                update->startAddress() + update->length())
                                                       << ") because it overlaps parent's ip range "
                                                       << ipRange(*region));
        return meNotFound;
    }

    // Old head, update bytes, old tail, in an array of the code copy's size: a
    // short code copy or short update content is clipped so that nothing is
    // read or written past a buffer. A region without a code copy has no
    // bytes to patch; its length comes from the file and may claim 4 GiB, so
    // it never sizes an allocation.
    const IByteBuffer::Ptr& old = region->content();
    const unsigned char* oldBytes = old ? old->data() : nullptr;
    const u64 oldSize = old && oldBytes ? old->size() : 0;
    const u64 size = oldSize;
    std::vector<unsigned char> bytes(size, 0);
    if (oldBytes)
        std::copy(oldBytes, oldBytes + oldSize, bytes.begin());
    const IByteBuffer::Ptr& patch = update->content();
    const unsigned char* patchBytes = patch ? patch->data() : nullptr;
    if (patchBytes && offset < size) {
        const u64 count = std::min<u64>({static_cast<u64>(update->length()), static_cast<u64>(patch->size()),
                                         size - offset});
        std::copy(patchBytes, patchBytes + count, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    IByteBuffer::Ptr replaced = IByteBuffer::create();
    replaced->assign(bytes.data(), static_cast<unsigned>(bytes.size()));
    region->setContent(replaced);

    QV_INFO("Updated code region (ip range = " << ipRange(*region) << ") from method " << methodId << ", name = "
                                               << method->getMethodName() << ", load time = "
                                               << method->getLoadTime());
    return meSuccess;
}

// ---------------------------------------------------------------------------
// Queries

quarvel_error_t JitDataManager::findRegion(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId,
                                           Region::Ptr& region, JitMethod::Ptr& method) const {
    region.reset();
    method.reset();
    // The first range that ends above the address; it must start at or below it.
    Range foundRange;
    const JitMethodContainer* found = nullptr;
    if (m_domainIndexValid) {
        const auto index = m_domainIndex.find(std::make_pair(hostId, pid));
        if (index == m_domainIndex.end() || index->second.empty()) {
            QV_TRACE("Couldn't find a region domain for pid = " << pid);
            return meNotFound;
        }
        const DomainIndex& ranges = index->second;
        const auto range = virtualAddress == std::numeric_limits<u64>::max()
                               ? ranges.end()
                               : std::partition_point(ranges.begin(), ranges.end(), [virtualAddress](const IndexedRange& e) {
                                     return e.range.end() <= virtualAddress;
                                 });
        if (range == ranges.end() || range->range.start > virtualAddress) {
            QV_TRACE("Couldn't find a region for addr = " << virtualAddress);
            return meNotFound;
        }
        foundRange = range->range;
        found = range->container;
    } else {
        const SingleRegionDomain* domain = getSingleRegionDomain(pid, hostId);
        if (!domain || domain->empty()) {
            QV_TRACE("Couldn't find a region domain for pid = " << pid);
            return meNotFound;
        }
        const auto range = virtualAddress == std::numeric_limits<u64>::max()
                               ? domain->end()
                               : domain->lower_bound(Range(virtualAddress, 1));
        if (range == domain->end() || range->first.start > virtualAddress) {
            QV_TRACE("Couldn't find a region for addr = " << virtualAddress);
            return meNotFound;
        }
        foundRange = range->first;
        found = range->second.get();
    }
    const JitMethodContainer& container = *found;

    // The region with the greatest load time not above the timestamp.
    auto entry = container.timeDomain.upper_bound(timestamp);
    if (entry == container.timeDomain.begin()) {
        QV_TRACE("Couldn't find a region domain by tsc = " << timestamp);
        return meNotFound;
    }
    --entry;
    const Region::Ptr& candidate = entry->second;
    const u64 loadTime = candidate->loadTime();
    const u64 unloadTime = candidate->unloadTime();
    if (unloadTime > loadTime && unloadTime <= timestamp) {
        QV_TRACE("The found range (" << ipRange(foundRange) << ") with life time (" << loadTime << "-"
                                     << unloadTime << ") was out of memory when a sample with tsc = " << timestamp
                                     << " occurred");
        return meNotFound;
    }

    const auto owner = container.regionIdDomain.find(candidate->startJitRva());
    if (owner == container.regionIdDomain.end()) {
        QV_TRACE("Couldn't find a method by code's jitrva = " << candidate->startJitRva());
        return meNotFound;
    }
    region = candidate;
    method = owner->second;
    return meSuccess;
}

quarvel_error_t JitDataManager::resolveJitPoint(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId,
                                                JitMethod::Ptr& method, u64& jitRva) const {
    method.reset();
    QV_TRACE("RESOLVE JIT POINT: vaddr = " << virtualAddress << ", timestamp = " << timestamp << ", pid = " << pid
                                           << ", hostId = " << hostId);
    Region::Ptr region;
    JitMethod::Ptr found;
    if (findRegion(virtualAddress, timestamp, pid, hostId, region, found) != meSuccess) {
        QV_TRACE("Couldn't match jit point (vaddr = " << virtualAddress << ", timestamp = " << timestamp
                                                      << ") to any known ip address range.");
        return meNotFound;
    }
    jitRva = region->startJitRva() + (virtualAddress - region->startAddress());
    method = std::move(found);
    QV_INFO("Resolved jit point (vaddr = " << virtualAddress << ", timestamp = " << timestamp << ") to jit rva = "
                                           << jitRva << " of method " << method->getRawMethodId() << ", name = "
                                           << method->getMethodName() << ", load time = " << method->getLoadTime());
    return meSuccess;
}

const RegionInfo* JitDataManager::findJitRvaRegion(u64 jitRva) const {
    if (jitRva == kInvalidJitRva)
        return nullptr;
    if (m_domainIndexValid) {
        const auto found = std::partition_point(m_jitRvaIndex.begin(), m_jitRvaIndex.end(),
                                                [jitRva](const IndexedJitRvaRange& e) { return e.range.end() <= jitRva; });
        if (found == m_jitRvaIndex.end() || found->range.start > jitRva)
            return nullptr;
        return found->info;
    }
    const auto found = m_jitRvaDomain.lower_bound(Range(jitRva, 1));
    if (found == m_jitRvaDomain.end() || found->first.start > jitRva)
        return nullptr;
    return &found->second;
}

quarvel_error_t JitDataManager::resolveJitPoint(u64 jitRva, JitMethod::Ptr& method) const {
    method.reset();
    QV_INFO("RESOLVE JIT POINT: jit rva = " << jitRva);
    if (jitRva == kInvalidJitRva) {
        QV_TRACE("Couldn't resolve jit rva = " << jitRva << " because it is invalid.");
        return meNotFound;
    }
    const RegionInfo* info = findJitRvaRegion(jitRva);
    if (!info) {
        QV_TRACE("Couldn't resolve jit rva = " << jitRva << " because it is out of the jit rva domain.");
        return meNotFound;
    }
    method = info->method;
    QV_INFO("Resolved jit rva = " << jitRva << " to method " << method->getRawMethodId() << ", name = "
                                  << method->getMethodName() << ", load time = " << method->getLoadTime());
    return meSuccess;
}

quarvel_error_t JitDataManager::findOverlappedRegion(u64 startAddress, u64 endAddress, u64 timestamp, u32 pid,
                                                     u32 hostId, ICodeRegion::Ptr& region) const {
    region.reset();
    const SingleRegionDomain* domain = getSingleRegionDomain(pid, hostId);
    if (!domain || domain->empty()) {
        QV_TRACE("Couldn't find a region domain for pid = " << pid);
        return meNotFound;
    }

    // The length is cut to 32 bits; an empty probe is a point, and a probe is
    // kept below the top of the address space.
    u32 length = static_cast<u32>(endAddress - startAddress);
    if (length == 0)
        length = 1;
    if (!fitsIn64(startAddress, length))
        length = static_cast<u32>(std::numeric_limits<u64>::max() - startAddress);
    const Range probe(startAddress, length);
    const auto range = length ? domain->lower_bound(probe) : domain->end();
    if (range == domain->end() || !overlaps(range->first, probe)) {
        QV_TRACE("Couldn't find a region for addr = " << startAddress);
        return meNotFound;
    }

    // The first region loaded strictly after the timestamp: what replaced the
    // code, not what was live at that moment.
    const JitMethodContainer& container = *range->second;
    const auto entry = container.timeDomain.upper_bound(timestamp);
    if (entry == container.timeDomain.end()) {
        QV_TRACE("Couldn't find overlapped region domain by tsc = " << timestamp);
        return meNotFound;
    }
    region = ICodeRegion::Ptr(entry->second.get());
    return meSuccess;
}

quarvel_error_t JitDataManager::getCalleeTarget(u64 callerJitRva, u64 targetAddress, u64& calleeJitRva) const {
    const RegionInfo* caller = findJitRvaRegion(callerJitRva);
    if (!caller)
        return meNotFound;
    const Region& region = *caller->region;
    JitMethod::Ptr method;
    u64 jitRva = 0;
    const quarvel_error_t ret =
        resolveJitPoint(targetAddress, region.loadTime(), region.processId(), region.hostId(), method, jitRva);
    if (ret == meSuccess)
        calleeJitRva = jitRva;
    return ret;
}

void JitDataManager::buildJitIdConverter(u32 methodId, u32& indexOffset) const {
    std::vector<u64> startJitRvas;
    std::vector<u64> lengths;
    std::vector<u64> startAddresses;
    startJitRvas.reserve(m_jitRvaDomain.size());
    lengths.reserve(m_jitRvaDomain.size());
    startAddresses.reserve(m_jitRvaDomain.size());
    u32 position = 0;
    for (const auto& entry : m_jitRvaDomain) {
        const Region& region = *entry.second.region;
        if (entry.second.method && entry.second.method->getRawMethodId() == methodId)
            position = static_cast<u32>(startJitRvas.size());
        startJitRvas.push_back(region.startJitRva());
        lengths.push_back(region.length());
        startAddresses.push_back(region.startAddress());
    }
    m_jitIdConverter.initialize(startJitRvas, lengths, startAddresses);
    indexOffset = position;
}

quarvel_error_t JitDataManager::translateToJitRva(u32 methodId, u64 address, u64 baseJitRva, u64 jitRvaLimit,
                                                  u64& jitRva) const {
    // The position of the method is used as the index offset only by the call
    // that builds the converter; every later call converts plainly.
    u32 indexOffset = 0;
    if (!m_jitIdConverterBuilt.load(std::memory_order_acquire)) {
        boost::unique_lock<boost::mutex> lock(m_mutex);
        if (!m_jitIdConverterBuilt.load(std::memory_order_relaxed)) {
            buildJitIdConverter(methodId, indexOffset);
            m_jitIdConverterBuilt.store(true, std::memory_order_release);
        }
    }
    return m_jitIdConverter.convert(indexOffset, address, baseJitRva, jitRvaLimit, jitRva);
}

quarvel_error_t JitDataManager::findMethod(const char* moduleName, u32 methodId, ISymbol::Ptr& symbol) {
    symbol.reset();
    QV_CHECK(moduleName, return meNotFound);
    const auto found = m_symbolTable.find(std::make_pair(std::string(moduleName), methodId));
    if (found == m_symbolTable.end()) {
        QV_ERROR("Cannot find symbol for pair: moduleName = " << moduleName << " methodId = " << methodId);
        return meNotFound;
    }
    symbol = found->second;
    return meSuccess;
}

// ---------------------------------------------------------------------------
// Finalisation

// Region::normalizeInlineJitRvaRanges settles one level; the tree is walked
// here so that every level gets its jit rvas. The jit rva minus the address is
// the same at every depth of one region's tree, so each inline region passes
// its own settled jit rva and address to its children. finalize() may run
// after each reading pass: a child whose jit rva is settled already is left
// alone, so that its line tables are never shifted twice.
quarvel_error_t JitDataManager::normalizeInlineTree(const Region::Ptr& root) const {
    quarvel_error_t result = meSuccess;
    std::vector<Region*> stack(1, root.get());
    std::set<const Region*> seen;
    while (!stack.empty()) {
        Region& region = *stack.back();
        stack.pop_back();
        if (!seen.insert(&region).second)
            continue;
        const std::vector<Region::Ptr>& children = region.inlinedRegions();
        const std::vector<Region::MethodPtr>& methods = region.inlinedMethods();
        const size_t pending = static_cast<size_t>(std::count_if(
            children.begin(), children.end(), [](const Region::Ptr& child) { return child->startJitRva() == 0; }));

        quarvel_error_t ret = meSuccess;
        if (pending == children.size()) {
            ret = region.normalizeInlineJitRvaRanges(region.startJitRva(), region.startAddress());
        } else if (pending) {
            // Inlines attached after an earlier pass.
            QV_CHECK(children.size() == methods.size(), ret = meNotFound);
            if (ret == meSuccess) {
                const u64 delta = region.startJitRva() - region.startAddress(); // wraps on purpose
                for (size_t i = 0; i < children.size(); ++i) {
                    if (children[i]->startJitRva() != 0)
                        continue;
                    const jit_rva_t start = children[i]->startAddress() + delta;
                    children[i]->setStartJitRva(start);
                    if (methods[i]) {
                        methods[i]->setStartJitRva(start);
                        methods[i]->normalizeLineNumberInfoJitRvaRanges(start);
                    }
                }
            }
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

void JitDataManager::finalize() {
    for (const auto& entry : m_methods) {
        const JitMethod::Ptr& method = entry.second;
        for (const Region::Ptr& region : method->regions()) {
            const jit_rva_t jitRva = region->startJitRva();
            const address_t startAddr = region->startAddress();
            bool settled = true;
            QV_CHECK(jitRva, settled = false);
            QV_CHECK(startAddr, settled = false);
            if (!settled)
                continue;
            QV_TRACE("Normalize method's (method id = " << method->getRawMethodId() << ", startJitRva = "
                                                        << method->getStartJitRva() << ") code region "
                                                        << ipRange(*region));
            if (normalizeInlineTree(region) != meSuccess)
                QV_ERROR("Couldn't normalize method's (method id = "
                         << method->getRawMethodId() << ", startJitRva = " << method->getStartJitRva()
                         << ") code region " << ipRange(*region) << ". The inlines can't be resolved for this method.");
        }
    }
    buildDomainIndex();
}

void JitDataManager::dropDomainIndex() {
    if (!m_domainIndexValid)
        return;
    m_domainIndexValid = false;
    m_domainIndex.clear();
    std::vector<IndexedJitRvaRange>().swap(m_jitRvaIndex);
}

void JitDataManager::buildDomainIndex() {
    m_domainIndex.clear();
    m_jitRvaIndex.clear();
    m_jitRvaIndex.reserve(m_jitRvaDomain.size());
    for (const auto& entry : m_jitRvaDomain)
        m_jitRvaIndex.push_back(IndexedJitRvaRange{entry.first, &entry.second});
    for (const auto& host : m_regionDomains)
        for (const auto& process : host.second) {
            DomainIndex& index = m_domainIndex[std::make_pair(host.first, process.first)];
            index.reserve(process.second.size());
            for (const auto& entry : process.second)
                index.push_back(IndexedRange{entry.first, entry.second.get()});
        }
    m_domainIndexValid = true;
}

} // namespace quarvel_3_13
