#include "index/address_history.h"

#include "index/refusal.h"
#include "support/log.h"

#include <algorithm>

QUARVEL_NAMESPACE_BEGIN

using index::IpRange;
using index::ipSpan;

namespace {

void addPiece(std::vector<AddressHistory::Piece>& pieces, u64 start, u64 end, u32 above, u32 below) {
    if (!pieces.empty()) {
        AddressHistory::Piece& last = pieces.back();
        if (last.end == start && last.above == above && last.below == below) {
            last.end = end;
            return;
        }
    }
    pieces.push_back(AddressHistory::Piece{start, end, above, below});
}

} // namespace

std::atomic<u64> AddressHistory::s_stepLimit{u64(1) << 27};

AddressHistory::Link* AddressHistory::linkAt(u32 slot, u64 address) const {
    return m_links.at(slot, address);
}

u64 AddressHistory::linkEnd(u32 slot, const Link& link) const {
    return m_links.isLast(slot, link) ? m_slots[slot].end : (&link + 1)->from;
}

const u32* AddressHistory::tower(u32 owner, const Link& link, unsigned& levels) const {
    return m_links.tower(link, level(owner), levels);
}

u32 AddressHistory::downAt(u32 owner, const Link& link, unsigned l) const {
    unsigned levels = 0;
    const u32* const up = tower(owner, link, levels);
    return l == 0 ? link.slot : l <= levels ? up[l - 1] : kNone;
}

void AddressHistory::setDownAt(u32 owner, Link& link, unsigned l, u32 slot) const {
    m_links.setDown(link, level(owner), l, slot);
}

template <typename Take>
u32 AddressHistory::highestDown(u32 owner, const Link& link, Take take) const {
    unsigned levels = 0;
    const u32* const up = tower(owner, link, levels);
    for (unsigned l = levels; l > 0; --l)
        if (up[l - 1] != kNone && take(up[l - 1]))
            return up[l - 1];
    return link.slot;
}

u32 AddressHistory::farthestDown(u32 owner, const Link& link) const {
    return highestDown(owner, link, [](u32) { return true; });
}

u32 AddressHistory::nextDown(u32 owner, const Link& link, u64 time) const {
    // Past a pointer that is still later than time, every region skipped is too.
    return highestDown(owner, link, [this, time](u32 down) { return loadTime(down) > time; });
}

u32 AddressHistory::stepDown(u32 slot, u64 address, u64 time) const {
    const Link* link = linkAt(slot, address);
    return link ? nextDown(slot, *link, time) : kNone;
}

unsigned AddressHistory::level(u32 slot) {
    u32 h = slot * 0x9E3779B1u;
    h ^= h >> 15;
    h *= 0x85EBCA77u;
    h ^= h >> 13;
    return static_cast<unsigned>(__builtin_ctz(h | 0x80000000u));
}

void AddressHistory::setTower(u32 self, Link& link, u64 end) const {
    link.jump = kNone;
    if (link.slot == kNone)
        return;
    // The climb stays short: each pointer on the way goes to a higher level.
    u32 at = link.slot;
    unsigned climbs = 0;
    bool stuck = false;
    for (unsigned l = 1; l <= level(self) + 1; ++l) {
        while (!stuck && level(at) < l && climbs++ < 64) {
            const Link* below = linkAt(at, link.from);
            const u32 next = below ? farthestDown(at, *below) : kNone;
            stuck = next == kNone || !covers(next, link.from, end); // a pointer must hold over the whole stretch
            if (!stuck)
                at = next;
        }
        if (at != link.slot)
            setDownAt(self, link, l, at);
        if (level(at) < l)
            break; // stuck below this level: higher pointers would repeat this one
    }
}

