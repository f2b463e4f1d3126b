#include "index/top_map.h"

#include <algorithm>

QUARVEL_NAMESPACE_BEGIN

void TopMap::clear() {
    std::vector<Chunk>().swap(m_chunks);
    std::vector<u64>().swap(m_firstStarts);
    m_pool.reset();
    m_size = 0;
}

TopMap::Position TopMap::firstEndingAfterPosition(u64 address) const {
    if (m_chunks.empty())
        return Position{0, 0};
    size_t c = static_cast<size_t>(std::upper_bound(m_firstStarts.begin(), m_firstStarts.end(), address) -
                                   m_firstStarts.begin());
    c = c ? c - 1 : 0;
    const Chunk& chunk = m_chunks[c];
    size_t i = static_cast<size_t>(
        std::upper_bound(chunk.begin(), chunk.end(), address, [](u64 a, const Interval& e) { return a < e.start; }) -
        chunk.begin());
    if (i > 0 && chunk[i - 1].end > address)
        --i;
    if (i == chunk.size())
        return Position{c + 1, 0}; // the next chunk starts above address
    return Position{c, i};
}

bool TopMap::find(u64 address, Interval& out) const {
    const Position at = firstEndingAfterPosition(address);
    if (at.chunk == m_chunks.size())
        return false;
    const Interval& interval = m_chunks[at.chunk][at.index];
    if (interval.start > address)
        return false;
    out = interval;
    return true;
}

bool TopMap::firstEndingAfter(u64 address, Interval& out) const {
    const Position at = firstEndingAfterPosition(address);
    if (at.chunk == m_chunks.size())
        return false;
    out = m_chunks[at.chunk][at.index];
    return true;
}

TopMap::Chunk TopMap::newChunk() {
    if (!m_pool)
        m_pool.reset(new ObjectPool(kChunkBytes, alignof(Interval)));
    Chunk chunk{PoolAllocator<Interval>(m_pool.get())};
    chunk.reserve(kChunk + 1);
    return chunk;
}

void TopMap::insertAt(Position at, const Interval& interval) {
    ++m_size;
    if (m_chunks.empty()) {
        m_chunks.push_back(newChunk());
        m_chunks.back().push_back(interval);
        m_firstStarts.push_back(interval.start);
        return;
    }
    if (at.chunk == m_chunks.size())
        at = Position{m_chunks.size() - 1, m_chunks.back().size()};
    Chunk& chunk = m_chunks[at.chunk];
    chunk.insert(chunk.begin() + static_cast<std::ptrdiff_t>(at.index), interval);
    if (at.index == 0)
        m_firstStarts[at.chunk] = interval.start;
    if (chunk.size() > kChunk) {
        Chunk upper = newChunk();
        upper.assign(chunk.begin() + static_cast<std::ptrdiff_t>(kChunk / 2), chunk.end());
        chunk.resize(kChunk / 2);
        const u64 upperStart = upper.front().start;
        m_chunks.insert(m_chunks.begin() + static_cast<std::ptrdiff_t>(at.chunk + 1), std::move(upper));
        m_firstStarts.insert(m_firstStarts.begin() + static_cast<std::ptrdiff_t>(at.chunk + 1), upperStart);
    }
}

void TopMap::eraseAt(Position at) {
    --m_size;
    Chunk& chunk = m_chunks[at.chunk];
    chunk.erase(chunk.begin() + static_cast<std::ptrdiff_t>(at.index));
    if (chunk.empty()) {
        m_chunks.erase(m_chunks.begin() + static_cast<std::ptrdiff_t>(at.chunk));
        m_firstStarts.erase(m_firstStarts.begin() + static_cast<std::ptrdiff_t>(at.chunk));
    } else if (at.index == 0) {
        m_firstStarts[at.chunk] = chunk.front().start;
    }
}

void TopMap::assign(u64 start, u64 end, u32 slot) {
    Position at = firstEndingAfterPosition(start);
    if (at.chunk < m_chunks.size()) {
        Interval& first = m_chunks[at.chunk][at.index];
        if (first.start < start) {
            // It keeps its head, and its tail when it reaches past end.
            const Interval old = first;
            first.end = start;
            if (old.end > end) {
                insertAt(Position{at.chunk, at.index + 1}, Interval{start, end, slot});
                insertAt(firstEndingAfterPosition(end), Interval{end, old.end, old.slot});
                return;
            }
            if (++at.index == m_chunks[at.chunk].size())
                at = Position{at.chunk + 1, 0};
        }
    }
    // What starts inside [start, end) goes, but a tail reaching past end.
    while (at.chunk < m_chunks.size()) {
        Interval& next = m_chunks[at.chunk][at.index];
        if (next.start >= end)
            break;
        if (next.end > end) {
            next.start = end;
            if (at.index == 0)
                m_firstStarts[at.chunk] = end;
            break;
        }
        eraseAt(at);
        if (at.chunk < m_chunks.size() && at.index == m_chunks[at.chunk].size())
            at = Position{at.chunk + 1, 0};
    }
    insertAt(at, Interval{start, end, slot});
}

QUARVEL_NAMESPACE_END
