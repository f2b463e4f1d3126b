#include "model/line_tables.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

QUARVEL_NAMESPACE_BEGIN

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
    const size_t bytes = blockBytes(other.m_ranges, other.entryCount());
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
        block_heap::free(m_block, blockBytes(m_ranges, entryCount()));
    m_block = block;
    m_ranges = ranges;
}

Range LineTables::range(size_t i) const {
    const Header& h = headers()[i];
    return Range(h.start, h.length);
}

LineTables::Span LineTables::table(size_t i, quarvel_line_info_type type) const {
    const Header* h = headers();
    const size_t t = static_cast<size_t>(type);
    const u32 first = t > 0 ? h[i].end[t - 1] : (i > 0 ? h[i - 1].end[kTypes - 1] : 0);
    return Span{entries() + first, h[i].end[t] - first};
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

bool LineTables::add(const Range& r, const Span (&tables)[kTypes]) {
    size_t count = 0;
    for (const Span& table : tables)
        count += table.size;
    if (count > UINT32_MAX - entryCount())
        return false;
    if (empty()) {
        packFirst(r, tables, count);
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
void LineTables::packFirst(const Range& r, const Span (&tables)[kTypes], size_t count) {
    Header* const header = static_cast<Header*>(block_heap::allocate(blockBytes(1, count)));
    put(header, reinterpret_cast<Entry*>(header + 1), 0, r, tables);
    replace(header, 1);
}

u32 LineTables::put(Header* at, Entry* entries, u32 end, const Range& r, const Span (&tables)[kTypes]) {
    Header* header = new (at) Header();
    header->start = r.start;
    header->length = r.length;
    for (size_t t = 0; t < kTypes; ++t) {
        for (const Entry& entry : tables[t])
            new (entries + end++) Entry(entry);
        header->end[t] = end;
    }
    return end;
}

std::vector<LineTables::Unpacked> LineTables::unpack() const {
    std::vector<Unpacked> all(m_ranges);
    for (size_t i = 0; i < m_ranges; ++i) {
        all[i].range = range(i);
        for (size_t t = 0; t < kTypes; ++t) {
            const Span s = table(i, static_cast<quarvel_line_info_type>(t));
            all[i].tables[t].assign(s.begin(), s.end());
        }
    }
    return all;
}

void LineTables::pack(const std::vector<Unpacked>& ranges) {
    size_t total = 0;
    for (const Unpacked& u : ranges)
        for (const std::vector<Entry>& table : u.tables)
            total += table.size();
    // Nothing below throws once the block is had.
    Header* const headers = static_cast<Header*>(block_heap::allocate(blockBytes(ranges.size(), total)));
    Entry* entries = reinterpret_cast<Entry*>(headers + ranges.size());
    u32 end = 0;
    for (size_t i = 0; i < ranges.size(); ++i) {
        Span tables[kTypes];
        for (size_t t = 0; t < kTypes; ++t)
            tables[t] = Span{ranges[i].tables[t].data(), ranges[i].tables[t].size()};
        end = put(headers + i, entries, end, ranges[i].range, tables);
    }
    replace(headers, static_cast<u32>(ranges.size()));
}

QUARVEL_NAMESPACE_END
