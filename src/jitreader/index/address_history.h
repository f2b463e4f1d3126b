#ifndef QUARVEL_INDEX_ADDRESS_HISTORY_H
#define QUARVEL_INDEX_ADDRESS_HISTORY_H

#include "index/address_lookup.h"
#include "index/below_links.h"
#include "index/top_map.h"
#include "model/jit_method.h"
#include "model/region.h"
#include "support/bulk_memory.h"
#include "support/growing_array.h"

#include <quarvel/types.h>

#include <atomic>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The code regions of one address space (host id, process id) over time, as
// they are registered. Each region is a rectangle [start, end) x [load time,
// unload time); a region loaded over part of another ends the other's life.
//
// What is kept is linear in the regions registered: the latest region at each
// address (a TopMap), and for every region the regions directly below it in
// load time, per stretch of its range (its "below links"). A history is never
// copied: a new region is linked in where its load time falls, so that walking
// the links down from the top at an address visits that address's regions from
// the latest to the oldest. Registrations in load-time order touch only the
// top; one loaded before something already registered walks down to its
// place, skipping along the links' jumps, unless it is older than everything
// there (then the oldest regions place it), and within a limit of steps per
// address space (see stepLimit()).
class AddressHistory {
public:
    static const u32 kNone = 0xFFFFFFFFu;

    struct Slot {
        u64 start;
        u64 end;
        u64 loadTime;
        Region* region; // kept alive by its method
        JitMethod* method;
    };

    // A stretch of a new region's range, with the region directly above it
    // in load time (kNone: the new one becomes the latest there) and the one
    // directly below it (kNone: nothing was loaded there before).
    struct Piece {
        u64 start;
        u64 end;
        u32 above;
        u32 below;
    };

    // What follows needs the registration state (see thaw()), except the
    // slots.

    // How a region [start, end) loaded at loadTime would be placed, in
    // address order. False when a region loaded at the same time holds part
    // of the range (clash names it): two regions of one moment cannot share
    // an address. Also false, with clash kNone, when the region would walk
    // down the links past what the space has left of its step limit (see
    // stepLimit()), unless limited is false.
    bool plan(u64 start, u64 end, u64 loadTime, std::vector<Piece>& pieces, u32& clash, bool limited = true) const;

    // Steps that the plans of one address space's loads out of time order,
    // the limited lookups of records that name an earlier moment, and its
    // unloads may take in all: each region walked past on the way down, each
    // stretch of the latest or oldest regions looked at, each region an
    // unload checks because it went in below a later load or past the first
    // few over its range, and each 16 links a relink moves. A load later
    // than everything under it takes none (a file in time order takes none
    // at all), nor does one older than everything; loads over one area in
    // random time order take a few dozen steps each along the jumps (about
    // 2 log n for each stretch the load's range crosses), and nothing bounds
    // the worst case. Past the limit such records are refused, so that
    // reading any file stays within seconds. The default is 2^27 (a few
    // seconds).
    static u64 stepLimit() { return s_stepLimit.load(std::memory_order_relaxed); }
    static void setStepLimit(u64 limit) { s_stepLimit.store(limit, std::memory_order_relaxed); } // tests
    u64 stepsTaken() const { return m_steps; }

    // Places a region along a plan made against the current state: it ends
    // the life of every live region directly below it (unload time = its
    // load time). Returns its slot.
    u32 place(Region& region, JitMethod& method, const std::vector<Piece>& pieces);

    // The region that held address at timestamp: the one loaded last at or
    // before it there, when its life had not ended by then. Limited: each
    // region walked past on the way down counts against the step limit, and
    // past it the outcome is tooDeep.
    AddressLookup find(u64 address, u64 timestamp, bool limited = false) const;
    // At the first address of [start, end) that ever held code: the first
    // region loaded there strictly after timestamp.
    AddressLookup findLoadedAfter(u64 start, u64 end, u64 timestamp) const;