bool AddressHistory::plan(u64 start, u64 end, u64 newLoadTime, std::vector<Piece>& pieces, u32& clash,
                          bool limited) const {
    pieces.clear();
    clash = kNone;
    m_walked.clear();
    m_walkedFor = Slot{start, end, newLoadTime, nullptr, nullptr};
    bool ok = true;
    const u64 rest = planFromTop(start, end, newLoadTime, pieces, clash, ok, limited, true);
    if (ok && rest < end)
        planFromOldest(rest, end, newLoadTime, pieces, clash, ok, limited);
    return ok;
}

bool AddressHistory::takeStep(bool limited) const {
    return !limited || m_steps++ < stepLimit();
}

bool AddressHistory::takeSteps(u64 count) const {
    if (m_steps >= stepLimit() || stepLimit() - m_steps < count)
        return false;
    m_steps += count;
    return true;
}

u64 AddressHistory::planFromTop(u64 start, u64 end, u64 newLoadTime, std::vector<Piece>& pieces, u32& clash, bool& ok,
                                bool limited, bool mayTurn) const {
    u64 cursor = start;
    u64 turnedAt = end;
    m_top.forEachOverlappingWhile(start, end, [&](const TopMap::Interval& top) {
        const u64 lo = std::max(top.start, start);
        const u64 hi = std::min(top.end, end);
        if (cursor < lo)
            addPiece(pieces, cursor, lo, kNone, kNone);
        if (loadTime(top.slot) < newLoadTime) {
            addPiece(pieces, lo, hi, kNone, top.slot); // the common case: loaded after what is there
        } else if (mayTurn) {
            // Under a later load, the new one is most likely older than
            // everything there (a file written backwards): the oldest regions
            // place it in a step or two, where the latest ones could be as
            // many as the loads before it.
            turnedAt = lo;
            return false;
        } else {
            descend(lo, hi, top.slot, newLoadTime, pieces, clash, ok, limited);
        }
        cursor = hi;
        return ok;
    });
    if (turnedAt < end)
        return turnedAt;
    if (ok && cursor < end)
        addPiece(pieces, cursor, end, kNone, kNone);
    return end;
}

void AddressHistory::planFromOldest(u64 start, u64 end, u64 newLoadTime, std::vector<Piece>& pieces, u32& clash,
                                    bool& ok, bool limited) const {
    if (!m_hasBottom)
        buildBottom();
    u64 cursor = start;
    m_bottom.forEachOverlapping(start, end, [&](const TopMap::Interval& oldest) {
        if (!ok)
            return;
        if (!takeStep(limited)) {
            ok = false; // clash stays kNone: the limit, not a clash
            return;
        }
        const u64 lo = std::max(oldest.start, start);
        const u64 hi = std::min(oldest.end, end);
        if (cursor < lo)
            addPiece(pieces, cursor, lo, kNone, kNone);
        if (newLoadTime < loadTime(oldest.slot)) {
            addPiece(pieces, lo, hi, oldest.slot, kNone); // older than all there: nothing below it
            cursor = hi;
            return;
        }
        if (!m_hasJumps)
            buildJumps(); // a walk down: a file written backwards never takes one
        planFromTop(lo, hi, newLoadTime, pieces, clash, ok, limited, false);
        cursor = hi;
    });
    if (ok && cursor < end)
        addPiece(pieces, cursor, end, kNone, kNone);
}

std::vector<u32> AddressHistory::linkedByLoadTime() const {
    std::vector<u32> order(m_linked);
    for (u32 slot = 0; slot < order.size(); ++slot)
        order[slot] = slot;
    std::stable_sort(order.begin(), order.end(), [this](u32 a, u32 b) { return loadTime(a) < loadTime(b); });
    return order;
}

void AddressHistory::buildBottom() const {
    // The latest first: each region assigned cuts away the later ones below
    // it. (Regions of one load time that overlap were refused, so the order
    // among them does not matter.)
    const std::vector<u32> order = linkedByLoadTime();
    for (auto slot = order.rbegin(); slot != order.rend(); ++slot)
        m_bottom.assign(m_slots[*slot].start, m_slots[*slot].end, *slot);
    m_hasBottom = true;
}

