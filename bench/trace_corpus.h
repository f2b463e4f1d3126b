#ifndef QUARVEL_BENCH_TRACE_CORPUS_H
#define QUARVEL_BENCH_TRACE_CORPUS_H

// Synthetic JIT traces for the benchmarks, written with the public trace
// writer. The shapes follow what a Java agent leaves behind: 1-3 code regions
// per method (hot code, cold code, stubs in three code heaps), 50-2000 code
// bytes per method, names in the VM's descriptor form, all three line tables,
// inlined callees after some loads, and freed code cache blocks handed to
// later methods (address reuse, so ranges carry a history).
//
// Everything derives from the seed: the same shape always gives the same file
// and the same ground truth, so a trace is generated once and cached.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quarvel_bench {

struct CorpusShape {
    size_t methods = 0;    // method-load records to write
    size_t maxRegions = 0; // stop earlier once this many code regions exist (0: no limit)
    bool codeBytes = true; // write the code bytes of every region
    uint64_t seed = 0x5eed;
};

// One code region of a method load, with the interval in which it is live.
struct RegionTruth {
    uint64_t start = 0;
    uint32_t size = 0;
    uint64_t loadTime = 0;
    uint64_t unloadTime = 0; // 0: still live at the end of the trace
    uint32_t methodId = 0;   // raw method id of the owning method
};

struct Corpus {
    std::string path;     // the trace file
    std::string fileName; // its name, as the file set knows it
    unsigned pid = 0;
    std::string hostName;
    size_t methodLoads = 0;
    size_t inlineLoads = 0;
    size_t records = 0; // every record, header records included
    uint64_t fileBytes = 0;
    uint64_t lastLoadTime = 0;
    // The first region of the first method: a query that hits it reads the process.
    uint64_t probeAddress = 0;
    uint64_t probeTime = 0;
    std::vector<RegionTruth> regions; // filled when asked for
};

// The trace of shape under cacheDir (generated on the first call, reused
// afterwards). withTruth also returns the region list.
Corpus loadCorpus(const std::string& cacheDir, const CorpusShape& shape, bool withTruth);

// A sample that hits live code: address and time inside one region's life.
struct Sample {
    uint64_t address = 0;
    uint64_t timestamp = 0;
    uint32_t region = 0; // index into Corpus::regions
};

std::vector<Sample> makeLiveSamples(const Corpus& corpus, size_t count, uint64_t seed);

// Small deterministic generator (splitmix64).
class Rng {
public:
    explicit Rng(uint64_t seed) : m_state(seed) {}
    uint64_t next() {
        uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // Uniform in [lo, hi].
    uint64_t between(uint64_t lo, uint64_t hi) { return lo + next() % (hi - lo + 1); }
    bool chance(unsigned percent) { return next() % 100 < percent; }

private:
    uint64_t m_state;
};

} // namespace quarvel_bench

#endif
