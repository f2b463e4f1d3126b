#include "index/top_map.h"

#include <algorithm>

QUARVEL_NAMESPACE_BEGIN

TopMap::~TopMap() {
    clear();
}

void TopMap::clear() {
#if !QUARVEL_POOLED_OBJECTS
    for (Chunk* chunk : m_chunks)
        freeChunk(chunk);
#endif
    std::vector<Chunk*>().swap(m_chunks);
    std::vector<u64>().swap(m_firstStarts);
    m_pool.reset();
    m_size = 0;
}

TopMap::Chunk* TopMap::newChunk() {
#if QUARVEL_POOLED_OBJECTS
    if (!m_pool)
        m_pool.reset(new ObjectPool(sizeof(Chunk), alignof(Chunk)));
    return new (m_pool->allocate()) Chunk();
#else
    return new Chunk();
#endif
}

void TopMap::freeChunk(Chunk* chunk) noexcept {
#if QUARVEL_POOLED_OBJECTS
    m_pool->deallocate(chunk);
#else
    delete chunk;
#endif
}

TopMap::Position TopMap::firstEndingAfterPosition(u64 address) const {
    if (m_chunks.empty())
        return Position{0, 0};
    size_t c = static_cast<size_t>(std::upper_bound(m_firstStarts.begin(), m_firstStarts.end(), address) -
                                   m_firstStarts.begin());
    c = c ? c - 1 : 0;
    const Chunk& chunk = *m_chunks[c];
    const Interval* const items = chunk.items;
    size_t i = static_cast<size_t>(
        std::upper_bound(items, items + chunk.size, address, [](u64 a, const Interval& e) { return a < e.start; }) -
        items);
    if (i > 0 && items[i - 1].end > address)
        --i;
    if (i == chunk.size)
        return Position{c + 1, 0}; // the next chunk starts above address
    return Position{c, i};
}

bool TopMap::find(u64 address, Interval& out) const {
    const Position at = firstEndingAfterPosition(address);
    if (at.chunk == m_chunks.size())
        return false;
    const Interval& interval = m_chunks[at.chunk]->items[at.index];
    if (interval.start > address)
        return false;
    out = interval;
    return true;
}

bool TopMap::firstEndingAfter(u64 address, Interval& out) const {
    const Position at = firstEndingAfterPosition(address);
    if (at.chunk == m_chunks.size())
        return false;
    out = m_chunks[at.chunk]->items[at.index];
    return true;
}

void TopMap::insertAt(Position at, const Interval& interval) {
    ++m_size;
    if (m_chunks.empty()) {
        Chunk* const first = newChunk();
        first->items[first->size++] = interval;
        m_chunks.push_back(first);
        m_firstStarts.push_back(interval.start);
        return;
    }
    if (at.chunk == m_chunks.size())
        at = Position{m_chunks.size() - 1, m_chunks.back()->size};
    Chunk& chunk = *m_chunks[at.chunk];
    std::copy_backward(chunk.items + at.index, chunk.items + chunk.size, chunk.items + chunk.size + 1);
    chunk.items[at.index] = interval;
    ++chunk.size;
    if (at.index == 0)
        m_firstStarts[at.chunk] = interval.start;
    if (chunk.size > kChunk) {
        Chunk* const upper = newChunk();
        const size_t kept = kChunk / 2;
        std::copy(chunk.items + kept, chunk.items + chunk.size, upper->items);
        upper->size = static_cast<u32>(chunk.size - kept);
        chunk.size = static_cast<u32>(kept);
        m_chunks.insert(m_chunks.begin() + static_cast<std::ptrdiff_t>(at.chunk + 1), upper);
        m_firstStarts.insert(m_firstStarts.begin() + static_cast<std::ptrdiff_t>(at.chunk + 1), upper->items[0].start);
    }
}

void TopMap::eraseAt(Position at) {
    --m_size;
    Chunk& chunk = *m_chunks[at.chunk];
    std::copy(chunk.items + at.index + 1, chunk.items + chunk.size, chunk.items + at.index);
    --chunk.size;
    if (chunk.size == 0) {
        freeChunk(&chunk);
        m_chunks.erase(m_chunks.begin() + static_cast<std::ptrdiff_t>(at.chunk));
        m_firstStarts.erase(m_firstStarts.begin() + static_cast<std::ptrdiff_t>(at.chunk));
    } else if (at.index == 0) {
        m_firstStarts[at.chunk] = chunk.items[0].start;
    }
}

void TopMap::assign(u64 start, u64 end, u32 slot) {
    Position at = firstEndingAfterPosition(start);
    if (at.chunk < m_chunks.size()) {
        Interval& first = m_chunks[at.chunk]->items[at.index];
        if (first.start < start) {
            // It keeps its head, and its tail when it reaches past end.
            const Interval old = first;
            first.end = start;
            if (old.end > end) {
                insertAt(Position{at.chunk, at.index + 1}, Interval{start, end, slot});
                insertAt(firstEndingAfterPosition(end), Interval{end, old.end, old.slot});
                return;
            }
            if (++at.index == m_chunks[at.chunk]->size)
                at = Position{at.chunk + 1, 0};
        }
    }
    // What starts inside [start, end) goes, but a tail reaching past end.
    while (at.chunk < m_chunks.size()) {
        Interval& next = m_chunks[at.chunk]->items[at.index];
        if (next.start >= end)
            break;
        if (next.end > end) {
            next.start = end;
            if (at.index == 0)
                m_firstStarts[at.chunk] = end;
            break;
        }
        eraseAt(at);
        if (at.chunk < m_chunks.size() && at.index == m_chunks[at.chunk]->size)
            at = Position{at.chunk + 1, 0};
    }
    insertAt(at, Interval{start, end, slot});
}

QUARVEL_NAMESPACE_END