void AddressHistory::buildJumps() const {
    // The oldest first: a jump climbs along the jumps of those below.
    for (u32 slot : linkedByLoadTime())
        setJumps(slot);
    m_hasJumps = true;
}

void AddressHistory::setJumps(u32 slot) const {
    for (Link* link = m_links.begin(slot); link != m_links.end(slot); ++link)
        setTower(slot, *link, linkEnd(slot, *link));
}

// [start, end) lies under `top`. Walks down the history there to where
// newLoadTime falls, stretch by stretch, in address order.
void AddressHistory::descend(u64 start, u64 end, u32 top, u64 newLoadTime, std::vector<Piece>& pieces, u32& clash,
                             bool& ok, bool limited) const {
    struct Step {
        u64 start;
        u64 end;
        u32 slot;
        u32 above;
    };
    std::vector<Step> todo(1, Step{start, end, top, kNone});
    while (!todo.empty()) {
        const Step step = todo.back();
        todo.pop_back();
        if (!takeStep(limited)) {
            ok = false;
            return;
        }
        if (step.slot == kNone) {
            addPiece(pieces, step.start, step.end, step.above, kNone);
            continue;
        }
        const u64 time = loadTime(step.slot);
        if (time < newLoadTime) {
            addPiece(pieces, step.start, step.end, step.above, step.slot);
            continue;
        }
        if (time == newLoadTime) {
            clash = step.slot;
            ok = false;
            return;
        }
        // Loaded later than the new region: look below it, stretch by stretch.
        if (m_links.count(step.slot) == 0) {
            addPiece(pieces, step.start, step.end, step.slot, kNone);
            continue;
        }
        m_walked.push_back(Walked{step.slot, step.start});
        const Link* const last = m_links.end(step.slot);
        const size_t mark = todo.size();
        // The first link starts at the region's start, so one holds step.start.
        for (const Link* link = linkAt(step.slot, step.start); link != last && link->from < step.end; ++link) {
            const u64 lo = std::max(link->from, step.start);
            const u64 hi = std::min(linkEnd(step.slot, *link), step.end);
            if (lo < hi)
                todo.push_back(Step{lo, hi, nextDown(step.slot, *link, newLoadTime), step.slot});
        }
        // Popped in address order.
        std::reverse(todo.begin() + static_cast<std::ptrdiff_t>(mark), todo.end());
    }
}

u32 AddressHistory::place(Region& region, JitMethod& method, const std::vector<Piece>& pieces) {
    const u32 self = static_cast<u32>(m_slots.size());
    m_slots.push_back(Slot{region.startAddress(), region.endAddress(), region.loadTime(), &region, &method});
    bulk_memory::prepareToAppend(m_slots);
    link(self, pieces, false);
    return self;
}

