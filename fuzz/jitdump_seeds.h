#ifndef QUARVEL_FUZZ_JITDUMP_SEEDS_H
#define QUARVEL_FUZZ_JITDUMP_SEEDS_H

// Starting inputs of fuzz_jitdump and fuzz_perf_map, made with the test
// jitdump writer and as text: add(target, bytes) is called for each.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace quarvel_fuzz {

void addJitdumpAndPerfMapSeeds(const std::function<void(const std::string&, const std::vector<uint8_t>&)>& add);

} // namespace quarvel_fuzz

#endif
