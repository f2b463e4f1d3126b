#ifndef QUARVEL_INDEX_FROZEN_ADDRESS_INDEX_H
#define QUARVEL_INDEX_FROZEN_ADDRESS_INDEX_H

#include "index/address_history.h"
#include "index/address_lookup.h"
#include "support/bulk_memory.h"

#include <quarvel/types.h>

#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The query side of one address space, built once its regions are all read:
// flat arrays searched without allocating and without touching the model
// objects until the answer is known.
//
// The addresses are cut at every region's start and end into pieces, each
// held by the same regions over its whole length. A piece keeps the region
// loaded last over it inline (most samples end there), and the older ones in
// load-time order. A region that spans many pieces is stored once per node
// of a segment tree over the pieces rather than once per piece, so that
// overlapping loads cost O(n log n) entries, never O(n^2): a lookup then
// also takes the best entry of the piece's ancestors.
class FrozenAddressIndex {
public:
    typedef AddressHistory::Slots Slots;

    void build(const Slots& slots);
    void clear();

    // As AddressHistory::find / findLoadedAfter, with rangeStart/rangeEnd
    // naming the piece; slots are the ones the index was built from.
    AddressLookup find(u64 address, u64 timestamp, const Slots& slots) const;
    AddressLookup findLoadedAfter(u64 start, u64 end, u64 timestamp, const Slots& slots) const;
    // As find, answering only what a sample needs (outcome, jit rva bias,
    // module, slot) from the index's own arrays: the region and the method
    // stay untouched.
    AddressLookup resolve(u64 address, u64 timestamp) const;
    size_t pieceCount() const { return m_pieces.size(); }
    size_t entryCount() const;

private:
    // What a sample needs of a region, copied out of the model so that a
    // lookup reads only these arrays; the slot leads to the region and the
    // method when a caller wants them.
    struct Entry { // 32 bytes
        u64 loadTime = 0;
        u64 unloadTime = 0;
        u64 jitRvaBias = 0; // start jit rva - start address
        u32 slot = kNoSlot;
        u32 module = 0; // in m_modules
    };
    struct Piece { // 48 bytes; its start is m_starts[i]
        u64 end = 0;
        Entry top;          // the region loaded last over the piece (none: only ancestors hold it)
        u32 olderAt = 0;    // the piece's older regions in m_entries, by load time
        u32 olderCount = 0; // and kInherits: tree nodes above the piece hold regions too
    };
    static const u32 kInherits = 0x80000000u;
    static constexpr u32 kNoSlot = 0xFFFFFFFFu;

    // The entry that answers for (address, timestamp), with the outcome and
    // the piece's bounds in result; null when none does.
    const Entry* findEntry(u64 address, u64 timestamp, AddressLookup& result) const;
    void fill(const Entry& entry, const Slots& slots, AddressLookup& result) const;

    // The first piece that starts above address, or pieceCount().
    size_t firstStartingAbove(u64 address) const;
    size_t pieceOf(u64 address) const; // pieceCount() when none holds it
    const Entry* latestAtOrBefore(size_t piece, u64 timestamp) const;
    const Entry* firstAfter(size_t piece, u64 timestamp) const;

    // Piece starts, ascending; every kBlock-th of them again, small enough
    // to stay in cache, so that a search misses the cache only in one block.
    static const size_t kBlock = 32;
    BulkVector<u64> m_starts;
    std::vector<u64> m_blockStarts;
    BulkVector<Piece> m_pieces;
    BulkVector<Entry> m_entries; // older regions of pieces, then the lists of inner tree nodes
    std::vector<u32> m_nodeFirst; // inner node i (1 <= i < pieces) lists m_entries[m_nodeFirst[i], m_nodeFirst[i + 1])
    // The distinct modules of the regions' methods (methods share them; few per process).
    std::vector<IModule*> m_modules;
};

QUARVEL_NAMESPACE_END

#endif
