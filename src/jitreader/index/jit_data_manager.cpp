#include "index/jit_data_manager.h"

#include "index/code_patcher.h"
#include "index/refusal.h"
#include "support/assertion.h"
#include "support/log.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <tuple>

// A failed precondition that file content can reach: reported with its text
// and refused with it.
#define QV_INDEX_CHECK(cond, code) QV_CHECK(cond, return ::quarvel::index::refusal(ErrorKind::badInput, code, #cond))

QUARVEL_NAMESPACE_BEGIN

using index::IpRange;
using index::ipSpan;

namespace {

const u64 kInvalidJitRva = std::numeric_limits<u64>::max();

// Ranges are compared by start + length: a range that wraps past the top of
// the 64-bit space is never stored.
bool fitsIn64(u64 start, u32 length) {
    return start <= std::numeric_limits<u64>::max() - length;
}

jit_rva_t methodStartJitRva(const JitMethod& method) {
    if (method.getStartJitRva() || !method.regionCount())
        return method.getStartJitRva();
    return method.regions().front()->startJitRva();
}

u64 spaceKey(u32 pid, u32 hostId) {
    return static_cast<u64>(hostId) << 32 | pid;
}

// The refusal of a record (what says which, and why it would walk down)
// once its address space has used up its step limit.
Status pastStepLimit(const std::string& what, const AddressHistory& history) {
    QV_INDEX_REFUSE(ErrorKind::badInput, meBadRecord,
                    what << ": records out of time order in this address space have walked " << history.stepsTaken()
                         << " steps down its history, more than the limit of " << AddressHistory::stepLimit()
                         << "; such records are refused from now on");
}

// Whether the plans made when a record was checked still hold as its regions
// are placed one after the other: when they were all loaded at one moment,
// each lies in another address space than the ones placed before it or, by
// the checks, on other addresses, and placing one changes nothing at
// another's addresses, which is all a plan describes. Regions of several
// moments may lie over or under each other.
bool oneMoment(const RegionList& regions) {
    return std::all_of(regions.begin(), regions.end(),
                       [&](const Region::Ptr& r) { return r->loadTime() == regions[0]->loadTime(); });
}

} // namespace

JitDataManager::JitDataManager() : m_inlines(m_methods) {}

JitDataManager::~JitDataManager() = default;

// ---------------------------------------------------------------------------
// Address spaces

JitDataManager::AddressSpace* JitDataManager::existingSpace(u32 pid, u32 hostId) {
    return const_cast<AddressSpace*>(space(pid, hostId));
}

const JitDataManager::AddressSpace* JitDataManager::space(u32 pid, u32 hostId) const {
    const u64 key = spaceKey(pid, hostId);
    const auto it =
        std::lower_bound(m_spaces.begin(), m_spaces.end(), key,
                         [](const std::pair<u64, std::unique_ptr<AddressSpace>>& e, u64 k) { return e.first < k; });
    return it != m_spaces.end() && it->first == key ? it->second.get() : nullptr;
}

JitDataManager::AddressSpace& JitDataManager::spaceFor(u32 pid, u32 hostId) {
    const u64 key = spaceKey(pid, hostId);
    auto it =
        std::lower_bound(m_spaces.begin(), m_spaces.end(), key,
                         [](const std::pair<u64, std::unique_ptr<AddressSpace>>& e, u64 k) { return e.first < k; });
    if (it == m_spaces.end() || it->first != key) {
        std::unique_ptr<AddressSpace> created(new AddressSpace());
        created->pid = pid;
        created->hostId = hostId;
        it = m_spaces.emplace(it, key, std::move(created));
    }
    return *it->second;
}

void JitDataManager::markChanged(AddressSpace& space) {
    space.frozenCurrent = false;
    if (!space.changed) {
        space.changed = true;
        m_changedSpaces.push_back(&space);
    }
}

// ---------------------------------------------------------------------------
// Method loads

