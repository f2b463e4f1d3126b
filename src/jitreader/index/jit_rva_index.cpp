#include "index/jit_rva_index.h"

#include "support/cache_lines.h"

#include <algorithm>
#include <iterator>
#include <limits>

QUARVEL_NAMESPACE_BEGIN

namespace {

typedef GrowingArray<RegionInfo> Run;

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

// Below this many entries a run is bisected whole.
constexpr size_t kDirectedRun = 64;

void JitRvaIndex::Directory::build(const Run& run) {
    firsts.clear();
    likely.clear();
    entries = 0;
    const size_t n = run.size();
    if (n < kDirectedRun || n > std::numeric_limits<u32>::max())
        return;
    base = run.front().startJitRva;
    const u64 span = run.back().startJitRva - base;
    const u64 wanted = n / 2;
    shift = 0;
    while ((span >> shift) >= wanted)
        ++shift;
    firsts.push_back(0); // the run's size until fill() sets every bucket
    fill(run);
}

void JitRvaIndex::Directory::extend(const Run& run) {
    const size_t n = run.size();
    if (firsts.empty() || n > std::numeric_limits<u32>::max()) {
        build(run);
        return;
    }
    const size_t buckets = static_cast<size_t>((run.back().startJitRva - base) >> shift) + 1;
    // Rebuilt when the span or the count has grown fourfold past the other,
    // so that each entry is visited O(1) times over all extensions.
    if (buckets > 2 * n || buckets * 8 < n)
        build(run);
    else
        fill(run);
}

// Buckets from the last one made to the run's last start, filled from the
// entries added since: those before `entries` lie in buckets made already.
void JitRvaIndex::Directory::fill(const Run& run) {
    const size_t n = run.size();
    const size_t made = firsts.size() - 1;
    const size_t buckets = static_cast<size_t>((run.back().startJitRva - base) >> shift) + 1;
    firsts.resize(buckets + 1);
    size_t i = entries;
    for (size_t b = made; b < buckets; ++b) {
        while (i < n && ((run[i].startJitRva - base) >> shift) < b)
            ++i;
        firsts[b] = static_cast<u32>(i);
    }
    firsts[buckets] = static_cast<u32>(n);
    entries = n;
    // The last bucket made before may have gained entries.
    const size_t from = made ? made - 1 : 0;
    likely.resize(buckets);
    size_t holder = firsts[from] ? firsts[from] - 1 : 0; // the last entry starting at or below the middle
    for (size_t b = from; b < buckets; ++b) {
        const u64 middle = base + (u64(b) << shift) + ((u64(1) << shift) >> 1);
        while (holder + 1 < n && run[holder + 1].startJitRva <= middle)
            ++holder;
        const bool next = run[holder].endJitRva() <= middle && holder + 1 < n;
        likely[b] = run[holder + (next ? 1 : 0)].method;
    }
}

std::pair<size_t, size_t> JitRvaIndex::Directory::bounds(u64 jitRva, const Run& run) const {
    if (firsts.empty())
        return {0, run.size()};
    if (jitRva < base)
        return {0, 0};
    const size_t buckets = firsts.size() - 1;
    const size_t b = static_cast<size_t>(std::min<u64>((jitRva - base) >> shift, buckets - 1));
    const size_t first = firsts[b];
    const size_t last = firsts[b + 1];
    // A bucket holds a few entries: their lines (and the one before, whose
    // entry may reach in) come in together instead of one per bisection step.
    fetchLines(run.data() + (first ? first - 1 : 0), run.data() + std::min(last, first + 8));
    __builtin_prefetch(likely[b]);
    return {first, last};
}

const RegionInfo* JitRvaIndex::find(u64 jitRva) const {
    if (jitRva >= m_maxEnd)
        return nullptr; // a new load's jit rvas, asked whether they are a patched copy
    const bool directed = m_frozenRuns == m_runs.size();
    for (size_t r = 0; r < m_runs.size(); ++r) {
        const Run& run = m_runs[r];
        const auto range = directed ? m_directories[r].bounds(jitRva, run) : std::make_pair(size_t(0), run.size());
        auto it = std::upper_bound(run.begin() + static_cast<std::ptrdiff_t>(range.first),
                                   run.begin() + static_cast<std::ptrdiff_t>(range.second), jitRva,
                                   [](u64 rva, const RegionInfo& e) { return rva < e.startJitRva; });
        if (it != run.begin() && std::prev(it)->contains(jitRva))
            return &*std::prev(it);
    }
    return nullptr;
}

void JitRvaIndex::freeze() {
    m_directories.resize(m_runs.size());
    for (size_t r = m_frozenRuns; r < m_runs.size(); ++r) {
        if (r < m_rewrittenRuns)
            m_directories[r].extend(m_runs[r]);
        else
            m_directories[r].build(m_runs[r]);
    }
    m_frozenRuns = m_rewrittenRuns = m_runs.size();
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
    if (m_runs.empty() || m_runs.back().back().endJitRva() > info.startJitRva) {
        if (!m_runs.empty())
            sealLastRun();
        m_runs.emplace_back();
        rewritten(m_runs.size() - 1);
    }
    m_runs.back().push_back(info);
    bulk_memory::prepareToAppend(m_runs.back());
    changed(m_runs.size() - 1);
    ++m_size;
    m_maxEnd = std::max(m_maxEnd, info.endJitRva());
}

// Merges the last run into the one before it while it is at least half as
// large: sizes then halve from run to run, so there are O(log n) of them.
void JitRvaIndex::sealLastRun() {
    while (m_runs.size() >= 2 && m_runs.back().size() * 2 >= m_runs[m_runs.size() - 2].size()) {
        Run& lower = m_runs[m_runs.size() - 2];
        Run& upper = m_runs.back();
        rewritten(m_runs.size() - 2);
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
