#include "model/line_tables.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

QUARVEL_NAMESPACE_BEGIN

namespace {

// Signed differences of 32-bit values, wrapped, as small unsigned numbers.
u32 zigzag(u32 delta) {
    return (delta << 1) ^ (0u - (delta >> 31));
}

u32 unzigzag(u32 coded) {
    return (coded >> 1) ^ (0u - (coded & 1));
}

size_t varintSize(u32 value) {
    size_t n = 1;
    for (; value >= 0x80; value >>= 7)
        ++n;
    return n;
}

uint8_t* putVarint(uint8_t* out, u32 value) {
    for (; value >= 0x80; value >>= 7)
        *out++ = static_cast<uint8_t>(value | 0x80);
    *out++ = static_cast<uint8_t>(value);
    return out;
}

// Only reads what putVarint wrote; stops at end all the same.
const uint8_t* getVarint(const uint8_t* at, const uint8_t* end, u32& value) {
    value = 0;
    for (unsigned shift = 0; at < end && shift < 35; shift += 7) {
        const uint8_t byte = *at++;
        value |= static_cast<u32>(byte & 0x7F) << shift;
        if (!(byte & 0x80))
            break;
    }
    return at;
}

// The three numbers a row is kept as, given the row before it.
struct Coded {
    u32 start;
    u32 length;
    u32 value;
};

Coded coded(const quarvel_line_number_entry& row, const quarvel_line_number_entry& before) {
    return Coded{zigzag(row.startOffset - before.endOffset), row.endOffset - row.startOffset,
                 zigzag(row.value - before.value)};
}

uint8_t* encode(LineTables::Span table, uint8_t* out) {
    quarvel_line_number_entry before{0, 0, 0};
    for (const quarvel_line_number_entry& row : table) {
        const Coded c = coded(row, before);
        out = putVarint(putVarint(putVarint(out, c.start), c.length), c.value);
        before = row;
    }
    return out;
}

} // namespace

LineTables::Table::Iterator::Iterator(const uint8_t* at, const uint8_t* end) : m_at(at), m_next(at), m_end(end) {
    if (m_at < m_end)
        decode();
}

LineTables::Table::Iterator& LineTables::Table::Iterator::operator++() {
    m_at = m_next;
    if (m_at < m_end)
        decode();
    return *this;
}

void LineTables::Table::Iterator::decode() {
    u32 start = 0;
    u32 length = 0;
    u32 value = 0;
    m_next = getVarint(getVarint(getVarint(m_at, m_end, start), m_end, length), m_end, value);
    m_row.startOffset = m_row.endOffset + unzigzag(start);
    m_row.endOffset = m_row.startOffset + length;
    m_row.value += unzigzag(value);
}

// A row is three varints, and a varint's last byte is the only one without
// the continuation bit: counting those bytes counts rows without decoding.
size_t LineTables::Table::size() const {
    return static_cast<size_t>(std::count_if(m_begin, m_end, [](uint8_t b) { return b < 0x80; })) / 3;
}

std::vector<LineTables::Entry> LineTables::Table::rows() const {
    return std::vector<Entry>(begin(), end());
}

LineTables::~LineTables() {
    replace(nullptr, 0);
}

LineTables::LineTables(const LineTables& other) {
    *this = other;
}

LineTables& LineTables::operator=(const LineTables& other) {
    if (this == &other)
        return *this;
    if (other.empty()) {
        replace(nullptr, 0);
        return *this;
    }
    const size_t bytes = blockBytes(other.m_ranges, other.rowBytes());
    void* const block = block_heap::allocate(bytes);
    std::memcpy(block, other.m_block, bytes);
    replace(block, other.m_ranges);
    return *this;
}

LineTables::LineTables(LineTables&& other) noexcept : m_block(other.m_block), m_ranges(other.m_ranges) {
    other.m_block = nullptr;
    other.m_ranges = 0;
}

LineTables& LineTables::operator=(LineTables&& other) noexcept {
    if (this != &other) {
        replace(other.m_block, other.m_ranges);
        other.m_block = nullptr;
        other.m_ranges = 0;
    }
    return *this;
}

void LineTables::replace(void* block, u32 ranges) noexcept {
    if (m_block)
        block_heap::free(m_block, blockBytes(m_ranges, rowBytes()));
    m_block = block;
    m_ranges = ranges;
}

Range LineTables::range(size_t i) const {
    const Header& h = headers()[i];
    return Range(h.start, h.length);
}

LineTables::Table LineTables::table(size_t i, quarvel_line_info_type type) const {
    const Header* h = headers();
    const size_t t = static_cast<size_t>(type);
    const u32 first = t > 0 ? h[i].end[t - 1] : (i > 0 ? h[i - 1].end[kTypes - 1] : 0);
    return Table(rows() + first, rows() + h[i].end[t]);
}

size_t LineTables::find(u64 value) const {
    return findOverlap(Range(value, 1));
}

size_t LineTables::findOverlap(const Range& r) const {
    const Header* h = headers();
    // The first range that ends above r's start.
    const Header* it = std::upper_bound(h, h + m_ranges, r.start,
                                        [](u64 value, const Header& x) { return value < x.start + x.length; });
    if (it == h + m_ranges || it->start >= r.start + r.length)
        return npos;
    return static_cast<size_t>(it - h);
}

