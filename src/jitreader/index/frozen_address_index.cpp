#include "index/frozen_address_index.h"

#include "support/cache_lines.h"

#include <algorithm>
#include <cstdint>
#include <unordered_map>

#include <boost/sort/pdqsort/pdqsort.hpp>

QUARVEL_NAMESPACE_BEGIN

namespace {

// A region spanning at most this many pieces is copied into each of them, so
// that lookups there stay within the piece; longer ones go to tree nodes.
const size_t kCopiedSpan = 4;

struct Item {
    u32 node; // piece, or inner tree node
    u32 slot;
    u64 loadTime;
};

// One bound of every slot in ascending order, ties in slot order, each with
// its slot index: the sweep below reads the bounds from here in order rather
// than chasing the slots (a cache miss each, in a trace's random reuse).
// When the bounds' span leaves room, each bound is packed with its index
// into one u64 (it does for the addresses of a code heap or a few near each
// other), so the sort moves 8 bytes rather than 16 and the array is half the
// size. The bounds are ascending runs (a code heap fills upwards) with reused
// blocks cut in, which pattern-defeating quicksort takes in under half
// std::sort's time.
class BoundOrder {
public:
    // visitOrder, when given, lists the slots in the order to read them: in
    // another bound's order the keys come out nearly sorted (most regions
    // neither nest nor overlap one alive beside them), which the sort takes
    // in a fraction of the time random order costs.
    BoundOrder(const AddressHistory::Slots& slots, u64 AddressHistory::Slot::*bound,
               const BoundOrder* visitOrder = nullptr) {
        const size_t count = slots.size();
        u64 high = 0;
        for (const AddressHistory::Slot& slot : slots) {
            m_low = std::min(m_low, slot.*bound);
            high = std::max(high, slot.*bound);
        }
        while (m_indexBits < 32 && (u64(1) << m_indexBits) < count)
            ++m_indexBits;
        m_mask = (u64(1) << m_indexBits) - 1;
        if (((high - m_low) >> (64 - m_indexBits)) == 0) {
            m_packed.resize(count);
            if (visitOrder)
                for (u32 i = 0; i < count; ++i) {
                    if (i + kAhead < count) // in another order the slots lie anywhere
                        __builtin_prefetch(&(slots[visitOrder->slot(i + kAhead)].*bound));
                    const u32 s = visitOrder->slot(i);
                    m_packed[i] = (slots[s].*bound - m_low) << m_indexBits | s;
                }
            else
                for (u32 i = 0; i < count; ++i)
                    m_packed[i] = (slots[i].*bound - m_low) << m_indexBits | i;
            sort(m_packed);
            return;
        }
        m_keyed.resize(count);
        for (u32 i = 0; i < count; ++i) {
            const u32 s = visitOrder ? visitOrder->slot(i) : i;
            m_keyed[i] = std::make_pair(slots[s].*bound, s);
        }
        sort(m_keyed);
    }

    u64 value(size_t i) const { return m_keyed.empty() ? m_low + (m_packed[i] >> m_indexBits) : m_keyed[i].first; }
    u32 slot(size_t i) const { return m_keyed.empty() ? static_cast<u32>(m_packed[i] & m_mask) : m_keyed[i].second; }

private:
    static const u32 kAhead = 16;

    template <class Key>
    static void sort(LargeVector<Key>& keys) {
        if (!std::is_sorted(keys.begin(), keys.end()))
            boost::sort::pdqsort(keys.begin(), keys.end());
    }

