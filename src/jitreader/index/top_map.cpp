#include "index/top_map.h"

#include "support/cache_lines.h"

#include <algorithm>

QUARVEL_NAMESPACE_BEGIN

TopMap::TopMap(size_t pageChunks) : m_pageChunks(std::min(kPageChunks, std::max<size_t>(2, pageChunks))) {}

TopMap::~TopMap() {
    clear();
}

void TopMap::clear() {
#if !QUARVEL_POOLED_OBJECTS
    for (const std::unique_ptr<Page>& page : m_pages)
        for (size_t c = 0; c < page->size(); ++c)
            freeChunk(page->chunks[c]);
#endif
    std::vector<std::unique_ptr<Page>>().swap(m_pages);
    std::vector<u64>().swap(m_pageFirstStarts);
    m_pool.reset();
    m_chunkCount = 0;
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

void TopMap::Page::insert(size_t at, Chunk* chunk) {
    std::copy_backward(firstStarts + at, firstStarts + count, firstStarts + count + 1);
    std::copy_backward(chunks + at, chunks + count, chunks + count + 1);
    firstStarts[at] = chunk->starts[0];
    chunks[at] = chunk;
    ++count;
}

void TopMap::Page::erase(size_t at) {
    std::copy(firstStarts + at + 1, firstStarts + count, firstStarts + at);
    std::copy(chunks + at + 1, chunks + count, chunks + at);
    --count;
}

void TopMap::Page::moveTail(size_t from, Page& other) {
    std::copy(firstStarts + from, firstStarts + count, other.firstStarts);
    std::copy(chunks + from, chunks + count, other.chunks);
    other.count = static_cast<u32>(count - from);
    count = static_cast<u32>(from);
}

void TopMap::nextChunk(Position& at) const {
    const size_t page = at.page();
    at = at.chunk() + 1 == m_pages[page]->size() ? Position(page + 1, 0, 0) : Position(page, at.chunk() + 1, 0);
}

bool TopMap::prevChunk(const Position& at, Position& out) const {
    if (at.page() < m_pages.size() && at.chunk() > 0) {
        out = Position(at.page(), at.chunk() - 1, 0);
        return true;
    }
    if (at.page() == 0)
        return false;
    out = Position(at.page() - 1, m_pages[at.page() - 1]->size() - 1, 0);
    return true;
}

void TopMap::settle(Position& at) const {
    while (at.page() < m_pages.size() && at.chunk() == m_pages[at.page()]->size())
        at = Position(at.page() + 1, 0, at.index);
}

bool TopMap::nextFirstStart(size_t page, size_t chunk, u64& start) const {
    if (chunk + 1 < m_pages[page]->size()) {
        start = m_pages[page]->firstStarts[chunk + 1];
        return true;
    }
    if (page + 1 < m_pages.size()) {
        start = m_pageFirstStarts[page + 1];
        return true;
    }
    return false;
}

void TopMap::setFirstStart(size_t page, size_t chunk, u64 start) {
    u64& first = m_pages[page]->firstStarts[chunk];
    // First starts are distinct: the hints that name this one are this
    // chunk's (its low bound) and the one's before it (its high bound).
    for (Recent& hint : m_recent) {
        if (hint.low == first)
            hint.low = start;
        if (hint.high == first)
            hint.high = start;
    }
    first = start;
    if (chunk == 0)
        m_pageFirstStarts[page] = start;
}

TopMap::Position TopMap::firstEndingAfterPosition(u64 address) const {
    if (m_pages.empty())
        return Position(0, 0, 0);
    Position at(m_pages.size(), 0, 0);
    const Chunk* found = nullptr;
    for (const Recent& hint : m_recent)
        if (hint.version == m_version && hint.low <= address && (address < hint.high || hint.high == ~u64(0))) {
            at.where = hint.where;
            found = hint.chunk;
            break;
        }
    if (!found) {
        const size_t p = static_cast<size_t>(
            std::upper_bound(m_pageFirstStarts.begin(), m_pageFirstStarts.end(), address) - m_pageFirstStarts.begin());
        const size_t pageAt = p ? p - 1 : 0;
        const Page& page = *m_pages[pageAt];
        const size_t c = static_cast<size_t>(
            std::upper_bound(page.firstStarts, page.firstStarts + page.size(), address) - page.firstStarts);
        at = Position(pageAt, c ? c - 1 : 0, 0);
        found = &chunkAt(at);
        found->fetch(); // not one used lately: most likely cold
    }
    const Chunk& chunk = *found;
    // A load at a code heap's growing end lands at or past the chunk's last
    // interval, the line the previous append wrote: no search.
    size_t i = address >= chunk.starts[chunk.size - 1]
                   ? chunk.size
                   : static_cast<size_t>(std::upper_bound(chunk.starts, chunk.starts + chunk.size - 1, address) -
                                         chunk.starts);
    if (i > 0 && chunk.ends[i - 1] > address)
        --i;
    if (i == chunk.size)
        nextChunk(at); // the next chunk starts above address
    else
        at.index = i;
    return at;
}

bool TopMap::find(u64 address, Interval& out) const {
    const Position at = firstEndingAfterPosition(address);
    if (at.page() == m_pages.size())
        return false;
    const Interval interval = chunkAt(at).at(at.index);
    if (interval.start > address)
        return false;
    out = interval;
    return true;
}

bool TopMap::firstEndingAfter(u64 address, Interval& out) const {
    const Position at = firstEndingAfterPosition(address);
    if (at.page() == m_pages.size())
        return false;
    out = chunkAt(at).at(at.index);
    return true;
}

void TopMap::remember(const Position& at) {
    for (const Recent& hint : m_recent)
        if (hint.where == at.where && hint.version == m_version)
            return; // loads taking turns between a few heaps
    Recent& r = m_recent[m_nextRecent];
    r.version = m_version;
    r.low = m_pages[at.page()]->firstStarts[at.chunk()];
    if (!nextFirstStart(at.page(), at.chunk(), r.high))
        r.high = ~u64(0);
    r.chunk = m_pages[at.page()]->chunks[at.chunk()];
    r.where = at.where;
    m_nextRecent = (m_nextRecent + 1) % kRecent;
}

TopMap::Position TopMap::insertChunk(size_t page, size_t at, Chunk* chunk) {
    ++m_chunkCount;
    ++m_version;
    if (m_pages.empty()) {
        std::unique_ptr<Page> first(new Page); // uninitialised arrays: no need to clear 4 KiB
        m_pageFirstStarts.reserve(1);
        m_pages.push_back(std::move(first));
        m_pageFirstStarts.push_back(chunk->starts[0]);
        m_pages[0]->insert(0, chunk);
        return Position(0, 0, 0);
    }
    if (page == m_pages.size()) { // past the last chunk
        page = m_pages.size() - 1;
        at = m_pages[page]->size();
    }
    Page& p = *m_pages[page];
    m_directoryMoves += p.size() - at;
    p.insert(at, chunk);
    if (at == 0)
        m_pageFirstStarts[page] = chunk->starts[0];
    if (p.size() <= m_pageChunks)
        return Position(page, at, 0);
    // A full page splits in halves: the pages after it move, one entry each.
    const size_t kept = p.size() / 2;
    std::unique_ptr<Page> upper(new Page);
    m_pages.reserve(m_pages.size() + 1); // nothing throws once chunks move
    m_pageFirstStarts.reserve(m_pages.size() + 1);
    p.moveTail(kept, *upper);
    m_directoryMoves += upper->size() + (m_pages.size() - page - 1);
    m_pageFirstStarts.insert(m_pageFirstStarts.begin() + static_cast<std::ptrdiff_t>(page + 1), upper->firstStarts[0]);
    m_pages.insert(m_pages.begin() + static_cast<std::ptrdiff_t>(page + 1), std::move(upper));
    return at < kept ? Position(page, at, 0) : Position(page + 1, at - kept, 0);
}

void TopMap::eraseChunk(size_t page, size_t at) {
    ++m_version;
    Page& p = *m_pages[page];
    freeChunk(p.chunks[at]);
    --m_chunkCount;
    m_directoryMoves += p.size() - at - 1;
    p.erase(at);
    if (p.size() == 0) {
        m_directoryMoves += m_pages.size() - page - 1;
        m_pages.erase(m_pages.begin() + static_cast<std::ptrdiff_t>(page));
        m_pageFirstStarts.erase(m_pageFirstStarts.begin() + static_cast<std::ptrdiff_t>(page));
    } else if (at == 0) {
        m_pageFirstStarts[page] = p.firstStarts[0];
    }
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
        const bool pastEnd = at.page() == m_pages.size();
        Position below(0, 0, 0);
        bool lower = prevChunk(at, below);
        if (lower && !pastEnd) {
            const Chunk& under = chunkAt(below);
            lower = interval.start - under.ends[under.size - 1] <= chunkAt(at).starts[0] - interval.end;
        }
        if ((!lower && pastEnd) || chunkAt(lower ? below : at).size >= kChunk) {
            Chunk* const chunk = newChunk();
            chunk->put(chunk->size++, interval);
            remember(insertChunk(at.page(), at.chunk(), chunk));
            return;
        }
        if (lower)
            at = Position(below.page(), below.chunk(), chunkAt(below).size);
    }
    Chunk& chunk = chunkAt(at);
    chunk.shiftUp(at.index);
    chunk.put(at.index, interval);
    ++chunk.size;
    if (at.index == 0)
        setFirstStart(at.page(), at.chunk(), interval.start);
    if (chunk.size > kChunk) {
        Chunk* const upper = newChunk();
        const size_t kept = splitPoint(chunk, at.index);
        chunk.moveTail(kept, *upper);
        const Position placed = insertChunk(at.page(), at.chunk() + 1, upper);
        if (at.index >= kept)
            at = placed;
        else
            prevChunk(placed, at); // a page split may have moved it
    }
    remember(at);
}

