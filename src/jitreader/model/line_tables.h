#ifndef QUARVEL_MODEL_LINE_TABLES_H
#define QUARVEL_MODEL_LINE_TABLES_H

#include "model/range.h"
#include "support/block_heap.h"

#include <quarvel/types.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// A method's line tables: for each of its code ranges (disjoint, in ascending
// order) one table per quarvel_line_info_type, offsets relative to the
// range's start. Millions of methods carry a few rows each, so everything
// lives in one exactly sized block: the ranges, then every table's rows back
// to back. A method without tables costs no allocation at all.
//
// Rows are kept as variable-length deltas (the start from the row before's
// end, the length, the value from the row before's value): a row of a real
// table is three or four bytes instead of twelve, since rows follow each
// other and values climb slowly. Any row round-trips, whatever its values.
class LineTables {
public:
    typedef quarvel_line_number_entry Entry;
    static constexpr size_t kTypes = 3;
    static constexpr size_t npos = ~size_t(0);
    // A method's first tables of at most this many rows in all are encoded
    // in one pass on the stack; more take a pass to size them first.
    static constexpr size_t kOnePassRows = 256;

    // Rows to add: an array of the caller's.
    struct Span {
        const Entry* data = nullptr;
        size_t size = 0;
        const Entry* begin() const { return data; }
        const Entry* end() const { return data + size; }
        bool empty() const { return size == 0; }
    };

    // A stored table, its rows decoded as they are visited.
    class Table {
    public:
        class Iterator {
        public:
            typedef std::forward_iterator_tag iterator_category;
            typedef Entry value_type;
            typedef std::ptrdiff_t difference_type;
            typedef const Entry* pointer;
            typedef const Entry& reference;

            Iterator(const uint8_t* at, const uint8_t* end);
            const Entry& operator*() const { return m_row; }
            const Entry* operator->() const { return &m_row; }
            Iterator& operator++();
            bool operator==(const Iterator& other) const { return m_at == other.m_at; }
            bool operator!=(const Iterator& other) const { return m_at != other.m_at; }

        private:
            void decode(); // the row at m_at, after the one in m_row
            const uint8_t* m_at;
            const uint8_t* m_next;
            const uint8_t* m_end;
            Entry m_row{0, 0, 0};
        };

        Table(const uint8_t* begin, const uint8_t* end) : m_begin(begin), m_end(end) {}
        Iterator begin() const { return Iterator(m_begin, m_end); }
        Iterator end() const { return Iterator(m_end, m_end); }
        bool empty() const { return m_begin == m_end; }
        size_t size() const;
        std::vector<Entry> rows() const;

    private:
        const uint8_t* m_begin;
        const uint8_t* m_end;
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
    Table table(size_t i, quarvel_line_info_type type) const;
    // The range that holds value, or npos.
    size_t find(u64 value) const;
    // The range that overlaps r, or npos.
    size_t findOverlap(const Range& r) const;

    // Puts tables (indexed by quarvel_line_info_type; empty ones are left
    // out) under the range that overlaps r, keeping that range's bounds, or
    // under r as a new range. False, and nothing added, when one of them is
    // already there: the first one added stays.
    bool add(const Range& r, const Span (&tables)[kTypes]);
    // Range i of from, under r, as the only range: its rows are copied as
    // they are stored, not decoded and encoded again.
    static LineTables ofRange(const LineTables& from, size_t i, const Range& r);
    // Moves every range up by delta (offsets become jit rvas).
    void rebase(u64 delta);
    // Range `to` answers with the tables of range `from` from now on.
    void copyTables(size_t from, size_t to);

private:
    struct Header {
        u64 start;
        u32 length;
        u32 end[kTypes]; // table t of this range ends at byte end[t] of the rows
    };
    struct Unpacked {
        Range range;
        std::vector<Entry> tables[kTypes];
    };

    const Header* headers() const { return static_cast<const Header*>(m_block); }
    const uint8_t* rows() const { return reinterpret_cast<const uint8_t*>(headers() + m_ranges); }
    size_t rowBytes() const { return m_ranges ? headers()[m_ranges - 1].end[kTypes - 1] : 0; }
    static size_t blockBytes(size_t ranges, size_t rowBytes) { return ranges * sizeof(Header) + rowBytes; }
    static size_t encodedSize(Span table);
    // Frees the block (its size follows from the headers) and takes `block` instead.
    void replace(void* block, u32 ranges) noexcept;
    std::vector<Unpacked> unpack() const;
    void packFirst(const Range& r, const Span (&tables)[kTypes], size_t bytes);
    static constexpr size_t kMaxRowBytes = 15; // three varints of at most five bytes
    void packFirstSmall(const Range& r, const Span (&tables)[kTypes]);
    // Writes a range's header at `at` and its tables at rows + end; returns the new end.
    static u32 put(Header* at, uint8_t* rows, u32 end, const Range& r, const Span (&tables)[kTypes]);
    void pack(const std::vector<Unpacked>& ranges);

    void* m_block = nullptr; // from block_heap, blockBytes(m_ranges, rowBytes()) long
    u32 m_ranges = 0;
};

QUARVEL_NAMESPACE_END

#endif