    u64 m_low = ~u64(0);
    unsigned m_indexBits = 1;
    u64 m_mask = 1;
    LargeVector<u64> m_packed;
    LargeVector<std::pair<u64, u32>> m_keyed;
};

// The stretches between consecutive region bounds that some region covers,
// found by a sweep over the starts and the ends: their bounds go to starts
// and ends, each slot's first and past-the-last piece to firstPiece and
// pastPiece. Regions mostly lie side by side, so there are about as many
// pieces as regions: room for that many is made first, and the sweep runs once.
void cutPieces(const AddressHistory::Slots& slots, LargeVector<u32>& firstPiece, LargeVector<u32>& pastPiece,
               BulkVector<u64>& starts, LargeVector<u64>& ends) {
    const size_t count = slots.size();
    const BoundOrder byStart(slots, &AddressHistory::Slot::start);
    const BoundOrder byEnd(slots, &AddressHistory::Slot::end, &byStart);
    starts.reserve(count);
    ends.reserve(count);
    u32 pieces = 0;
    size_t s = 0;
    size_t e = 0;
    size_t cover = 0;
    // The next start and end, read once each; past the last, above any bound.
    const u64 kPast = ~u64(0);
    u64 nextStart = count ? byStart.value(0) : kPast;
    u64 nextEnd = count ? byEnd.value(0) : kPast;
    while (s < count) {
        const u64 at = std::min(nextStart, nextEnd);
        for (; e < count && nextEnd == at; --cover) {
            pastPiece[byEnd.slot(e)] = pieces;
            nextEnd = ++e < count ? byEnd.value(e) : kPast;
        }
        for (; s < count && nextStart == at; ++cover) {
            firstPiece[byStart.slot(s)] = pieces;
            nextStart = ++s < count ? byStart.value(s) : kPast;
        }
        if (cover == 0)
            continue;
        starts.push_back(at);
        ends.push_back(std::min(nextStart, nextEnd));
        ++pieces;
    }
    // After the last start only ends are left: each closes a piece.
    for (; e < count; ++e) {
        const u64 at = byEnd.value(e);
        pastPiece[byEnd.slot(e)] = pieces;
        --cover;
        if (cover == 0 || (e + 1 < count && byEnd.value(e + 1) == at))
            continue;
        starts.push_back(at);
        ends.push_back(byEnd.value(e + 1));
        ++pieces;
    }
}

bool byNodeThenTime(const Item& a, const Item& b) {
    return a.node < b.node || (a.node == b.node && a.loadTime < b.loadTime);
}

} // namespace

void FrozenAddressIndex::clear() {
    BulkVector<u64>().swap(m_starts);
    std::vector<u64>().swap(m_blockStarts);
    BulkVector<Piece>().swap(m_pieces);
    BulkVector<Entry>().swap(m_entries);
    std::vector<u32>().swap(m_nodeFirst);
    std::vector<IModule*>().swap(m_modules);
}

size_t FrozenAddressIndex::entryCount() const {
    size_t tops = 0;
    for (const Piece& p : m_pieces)
        tops += p.top.slot != kNoSlot;
    return tops + m_entries.size();
}