Status JitDataManager::checkRegions(const JitMethod& rawMethod) const {
    for (const Region::Ptr& region : rawMethod.regions()) {
        QV_INDEX_CHECK(region, meBadRecord);
        QV_INDEX_CHECK(region->length(), meBadRecord);
        QV_INDEX_CHECK(fitsIn64(region->startAddress(), region->length()), meBadRecord);
        QV_INDEX_CHECK(fitsIn64(region->startJitRva(), region->length()), meBadRecord);
    }
    return Status::success();
}

Status JitDataManager::processMethodLoadRecord(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod) {
    QV_CHECK(rawMethod, return index::refusal(ErrorKind::internal, meBadRecord, "rawMethod"));
    QV_INDEX_CHECK(!rawMethod->getMethodId().isEmpty(), meBadRecord);
    const Status checked = checkRegions(*rawMethod);
    if (!checked)
        return checked;

    // New bytes for code that is registered already (a patched call site):
    // the stored region takes them in place, keeping its jit rva and line
    // tables; it is not a new load.
    if (CodePatcher::takePatchedCopies(*rawMethod, m_jitRvas))
        return Status::success();

    if (rawMethod->regions().empty()) {
        // Names and line tables without code: listed, owning no addresses.
        if (m_methods.find(rawMethod->getMethodId()) == MethodRegistry::kNone) {
            m_methods.add(rawMethod, processId, hostId);
            m_methods.internShared(*rawMethod);
            if (m_collectorType == ctJitProfiler)
                m_inlines.offerParent(rawMethod);
        } else {
            QV_TRACE("Detected already cached code region with the same method id "
                     << rawMethod->getRawMethodId() << ", name = " << rawMethod->getMethodName()
                     << ", load time = " << rawMethod->getLoadTime());
        }
        return Status::success();
    }
    return registerRegions(processId, hostId, rawMethod);
}