    // Ends at `time` the life of every live region overlapping [start, end)
    // that was loaded before `time`; ended says how many. An unload checks
    // the latest region at each stretch of the range and each live region
    // that went in below a later load, and each counts as a step (but the
    // first kUncountedTops latest ones): false, with nothing changed, when
    // they would pass the limit.
    bool unload(u64 start, u64 end, u64 time, size_t& ended);
    static const u64 kUncountedTops = 4;

    // Drops the registration state once the query index answers for the
    // space: the top map and the links. The slots stay.
    void freeze();
    // Rebuilds the registration state by replaying the registrations and
    // unloads in their order (the lives they ended are ended already).
    void thaw();
    bool frozen() const { return m_frozen; }
    // The links have their towers: placing a region raises the pointers of
    // the regions that the last plan, if it was this region's, walked past.
    bool hasJumps() const { return m_hasJumps; }

    typedef GrowingArray<Slot> Slots;
    const Slots& slots() const { return m_slots; }
    bool empty() const { return m_slots.empty(); }
    size_t topIntervals() const { return m_top.size(); }
    size_t linkCount() const { return m_links.liveCount(); }
    size_t linkStorage() const { return m_links.storage(); }

private:
    // A link's jumps are pointers further down as a skip list's tower: at
    // level l, the first region below of level l or more (see level()) that
    // covers the link's whole stretch, for l from 1 to the owner's level
    // plus one. Everything a pointer skips is loaded later than its target,
    // so a walk to an earlier moment takes the highest pointer that is still
    // too late itself, and walks take O(log n) steps. Set only once a walk
    // down is needed (see buildJumps()).
    typedef BelowLinks::Link Link;
    struct Unload {
        u64 start;
        u64 end;
        u64 time;
        size_t afterSlots; // registered before it
    };