bool TopMap::eraseAt(Position at) {
    --m_size;
    Chunk& chunk = chunkAt(at);
    chunk.shiftDown(at.index + 1);
    --chunk.size;
    if (chunk.size == 0) {
        eraseChunk(at.page(), at.chunk());
        return true;
    }
    if (at.index == 0)
        setFirstStart(at.page(), at.chunk(), chunk.starts[0]);
    return false;
}

void TopMap::assign(u64 start, u64 end, u32 slot) {
    Position at = firstEndingAfterPosition(start);
    if (at.page() < m_pages.size()) {
        Chunk& chunk = chunkAt(at);
        if (chunk.starts[at.index] < start) {
            // It keeps its head, and its tail when it reaches past end.
            const Interval old = chunk.at(at.index);
            chunk.ends[at.index] = start;
            if (old.end > end) {
                insertAt(Position(at.page(), at.chunk(), at.index + 1), Interval{start, end, slot});
                insertAt(firstEndingAfterPosition(end), Interval{end, old.end, old.slot});
                return;
            }
            if (++at.index == chunk.size)
                nextChunk(at);
        }
    }
    // What starts inside [start, end) goes, but a tail reaching past end.
    while (at.page() < m_pages.size()) {
        Chunk& chunk = chunkAt(at);
        if (chunk.starts[at.index] >= end)
            break;
        if (chunk.ends[at.index] > end) {
            chunk.starts[at.index] = end;
            if (at.index == 0)
                setFirstStart(at.page(), at.chunk(), end);
            break;
        }
        if (eraseAt(at))
            settle(at); // the next chunk took its place
        else if (at.index == chunk.size)
            nextChunk(at);
    }
    insertAt(at, Interval{start, end, slot});
}

QUARVEL_NAMESPACE_END