Status JitDataManager::registerRegions(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod) {
    const u32 rawId = rawMethod->getRawMethodId();
    const u32 known = m_methods.find(rawMethod->getMethodId());
    const JitMethod::Ptr stored = known == MethodRegistry::kNone ? JitMethod::Ptr() : m_methods.at(known);
    // A copy when the stored method is rawMethod itself: it grows below.
    RegionList copy;
    if (stored == rawMethod)
        copy = rawMethod->regions();
    const RegionList& newRegions = stored == rawMethod ? copy : rawMethod->regions();
    if (stored) {
        QV_TRACE("Detected already cached code region with the same method id "
                 << rawId << ", name = " << rawMethod->getMethodName() << ", load time = " << rawMethod->getLoadTime());
        if (stored->getLoadTime() == rawMethod->getLoadTime())
            for (const Region::Ptr& region : newRegions)
                for (const Region::Ptr& old : stored->regions())
                    if (region->startAddress() == old->startAddress())
                        QV_INDEX_REFUSE(ErrorKind::badInput, meBadRecord,
                                        "Couldn't add a region (methodID="
                                            << rawId
                                            << ") because there are two pre-jitted code ranges                    "
                                               "     located on the same address space for the same method");
    }

    // Everything that can refuse the record is checked before anything
    // changes: a refused record leaves no trace.
    auto jitRvaClash = [&](const Region& region) -> Status {
        QV_INDEX_REFUSE(ErrorKind::badInput, meBadRecord,
                        "Couldn't add a region (addr=" << region.startAddress() << ", size=" << region.length()
                                                       << ", methodID=" << rawId << ", jitRva=" << region.startJitRva()
                                                       << ") because jit rva ranges are overlapped.");
    };
    auto timeClash = [&](const Region& region) -> Status {
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't add a splitted region (ip range = "
                            << ipSpan(region.startAddress(), region.endAddress()) << ", loadTime=" << region.loadTime()
                            << ") in the single time domain");
    };
    // Within the record: no two regions share jit rvas, nor addresses at one moment.
    auto sameMoment = [](const Region& a, const Region& b) {
        return a.hostId() == b.hostId() && a.processId() == b.processId() && a.loadTime() == b.loadTime();
    };
    if (newRegions.size() > 1 && newRegions.size() <= 8) {
        for (size_t j = 1; j < newRegions.size(); ++j)
            for (size_t i = 0; i < j; ++i) {
                const Region& a = *newRegions[i];
                const Region& b = *newRegions[j];
                if (a.startJitRva() < b.startJitRva() + b.length() && b.startJitRva() < a.startJitRva() + a.length())
                    return jitRvaClash(b);
                if (sameMoment(a, b) && a.startAddress() < b.endAddress() && b.startAddress() < a.endAddress())
                    return timeClash(b);
            }
    } else if (newRegions.size() > 8) {
        // Sorted, neighbours tell whether any two overlap.
        std::vector<size_t> order(newRegions.size());
        std::iota(order.begin(), order.end(), 0);
        std::sort(order.begin(), order.end(),
                  [&](size_t a, size_t b) { return newRegions[a]->startJitRva() < newRegions[b]->startJitRva(); });
        for (size_t i = 1; i < order.size(); ++i) {
            const Region& a = *newRegions[order[i - 1]];
            const Region& b = *newRegions[order[i]];
            if (b.startJitRva() < a.startJitRva() + a.length())
                return jitRvaClash(*newRegions[std::max(order[i - 1], order[i])]);
        }
        std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
            const Region& ra = *newRegions[a];
            const Region& rb = *newRegions[b];
            return std::make_tuple(ra.hostId(), ra.processId(), ra.loadTime(), ra.startAddress()) <
                   std::make_tuple(rb.hostId(), rb.processId(), rb.loadTime(), rb.startAddress());
        });
        u64 reach = 0;
        for (size_t i = 1; i < order.size(); ++i) {
            const Region& a = *newRegions[order[i - 1]];
            const Region& b = *newRegions[order[i]];
            reach = sameMoment(a, b) ? std::max(reach, a.endAddress()) : 0;
            if (sameMoment(a, b) && b.startAddress() < reach)
                return timeClash(*newRegions[std::max(order[i - 1], order[i])]);
        }
    }
    std::vector<AddressSpace*> thawed; // frozen spaces that planning needs as they were being read
    if (m_plans.size() < newRegions.size())
        m_plans.resize(newRegions.size());
    auto tooDeep = [&](const Region& region, const AddressHistory& history) -> Status {
        std::ostringstream what;
        what << "Couldn't add a region (ip range = " << ipSpan(region.startAddress(), region.endAddress())
             << ", loadTime=" << region.loadTime() << ") loaded before regions already read over it";
        return pastStepLimit(what.str(), history);
    };
    for (size_t r = 0; r < newRegions.size(); ++r) {
        const Region::Ptr& region = newRegions[r];
        m_plans[r].made = false;
        const Region* refused = nullptr;
        const AddressHistory* limitOf = nullptr; // refused for the step limit, not a clash
        bool jitRvas = false;
        if (m_jitRvas.findOverlap(region->startJitRva(), region->length())) {
            refused = region.get();
            jitRvas = true;
        } else if (AddressSpace* target = existingSpace(region->processId(), region->hostId())) {
            if (target->history.frozen()) {
                target->history.thaw();
                thawed.push_back(target);
            }
            u32 clash = AddressHistory::kNone;
            m_plans[r].made = target->history.plan(region->startAddress(), region->endAddress(), region->loadTime(),
                                                   m_plans[r].pieces, clash);
            if (!m_plans[r].made) {
                refused = region.get();
                if (clash == AddressHistory::kNone)
                    limitOf = &target->history;
            }
        }
        if (refused) {
            for (AddressSpace* back : thawed)
                back->history.freeze();
            if (limitOf)
                return tooDeep(*refused, *limitOf);
            return jitRvas ? jitRvaClash(*refused) : timeClash(*refused);
        }
    }

    // Accepted.
    JitMethod::Ptr method = stored;
    if (!stored) {
        method = rawMethod;
        m_methods.add(rawMethod, processId, hostId);
        m_methods.internShared(*rawMethod);
        // Decoders key line tables by offsets from the method's first byte;
        // a registered method answers by jit rva.
        rawMethod->normalizeLineNumberInfoJitRvaRanges(methodStartJitRva(*rawMethod));
        if (m_collectorType == ctJitProfiler)
            m_inlines.offerParent(rawMethod);
    } else {
        if (stored->getLoadTime() != rawMethod->getLoadTime())
            stored->compareSymbolicInfoTo(rawMethod);
        // The stored method takes over the new regions (a reload, or more code
        // of the same load elsewhere) so that it answers for their jit rvas.
        jit_rva_t lowest = stored->getStartJitRva();
        for (const Region::Ptr& region : newRegions) {
            stored->addCodeRegion(region);
            QV_INFO("Added a new code region (ip range = " << ipSpan(region->startAddress(), region->endAddress())
                                                           << ") in method " << rawId);
            lowest = std::min(lowest, region->startJitRva());
        }
        stored->setStartJitRva(lowest);
        // The newcomer's line tables are offsets from its own first byte; kept
        // at its jit rvas they keep answering for the reloaded code.
        const jit_rva_t newStart = methodStartJitRva(*rawMethod);
        const LineTables& newLines = rawMethod->getLineNumberInfo();
        for (size_t r = 0; r < newLines.rangeCount(); ++r)
            for (quarvel_line_info_type type :
                 {quarvel_line_info_native_to_managed, quarvel_line_info_managed_to_source,
                  quarvel_line_info_native_to_source})
                if (!newLines.table(r, type).empty())
                    stored->addLineNumberInfo(type, newLines.table(r, type).rows(),
                                              Range(newLines.range(r).start + newStart, newLines.range(r).length));
    }

    const bool plansHold = oneMoment(newRegions);
    for (size_t r = 0; r < newRegions.size(); ++r) {
        const Region& region = *newRegions[r];
        m_jitRvas.add(RegionInfo{region.startJitRva(), region.length(), method->getMethodToken(), newRegions[r].get(),
                                 method.get()});
        AddressSpace& target = spaceFor(region.processId(), region.hostId());
        std::vector<AddressHistory::Piece>& plan = m_plans[r].pieces;
        // Only the last plan made is followed by raising the pointers of the
        // regions it walked past: where there are such pointers, the others
        // plan again.
        const bool reuse = m_plans[r].made && plansHold && (r + 1 == newRegions.size() || !target.history.hasJumps());
        if (!reuse) {
            u32 clash = AddressHistory::kNone;
            // Checked above; the limit was too, and a record is placed whole.
            const bool ok =
                target.history.plan(region.startAddress(), region.endAddress(), region.loadTime(), plan, clash, false);
            QV_CHECK(ok, continue);
        }
        target.history.place(*newRegions[r], *method, plan);
        markChanged(target);
        if (std::any_of(plan.begin(), plan.end(),
                        [](const AddressHistory::Piece& p) { return p.below != AddressHistory::kNone; }))
            QV_INFO("Updated method's state");
    }
    return Status::success();
}