void FrozenAddressIndex::build(const Slots& slots) {
    clear();
    const size_t count = slots.size();
    if (count == 0)
        return;

    // Pieces: the stretches between consecutive region bounds that some
    // region covers. Their ends wait in an array of their own until the
    // sweep's sorted bounds are given back: the pieces take six times the
    // room, and the sweep is the build's peak.
    LargeVector<u32> firstPiece(count); // on huge pages when large: a fresh 4 KiB page per 1024 regions otherwise
    LargeVector<u32> pastPiece(count);
    BulkVector<u64> starts; // the query arrays on huge pages: a search misses the TLB less
    {
        LargeVector<u64> ends;
        cutPieces(slots, firstPiece, pastPiece, starts, ends);
        m_pieces.reserve(ends.size());
        m_pieces.resize(ends.size());
        for (size_t p = 0; p < ends.size(); ++p)
            m_pieces[p].end = ends[p];
    }
    const size_t n = starts.size();

    // Each region to its pieces (when it spans few), or to the tree nodes
    // that cover its run of pieces.
    LargeVector<u32> leafCount(n + 1, 0);
    std::vector<Item> nodeItems;
    for (u32 slot = 0; slot < count; ++slot) {
        const size_t first = firstPiece[slot];
        const size_t last = pastPiece[slot];
        if (last - first <= kCopiedSpan) {
            for (size_t p = first; p < last; ++p)
                ++leafCount[p];
            continue;
        }
        for (size_t l = first + n, r = last + n; l < r; l >>= 1, r >>= 1) {
            if (l & 1)
                nodeItems.push_back(Item{static_cast<u32>(l++), slot, slots[slot].loadTime});
            if (r & 1)
                nodeItems.push_back(Item{static_cast<u32>(--r), slot, slots[slot].loadTime});
        }
    }
    // Leaf lists, grouped by piece: leafCount becomes the end of each
    // piece's list, then, filled from the back, its start.
    u32 total = 0;
    for (size_t p = 0; p <= n; ++p) {
        total += leafCount[p];
        leafCount[p] = total;
    }
    LargeVector<u32> leafSlots(total);
    for (u32 slot = count; slot-- > 0;)
        if (pastPiece[slot] - firstPiece[slot] <= kCopiedSpan)
            for (size_t p = firstPiece[slot]; p < pastPiece[slot]; ++p)
                leafSlots[--leafCount[p]] = slot;
    LargeVector<u32>().swap(firstPiece);
    LargeVector<u32>().swap(pastPiece);

    // Module numbers per slot: consecutive methods mostly share one.
    LargeVector<u32> moduleOf(count);
    {
        std::unordered_map<IModule*, u32> numbers;
        IModule* last = nullptr;
        u32 lastNumber = 0;
        const u32 kAhead = 16; // the method, then its record, a little ahead
        for (u32 slot = 0; slot < count; ++slot) {
            if (slot + 2 * kAhead < count)
                __builtin_prefetch(slots[slot + 2 * kAhead].method);
            if (slot + kAhead < count)
                __builtin_prefetch(slots[slot + kAhead].method->info().get());
            IModule* module = slots[slot].method->module().get();
            if (module != last || m_modules.empty()) {
                auto inserted = numbers.emplace(module, static_cast<u32>(m_modules.size()));
                if (inserted.second)
                    m_modules.push_back(module);
                last = module;
                lastNumber = inserted.first->second;
            }
            moduleOf[slot] = lastNumber;
        }
    }
    auto entryOf = [&slots, &moduleOf](u32 slot) {
        const AddressHistory::Slot& s = slots[slot];
        Entry e;
        e.loadTime = s.loadTime;
        e.unloadTime = s.region->unloadTime();
        e.jitRvaBias = s.region->startJitRva() - s.start;
        e.slot = slot;
        e.module = moduleOf[slot];
        return e;
    };
    auto byLoadTime = [&slots](u32 a, u32 b) {
        return slots[a].loadTime < slots[b].loadTime;
    };

    // Leaf tree nodes are pieces: their regions join the pieces' lists.
    std::sort(nodeItems.begin(), nodeItems.end(), byNodeThenTime);
    auto leafEnd = std::partition_point(nodeItems.begin(), nodeItems.end(), [n](const Item& i) { return i.node < n; });
    m_entries.reserve(total - std::min<size_t>(total, n) + static_cast<size_t>(nodeItems.end() - nodeItems.begin()));
    auto item = leafEnd;
    std::vector<u32> list;
    // Pieces come in address order, their regions in no order in memory:
    // fetch the slots of a piece a little ahead, then (once they are in) the
    // regions they point to, which the entries read.
    const size_t kAhead = 16;
    for (size_t p = 0; p < n; ++p) {
        if (p + 4 * kAhead < n)
            for (u32 i = leafCount[p + 4 * kAhead]; i < leafCount[p + 4 * kAhead + 1]; ++i)
                __builtin_prefetch(&slots[leafSlots[i]]);
        if (p + kAhead < n)
            for (u32 i = leafCount[p + kAhead]; i < leafCount[p + kAhead + 1]; ++i) {
                const char* const region = reinterpret_cast<const char*>(slots[leafSlots[i]].region);
                __builtin_prefetch(region);
                __builtin_prefetch(region + sizeof(Region) - 1);
            }
        list.assign(leafSlots.begin() + leafCount[p], leafSlots.begin() + leafCount[p + 1]);
        for (; item != nodeItems.end() && item->node == p + n; ++item)
            list.push_back(item->slot);
        if (list.size() > 1)
            std::sort(list.begin(), list.end(), byLoadTime);
        Piece& piece = m_pieces[p];
        if (list.empty())
            continue;
        piece.olderAt = static_cast<u32>(m_entries.size());
        piece.olderCount = static_cast<u32>(list.size() - 1);
        for (size_t k = 0; k + 1 < list.size(); ++k)
            m_entries.push_back(entryOf(list[k]));
        piece.top = entryOf(list.back());
    }
    LargeVector<u32>().swap(leafSlots);
    m_starts.swap(starts);
    for (size_t p = 0; p < n; p += kBlock)
        m_blockStarts.push_back(m_starts[p]);

    // Inner tree nodes, in node order.
    if (leafEnd != nodeItems.begin()) {
        m_nodeFirst.assign(n + 1, 0);
        auto it = nodeItems.begin();
        for (size_t node = 0; node < n; ++node) {
            m_nodeFirst[node] = static_cast<u32>(m_entries.size());
            for (; it != leafEnd && it->node == node; ++it)
                m_entries.push_back(entryOf(it->slot));
        }
        m_nodeFirst[n] = static_cast<u32>(m_entries.size());
        // A piece inherits when any inner node above it holds a region.
        std::vector<bool> held(2 * n, false);
        for (size_t node = 2; node < 2 * n; ++node) {
            const size_t parent = node >> 1;
            held[node] = held[parent] || m_nodeFirst[parent] != m_nodeFirst[parent + 1];
        }
        for (size_t p = 0; p < n; ++p)
            if (held[n + p])
                m_pieces[p].olderCount |= kInherits;
    }
}

