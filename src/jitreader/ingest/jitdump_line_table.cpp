#include "ingest/jitdump_line_table.h"

#include <algorithm>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

namespace {

std::string_view mostNamedFile(const std::vector<JitdumpDebugEntry>& entries) {
    // Records name one file, or a few: a linear tally is enough.
    std::vector<std::pair<std::string_view, size_t>> tally;
    for (const JitdumpDebugEntry& entry : entries) {
        auto found = std::find_if(tally.begin(), tally.end(), [&](const auto& t) { return t.first == entry.file; });
        if (found == tally.end())
            tally.emplace_back(entry.file, 1);
        else
            ++found->second;
    }
    // The first of the most named wins a tie.
    const auto best =
        std::max_element(tally.begin(), tally.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
    return best == tally.end() ? std::string_view() : best->first;
}

struct Point {
    u64 offset;
    u32 line; // 0: no line here (another file, or no line written)
};

} // namespace

JitdumpLines jitdumpLines(const JitdumpDebugInfo& info, u64 codeAddr, u64 codeSize, u64 bias) {
    JitdumpLines out;
    if (info.entries.empty() || codeSize == 0)
        return out;
    out.sourceFile = mostNamedFile(info.entries);

    std::vector<Point> points;
    points.reserve(info.entries.size());
    for (const JitdumpDebugEntry& entry : info.entries) {
        if (entry.address < bias)
            continue;
        const u64 address = entry.address - bias;
        if (address < codeAddr || address - codeAddr >= codeSize)
            continue;
        const bool counts = entry.line > 0 && entry.file == out.sourceFile;
        points.push_back(Point{address - codeAddr, counts ? static_cast<u32>(entry.line) : 0});
    }
    // Writers list entries by address; stable, so the last of one address stays last.
    const auto byOffset = [](const Point& a, const Point& b) {
        return a.offset < b.offset;
    };
    if (!std::is_sorted(points.begin(), points.end(), byOffset))
        std::stable_sort(points.begin(), points.end(), byOffset);

    // A row that continues the one before it (same line, no gap) only moves
    // that row's end. The rows are copied into the method's own block, so
    // this vector is only scratch: reserved for the most rows there can be.
    out.rows.reserve(points.size());
    u32 lastEnd = 0, lastLine = 0;
    for (size_t i = 0; i < points.size(); ++i) {
        if (i + 1 < points.size() && points[i + 1].offset == points[i].offset)
            continue;
        const u32 end = static_cast<u32>(i + 1 < points.size() ? points[i + 1].offset : codeSize);
        if (points[i].line == 0)
            continue;
        const u32 start = static_cast<u32>(points[i].offset);
        if (lastLine != 0 && lastEnd == start && lastLine == points[i].line)
            out.rows.back().endOffset = end;
        else
            out.rows.push_back(quarvel_line_number_entry{start, end, points[i].line});
        lastEnd = end;
        lastLine = points[i].line;
    }
    return out;
}

QUARVEL_NAMESPACE_END
