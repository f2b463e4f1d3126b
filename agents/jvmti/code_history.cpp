#include "code_history.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace quarvel_jvmti {

namespace {

// The first entry of a map of disjoint ranges that ends above start.
template <typename Map, typename EndOf>
typename Map::iterator firstOverlap(Map& map, uint64_t start, EndOf endOf) {
    auto it = map.upper_bound(start);
    if (it != map.begin()) {
        auto before = std::prev(it);
        if (endOf(before) > start)
            return before;
    }
    return it;
}

} // namespace

bool CodeHistory::isLive(uint64_t start, uint64_t size) const {
    const auto it = m_live.find(start);
    return it != m_live.end() && it->second.size == size;
}

uint64_t CodeHistory::load(uint64_t start, uint64_t size, uint64_t now) {
    if (size == 0)
        size = 1;
    const uint64_t end =
        start > std::numeric_limits<uint64_t>::max() - size ? std::numeric_limits<uint64_t>::max() : start + size;
    bool overlapped = false;
    uint64_t stamp = 0;
    uint64_t floor = 0;
    std::vector<std::pair<uint64_t, Piece>> kept;
    auto it = firstOverlap(m_pieces, start, [](auto i) { return i->second.end; });
    while (it != m_pieces.end() && it->first < end) {
        const Piece& p = it->second;
        overlapped = true;
        // Code still counted as live was overwritten without an unload we saw:
        // the event time is all we have.
        stamp = std::max(stamp, p.unloadTime ? p.unloadTime : now);
        floor = std::max(floor, p.stamp + 1);
        if (it->first < start)
            kept.push_back({it->first, Piece{start, p.serial, p.stamp, p.unloadTime}});
        if (p.end > end)
            kept.push_back({end, Piece{p.end, p.serial, p.stamp, p.unloadTime}});
        it = m_pieces.erase(it);
    }
    for (const auto& k : kept)
        m_pieces.emplace(k.first, k.second);
    if (!overlapped)
        stamp = m_startTime;
    stamp = std::max({stamp, floor, uint64_t{1}});

    auto live = firstOverlap(m_live, start, [](auto i) { return i->first + i->second.size; });
    while (live != m_live.end() && live->first < end)
        live = m_live.erase(live);

    const uint64_t serial = m_nextSerial++;
    m_pieces.emplace(start, Piece{end, serial, stamp, 0});
    m_live.emplace(start, Live{end - start, serial});
    return stamp;
}

bool CodeHistory::unload(uint64_t start, uint64_t now) {
    const auto live = m_live.find(start);
    if (live == m_live.end())
        return false;
    const uint64_t end = start + live->second.size;
    for (auto it = firstOverlap(m_pieces, start, [](auto i) { return i->second.end; });
         it != m_pieces.end() && it->first < end; ++it)
        if (it->second.serial == live->second.serial && it->second.unloadTime == 0)
            it->second.unloadTime = std::max(now, it->second.stamp);
    m_live.erase(live);
    return true;
}

} // namespace quarvel_jvmti
