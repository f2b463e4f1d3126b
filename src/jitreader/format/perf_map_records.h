#ifndef QUARVEL_FORMAT_PERF_MAP_RECORDS_H
#define QUARVEL_FORMAT_PERF_MAP_RECORDS_H

// The lines of a perf map (perf-<pid>.map) as plain values. Names are views
// into the bytes the reader walks, valid while the reader lives.

#include "support/result.h"

#include <cstdint>
#include <string_view>

QUARVEL_NAMESPACE_BEGIN

// "START SIZE name": the symbol name of [start, start + size).
struct PerfMapEntry {
    uint64_t start = 0;
    uint64_t size = 0;
    std::string_view name; // the rest of the line: may hold spaces
    uint64_t line = 0;     // 1-based
    uint64_t offset = 0;   // where the line starts in the file
};

// A line that was skipped, and why.
struct PerfMapProblem {
    uint64_t line = 0;
    Reason reason; // its offset is the line's start
};

QUARVEL_NAMESPACE_END

#endif
