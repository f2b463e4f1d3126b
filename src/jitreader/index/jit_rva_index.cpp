#include "index/jit_rva_index.h"

#include <algorithm>
#include <iterator>

QUARVEL_NAMESPACE_BEGIN

namespace {

typedef BulkVector<RegionInfo> Run;

// The first entry of run that ends above jitRva.
Run::const_iterator firstEndingAbove(const Run& run, u64 jitRva) {
    auto it = std::upper_bound(run.begin(), run.end(), jitRva,
                               [](u64 rva, const RegionInfo& e) { return rva < e.startJitRva; });
    if (it != run.begin() && std::prev(it)->endJitRva() > jitRva)
        --it;
    return it;
}

bool byStart(const RegionInfo& a, const RegionInfo& b) {
    return a.startJitRva < b.startJitRva;
}

} // namespace

const RegionInfo* JitRvaIndex::find(u64 jitRva) const {
    const bool directed = m_blockStarts.size() == m_runs.size();
    for (size_t r = 0; r < m_runs.size(); ++r) {
        const Run& run = m_runs[r];
        auto first = run.begin();
        auto last = run.end();
        if (directed) {
            const std::vector<u64>& blocks = m_blockStarts[r];
            const size_t block =
                static_cast<size_t>(std::upper_bound(blocks.begin(), blocks.end(), jitRva) - blocks.begin());
            if (block == 0)
                continue;
            first += static_cast<std::ptrdiff_t>((block - 1) * kBlock);
            last = run.begin() + static_cast<std::ptrdiff_t>(std::min(block * kBlock, run.size()));
        }
        auto it =
            std::upper_bound(first, last, jitRva, [](u64 rva, const RegionInfo& e) { return rva < e.startJitRva; });
        if (it != run.begin() && std::prev(it)->contains(jitRva))
            return &*std::prev(it);
    }
    return nullptr;
}

void JitRvaIndex::freeze() {
    if (m_blockStarts.size() == m_runs.size())
        return; // nothing added since
    m_blockStarts.resize(m_runs.size());
    for (size_t r = 0; r < m_runs.size(); ++r) {
        std::vector<u64>& blocks = m_blockStarts[r];
        blocks.clear();
        blocks.reserve(m_runs[r].size() / kBlock + 1);
        for (size_t i = 0; i < m_runs[r].size(); i += kBlock)
            blocks.push_back(m_runs[r][i].startJitRva);
    }
}

const RegionInfo* JitRvaIndex::findOverlap(u64 start, u32 length) const {
    if (start >= m_maxEnd)
        return nullptr; // the common case: a file's regions come in jit rva order
    const u64 end = start + length;
    for (const Run& run : m_runs) {
        auto it = firstEndingAbove(run, start);
        if (it != run.end() && it->startJitRva < end)
            return &*it;
    }
    return nullptr;
}

void JitRvaIndex::add(const RegionInfo& info) {
    m_blockStarts.clear();
    if (m_runs.empty() || m_runs.back().back().endJitRva() > info.startJitRva) {
        if (!m_runs.empty())
            sealLastRun();
        m_runs.emplace_back();
    }
    m_runs.back().push_back(info);
    ++m_size;
    m_maxEnd = std::max(m_maxEnd, info.endJitRva());
}

// Merges the last run into the one before it while it is at least half as
// large: sizes then halve from run to run, so there are O(log n) of them.
void JitRvaIndex::sealLastRun() {
    while (m_runs.size() >= 2 && m_runs.back().size() * 2 >= m_runs[m_runs.size() - 2].size()) {
        Run& lower = m_runs[m_runs.size() - 2];
        Run& upper = m_runs.back();
        Run merged;
        merged.reserve(lower.size() + upper.size());
        std::merge(lower.begin(), lower.end(), upper.begin(), upper.end(), std::back_inserter(merged), byStart);
        m_runs.pop_back();
        m_runs.back().swap(merged);
    }
}

std::vector<const RegionInfo*> JitRvaIndex::ordered() const {
    std::vector<const RegionInfo*> all;
    all.reserve(m_size);
    for (const Run& run : m_runs)
        for (const RegionInfo& info : run)
            all.push_back(&info);
    std::sort(all.begin(), all.end(), [](const RegionInfo* a, const RegionInfo* b) { return byStart(*a, *b); });
    return all;
}

QUARVEL_NAMESPACE_END
