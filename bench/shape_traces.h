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
    std::vector<std::string> paths; // in the order they are read: one or more files per process
    std::vector<unsigned> pids;
    std::vector<uint64_t> probeAddress; // per process: a sample that hits its first load
    std::vector<uint64_t> probeTime;
    size_t loads = 0;
    uint64_t fileBytes = 0;
};

// The order of a shape's load times, the loads' places left as they are.
enum class LoadOrder {
    inTime,    // load i at time i
    backwards, // load i at time n - 1 - i: each older than all read before it
    shuffled,  // a fixed random permutation of the times
    twoFiles,  // two files of one process, read one after the other, whose times interleave
};

// n loads in one process; load i covers [16i, 16i + 16n), so each overlaps
// the n - 1 loads before it.
ShapeTrace staggeredTrace(const std::string& cacheDir, size_t n, LoadOrder order = LoadOrder::inTime);

// n loads in one process over one hot area whose bounds alternate by 8
// bytes from load to load.
ShapeTrace hotAreaTrace(const std::string& cacheDir, size_t n, LoadOrder order = LoadOrder::inTime);

// methods loads (names, no line tables) spread evenly over processes files,
// one per process.
ShapeTrace processesTrace(const std::string& cacheDir, size_t methods, size_t processes);

} // namespace quarvel_bench

#endif
