#include "index/top_map.h"

#include "support/cache_lines.h"

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

void TopMap::Chunk::shiftUp(size_t from) {
    std::copy_backward(starts + from, starts + size, starts + size + 1);
    std::copy_backward(ends + from, ends + size, ends + size + 1);
    std::copy_backward(slots + from, slots + size, slots + size + 1);
}

void TopMap::Chunk::shiftDown(size_t from) {
    std::copy(starts + from, starts + size, starts + from - 1);
    std::copy(ends + from, ends + size, ends + from - 1);
    std::copy(slots + from, slots + size, slots + from - 1);
}

void TopMap::Chunk::moveTail(size_t from, Chunk& other) {
    std::copy(starts + from, starts + size, other.starts);
    std::copy(ends + from, ends + size, other.ends);
    std::copy(slots + from, slots + size, other.slots);
    other.size = static_cast<u32>(size - from);
    size = static_cast<u32>(from);
}

void TopMap::Chunk::fetch() const {
    fetchLines(this, starts + size);
}

TopMap::Position TopMap::firstEndingAfterPosition(u64 address) const {
    if (m_chunks.empty())
        return Position{0, 0};
    size_t c = m_chunks.size();
    for (const u32 hint : m_recent)
        if (holds(hint, address)) {
            c = hint;
            break;
        }
    if (c == m_chunks.size()) {
        c = static_cast<size_t>(std::upper_bound(m_firstStarts.begin(), m_firstStarts.end(), address) -
                                m_firstStarts.begin());
        c = c ? c - 1 : 0;
        m_chunks[c]->fetch(); // not one used lately: most likely cold
    }
    const Chunk& chunk = *m_chunks[c];
    // A load at a code heap's growing end lands at or past the chunk's last
    // interval, the line the previous append wrote: no search.
    size_t i = address >= chunk.starts[chunk.size - 1]
                   ? chunk.size
                   : static_cast<size_t>(std::upper_bound(chunk.starts, chunk.starts + chunk.size - 1, address) -
                                         chunk.starts);
    if (i > 0 && chunk.ends[i - 1] > address)
        --i;
    if (i == chunk.size)
        return Position{c + 1, 0}; // the next chunk starts above address
    return Position{c, i};
}

bool TopMap::find(u64 address, Interval& out) const {
    const Position at = firstEndingAfterPosition(address);
    if (at.chunk == m_chunks.size())
        return false;
    const Interval interval = m_chunks[at.chunk]->at(at.index);
    if (interval.start > address)
        return false;
    out = interval;
    return true;
}

bool TopMap::firstEndingAfter(u64 address, Interval& out) const {
    const Position at = firstEndingAfterPosition(address);
    if (at.chunk == m_chunks.size())
        return false;
    out = m_chunks[at.chunk]->at(at.index);
    return true;
}

bool TopMap::holds(size_t chunk, u64 address) const {
    return chunk < m_firstStarts.size() && m_firstStarts[chunk] <= address &&
           (chunk + 1 == m_firstStarts.size() || address < m_firstStarts[chunk + 1]);
}

void TopMap::remember(size_t chunk) {
    const u32 c = static_cast<u32>(chunk);
    if (m_recent[m_nextRecent] == c || m_recent[(m_nextRecent + kRecent - 1) % kRecent] == c)
        return;
    m_recent[m_nextRecent] = c;
    m_nextRecent = (m_nextRecent + 1) % kRecent;
}

void TopMap::insertChunk(size_t at, const Interval& interval) {
    Chunk* const chunk = newChunk();
    chunk->put(chunk->size++, interval);
    m_chunks.insert(m_chunks.begin() + static_cast<std::ptrdiff_t>(at), chunk);
    m_firstStarts.insert(m_firstStarts.begin() + static_cast<std::ptrdiff_t>(at), interval.start);
}

size_t TopMap::splitPoint(const Chunk& chunk, size_t inserted) {
    // Where the new interval meets a gap (the end of one code heap before the
    // next, say), the split goes through the gap, so that the side that keeps
    // growing there gets the room. Each side keeps a quarter or more.
    const size_t least = kChunk / 4;
    if (inserted >= least && inserted + 1 + least <= chunk.size) {
        const u64 below = chunk.starts[inserted] - chunk.ends[inserted - 1];
        const u64 above = chunk.starts[inserted + 1] - chunk.ends[inserted];
        const u64 wide = std::max<u64>(4096, 4 * std::min(below, above));
        if (below >= wide)
            return inserted;
        if (above >= wide)
            return inserted + 1;
    }
    return kChunk / 2;
}

void TopMap::insertAt(Position at, const Interval& interval) {
    ++m_size;
    if (at.index == 0) {
        // Between two chunks: at the end of the lower one or the front of the
        // upper one, whichever holds the nearer neighbour. A code heap filling
        // upwards appends to one chunk and moves nothing; when that chunk is
        // full, the new interval starts a chunk of its own, so that the full
        // one stays full rather than splitting in two half-empty ones.
        const size_t chunks = m_chunks.size();
        bool lower = at.chunk > 0;
        if (lower && at.chunk < chunks) {
            const Chunk& below = *m_chunks[at.chunk - 1];
            lower = interval.start - below.ends[below.size - 1] <= m_chunks[at.chunk]->starts[0] - interval.end;
        }
        const size_t near = lower ? at.chunk - 1 : at.chunk;
        if (near == chunks || m_chunks[near]->size >= kChunk) {
            insertChunk(at.chunk, interval);
            remember(at.chunk);
            return;
        }
        at = Position{near, lower ? m_chunks[near]->size : 0};
    }
    Chunk& chunk = *m_chunks[at.chunk];
    chunk.shiftUp(at.index);
    chunk.put(at.index, interval);
    ++chunk.size;
    if (at.index == 0)
        m_firstStarts[at.chunk] = interval.start;
    if (chunk.size > kChunk) {
        Chunk* const upper = newChunk();
        const size_t kept = splitPoint(chunk, at.index);
        chunk.moveTail(kept, *upper);
        m_chunks.insert(m_chunks.begin() + static_cast<std::ptrdiff_t>(at.chunk + 1), upper);
        m_firstStarts.insert(m_firstStarts.begin() + static_cast<std::ptrdiff_t>(at.chunk + 1), upper->starts[0]);
        if (at.index >= kept)
            ++at.chunk;
    }
    remember(at.chunk);
}

void TopMap::eraseAt(Position at) {
    --m_size;
    Chunk& chunk = *m_chunks[at.chunk];
    chunk.shiftDown(at.index + 1);
    --chunk.size;
    if (chunk.size == 0) {
        freeChunk(&chunk);
        m_chunks.erase(m_chunks.begin() + static_cast<std::ptrdiff_t>(at.chunk));
        m_firstStarts.erase(m_firstStarts.begin() + static_cast<std::ptrdiff_t>(at.chunk));
    } else if (at.index == 0) {
        m_firstStarts[at.chunk] = chunk.starts[0];
    }
}

void TopMap::assign(u64 start, u64 end, u32 slot) {
    Position at = firstEndingAfterPosition(start);
    if (at.chunk < m_chunks.size()) {
        Chunk& chunk = *m_chunks[at.chunk];
        if (chunk.starts[at.index] < start) {
            // It keeps its head, and its tail when it reaches past end.
            const Interval old = chunk.at(at.index);
            chunk.ends[at.index] = start;
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
        Chunk& chunk = *m_chunks[at.chunk];
        if (chunk.starts[at.index] >= end)
            break;
        if (chunk.ends[at.index] > end) {
            chunk.starts[at.index] = end;
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