// ---------------------------------------------------------------------------
// Inline loads

Status JitDataManager::processMethodInlineLoadRecord(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod) {
    (void)processId;
    (void)hostId;
    QV_CHECK(rawMethod, return index::refusal(ErrorKind::internal, meNotFound, "rawMethod"));
    QV_INDEX_CHECK(rawMethod->regionCount() == 1, meNotFound);

    const u32 rawMethodId = rawMethod->getRawMethodId();
    const u32 rawParentId = rawMethod->getRawParentId();
    const bool byId = getCollectorType() == ctJitProfiler;
    if (byId) {
        if (rawMethodId == 0)
            QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                            "Couldn't inline method (method id = " << rawMethodId << ") because method id is invalid.");
        if (rawParentId == 0)
            QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                            "Couldn't inline method (method id = " << rawMethodId << ") because its parent id = "
                                                                   << rawParentId << " is invalid.");
        QV_INDEX_CHECK(!rawMethod->getMethodId().isEmpty(), meNotFound);
        QV_INDEX_CHECK(!rawMethod->getParentId().isEmpty(), meNotFound);
    } else {
        QV_INDEX_CHECK(rawMethodId == 0, meNotFound);
        QV_INDEX_CHECK(rawParentId == 0, meNotFound);
    }

    const Region::Ptr& rawRegion = rawMethod->regions().front();
    QV_INDEX_CHECK(rawRegion, meNotFound);
    QV_INDEX_CHECK(rawRegion->startAddress(), meNotFound);
    QV_INDEX_CHECK(rawRegion->length(), meNotFound);
    QV_INDEX_CHECK(rawRegion->processId(), meNotFound);
    QV_INDEX_CHECK(rawRegion->hostId(), meNotFound);
    QV_INDEX_CHECK(rawRegion->loadTime(), meNotFound);
    // An inline region receives its jit rva from its parent once attached.
    QV_INDEX_CHECK(rawRegion->startJitRva() == 0, meNotFound);
    QV_INDEX_CHECK(fitsIn64(rawRegion->startAddress(), rawRegion->length()), meNotFound);

    m_methods.internShared(*rawMethod);
    if (byId)
        return m_inlines.attachById(rawMethod);

    const AddressLookup parent =
        lookup(rawRegion->startAddress(), rawRegion->loadTime(), rawRegion->processId(), rawRegion->hostId(), true);
    if (parent.outcome == AddressLookup::tooDeep)
        return pastStepLimit("Couldn't inline method (method id = " + std::to_string(rawMethodId) +
                                 "): looking for its parent at load time " + std::to_string(rawRegion->loadTime()),
                             space(rawRegion->processId(), rawRegion->hostId())->history);
    if (!parent.ok()) {
        traceMiss(parent, rawRegion->processId(), rawRegion->startAddress(), rawRegion->loadTime());
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't inline method (method id = " << rawMethodId
                                                               << ") because parent method is not found.");
    }
    return m_inlines.attachToRegion(rawMethod, Region::Ptr(parent.region), *parent.method);
}