void AddressHistory::link(u32 self, const std::vector<Piece>& pieces, bool quiet) {
    m_links.openRun();
    if (std::any_of(pieces.begin(), pieces.end(), [](const Piece& p) { return p.below != kNone; }))
        for (const Piece& p : pieces)
            m_links.appendLink(p.start, p.below);
    if (m_hasJumps)
        setJumps(self);

    bool shadowed = false;
    for (size_t i = 0; i < pieces.size();) {
        const Piece& p = pieces[i];
        if (p.above == kNone) {
            // The latest region here from now on; runs of pieces go in at once.
            size_t j = i + 1;
            while (j < pieces.size() && pieces[j].above == kNone && pieces[j].start == pieces[j - 1].end)
                ++j;
            m_top.assign(p.start, pieces[j - 1].end, self);
            i = j;
            continue;
        }
        shadowed = true;
        ++i;
    }
    if (shadowed) {
        // Slid under later loads: each of them now has the new region directly below.
        std::vector<u32> owners;
        for (const Piece& p : pieces)
            if (p.above != kNone)
                owners.push_back(p.above);
        std::sort(owners.begin(), owners.end());
        owners.erase(std::unique(owners.begin(), owners.end()), owners.end());
        size_t moved = 0;
        for (u32 owner : owners)
            moved += relink(owner, pieces, self);
        // Links moved count against the step limit, after the fact: a
        // plan cannot tell how far a run must move, and the next records
        // are refused once the limit is passed.
        if (!quiet)
            m_steps += moved / kLinksPerStep;
        m_shadowed.push_back(self);
    }

    m_linked = self + 1;
    if (m_hasJumps && !m_walked.empty() && m_walkedFor.start == m_slots[self].start &&
        m_walkedFor.end == m_slots[self].end && m_walkedFor.loadTime == m_slots[self].loadTime)
        raiseJumps(self);
    // Where nothing lies below it, the new region is the oldest one.
    if (m_hasBottom)
        for (const Piece& p : pieces)
            if (p.below == kNone)
                m_bottom.assign(p.start, p.end, self);

    // The regions directly below end their life where the new one is loaded.
    const Slot& placed = m_slots[self];
    for (const Piece& p : pieces) {
        if (p.below == kNone)
            continue;
        Region& previous = *m_slots[p.below].region;
        if (previous.unloadTime() == 0) {
            previous.setUnloadTime(placed.loadTime);
            if (!quiet)
                QV_INFO("Set unload time = " << placed.loadTime << " for region ("
                                             << ipSpan(previous.startAddress(), previous.endAddress()) << ")");
        }
        if (!quiet)
            QV_INFO("Unloaded code region (ip range = " << ipSpan(p.start, p.end) << ") from method "
                                                        << placed.method->getRawMethodId()
                                                        << ", name = " << placed.method->getMethodName()
                                                        << ", load time = " << placed.method->getLoadTime());
    }
}

void AddressHistory::raiseJumps(u32 self) {
    // As a skip list's insertion does: each region the walk went down past
    // points at the new one from now on at each level the new one has (and
    // at most one above its own), where its pointer went past it. Regions
    // slid in at the bottom of a run are then reached from its top in a few
    // jumps, not one region at a time.
    const Slot& placed = m_slots[self];
    const unsigned height = level(self);
    if (height == 0)
        m_walked.clear(); // a region of level 0 is only ever directly below
    for (const Walked& w : m_walked) {
        if (loadTime(w.slot) <= placed.loadTime)
            continue;
        Link* const link = linkAt(w.slot, w.at);
        if (!link || link->slot == self || link->slot == kNone)
            continue;
        if (!covers(self, link->from, linkEnd(w.slot, *link)))
            continue; // a pointer must hold over the whole stretch
        const unsigned top = std::min(height, level(w.slot) + 1);
        for (unsigned l = 1; l <= top; ++l) {
            const u32 down = downAt(w.slot, *link, l);
            if (down == kNone || loadTime(down) < placed.loadTime)
                setDownAt(w.slot, *link, l, self);
        }
    }
    m_walked.clear();
}

