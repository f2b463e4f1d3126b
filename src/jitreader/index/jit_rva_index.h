#ifndef QUARVEL_INDEX_JIT_RVA_INDEX_H
#define QUARVEL_INDEX_JIT_RVA_INDEX_H

#include "model/jit_method.h"
#include "model/region.h"
#include "support/bulk_memory.h"

#include <quarvel/types.h>

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
// merged (each entry moves O(log n) times). Lookups binary-search each run;
// there is one run per file read in jit rva order, and O(log n) in all.
class JitRvaIndex {
public:
    // The entry whose range holds jitRva.
    const RegionInfo* find(u64 jitRva) const;
    // An entry whose range overlaps [start, start + length).
    const RegionInfo* findOverlap(u64 start, u32 length) const;
    // Adds an entry that overlaps none (see findOverlap).
    void add(const RegionInfo& info);
    // Builds the search directories once the entries are all added (until
    // the next add): lookups then miss the cache in one block of a run.
    void freeze();

    size_t size() const { return m_size; }
    size_t runCount() const { return m_runs.size(); }

    // Every entry, in ascending jit rva order.
    std::vector<const RegionInfo*> ordered() const;

private:
    typedef BulkVector<RegionInfo> Run;
    void sealLastRun();

    std::vector<Run> m_runs; // all sealed but the last, which takes appends
    // Per run, every kBlock-th start; empty until freeze().
    static constexpr size_t kBlock = 32;
    std::vector<std::vector<u64>> m_blockStarts;
    size_t m_size = 0;
    u64 m_maxEnd = 0; // nothing registered ends above it
};

QUARVEL_NAMESPACE_END

#endif