// ---------------------------------------------------------------------------
// Updates and unloads

Status JitDataManager::processMethodUpdateRecord(u32 processId, u32 hostId, const JitMethod::Ptr& updateMethod) {
    if (getCollectorType() != ctJitProfiler)
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't accept update because jit file must be                                      "
                        "collected by old version of Kelvo JIT agent");
    QV_CHECK(updateMethod, return index::refusal(ErrorKind::internal, meNotFound, "updateMethod"));
    const u32 methodId = updateMethod->getRawMethodId();
    if (methodId == 0)
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound, "Couldn't accept update because method ID is 0");
    if (updateMethod->regionCount() > 1)
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't accept update (method id = " << methodId << ") because it has multiple code ranges");
    QV_INDEX_CHECK(updateMethod->regionCount() == 1, meNotFound);
    const Region::Ptr& update = updateMethod->regions().front();
    QV_INDEX_CHECK(update, meNotFound);

    const AddressLookup target = lookup(update->startAddress(), update->loadTime(), processId, hostId, true);
    if (target.outcome == AddressLookup::tooDeep)
        return pastStepLimit("Couldn't accept update (method id = " + std::to_string(methodId) +
                                 "): looking for the range to update at load time " +
                                 std::to_string(update->loadTime()),
                             space(processId, hostId)->history);
    if (!target.ok()) {
        traceMiss(target, processId, update->startAddress(), update->loadTime());
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't accept update (method id = " << methodId
                                                               << ") because a range to be updated is not found");
    }
    if (target.method->getRawMethodId() != methodId)
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't accept update (method id = "
                            << methodId << ") because a range to be updated has different method id = "
                            << target.method->getRawMethodId());
    return CodePatcher::patch(*update, methodId, *target.region, *target.method);
}