    u64 loadTime(u32 slot) const { return m_slots[slot].loadTime; }
    // The answer of a lookup that landed on slot (its outcome aside).
    AddressLookup hitAt(u32 slot) const;
    // Links the registered slot in along pieces.
    void link(u32 self, const std::vector<Piece>& pieces, bool quiet);
    size_t endLives(u64 start, u64 end, u64 time);
    // The link of slot that holds address; null when nothing lies below it
    // anywhere. Its jump may be set through it (an aid to walking).
    Link* linkAt(u32 slot, u64 address) const;
    // Where slot's link ends: the next link's start, or the slot's end.
    u64 linkEnd(u32 slot, const Link& link) const;
    // The next region down from slot at address on the way to a moment
    // before `time`: the highest of its pointers further down that is still
    // loaded after `time`, else the region directly below.
    u32 stepDown(u32 slot, u64 address, u64 time) const;
    // The same from owner's link.
    u32 nextDown(u32 owner, const Link& link, u64 time) const;
    // A slot's height in the skip structure of the jumps: 0 for half of
    // them, 1 for a quarter, and so on, fixed by its number.
    static unsigned level(u32 slot);
    // The pointers of owner's link from level 1 up, levels of them (none
    // until they are set).
    const u32* tower(u32 owner, const Link& link, unsigned& levels) const;
    // The pointer of owner's link at level l (0: the region directly below).
    u32 downAt(u32 owner, const Link& link, unsigned l) const;
    void setDownAt(u32 owner, Link& link, unsigned l, u32 slot) const;
    // The highest pointer of owner's link that take(slot) accepts, else the region below.
    template <typename Take>
    u32 highestDown(u32 owner, const Link& link, Take take) const;
    // The farthest pointer of owner's link: its highest one set, else the region below.
    u32 farthestDown(u32 owner, const Link& link) const;
    // Whether slot covers [start, end) whole.
    bool covers(u32 slot, u64 start, u64 end) const { return m_slots[slot].start <= start && m_slots[slot].end >= end; }
    // Sets the pointers of self's link, which ends at end: for each level,
    // climbing from the region below along the farthest pointers to the
    // first region of that level or higher that still covers the whole
    // stretch.
    void setTower(u32 self, Link& link, u64 end) const;
    // The plan over [start, end) from the latest regions there. With
    // mayTurn it stops at the first stretch under a later load and returns
    // where that starts, for the caller to plan the rest from the oldest
    // regions; otherwise it walks down there. Returns end when it went through.
    u64 planFromTop(u64 start, u64 end, u64 loadTime, std::vector<Piece>& pieces, u32& clash, bool& ok, bool limited,
                    bool mayTurn) const;
    // The plan over [start, end) from the oldest regions there, falling back
    // on the latest ones where the new load is not older than they are.
    void planFromOldest(u64 start, u64 end, u64 loadTime, std::vector<Piece>& pieces, u32& clash, bool& ok,
                        bool limited) const;
    // Count steps against the limit (one, when limited; count at once);
    // false past it.
    bool takeStep(bool limited) const;
    bool takeSteps(u64 count) const;
    void descend(u64 start, u64 end, u32 top, u64 loadTime, std::vector<Piece>& pieces, u32& clash, bool& ok,
                 bool limited) const;
    // The linked slots in load-time order, the oldest first (stable).
    std::vector<u32> linkedByLoadTime() const;
    void buildBottom() const;
    // Sets the jumps of every link, in load-time order (a jump climbs along
    // those further down), the first time a load or a lookup walks down: a
    // file in time order whose records look up only recent moments never
    // pays for them. From then on link() sets them for new regions.
    void buildJumps() const;
    // Sets the jumps of slot's links.
    void setJumps(u32 slot) const;
    // Regions a lookup walks past before it has the jumps built.
    static const unsigned kWalkWithoutJumps = 32;
    // Points the pointers of the regions the last plan walked down past at
    // the new region self, at the levels it has, where that makes them
    // shorter and still valid: a skip list's insertion.
    void raiseJumps(u32 self);
    // owner has `slot` directly below it on the stretches of pieces whose
    // above is owner. Rewrites only the links over those stretches; the
    // rest of the run moves along when it has to grow (see BelowLinks).
    // Returns how many links it wrote.
    size_t relink(u32 owner, const std::vector<Piece>& pieces, u32 slot);
    // Links a relink writes for each step it counts against the limit.
    static const u32 kLinksPerStep = 16;
    bool endLife(u32 slot, u64 time);

    Slots m_slots; // in registration order
    std::vector<Unload> m_unloads;
    bool m_frozen = false;

    // Registration state.
    mutable BelowLinks m_links; // mutable for their jumps, an aid to walking that is built late
    TopMap m_top;
    // Regions placed below a later load somewhere: only these can stay live
    // where something else is on top.
    std::vector<u32> m_shadowed;
    // The oldest region at each address, made when a load first comes in
    // below a later one (a file in time order never pays for it) and kept
    // from then on: a load older than everything under its range, as in a
    // file written backwards, is placed from here without walking the links.
    mutable TopMap m_bottom;
    mutable bool m_hasBottom = false;
    mutable bool m_hasJumps = false;
    // The regions the last plan walked down past (each with an address of
    // the stretch), for raiseJumps() when that plan's region is placed.
    struct Walked {
        u32 slot;
        u64 at;
    };
    mutable std::vector<Walked> m_walked;
    mutable Slot m_walkedFor{};
    mutable u64 m_steps = 0; // taken by limited plans and lookups, and by unloads
    // Slots linked in so far: fewer than the slots while thaw() replays, and
    // the oldest regions must be those of the replay so far (the later
    // slots, older ones among them, would hide them and make every load of a
    // file written backwards walk down again).
    u32 m_linked = 0;

    static std::atomic<u64> s_stepLimit;
};

QUARVEL_NAMESPACE_END

#endif
