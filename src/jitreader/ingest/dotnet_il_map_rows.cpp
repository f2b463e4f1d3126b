#include "ingest/dotnet_il_map_rows.h"

#include <algorithm>
#include <numeric>

QUARVEL_NAMESPACE_BEGIN

std::vector<quarvel_line_number_entry> dotnetNativeToILRows(const std::vector<uint32_t>& ilOffsets,
                                                            const std::vector<uint32_t>& nativeOffsets,
                                                            uint32_t codeSize) {
    std::vector<quarvel_line_number_entry> rows;
    const size_t n = std::min(ilOffsets.size(), nativeOffsets.size());
    // The runtime writes the map in native order; a map that is not keeps
    // the order of entries that share a native offset.
    std::vector<size_t> order(n);
    std::iota(order.begin(), order.end(), size_t(0));
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return nativeOffsets[a] < nativeOffsets[b]; });
    rows.reserve(n);
    for (size_t k = 0; k < n; ++k) {
        const uint32_t start = nativeOffsets[order[k]];
        if (start >= codeSize)
            break;
        const uint32_t end = k + 1 < n ? std::min(nativeOffsets[order[k + 1]], codeSize) : codeSize;
        if (end == start)
            continue; // another entry at this offset follows and covers it
        const uint32_t il = ilOffsets[order[k]];
        if (!rows.empty() && rows.back().endOffset == start && rows.back().value == il)
            rows.back().endOffset = end;
        else
            rows.push_back(quarvel_line_number_entry{start, end, il});
    }
    return rows;
}

QUARVEL_NAMESPACE_END