Status JitDataManager::processCodeUnload(u32 pid, u32 hostId, u64 startAddress, u32 length, u64 time) {
    const u64 endAddress = fitsIn64(startAddress, length) ? startAddress + length : std::numeric_limits<u64>::max();
    const AddressSpace* known = space(pid, hostId);
    if (!known || endAddress <= startAddress) {
        QV_TRACE("Couldn't find a region domain for pid = " << pid);
        return Status::success();
    }
    AddressSpace& target = spaceFor(pid, hostId);
    const bool wasFrozen = target.history.frozen();
    target.history.thaw();
    size_t ended = 0;
    if (!target.history.unload(startAddress, endAddress, time, ended)) {
        if (wasFrozen) // nothing changed: the index built before still answers
            target.history.freeze();
        std::ostringstream what;
        what << "Couldn't unload the code at ip range " << ipSpan(startAddress, endAddress) << ", time = " << time;
        return pastStepLimit(what.str(), target.history);
    }
    markChanged(target); // the unload is part of the history even when it ended nothing
    QV_INFO("Unloaded " << ended << " code region(s) at ip range " << ipSpan(startAddress, endAddress)
                        << ", time = " << time);
    return Status::success();
}

// ---------------------------------------------------------------------------
// Finalisation

void JitDataManager::finalize() {
    m_methods.internNewModules();
    m_inlines.normalizePending();
    for (AddressSpace* changed : m_changedSpaces) {
        // What registration needs goes before the query index is built.
        changed->history.freeze();
        changed->frozen.build(changed->history.slots());
        m_indexedRegions += changed->history.slots().size();
        changed->frozenCurrent = true;
        changed->changed = false;
    }
    m_changedSpaces.clear();
    m_jitRvas.freeze();
}

// ---------------------------------------------------------------------------
// Queries

AddressLookup JitDataManager::lookup(u64 address, u64 timestamp, u32 pid, u32 hostId, bool limited) const {
    const AddressSpace* target = space(pid, hostId);
    if (!target || target->history.empty()) {
        AddressLookup none;
        none.outcome = AddressLookup::noSpace;
        return none;
    }
    return target->frozenCurrent ? target->frozen.find(address, timestamp, target->history.slots())
                                 : target->history.find(address, timestamp, limited);
}

void JitDataManager::traceQuery(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId) {
    QV_TRACE("RESOLVE JIT POINT: vaddr = " << virtualAddress << ", timestamp = " << timestamp << ", pid = " << pid
                                           << ", hostId = " << hostId);
}

void JitDataManager::traceUnmatched(const AddressLookup& miss, u32 pid, u64 virtualAddress, u64 timestamp) {
    traceMiss(miss, pid, virtualAddress, timestamp);
    QV_TRACE("Couldn't match jit point (vaddr = " << virtualAddress << ", timestamp = " << timestamp
                                                  << ") to any known ip address range.");
}

void JitDataManager::traceMiss(const AddressLookup& miss, u32 pid, u64 address, u64 timestamp) {
    switch (miss.outcome) {
    case AddressLookup::noSpace:
        QV_TRACE("Couldn't find a region domain for pid = " << pid);
        break;
    case AddressLookup::noRange:
        QV_TRACE("Couldn't find a region for addr = " << address);
        break;
    case AddressLookup::tooEarly:
        QV_TRACE("Couldn't find a region domain by tsc = " << timestamp);
        break;
    case AddressLookup::tooDeep:
        QV_TRACE("The lookup at addr = " << address << " passed the step limit of its address space");
        break;
    case AddressLookup::unloaded:
        QV_TRACE("The found range (" << ipSpan(miss.rangeStart, miss.rangeEnd) << ") with life time ("
                                     << miss.region->loadTime() << "-" << miss.region->unloadTime()
                                     << ") was out of memory when a sample with tsc = " << timestamp << " occurred");
        break;
    case AddressLookup::found:
        break;
    }
}

