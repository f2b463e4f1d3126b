#include "index/frozen_address_index.h"

#include <algorithm>

namespace quarvel_3_13 {

namespace {

// A region spanning at most this many pieces is copied into each of them, so
// that lookups there stay within the piece; longer ones go to tree nodes.
const size_t kCopiedSpan = 4;

struct Item {
    u32 node; // piece, or inner tree node
    u32 slot;
    u64 loadTime;
};

bool byNodeThenTime(const Item& a, const Item& b) {
    return a.node < b.node || (a.node == b.node && a.loadTime < b.loadTime);
}

} // namespace

void FrozenAddressIndex::clear() {
    std::vector<u64>().swap(m_starts);
    std::vector<Piece>().swap(m_pieces);
    std::vector<Entry>().swap(m_entries);
    std::vector<u32>().swap(m_nodeFirst);
}

size_t FrozenAddressIndex::entryCount() const {
    size_t tops = 0;
    for (const Piece& p : m_pieces)
        tops += p.top.region != nullptr;
    return tops + m_entries.size();
}

void FrozenAddressIndex::build(const std::vector<AddressHistory::Slot>& slots) {
    clear();
    if (slots.empty())
        return;

    // Pieces: the stretches between consecutive region bounds that some region covers.
    std::vector<u64> bounds;
    bounds.reserve(slots.size() * 2);
    for (const AddressHistory::Slot& s : slots) {
        bounds.push_back(s.region->startAddress());
        bounds.push_back(s.region->endAddress());
    }
    std::sort(bounds.begin(), bounds.end());
    bounds.erase(std::unique(bounds.begin(), bounds.end()), bounds.end());
    std::vector<int> cover(bounds.size(), 0);
    auto boundIndex = [&bounds](u64 at) {
        return static_cast<size_t>(std::lower_bound(bounds.begin(), bounds.end(), at) - bounds.begin());
    };
    for (const AddressHistory::Slot& s : slots) {
        ++cover[boundIndex(s.region->startAddress())];
        --cover[boundIndex(s.region->endAddress())];
    }
    int running = 0;
    for (size_t k = 0; k + 1 < bounds.size(); ++k) {
        running += cover[k];
        if (running > 0) {
            m_starts.push_back(bounds[k]);
            Piece piece;
            piece.end = bounds[k + 1];
            m_pieces.push_back(piece);
        }
    }
    std::vector<u64>().swap(bounds);
    std::vector<int>().swap(cover);

    // Each region to its pieces, or to the tree nodes that cover its run of pieces.
    const size_t n = m_starts.size();
    std::vector<Item> leafItems;
    std::vector<Item> nodeItems;
    leafItems.reserve(slots.size());
    auto addToNode = [&](size_t node, u32 slot, u64 loadTime) {
        if (node >= n)
            leafItems.push_back(Item{static_cast<u32>(node - n), slot, loadTime});
        else
            nodeItems.push_back(Item{static_cast<u32>(node), slot, loadTime});
    };
    for (u32 slot = 0; slot < slots.size(); ++slot) {
        const Region& region = *slots[slot].region;
        const size_t first = pieceOf(region.startAddress());
        const size_t last = static_cast<size_t>(
            std::lower_bound(m_starts.begin(), m_starts.end(), region.endAddress()) - m_starts.begin());
        if (last - first <= kCopiedSpan) {
            for (size_t p = first; p < last; ++p)
                leafItems.push_back(Item{static_cast<u32>(p), slot, region.loadTime()});
            continue;
        }
        for (size_t l = first + n, r = last + n; l < r; l >>= 1, r >>= 1) {
            if (l & 1)
                addToNode(l++, slot, region.loadTime());
            if (r & 1)
                addToNode(--r, slot, region.loadTime());
        }
    }

    auto entryOf = [&slots](u32 slot) {
        const AddressHistory::Slot& s = slots[slot];
        Entry e;
        e.loadTime = s.region->loadTime();
        e.unloadTime = s.region->unloadTime();
        e.jitRvaBias = s.region->startJitRva() - s.region->startAddress();
        e.region = s.region;
        e.method = s.method;
        return e;
    };

    std::sort(leafItems.begin(), leafItems.end(), byNodeThenTime);
    m_entries.reserve(leafItems.size() - std::min(leafItems.size(), n) + nodeItems.size());
    for (size_t i = 0; i < leafItems.size();) {
        size_t j = i;
        while (j < leafItems.size() && leafItems[j].node == leafItems[i].node)
            ++j;
        Piece& piece = m_pieces[leafItems[i].node];
        piece.olderAt = static_cast<u32>(m_entries.size());
        piece.olderCount = static_cast<u32>(j - 1 - i);
        for (size_t k = i; k + 1 < j; ++k)
            m_entries.push_back(entryOf(leafItems[k].slot));
        piece.top = entryOf(leafItems[j - 1].slot);
        i = j;
    }
    std::vector<Item>().swap(leafItems);

    std::sort(nodeItems.begin(), nodeItems.end(), byNodeThenTime);
    if (!nodeItems.empty()) {
        m_nodeFirst.assign(n + 1, 0);
        size_t k = 0;
        for (size_t node = 0; node < n; ++node) {
            m_nodeFirst[node] = static_cast<u32>(m_entries.size());
            for (; k < nodeItems.size() && nodeItems[k].node == node; ++k)
                m_entries.push_back(entryOf(nodeItems[k].slot));
        }
        m_nodeFirst[n] = static_cast<u32>(m_entries.size());
        // A piece inherits when any inner node above it holds a region.
        std::vector<bool> held(2 * n, false);
        for (size_t node = 2; node < 2 * n; ++node) {
            const size_t parent = node >> 1;
            held[node] = held[parent] || m_nodeFirst[parent] != m_nodeFirst[parent + 1];
        }
        for (size_t p = 0; p < n; ++p)
            m_pieces[p].inherits = held[n + p];
    }
}

size_t FrozenAddressIndex::pieceOf(u64 address) const {
    const auto it = std::upper_bound(m_starts.begin(), m_starts.end(), address);
    if (it == m_starts.begin())
        return m_starts.size();
    const size_t p = static_cast<size_t>(it - m_starts.begin()) - 1;
    return address < m_pieces[p].end ? p : m_starts.size();
}

// The entry with the greatest load time not above timestamp, over the piece
// and the tree nodes above it.
const FrozenAddressIndex::Entry* FrozenAddressIndex::latestAtOrBefore(size_t p, u64 timestamp) const {
    const Piece& piece = m_pieces[p];
    const Entry* best = nullptr;
    if (piece.top.region && piece.top.loadTime <= timestamp) {
        best = &piece.top;
    } else if (piece.olderCount) {
        const Entry* first = m_entries.data() + piece.olderAt;
        const Entry* last = first + piece.olderCount;
        const Entry* it =
            std::upper_bound(first, last, timestamp, [](u64 t, const Entry& e) { return t < e.loadTime; });
        if (it != first)
            best = it - 1;
    }
    if (!piece.inherits)
        return best;
    const size_t n = m_starts.size();
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
    const Entry* last = first + piece.olderCount;
    const Entry* it = std::upper_bound(first, last, timestamp, [](u64 t, const Entry& e) { return t < e.loadTime; });
    if (it != last)
        best = it;
    else if (piece.top.region && piece.top.loadTime > timestamp)
        best = &piece.top;
    if (!piece.inherits)
        return best;
    const size_t n = m_starts.size();
    for (size_t node = (p + n) >> 1; node >= 1; node >>= 1) {
        first = m_entries.data() + m_nodeFirst[node];
        last = m_entries.data() + m_nodeFirst[node + 1];
        it = std::upper_bound(first, last, timestamp, [](u64 t, const Entry& e) { return t < e.loadTime; });
        if (it != last && (!best || it->loadTime < best->loadTime))
            best = it;
    }
    return best;
}

AddressLookup FrozenAddressIndex::find(u64 address, u64 timestamp) const {
    AddressLookup result;
    const size_t p = pieceOf(address);
    if (p == m_starts.size())
        return result;
    result.rangeStart = m_starts[p];
    result.rangeEnd = m_pieces[p].end;
    const Piece& piece = m_pieces[p];
    // Most samples land on the latest region of a piece without history above it.
    const Entry* entry = !piece.inherits && piece.top.region && piece.top.loadTime <= timestamp
                             ? &piece.top
                             : latestAtOrBefore(p, timestamp);
    if (!entry) {
        result.outcome = AddressLookup::tooEarly;
        return result;
    }
    result.region = entry->region;
    result.method = entry->method;
    result.jitRvaBias = entry->jitRvaBias;
    const bool ended = entry->unloadTime > entry->loadTime && entry->unloadTime <= timestamp;
    result.outcome = ended ? AddressLookup::unloaded : AddressLookup::found;
    return result;
}

AddressLookup FrozenAddressIndex::findLoadedAfter(u64 start, u64 end, u64 timestamp) const {
    AddressLookup result;
    // The first piece that ends above start; it must begin before end.
    const auto it = std::upper_bound(m_starts.begin(), m_starts.end(), start);
    size_t p = static_cast<size_t>(it - m_starts.begin());
    if (p > 0 && m_pieces[p - 1].end > start)
        --p;
    if (p == m_starts.size() || m_starts[p] >= end)
        return result;
    result.rangeStart = m_starts[p];
    result.rangeEnd = m_pieces[p].end;
    const Entry* entry = firstAfter(p, timestamp);
    if (!entry) {
        result.outcome = AddressLookup::tooEarly;
        return result;
    }
    result.outcome = AddressLookup::found;
    result.region = entry->region;
    result.method = entry->method;
    result.jitRvaBias = entry->jitRvaBias;
    return result;
}

} // namespace quarvel_3_13
