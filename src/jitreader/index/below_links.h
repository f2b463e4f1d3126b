#ifndef QUARVEL_INDEX_BELOW_LINKS_H
#define QUARVEL_INDEX_BELOW_LINKS_H

#include "support/growing_array.h"

#include <quarvel/types.h>

#include <algorithm>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Where an address history keeps its below links: for each slot, in slot
// order, a run of links in one array, each link a stretch of the slot's range
// with the region directly below it there; and, in another, the towers of
// jumps of the links whose owner stands above level 0. A run is rewritten in
// place; one that has to grow moves to the end of the array with room for
// twice its links, so that a region cut again and again moves O(log) times.
class BelowLinks {
public:
    static const u32 kNone = 0xFFFFFFFFu;

    struct Link {
        u64 from; // the link holds from here to the next link (or the owner's end)
        u32 slot; // kNone: nothing below
        // The link's jumps, pointers further down as a skip list's tower
        // (see AddressHistory): an owner of level 0 keeps its one pointer
        // here; a higher one keeps here where its tower starts. kNone: none
        // (yet).
        u32 jump;
    };

    // Opens the run of the next slot; appendLink() adds to it, skipping a
    // link with the same region below as the one before it.
    // Inline: every region placed calls them, on the path of a file read in time order.
    void openRun() {
        Run run;
        run.at = static_cast<u32>(m_links.size());
        m_runs.push_back(run);
    }
    void appendLink(u64 from, u32 below) {
        Run& run = m_runs[m_runs.size() - 1];
        if (run.count && m_links.back().slot == below)
            return;
        m_links.push_back(Link{from, below, kNone});
        ++run.count;
        ++m_live;
    }

    size_t runCount() const { return m_runs.size(); }
    u32 count(u32 slot) const { return m_runs[slot].count; }
    Link* begin(u32 slot) { return m_links.data() + m_runs[slot].at; }
    Link* end(u32 slot) { return begin(slot) + m_runs[slot].count; }
    // The link of slot that holds address; null when nothing lies below it anywhere.
    Link* at(u32 slot, u64 address) {
        Link* const first = begin(slot);
        Link* const last = first + m_runs[slot].count;
        Link* const link = std::upper_bound(first, last, address, [](u64 a, const Link& l) { return a < l.from; });
        return link == first ? nullptr : link - 1;
    }
    bool isLast(u32 slot, const Link& link) { return &link + 1 == end(slot); }

    // Replaces links [first, last) of slot's run with `with`, in place when
    // there is room. Returns how many links it wrote.
    size_t replace(u32 slot, size_t first, size_t last, const std::vector<Link>& with);

    // The pointers of a link whose owner has level height, from level 1 up,
    // levels of them (none until they are set).
    const u32* tower(const Link& link, unsigned height, unsigned& levels) const {
        if (link.jump == kNone) {
            levels = 0;
            return nullptr;
        }
        levels = height + 1;
        return height == 0 ? &link.jump : m_towers.data() + link.jump;
    }
    void setDown(Link& link, unsigned height, unsigned l, u32 slot);

    size_t liveCount() const { return m_live; }
    // The links with the room they take: the places runs left and their room to grow.
    size_t storage() const { return m_links.size(); }
    void clear();

private:
    struct Run {
        Run() : count(0), roomy(0) {}
        u32 at = 0;
        u32 count : 31;
        // Set once the run has moved: it then has room for bit_ceil(count) links.
        u32 roomy : 1;
    };
    static u32 capacity(const Run& run);

    GrowingArray<Run> m_runs; // per slot
    std::vector<Link> m_links;
    std::vector<u32> m_towers;
    size_t m_live = 0;
};

QUARVEL_NAMESPACE_END

#endif