quarvel_error_t JitDataManager::findRegion(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId, Region::Ptr& region,
                                           JitMethod::Ptr& method) const {
    region.reset();
    method.reset();
    const AddressLookup hit = lookup(virtualAddress, timestamp, pid, hostId);
    if (!hit.ok()) {
        traceMiss(hit, pid, virtualAddress, timestamp);
        return meNotFound;
    }
    region = hit.region;
    method = hit.method;
    return meSuccess;
}

quarvel_error_t JitDataManager::resolveJitPoint(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId,
                                                JitMethod::Ptr& method, u64& jitRva) const {
    method.reset();
    const bool logging = QV_INFO_ENABLED(); // one level check a query, as symbolAt
    if (logging)
        traceQuery(virtualAddress, timestamp, pid, hostId);
    const AddressLookup hit = lookup(virtualAddress, timestamp, pid, hostId);
    if (!hit.ok()) {
        if (logging)
            traceUnmatched(hit, pid, virtualAddress, timestamp);
        return meNotFound;
    }
    jitRva = virtualAddress + hit.jitRvaBias;
    method = hit.method;
    if (logging)
        QV_INFO("Resolved jit point (vaddr = " << virtualAddress << ", timestamp = " << timestamp
                                               << ") to jit rva = " << jitRva << " of method "
                                               << method->getRawMethodId() << ", name = " << method->getMethodName()
                                               << ", load time = " << method->getLoadTime());
    return meSuccess;
}

quarvel_error_t JitDataManager::resolveJitPoint(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId,
                                                IModule*& module, u64& jitRva) const {
    module = nullptr;
    const bool logging = QV_INFO_ENABLED(); // one level check a query, as symbolAt
    if (logging)
        traceQuery(virtualAddress, timestamp, pid, hostId);
    const AddressSpace* target = space(pid, hostId);
    AddressLookup hit;
    if (!target || target->history.empty())
        hit.outcome = AddressLookup::noSpace;
    else if (target->frozenCurrent)
        hit = target->frozen.resolve(virtualAddress, timestamp);
    else
        hit = target->history.find(virtualAddress, timestamp);
    if (!hit.ok()) {
        if (!logging)
            return meNotFound;
        if (hit.outcome == AddressLookup::unloaded && !hit.region && QV_TRACE_ENABLED())
            hit.region = target->history.slots()[hit.slot].region; // for the log line
        traceUnmatched(hit, pid, virtualAddress, timestamp);
        return meNotFound;
    }
    jitRva = virtualAddress + hit.jitRvaBias;
    module = hit.module;
    if (logging)
        QV_INFO("Resolved jit point (vaddr = "
                << virtualAddress << ", timestamp = " << timestamp << ") to jit rva = " << jitRva << " of method "
                << target->history.slots()[hit.slot].method->getRawMethodId()
                << ", name = " << target->history.slots()[hit.slot].method->getMethodName()
                << ", load time = " << target->history.slots()[hit.slot].method->getLoadTime());
    return meSuccess;
}

const RegionInfo* JitDataManager::findJitRvaRegion(u64 jitRva) const {
    if (jitRva == kInvalidJitRva)
        return nullptr;
    return m_jitRvas.find(jitRva);
}

const RegionInfo* JitDataManager::symbolAt(u64 jitRva) const {
    const RegionInfo* info = jitRva == kInvalidJitRva ? nullptr : m_jitRvas.find(jitRva);
    // One level check a query, its lines written after the lookup: each
    // check is some thirty instructions, and the fewer a query takes, the
    // more of a batch's independent lookups the processor keeps in flight.
    if (QV_INFO_ENABLED())
        logSymbolQuery(jitRva, info);
    return info;
}