size_t AddressHistory::relink(u32 owner, const std::vector<Piece>& pieces, u32 slot) {
    // Where the new region lies directly under the owner.
    u64 lo = ~u64(0);
    u64 hi = 0;
    for (const Piece& p : pieces)
        if (p.above == owner) {
            lo = std::min(lo, p.start);
            hi = std::max(hi, p.end);
        }
    if (lo >= hi)
        return 0;
    const u32 count = m_links.count(owner);
    // The window of the owner's links that overlap [lo, hi); an owner with
    // nothing below anywhere has one stretch over its whole range.
    std::vector<Link> old;
    size_t first = 0;
    size_t last = 0;
    if (count) {
        const Link* const begin = m_links.begin(owner);
        const Link* const end = m_links.end(owner);
        const Link* const from = linkAt(owner, lo);
        first = from ? static_cast<size_t>(from - begin) : 0;
        last = static_cast<size_t>(
            std::lower_bound(begin + first, end, hi, [](const Link& l, u64 a) { return l.from < a; }) - begin);
        old.assign(begin + first, begin + last);
    } else {
        old.push_back(Link{m_slots[owner].start, kNone, kNone});
    }
    const u64 windowEnd = last < count ? m_links.begin(owner)[last].from : m_slots[owner].end;

    // The window's links with the new region's stretches cut in, each with
    // its pointers further down, levels of them.
    const unsigned levels = m_hasJumps ? level(owner) + 1 : 0;
    std::vector<Link> merged;
    std::vector<u32> downs;
    auto add = [&](u64 from, u32 below, const u32* up) {
        if (!merged.empty() && merged.back().slot == below && std::equal(up, up + levels, downs.end() - levels))
            return;
        merged.push_back(Link{from, below, kNone});
        downs.insert(downs.end(), up, up + levels);
    };
    std::vector<u32> oldUp(levels);
    std::vector<u32> newUp(levels);
    size_t k = 0;
    for (size_t i = 0; i < old.size(); ++i) {
        const u64 from = old[i].from;
        const u64 to = i + 1 < old.size() ? old[i + 1].from : windowEnd;
        for (unsigned l = 1; l <= levels; ++l) {
            oldUp[l - 1] = downAt(owner, old[i], l);
            // What was below covers the stretch and stays below the new
            // region: the owner's pointers past both.
            newUp[l - 1] = oldUp[l - 1] != kNone ? oldUp[l - 1] : old[i].slot;
        }
        u64 at = from;
        for (; k < pieces.size() && pieces[k].start < to; ++k) {
            const Piece& p = pieces[k];
            if (p.above != owner || p.end <= at)
                continue;
            if (p.start > at)
                add(at, old[i].slot, oldUp.data());
            add(std::max(p.start, at), slot, newUp.data());
            at = std::min(p.end, to);
            if (p.end > to)
                break; // the piece goes on into the next stretch
        }
        if (at < to)
            add(at, old[i].slot, oldUp.data());
    }
    // Each new link gets a tower of its own: the old links' towers stay
    // theirs (a raise must not reach a stretch it does not cover).
    for (size_t m = 0; m < merged.size(); ++m)
        for (unsigned l = 1; l <= levels; ++l)
            if (downs[m * levels + l - 1] != kNone)
                setDownAt(owner, merged[m], l, downs[m * levels + l - 1]);

    return m_links.replace(owner, first, last, merged);
}

AddressLookup AddressHistory::find(u64 address, u64 timestamp, bool limited) const {
    AddressLookup result;
    TopMap::Interval top;
    if (!m_top.find(address, top))
        return result;
    u32 slot = top.slot;
    for (unsigned walked = 0; loadTime(slot) > timestamp; ++walked) {
        if (walked == kWalkWithoutJumps && !m_hasJumps)
            buildJumps();
        if (!takeStep(limited)) {
            result.outcome = AddressLookup::tooDeep;
            return result;
        }
        slot = stepDown(slot, address, timestamp);
        if (slot == kNone) {
            result.outcome = AddressLookup::tooEarly;
            return result;
        }
    }
    result = hitAt(slot);
    const u64 unload = result.region->unloadTime();
    result.outcome = unload > loadTime(slot) && unload <= timestamp ? AddressLookup::unloaded : AddressLookup::found;
    return result;
}

AddressLookup AddressHistory::findLoadedAfter(u64 start, u64 end, u64 timestamp) const {
    AddressLookup result;
    TopMap::Interval top;
    if (!m_top.firstEndingAfter(start, top) || top.start >= end)
        return result;
    const u64 at = std::max(start, top.start);
    u32 best = kNone;
    unsigned walked = 0;
    for (u32 slot = top.slot; slot != kNone && loadTime(slot) > timestamp; slot = stepDown(slot, at, timestamp)) {
        if (++walked == kWalkWithoutJumps && !m_hasJumps)
            buildJumps();
        best = slot;
    }
    if (best == kNone) {
        result.outcome = AddressLookup::tooEarly;
        return result;
    }
    result = hitAt(best);
    result.outcome = AddressLookup::found;
    return result;
}

