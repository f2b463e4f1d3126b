#ifndef QUARVEL_MODEL_LINE_TABLES_H
#define QUARVEL_MODEL_LINE_TABLES_H

#include "model/range.h"
#include "support/block_heap.h"

#include <quarvel/types.h>

#include <cstddef>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// A method's line tables: for each of its code ranges (disjoint, in ascending
// order) one table per quarvel_line_info_type, offsets relative to the
// range's start. Millions of methods carry a few entries each, so everything
// lives in one exactly sized block: the ranges, then every table's entries
// back to back. A method without tables costs no allocation at all.
class LineTables {
public:
    typedef quarvel_line_number_entry Entry;
    static constexpr size_t kTypes = 3;
    static constexpr size_t npos = ~size_t(0);

    // A table inside the block.
    struct Span {
        const Entry* data = nullptr;
        size_t size = 0;
        const Entry* begin() const { return data; }
        const Entry* end() const { return data + size; }
        bool empty() const { return size == 0; }
        const Entry& operator[](size_t i) const { return data[i]; }
    };

    LineTables() = default;
    ~LineTables();
    LineTables(const LineTables& other);
    LineTables& operator=(const LineTables& other);
    LineTables(LineTables&& other) noexcept;
    LineTables& operator=(LineTables&& other) noexcept;

    bool empty() const { return m_ranges == 0; }
    size_t rangeCount() const { return m_ranges; }
    Range range(size_t i) const;
    Span table(size_t i, quarvel_line_info_type type) const;
    // The range that holds value, or npos.
    size_t find(u64 value) const;
    // The range that overlaps r, or npos.
    size_t findOverlap(const Range& r) const;

    // Puts tables (indexed by quarvel_line_info_type; empty ones are left
    // out) under the range that overlaps r, keeping that range's bounds, or
    // under r as a new range. False, and nothing added, when one of them is
    // already there: the first one added stays.
    bool add(const Range& r, const Span (&tables)[kTypes]);
    // Moves every range up by delta (offsets become jit rvas).
    void rebase(u64 delta);
    // Range `to` answers with the tables of range `from` from now on.
    void copyTables(size_t from, size_t to);

private:
    struct Header {
        u64 start;
        u32 length;
        u32 end[kTypes]; // table t of this range ends at entry end[t]
    };
    struct Unpacked {
        Range range;
        std::vector<Entry> tables[kTypes];
    };

    const Header* headers() const { return static_cast<const Header*>(m_block); }
    const Entry* entries() const { return reinterpret_cast<const Entry*>(headers() + m_ranges); }
    size_t entryCount() const { return m_ranges ? headers()[m_ranges - 1].end[kTypes - 1] : 0; }
    static size_t blockBytes(size_t ranges, size_t entries) {
        return ranges * sizeof(Header) + entries * sizeof(Entry);
    }
    // Frees the block (its size follows from the headers) and takes `block` instead.
    void replace(void* block, u32 ranges) noexcept;
    std::vector<Unpacked> unpack() const;
    void packFirst(const Range& r, const Span (&tables)[kTypes], size_t count);
    // Writes a range's header at `at` and its tables at entries + end; returns the new end.
    static u32 put(Header* at, Entry* entries, u32 end, const Range& r, const Span (&tables)[kTypes]);
    void pack(const std::vector<Unpacked>& ranges);

    void* m_block = nullptr; // from block_heap, blockBytes(m_ranges, entryCount()) long
    u32 m_ranges = 0;
};

QUARVEL_NAMESPACE_END

#endif
