#include "ingest/address_ranges.h"

#include <algorithm>
#include <iterator>
#include <limits>

QUARVEL_NAMESPACE_BEGIN

namespace {

u64 endOf(u64 start, u64 size) {
    return size > std::numeric_limits<u64>::max() - start ? std::numeric_limits<u64>::max() : start + size;
}

} // namespace

void AddressRanges::add(u64 start, u64 size) {
    if (size == 0)
        return;
    u64 end = endOf(start, size);
    // The first range that could touch: the last one starting at or before start.
    auto it = m_ranges.upper_bound(start);
    if (it != m_ranges.begin() && std::prev(it)->second >= start)
        --it;
    while (it != m_ranges.end() && it->first <= end) {
        start = std::min(start, it->first);
        end = std::max(end, it->second);
        it = m_ranges.erase(it);
    }
    m_ranges.emplace(start, end);
}

bool AddressRanges::overlaps(u64 start, u64 size) const {
    if (size == 0 || m_ranges.empty())
        return false;
    const u64 end = endOf(start, size);
    // The first range starting at or past end cannot overlap; the one before it might.
    auto it = m_ranges.lower_bound(end);
    if (it == m_ranges.begin())
        return false;
    --it;
    return it->second > start;
}

QUARVEL_NAMESPACE_END
