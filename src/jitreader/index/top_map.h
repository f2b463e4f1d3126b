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
// per interval), found through the first start of each chunk. The directory
// holds pointers: a split moves the entries after it as bytes, a few
// nanoseconds per thousand chunks. Loads that append (a code heap filling
// upwards) leave full chunks behind; an insertion in the middle of a full
// chunk splits it in halves, or through a wide gap beside the new interval.
class TopMap {
public:
    TopMap() = default;
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
        while (at.chunk < m_chunks.size()) {
            const Interval interval = m_chunks[at.chunk]->at(at.index);
            if (interval.start >= end || !visit(interval))
                return;
            if (++at.index == m_chunks[at.chunk]->size) {
                ++at.chunk;
                at.index = 0;
            }
        }
    }

    // [start, end) names slot from now on; what it covered is cut away.
    void assign(u64 start, u64 end, u32 slot);

    // Intervals a chunk holds before a middle insertion splits it. Every new
    // chunk shifts the directory's entries after it: at 40 a 1M-load read
    // moved 469M entries, at 100 83M.
    static const size_t kChunk = 100;

    size_t size() const { return m_size; }
    size_t chunkCount() const { return m_chunks.size(); }
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
    struct Position {
        size_t chunk;
        size_t index;
    };

    Position firstEndingAfterPosition(u64 address) const;
    void insertAt(Position at, const Interval& interval);
    void eraseAt(Position at);
    // How many intervals an overfull chunk keeps when it splits; the new one is at `inserted`.
    static size_t splitPoint(const Chunk& chunk, size_t inserted);
    // A new chunk at `at` of the directory, holding interval alone.
    void insertChunk(size_t at, const Interval& interval);
    // Whether chunk is the one a search for address lands on.
    bool holds(size_t chunk, u64 address) const;
    void remember(size_t chunk);

    std::unique_ptr<ObjectPool> m_pool; // made with the first chunk
    std::vector<Chunk*> m_chunks;       // non-empty, in address order
    std::vector<u64> m_firstStarts;     // start of each chunk's first interval
    size_t m_size = 0;
    // The chunks of the last few insertions: a trace fills a few code heaps
    // upwards, so the next load mostly lands where one of them did, and a
    // search checks these before bisecting the directory. Checked, never
    // trusted: a chunk index that moved simply fails the check.
    static const size_t kRecent = 4;
    u32 m_recent[kRecent] = {};
    size_t m_nextRecent = 0;
};

QUARVEL_NAMESPACE_END

#endif
