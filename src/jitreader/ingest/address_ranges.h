#ifndef QUARVEL_INGEST_ADDRESS_RANGES_H
#define QUARVEL_INGEST_ADDRESS_RANGES_H

// A union of address ranges: the addresses a process's jitdumps ever put
// code at, which its perf maps leave to them.

#include <quarvel/types.h>

#include <map>

QUARVEL_NAMESPACE_BEGIN

class AddressRanges {
public:
    // Adds [start, start + size); touching and overlapping ranges merge.
    void add(u64 start, u64 size);
    // Whether any address of [start, start + size) was added.
    bool overlaps(u64 start, u64 size) const;
    bool empty() const { return m_ranges.empty(); }

private:
    std::map<u64, u64> m_ranges; // start -> end (exclusive), disjoint, not touching
};

QUARVEL_NAMESPACE_END

#endif
