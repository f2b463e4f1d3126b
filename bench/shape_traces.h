#ifndef QUARVEL_BENCH_SHAPE_TRACES_H
#define QUARVEL_BENCH_SHAPE_TRACES_H

// Traces of the shapes that stress the address history rather than the
// decoders: overlapping loads and many small processes. Written with the
// public trace writer, once, into the cache directory.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quarvel_bench {

struct ShapeTrace {
    std::string hostName;
    std::vector<std::string> paths; // one file per process
    std::vector<unsigned> pids;
    std::vector<uint64_t> probeAddress; // per process: a sample that hits its first load
    std::vector<uint64_t> probeTime;
    size_t loads = 0;
    uint64_t fileBytes = 0;
};

// n loads in one process; load i covers [16i, 16i + 16n) at time i, so each
// overlaps the n - 1 loads before it. Backwards: the same loads with their
// times reversed (load i at time n - 1 - i), each older than all read before
// it, as a file written backwards would have them.
ShapeTrace staggeredTrace(const std::string& cacheDir, size_t n, bool backwards = false);

// n loads in one process over one hot area whose bounds alternate by 8
// bytes from load to load; backwards as above.
ShapeTrace hotAreaTrace(const std::string& cacheDir, size_t n, bool backwards = false);

// methods loads (names, no line tables) spread evenly over processes files,
// one per process.
ShapeTrace processesTrace(const std::string& cacheDir, size_t methods, size_t processes);

} // namespace quarvel_bench

#endif
