#include "index/top_map.h"

namespace quarvel_3_13 {

TopMap::Intervals::const_iterator TopMap::firstEndingAfterIt(u64 address) const {
    auto it = m_intervals.upper_bound(address);
    if (it != m_intervals.begin()) {
        auto previous = std::prev(it);
        if (previous->second.end > address)
            return previous;
    }
    return it;
}

bool TopMap::find(u64 address, Interval& out) const {
    auto it = m_intervals.upper_bound(address);
    if (it == m_intervals.begin())
        return false;
    --it;
    if (it->second.end <= address)
        return false;
    out = Interval{it->first, it->second.end, it->second.slot};
    return true;
}

bool TopMap::firstEndingAfter(u64 address, Interval& out) const {
    auto it = firstEndingAfterIt(address);
    if (it == m_intervals.end())
        return false;
    out = Interval{it->first, it->second.end, it->second.slot};
    return true;
}

void TopMap::assign(u64 start, u64 end, u32 slot) {
    auto it = m_intervals.upper_bound(start);
    if (it != m_intervals.begin()) {
        auto previous = std::prev(it);
        if (previous->second.end > start) {
            if (previous->first == start) {
                it = previous; // cut by the loop below
            } else {
                // The interval that holds start keeps its head, and its tail when it reaches past end.
                const Tail old = previous->second;
                previous->second.end = start;
                if (old.end > end) {
                    m_intervals.emplace(end, old);
                    m_intervals.emplace(start, Tail{end, slot});
                    return;
                }
            }
        }
    }
    while (it != m_intervals.end() && it->first < end) {
        if (it->second.end > end) {
            // The last one keeps its tail.
            const Tail old = it->second;
            it = m_intervals.erase(it);
            it = m_intervals.emplace_hint(it, end, old);
            break;
        }
        it = m_intervals.erase(it);
    }
    m_intervals.emplace_hint(it, start, Tail{end, slot});
}

} // namespace quarvel_3_13