size_t LineTables::encodedSize(Span table) {
    size_t bytes = 0;
    Entry before{0, 0, 0};
    for (const Entry& row : table) {
        const Coded c = coded(row, before);
        bytes += varintSize(c.start) + varintSize(c.length) + varintSize(c.value);
        before = row;
    }
    return bytes;
}

bool LineTables::add(const Range& r, const Span (&tables)[kTypes]) {
    if (empty() && tables[0].size + tables[1].size + tables[2].size <= kOnePassRows) {
        packFirstSmall(r, tables);
        return true;
    }
    size_t bytes = 0;
    for (const Span& table : tables)
        bytes += encodedSize(table);
    if (bytes > UINT32_MAX - rowBytes())
        return false;
    if (empty()) {
        packFirst(r, tables, bytes);
        return true;
    }
    std::vector<Unpacked> all = unpack();
    size_t at = findOverlap(r);
    if (at == npos) {
        // Before the first range that starts at or after r's end.
        const auto pos = std::upper_bound(all.begin(), all.end(), r.end(),
                                          [](u64 end, const Unpacked& x) { return end <= x.range.start; });
        at = static_cast<size_t>(pos - all.begin());
        all.emplace(pos)->range = r;
    }
    for (size_t t = 0; t < kTypes; ++t) {
        if (tables[t].empty())
            continue;
        if (!all[at].tables[t].empty())
            return false;
        all[at].tables[t].assign(tables[t].begin(), tables[t].end());
    }
    pack(all);
    return true;
}

LineTables LineTables::ofRange(const LineTables& from, size_t i, const Range& r) {
    LineTables copy;
    const Header& source = from.headers()[i];
    const u32 first = i > 0 ? from.headers()[i - 1].end[kTypes - 1] : 0;
    const size_t bytes = source.end[kTypes - 1] - first;
    Header* const header = static_cast<Header*>(block_heap::allocate(blockBytes(1, bytes)));
    header->start = r.start;
    header->length = r.length;
    for (size_t t = 0; t < kTypes; ++t)
        header->end[t] = source.end[t] - first;
    std::memcpy(header + 1, from.rows() + first, bytes);
    copy.replace(header, 1);
    return copy;
}

void LineTables::rebase(u64 delta) {
    Header* h = static_cast<Header*>(m_block);
    for (size_t i = 0; i < m_ranges; ++i)
        h[i].start += delta;
}

void LineTables::copyTables(size_t from, size_t to) {
    if (from == to || from >= m_ranges || to >= m_ranges)
        return;
    std::vector<Unpacked> all = unpack();
    for (size_t t = 0; t < kTypes; ++t)
        all[to].tables[t] = all[from].tables[t];
    pack(all);
}

// A method's first tables, the usual case: one range, packed straight from the spans.
void LineTables::packFirst(const Range& r, const Span (&tables)[kTypes], size_t bytes) {
    Header* const header = static_cast<Header*>(block_heap::allocate(blockBytes(1, bytes)));
    put(header, reinterpret_cast<uint8_t*>(header + 1), 0, r, tables);
    replace(header, 1);
}

// The tables of most methods have a few rows: encoded once into the stack
// and copied into an exactly sized block, they need no pass to size them.
void LineTables::packFirstSmall(const Range& r, const Span (&tables)[kTypes]) {
    uint8_t rows[kOnePassRows * kMaxRowBytes];
    Header header;
    const u32 bytes = put(&header, rows, 0, r, tables);
    Header* const block = static_cast<Header*>(block_heap::allocate(blockBytes(1, bytes)));
    *new (block) Header() = header;
    std::memcpy(block + 1, rows, bytes);
    replace(block, 1);
}

u32 LineTables::put(Header* at, uint8_t* rows, u32 end, const Range& r, const Span (&tables)[kTypes]) {
    Header* header = new (at) Header();
    header->start = r.start;
    header->length = r.length;
    for (size_t t = 0; t < kTypes; ++t) {
        end = static_cast<u32>(encode(tables[t], rows + end) - rows);
        header->end[t] = end;
    }
    return end;
}

std::vector<LineTables::Unpacked> LineTables::unpack() const {
    std::vector<Unpacked> all(m_ranges);
    for (size_t i = 0; i < m_ranges; ++i) {
        all[i].range = range(i);
        for (size_t t = 0; t < kTypes; ++t)
            all[i].tables[t] = table(i, static_cast<quarvel_line_info_type>(t)).rows();
    }
    return all;
}

void LineTables::pack(const std::vector<Unpacked>& ranges) {
    size_t bytes = 0;
    for (const Unpacked& u : ranges)
        for (const std::vector<Entry>& table : u.tables)
            bytes += encodedSize(Span{table.data(), table.size()});
    // Nothing below throws once the block is had.
    Header* const headers = static_cast<Header*>(block_heap::allocate(blockBytes(ranges.size(), bytes)));
    uint8_t* const rows = reinterpret_cast<uint8_t*>(headers + ranges.size());
    u32 end = 0;
    for (size_t i = 0; i < ranges.size(); ++i) {
        Span tables[kTypes];
        for (size_t t = 0; t < kTypes; ++t)
            tables[t] = Span{ranges[i].tables[t].data(), ranges[i].tables[t].size()};
        end = put(headers + i, rows, end, ranges[i].range, tables);
    }
    replace(headers, static_cast<u32>(ranges.size()));
}

QUARVEL_NAMESPACE_END
