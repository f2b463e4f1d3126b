#ifndef QUARVEL_INDEX_TOP_MAP_H
#define QUARVEL_INDEX_TOP_MAP_H

#include "support/object_pool.h"

#include <quarvel/types.h>

#include <cstddef>
#include <memory>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Disjoint address intervals, each naming the region (a slot number) that was
// loaded last over it: the latest moment of an address space's history. A new
// load replaces what it covers, so the map stays as large as the number of
// intervals currently visible, however much history lies below them.
//
// Stored as sorted chunks of at most kChunk intervals (20 bytes each, no node
// per interval), found through the first start of each chunk. Loads that
// append (a code heap filling upwards) leave full chunks behind; an insertion
// in the middle of a full chunk splits it in halves, or through a wide gap
// beside the new interval.
//
// The directory of chunks has two levels: pages of at most pageChunks chunks,
// found through the first start of each page. A new chunk moves the entries
// after it in its page only. With one flat directory a trace that fills
// several code heaps upwards moved the entries of every heap above the one
// that grew, O(n^2 / kChunk) in all: 83M entries for 1M loads, a hundred
// times that for 10M.
class TopMap {
public:
    // Chunks a directory page holds before it splits in halves.
    static constexpr size_t kPageChunks = 256;

    // pageChunks (2 to kPageChunks) is for tests that want pages to split often.
    explicit TopMap(size_t pageChunks = kPageChunks);
    ~TopMap();
    TopMap(const TopMap&) = delete;
    TopMap& operator=(const TopMap&) = delete;

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
        forEachOverlappingWhile(start, end, [&visit](const Interval& interval) {
            visit(interval);
            return true;
        });
    }
    // The same, stopping after the first interval for which visit returns false.
    template <typename Visit>
    void forEachOverlappingWhile(u64 start, u64 end, Visit visit) const {
        Position at = firstEndingAfterPosition(start);
        while (at.page() < m_pages.size()) {
            const Chunk& chunk = chunkAt(at);
            const Interval interval = chunk.at(at.index);
            if (interval.start >= end || !visit(interval))
                return;
            if (++at.index == chunk.size)
                nextChunk(at);
        }
    }

    // [start, end) names slot from now on; what it covered is cut away.
    void assign(u64 start, u64 end, u32 slot);

    // Intervals a chunk holds before a middle insertion splits it.
    static const size_t kChunk = 100;

    size_t size() const { return m_size; }
    size_t chunkCount() const { return m_chunkCount; }
    size_t pageCount() const { return m_pages.size(); }
    // Directory entries (chunks and pages) moved so far to make or close
    // room: linear in the chunks made, whatever the order of the loads.
    u64 directoryMoves() const { return m_directoryMoves; }
    bool empty() const { return m_size == 0; }
    void clear();

private:
    // A chunk has room for kChunk + 1 intervals, the most it holds before it
    // splits, so it never moves: 2032 bytes, a block of the map's own pool.
    // The starts, which a search bisects, lie together (with the count) in
    // 13 cache lines that a search of a chunk not used lately fetches at
    // once; as whole intervals they spread over 38, a miss at every step.
    // The map lives only while its process is read, so clear() gives the
    // pool's chunks back at once (its huge pages to the system) rather than
    // leaving them on a free list beside the index built next.
    struct Chunk {
        u32 size = 0;
        u64 starts[kChunk + 1];
        u64 ends[kChunk + 1];
        u32 slots[kChunk + 1];

        Interval at(size_t i) const { return Interval{starts[i], ends[i], slots[i]}; }
        void put(size_t i, const Interval& interval) {
            starts[i] = interval.start;
            ends[i] = interval.end;
            slots[i] = interval.slot;
        }
        // Moves intervals [from, size) by one, up to make room or down over from - 1.
        void shiftUp(size_t from);
        void shiftDown(size_t from);
        // Moves intervals [from, size) to the front of other, which is empty.
        void moveTail(size_t from, Chunk& other);
        void fetch() const;
    };
    Chunk* newChunk();
    void freeChunk(Chunk* chunk) noexcept;

    // A directory page: its chunks, in address order, and the first start of
    // each, in arrays of their own so that a page costs one pointer to reach.
    // Room for one more than the most it holds before it splits.
    struct Page {
        u32 count = 0;
        u64 firstStarts[kPageChunks + 1];
        Chunk* chunks[kPageChunks + 1];

        size_t size() const { return count; }
        void insert(size_t at, Chunk* chunk);
        void erase(size_t at);
        // Moves chunks [from, count) to the front of other, which is empty.
        void moveTail(size_t from, Page& other);
    };
    // Two words, so that it travels in registers: a position passed through
    // the stack came back through loads wider than the stores that wrote it,
    // which stalls.
    struct Position {
        u64 where;    // the page (m_pages.size(): past the last interval) in the high half, the chunk in it in the low
        size_t index; // within the chunk
        Position(size_t page, size_t chunk, size_t at) : where(u64(page) << 32 | chunk), index(at) {}
        size_t page() const { return static_cast<size_t>(where >> 32); }
        size_t chunk() const { return static_cast<u32>(where); }
    };

    Chunk& chunkAt(const Position& at) const { return *m_pages[at.page()]->chunks[at.chunk()]; }
    // The first interval of the next chunk; past the end after the last.
    void nextChunk(Position& at) const;
    // The chunk before at (at may be past the end); false before the first.
    bool prevChunk(const Position& at, Position& out) const;
    // Past a page's last chunk to the next page's first.
    void settle(Position& at) const;
    // The first start of the chunk after (page, chunk); false after the last.
    bool nextFirstStart(size_t page, size_t chunk, u64& start) const;
    void setFirstStart(size_t page, size_t chunk, u64 start);

    Position firstEndingAfterPosition(u64 address) const;
    void insertAt(Position at, const Interval& interval);
    // True when the chunk went with its last interval.
    bool eraseAt(Position at);
    // How many intervals an overfull chunk keeps when it splits; the new one is at `inserted`.
    static size_t splitPoint(const Chunk& chunk, size_t inserted);
    // Puts chunk into the directory before position (page, at) (at may be
    // the page's size); returns where it went, which a page split may move.
    Position insertChunk(size_t page, size_t at, Chunk* chunk);
    // Takes the empty chunk at (page, at) out of the directory.
    void eraseChunk(size_t page, size_t at);
    void remember(const Position& at);

    std::unique_ptr<ObjectPool> m_pool; // made with the first chunk
    size_t m_pageChunks;
    std::vector<std::unique_ptr<Page>> m_pages; // non-empty, in address order
    std::vector<u64> m_pageFirstStarts;         // start of each page's first interval
    size_t m_chunkCount = 0;
    size_t m_size = 0;
    u64 m_directoryMoves = 0;
    // The chunks of the last few insertions: a trace fills a few code heaps
    // upwards, so the next load mostly lands where one of them did, and a
    // search checks these before bisecting the directory. Each keeps the
    // addresses its chunk answers for, kept up when a first start moves, and
    // its place, valid until a chunk is made or emptied (m_version).
    static const size_t kRecent = 4;
    struct Recent {
        u64 version = ~u64(0); // never the directory's
        u64 low = 0;
        u64 high = 0; // the next chunk's first start; ~0: none
        Chunk* chunk = nullptr;
        u64 where = 0; // as in Position
    };
    Recent m_recent[kRecent];
    size_t m_nextRecent = 0;
    u64 m_version = 0;
};

QUARVEL_NAMESPACE_END

#endif