AddressLookup AddressHistory::hitAt(u32 slot) const {
    const Slot& s = m_slots[slot];
    AddressLookup hit;
    hit.region = s.region;
    hit.method = s.method;
    hit.module = s.method->module().get();
    hit.slot = slot;
    hit.rangeStart = s.start;
    hit.rangeEnd = s.end;
    hit.jitRvaBias = s.region->startJitRva() - s.start;
    return hit;
}

bool AddressHistory::endLife(u32 slot, u64 time) {
    Region& region = *m_slots[slot].region;
    if (region.unloadTime() != 0 || region.loadTime() >= time)
        return false;
    region.setUnloadTime(time);
    QV_INFO("Set unload time = " << time << " for region (" << ipSpan(region.startAddress(), region.endAddress())
                                 << ")");
    return true;
}

bool AddressHistory::unload(u64 start, u64 end, u64 time, size_t& ended) {
    ended = 0;
    // The latest regions over the range past the first few are steps too,
    // so that unloads over wide ranges, again and again, stay within the
    // limit (the unload of one method's code takes none); counting them
    // stops where the limit would be passed.
    const u64 left = m_steps < stepLimit() ? stepLimit() - m_steps : 0;
    if (m_shadowed.size() > left)
        return false;
    u64 tops = 0;
    m_top.forEachOverlappingWhile(start, end, [&](const TopMap::Interval&) {
        return ++tops <= kUncountedTops || tops - kUncountedTops + m_shadowed.size() <= left;
    });
    if (!takeSteps((tops > kUncountedTops ? tops - kUncountedTops : 0) + m_shadowed.size()))
        return false;
    m_unloads.push_back(Unload{start, end, time, m_slots.size()});
    ended = endLives(start, end, time);
    return true;
}

size_t AddressHistory::endLives(u64 start, u64 end, u64 time) {
    size_t ended = 0;
    m_top.forEachOverlapping(start, end,
                             [this, &ended, time](const TopMap::Interval& top) { ended += endLife(top.slot, time); });
    // A live region that is not on top anywhere in the range was placed
    // below a later load: it is among the shadowed ones.
    for (size_t i = 0; i < m_shadowed.size();) {
        const Slot& s = m_slots[m_shadowed[i]];
        if (s.start < end && start < s.end)
            ended += endLife(m_shadowed[i], time);
        if (s.region->unloadTime() != 0) {
            m_shadowed[i] = m_shadowed.back();
            m_shadowed.pop_back();
            continue;
        }
        ++i;
    }
    return ended;
}

void AddressHistory::freeze() {
    m_top.clear();
    m_bottom.clear();
    m_hasBottom = false;
    m_hasJumps = false;
    m_links.clear();
    std::vector<u32>().swap(m_shadowed);
    std::vector<Walked>().swap(m_walked);
    m_frozen = true;
}

void AddressHistory::thaw() {
    if (!m_frozen)
        return;
    m_frozen = false;
    m_linked = 0;
    // The same steps in the same order give the same state; every life they
    // end is ended already, with the same time.
    std::vector<Piece> pieces;
    size_t nextUnload = 0;
    for (u32 slot = 0; slot <= m_slots.size(); ++slot) {
        for (; nextUnload < m_unloads.size() && m_unloads[nextUnload].afterSlots == slot; ++nextUnload)
            endLives(m_unloads[nextUnload].start, m_unloads[nextUnload].end, m_unloads[nextUnload].time);
        if (slot == m_slots.size())
            break;
        const Slot& s = m_slots[slot];
        u32 clash = kNone;
        plan(s.start, s.end, s.loadTime, pieces, clash, false);
        link(slot, pieces, true);
    }
}

QUARVEL_NAMESPACE_END