size_t FrozenAddressIndex::firstStartingAbove(u64 address) const {
    const size_t block = static_cast<size_t>(std::upper_bound(m_blockStarts.begin(), m_blockStarts.end(), address) -
                                             m_blockStarts.begin());
    if (block == 0)
        return 0;
    const u64* const starts = m_starts.data();
    const u64* const first = starts + (block - 1) * kBlock;
    const u64* const last = starts + std::min(block * kBlock, m_starts.size());
    // The block's lines all at once: bisected, they would come one after another.
    fetchLines(first, last);
    return static_cast<size_t>(std::upper_bound(first, last, address) - starts);
}

size_t FrozenAddressIndex::pieceOf(u64 address) const {
    const size_t above = firstStartingAbove(address);
    if (above == 0)
        return m_pieces.size();
    const size_t p = above - 1;
    return address < m_pieces[p].end ? p : m_pieces.size();
}

// The entry with the greatest load time not above timestamp, over the piece
// and the tree nodes above it.
const FrozenAddressIndex::Entry* FrozenAddressIndex::latestAtOrBefore(size_t p, u64 timestamp) const {
    const Piece& piece = m_pieces[p];
    const Entry* best = nullptr;
    if (piece.top.slot != kNoSlot && piece.top.loadTime <= timestamp) {
        best = &piece.top;
    } else if (piece.olderCount & ~kInherits) {
        const Entry* first = m_entries.data() + piece.olderAt;
        const Entry* last = first + (piece.olderCount & ~kInherits);
        const Entry* it =
            std::upper_bound(first, last, timestamp, [](u64 t, const Entry& e) { return t < e.loadTime; });
        if (it != first)
            best = it - 1;
    }
    if (!(piece.olderCount & kInherits))
        return best;
    const size_t n = m_pieces.size();
    for (size_t node = (p + n) >> 1; node >= 1; node >>= 1) {
        const Entry* first = m_entries.data() + m_nodeFirst[node];
        const Entry* last = m_entries.data() + m_nodeFirst[node + 1];
        const Entry* it =
            std::upper_bound(first, last, timestamp, [](u64 t, const Entry& e) { return t < e.loadTime; });
        if (it != first && (!best || (it - 1)->loadTime > best->loadTime))
            best = it - 1;
    }
    return best;
}

