#include "code_map.h"

#include <algorithm>

namespace quarvel_jvmti {

namespace {

uint32_t bciValue(int32_t bci) {
    return bci < 0 ? kNoBci : static_cast<uint32_t>(bci);
}

// Appends [start, end) -> value, growing the last entry when it continues it.
void appendRun(std::vector<quarvel_line_number_entry>& table, uint32_t start, uint32_t end, uint32_t value) {
    if (!table.empty() && table.back().endOffset == start && table.back().value == value) {
        table.back().endOffset = end;
        return;
    }
    table.push_back({start, end, value});
}

// A piece of code that one pc record describes.
struct Segment {
    uint32_t start;
    uint32_t end;
    const std::vector<Frame>* frames;
};

std::vector<Segment> segmentsOf(uint64_t codeStart, uint32_t codeSize, const std::vector<PcInfo>& pcs) {
    std::vector<Segment> segments;
    uint32_t lo = 0;
    for (const PcInfo& info : pcs) {
        if (info.pc <= codeStart)
            continue;
        const uint64_t off = info.pc - codeStart;
        const uint32_t hi = off > codeSize ? codeSize : static_cast<uint32_t>(off);
        if (hi <= lo)
            continue;
        segments.push_back({lo, hi, &info.frames});
        lo = hi;
    }
    return segments;
}

} // namespace

CodeMap buildCodeMap(uint64_t codeStart, uint32_t codeSize, std::vector<PcInfo> pcs) {
    std::stable_sort(pcs.begin(), pcs.end(), [](const PcInfo& a, const PcInfo& b) { return a.pc < b.pc; });
    CodeMap map;
    // Instances that hold for the segment just handled, outermost first.
    std::vector<size_t> open;
    uint32_t previousEnd = 0;
    for (const Segment& s : segmentsOf(codeStart, codeSize, pcs)) {
        const std::vector<Frame>& frames = *s.frames;
        if (s.start != previousEnd)
            open.clear();
        previousEnd = s.end;
        if (frames.empty()) {
            open.clear();
            continue;
        }
        appendRun(map.nativeToManaged, s.start, s.end, bciValue(frames[0].bci));

        // An open instance at depth d + 1 goes on while its frame and the call
        // site in the frame around it stay the same, and all outer ones go on.
        size_t kept = 0;
        while (kept < open.size() && kept + 1 < frames.size()) {
            const InlineInstance& inst = map.inlines[open[kept]];
            if (inst.method != frames[kept + 1].method || inst.callerBci != frames[kept].bci)
                break;
            ++kept;
        }
        open.resize(kept);
        for (size_t d = kept + 1; d < frames.size(); ++d) {
            InlineInstance inst;
            inst.parent = open.empty() ? InlineInstance::kTopLevel : open.back();
            inst.method = frames[d].method;
            inst.callerBci = frames[d - 1].bci;
            inst.start = s.start;
            inst.end = s.start;
            map.inlines.push_back(inst);
            open.push_back(map.inlines.size() - 1);
        }
        for (size_t depth = 0; depth < open.size(); ++depth) {
            InlineInstance& inst = map.inlines[open[depth]];
            inst.end = s.end;
            appendRun(inst.nativeToManaged, s.start - inst.start, s.end - inst.start, bciValue(frames[depth + 1].bci));
        }
    }
    return map;
}

CodeMap buildCodeMapFromLocations(uint64_t codeStart, uint32_t codeSize, MethodKey method,
                                  const std::vector<std::pair<uint64_t, int32_t>>& locations) {
    std::vector<PcInfo> pcs;
    pcs.reserve(locations.size());
    for (const auto& [address, bci] : locations)
        if (bci >= 0)
            pcs.push_back({address, {Frame{method, bci}}});
    return buildCodeMap(codeStart, codeSize, std::move(pcs));
}

std::vector<quarvel_line_number_entry> managedToSource(const MethodLines& lines) {
    std::vector<std::pair<int32_t, int32_t>> sorted;
    for (const auto& e : lines.entries)
        if (e.first >= 0 && e.second >= 0)
            sorted.push_back(e);
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<quarvel_line_number_entry> table;
    for (size_t i = 0; i < sorted.size(); ++i) {
        if (i + 1 < sorted.size() && sorted[i + 1].first == sorted[i].first)
            continue;
        const uint32_t start = static_cast<uint32_t>(sorted[i].first);
        uint32_t end;
        if (i + 1 < sorted.size())
            end = static_cast<uint32_t>(sorted[i + 1].first);
        else
            end = std::max(lines.bytecodeLength, start + 1);
        table.push_back({start, end, static_cast<uint32_t>(sorted[i].second)});
    }
    return table;
}

std::vector<quarvel_line_number_entry> nativeToSource(const std::vector<quarvel_line_number_entry>& nativeToManaged,
                                                      const std::vector<quarvel_line_number_entry>& bciToLine) {
    std::vector<quarvel_line_number_entry> table;
    for (const quarvel_line_number_entry& n : nativeToManaged) {
        if (n.value == kNoBci || bciToLine.empty())
            continue;
        // The entry with the greatest start at or below the bci; the last entry
        // also stands for bcis past its end.
        auto it =
            std::upper_bound(bciToLine.begin(), bciToLine.end(), n.value,
                             [](uint32_t bci, const quarvel_line_number_entry& e) { return bci < e.startOffset; });
        if (it == bciToLine.begin())
            continue;
        --it;
        appendRun(table, n.startOffset, n.endOffset, it->value);
    }
    return table;
}

} // namespace quarvel_jvmti
