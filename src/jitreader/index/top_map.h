#ifndef QUARVEL_INDEX_TOP_MAP_H
#define QUARVEL_INDEX_TOP_MAP_H

#include <quarvel/types.h>

#include <cstddef>
#include <map>

namespace quarvel_3_13 {

// Disjoint address intervals, each naming the region (a slot number) that was
// loaded last over it: the latest moment of an address space's history. A new
// load replaces what it covers, so the map stays as large as the number of
// intervals currently visible, however much history lies below them.
class TopMap {
public:
    struct Interval {
        u64 start;
        u64 end;
        u32 slot;
    };

    // The interval that holds address.
    bool find(u64 address, Interval& out) const;
    // The first interval that ends above address (it may start above it).
    bool firstEndingAfter(u64 address, Interval& out) const;

    // Calls visit(Interval) for every interval that overlaps [start, end), in
    // address order, unclipped.
    template <typename Visit>
    void forEachOverlapping(u64 start, u64 end, Visit visit) const {
        auto it = firstEndingAfterIt(start);
        for (; it != m_intervals.end() && it->first < end; ++it)
            visit(Interval{it->first, it->second.end, it->second.slot});
    }

    // [start, end) names slot from now on; what it covered is cut away.
    void assign(u64 start, u64 end, u32 slot);

    size_t size() const { return m_intervals.size(); }
    bool empty() const { return m_intervals.empty(); }
    void clear() { m_intervals.clear(); }

private:
    struct Tail {
        u64 end;
        u32 slot;
    };
    typedef std::map<u64, Tail> Intervals; // by start

    Intervals::const_iterator firstEndingAfterIt(u64 address) const;

    Intervals m_intervals;
};

} // namespace quarvel_3_13

#endif