// The entry with the least load time above timestamp, over the piece and
// the tree nodes above it.
const FrozenAddressIndex::Entry* FrozenAddressIndex::firstAfter(size_t p, u64 timestamp) const {
    const Piece& piece = m_pieces[p];
    const Entry* best = nullptr;
    const Entry* first = m_entries.data() + piece.olderAt;
    const Entry* last = first + (piece.olderCount & ~kInherits);
    const Entry* it = std::upper_bound(first, last, timestamp, [](u64 t, const Entry& e) { return t < e.loadTime; });
    if (it != last)
        best = it;
    else if (piece.top.slot != kNoSlot && piece.top.loadTime > timestamp)
        best = &piece.top;
    if (!(piece.olderCount & kInherits))
        return best;
    const size_t n = m_pieces.size();
    for (size_t node = (p + n) >> 1; node >= 1; node >>= 1) {
        first = m_entries.data() + m_nodeFirst[node];
        last = m_entries.data() + m_nodeFirst[node + 1];
        it = std::upper_bound(first, last, timestamp, [](u64 t, const Entry& e) { return t < e.loadTime; });
        if (it != last && (!best || it->loadTime < best->loadTime))
            best = it;
    }
    return best;
}

const FrozenAddressIndex::Entry* FrozenAddressIndex::findEntry(u64 address, u64 timestamp,
                                                               AddressLookup& result) const {
    const size_t p = pieceOf(address);
    if (p == m_pieces.size())
        return nullptr;
    const Piece& piece = m_pieces[p];
    result.rangeStart = m_starts[p];
    result.rangeEnd = piece.end;
    // Most samples land on the latest region of a piece without history above it.
    const Entry* entry = !(piece.olderCount & kInherits) && piece.top.slot != kNoSlot && piece.top.loadTime <= timestamp
                             ? &piece.top
                             : latestAtOrBefore(p, timestamp);
    if (!entry) {
        result.outcome = AddressLookup::tooEarly;
        return nullptr;
    }
    result.jitRvaBias = entry->jitRvaBias;
    result.module = m_modules[entry->module];
    result.slot = entry->slot;
    const bool ended = entry->unloadTime > entry->loadTime && entry->unloadTime <= timestamp;
    result.outcome = ended ? AddressLookup::unloaded : AddressLookup::found;
    return entry;
}

void FrozenAddressIndex::fill(const Entry& entry, const Slots& slots, AddressLookup& result) const {
    result.jitRvaBias = entry.jitRvaBias;
    result.module = m_modules[entry.module];
    result.slot = entry.slot;
    result.region = slots[entry.slot].region;
    result.method = slots[entry.slot].method;
}

AddressLookup FrozenAddressIndex::resolve(u64 address, u64 timestamp) const {
    AddressLookup result;
    findEntry(address, timestamp, result);
    return result;
}

AddressLookup FrozenAddressIndex::find(u64 address, u64 timestamp, const Slots& slots) const {
    AddressLookup result;
    if (const Entry* entry = findEntry(address, timestamp, result))
        fill(*entry, slots, result);
    return result;
}

AddressLookup FrozenAddressIndex::findLoadedAfter(u64 start, u64 end, u64 timestamp, const Slots& slots) const {
    AddressLookup result;
    // The first piece that ends above start; it must begin before end.
    size_t p = firstStartingAbove(start);
    if (p > 0 && m_pieces[p - 1].end > start)
        --p;
    if (p == m_pieces.size() || m_starts[p] >= end)
        return result;
    result.rangeStart = m_starts[p];
    result.rangeEnd = m_pieces[p].end;
    const Entry* entry = firstAfter(p, timestamp);
    if (!entry) {
        result.outcome = AddressLookup::tooEarly;
        return result;
    }
    result.outcome = AddressLookup::found;
    fill(*entry, slots, result);
    return result;
}

QUARVEL_NAMESPACE_END
