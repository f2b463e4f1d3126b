#ifndef QUARVEL_INDEX_ADDRESS_HISTORY_H
#define QUARVEL_INDEX_ADDRESS_HISTORY_H

#include "index/address_lookup.h"
#include "index/top_map.h"
#include "model/jit_method.h"
#include "model/region.h"
#include "support/bulk_memory.h"
#include "support/growing_array.h"

#include <quarvel/types.h>

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
// top; one loaded before something already registered walks down to its place.
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
    // an address.
    bool plan(u64 start, u64 end, u64 loadTime, std::vector<Piece>& pieces, u32& clash) const;

    // Places a region along a plan made against the current state: it ends
    // the life of every live region directly below it (unload time = its
    // load time). Returns its slot.
    u32 place(Region& region, JitMethod& method, const std::vector<Piece>& pieces);

    // The region that held address at timestamp: the one loaded last at or
    // before it there, when its life had not ended by then.
    AddressLookup find(u64 address, u64 timestamp) const;
    // At the first address of [start, end) that ever held code: the first
    // region loaded there strictly after timestamp.
    AddressLookup findLoadedAfter(u64 start, u64 end, u64 timestamp) const;

    // Ends at `time` the life of every live region overlapping [start, end)
    // that was loaded before `time`. Returns how many ended.
    size_t unload(u64 start, u64 end, u64 time);

    // Drops the registration state once the query index answers for the
    // space: the top map and the links. The slots stay.
    void freeze();
    // Rebuilds the registration state by replaying the registrations and
    // unloads in their order (the lives they ended are ended already).
    void thaw();
    bool frozen() const { return m_frozen; }

    typedef GrowingArray<Slot> Slots;
    const Slots& slots() const { return m_slots; }
    bool empty() const { return m_slots.empty(); }
    size_t topIntervals() const { return m_top.size(); }
    size_t linkCount() const { return m_links.size() - m_staleLinks; }

private:
    struct Link {
        u64 from; // the link holds from here to the next link (or the owner's end)
        u32 slot; // kNone: nothing below
    };
    struct LinkRun { // a slot's below links in m_links; none: nothing was below it anywhere
        u32 at = 0;
        u32 count = 0;
    };
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
    u32 below(u32 slot, u64 address) const;
    void descend(u64 start, u64 end, u32 top, u64 loadTime, std::vector<Piece>& pieces, u32& clash, bool& ok) const;
    // owner has `slot` directly below it on the stretches of pieces whose above is owner.
    void relink(u32 owner, const std::vector<Piece>& pieces, u32 slot);
    bool endLife(u32 slot, u64 time);

    Slots m_slots; // in registration order
    std::vector<Unload> m_unloads;
    bool m_frozen = false;

    // Registration state.
    GrowingArray<LinkRun> m_runs; // per slot
    std::vector<Link> m_links;
    size_t m_staleLinks = 0; // links of runs that a relink replaced
    TopMap m_top;
    // Regions placed below a later load somewhere: only these can stay live
    // where something else is on top.
    std::vector<u32> m_shadowed;
};

QUARVEL_NAMESPACE_END

#endif
