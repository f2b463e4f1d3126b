#ifndef QUARVEL_FUZZ_NETTRACE_SEEDS_H
#define QUARVEL_FUZZ_NETTRACE_SEEDS_H

// Starting inputs of fuzz_nettrace, written with the fixtures' NettraceWriter:
// both layouts, every header form, the runtime's method, IL map, module and
// assembly events of each version, and a few damaged traces.

#include <cstdint>
#include <vector>

namespace quarvel_fuzz {

std::vector<std::vector<uint8_t>> nettraceSeeds();

} // namespace quarvel_fuzz

#endif
