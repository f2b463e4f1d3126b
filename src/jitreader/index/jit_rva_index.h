#ifndef QUARVEL_INDEX_JIT_RVA_INDEX_H
#define QUARVEL_INDEX_JIT_RVA_INDEX_H

#include "model/jit_method.h"
#include "model/region.h"
#include "support/bulk_memory.h"
#include "support/growing_array.h"

#include <quarvel/types.h>

#include <algorithm>
#include <utility>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// A registered region and its method, by jit rva.
struct RegionInfo {
    u64 startJitRva = 0;
    u32 length = 0;
    u32 methodToken = 0;         // the method's, so that a symbol query need not read its record
    Region* region = nullptr;    // kept alive by its method
    JitMethod* method = nullptr; // kept alive by the registered methods

    u64 endJitRva() const { return startJitRva + length; }
    bool contains(u64 jitRva) const { return startJitRva <= jitRva && jitRva - startJitRva < length; }
};

// The jit rva domain: disjoint jit rva ranges of every registered region.
//
// Kept as a few sorted runs rather than one tree: a file's regions get
// ascending jit rvas, so registration appends to the current run; an
// insertion out of order starts a new one, and runs of similar size are
// merged (each entry moves O(log n) times). Only the last runs change, so a
// freeze rebuilds the directories of those alone, and a run that only grew
// at its end (the next process's file, say) has its directory extended.
//
// A run's directory splits its jit rva span into equal buckets, about one
// per two entries, and keeps the index of each bucket's first entry: agents
// hand out jit rvas densely, so a lookup reads one directory slot and a line
// or two of entries. Sparse or clustered rvas leave big buckets, searched by
// bisection, so a lookup never costs more than O(log n).
class JitRvaIndex {
public:
    // The entry whose range holds jitRva.
    const RegionInfo* find(u64 jitRva) const;
    // An entry whose range overlaps [start, start + length).
    const RegionInfo* findOverlap(u64 start, u32 length) const;
    // Adds an entry that overlaps none (see findOverlap).
    void add(const RegionInfo& info);
    // Builds the directories of the runs changed since the last freeze;
    // lookups use them until the next add.
    void freeze();

    size_t size() const { return m_size; }
    size_t runCount() const { return m_runs.size(); }

    // Every entry, in ascending jit rva order.
    std::vector<const RegionInfo*> ordered() const;

private:
    typedef GrowingArray<RegionInfo> Run;

    struct Directory {
        u64 base = 0;           // the run's first start
        unsigned shift = 0;     // a bucket spans 2^shift jit rvas
        BulkVector<u32> firsts; // per bucket, its first entry; then the run's size
        // Per bucket, the method of the entry that holds its middle: fetched
        // beside the bucket's entries, a symbol query's method is then often
        // in by the time its entry is, where it would be a miss of its own.
        BulkVector<const JitMethod*> likely;
        size_t entries = 0; // the entries the buckets cover (the run's size when last filled)
        void build(const Run& run);
        // The run grew at its end since build(): new buckets for the new
        // entries, or build() again once the buckets no longer fit its size.
        void extend(const Run& run);
        void fill(const Run& run);
        // The entries [first, last) of run among which the last start at or
        // below jitRva lies, or just before them. Starts fetching those
        // entries and the likely method: a lookup reads them next.
        std::pair<size_t, size_t> bounds(u64 jitRva, const Run& run) const;
    };

    void sealLastRun();
    void changed(size_t run) { m_frozenRuns = std::min(m_frozenRuns, run); }
    void rewritten(size_t run) {
        changed(run);
        m_rewrittenRuns = std::min(m_rewrittenRuns, run);
    }

    std::vector<Run> m_runs; // all sealed but the last, which takes appends
    std::vector<Directory> m_directories;
    size_t m_frozenRuns = 0;    // runs [0, m_frozenRuns) have their directory built
    size_t m_rewrittenRuns = 0; // runs from here on were made or merged since, not only appended to
    size_t m_size = 0;
    u64 m_maxEnd = 0; // nothing registered ends above it
};

QUARVEL_NAMESPACE_END

#endif