void JitDataManager::logSymbolQuery(u64 jitRva, const RegionInfo* info) {
    QV_INFO("RESOLVE JIT POINT: jit rva = " << jitRva);
    if (jitRva == kInvalidJitRva)
        QV_TRACE("Couldn't resolve jit rva = " << jitRva << " because it is invalid.");
    else if (!info)
        QV_TRACE("Couldn't resolve jit rva = " << jitRva << " because it is out of the jit rva domain.");
    else
        QV_INFO("Resolved jit rva = " << jitRva << " to method " << info->method->getRawMethodId()
                                      << ", name = " << info->method->getMethodName()
                                      << ", load time = " << info->method->getLoadTime());
}

quarvel_error_t JitDataManager::resolveJitPoint(u64 jitRva, JitMethod::Ptr& method) const {
    method.reset();
    const RegionInfo* info = symbolAt(jitRva);
    if (!info)
        return meNotFound;
    method = info->method;
    return meSuccess;
}

quarvel_error_t JitDataManager::findOverlappedRegion(u64 startAddress, u64 endAddress, u64 timestamp, u32 pid,
                                                     u32 hostId, ICodeRegion::Ptr& region) const {
    region.reset();
    const AddressSpace* target = space(pid, hostId);
    if (!target || target->history.empty()) {
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
    const u64 probeEnd = startAddress + length;
    // The first region loaded strictly after the timestamp: what replaced the
    // code, not what was live at that moment.
    const AddressLookup hit = target->frozenCurrent
                                  ? target->frozen.findLoadedAfter(startAddress, probeEnd, timestamp,
                                                                   target->history.slots())
                                  : target->history.findLoadedAfter(startAddress, probeEnd, timestamp);
    if (hit.outcome == AddressLookup::noRange) {
        QV_TRACE("Couldn't find a region for addr = " << startAddress);
        return meNotFound;
    }
    if (!hit.ok()) {
        QV_TRACE("Couldn't find overlapped region domain by tsc = " << timestamp);
        return meNotFound;
    }
    region = ICodeRegion::Ptr(hit.region);
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
    const std::vector<const RegionInfo*> ordered = m_jitRvas.ordered();
    std::vector<u64> startJitRvas;
    std::vector<u64> lengths;
    std::vector<u64> startAddresses;
    startJitRvas.reserve(ordered.size());
    lengths.reserve(ordered.size());
    startAddresses.reserve(ordered.size());
    u32 position = 0;
    for (const RegionInfo* info : ordered) {
        if (info->method && info->method->getRawMethodId() == methodId)
            position = static_cast<u32>(startJitRvas.size());
        startJitRvas.push_back(info->startJitRva);
        lengths.push_back(info->length);
        startAddresses.push_back(info->region->startAddress());
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
    JitMethod* method = m_methods.findByModule(moduleName, methodId);
    if (!method) {
        QV_ERROR("Cannot find symbol for pair: moduleName = " << moduleName << " methodId = " << methodId);
        return meNotFound;
    }
    symbol = ISymbol::Ptr(method);
    return meSuccess;
}

JitDataManager::IndexStats JitDataManager::indexStats() const {
    IndexStats stats;
    for (const auto& entry : m_spaces) {
        const AddressSpace& s = *entry.second;
        stats.regions += s.history.slots().size();
        stats.topIntervals += s.history.topIntervals();
        stats.belowLinks += s.history.linkCount();
        stats.belowLinkStorage += s.history.linkStorage();
        stats.descentSteps += s.history.stepsTaken();
        stats.pieces += s.frozen.pieceCount();
        stats.pieceEntries += s.frozen.entryCount();
    }
    stats.jitRvaRuns = m_jitRvas.runCount();
    stats.indexedRegions = m_indexedRegions;
    return stats;
}

QUARVEL_NAMESPACE_END
