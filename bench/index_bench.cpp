// The address history's map of the latest region per address on its own, fed
// as a trace fills three code heaps upwards (60% / 30% / 10% of the loads,
// the lowest heap growing fastest): what registering n loads costs in the map
// as n doubles. Each new chunk of a lower heap goes in front of every chunk of
// the heaps above it, which is where a flat directory of chunks grew
// quadratically.
//
//   quarvel_index_bench [Google Benchmark flags]

#include "index/top_map.h"

#include <benchmark/benchmark.h>

#include <cstddef>

namespace {

using quarvel::TopMap;
using quarvel::u32;
using quarvel::u64;

void BM_TopMapHeapsFillingUpwards(benchmark::State& state) {
    const size_t loads = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        TopMap map;
        u64 bump[3] = {u64(1) << 40, u64(2) << 40, u64(3) << 40};
        for (size_t i = 0; i < loads; ++i) {
            u64& at = bump[i % 10 < 6 ? 0 : i % 10 < 9 ? 1 : 2];
            const u64 length = 64 + (i * 2654435761u) % 1984; // 64-2047 bytes
            map.assign(at, at + length, static_cast<u32>(i));
            at += length + 16;
        }
        benchmark::DoNotOptimize(map.size());
        state.counters["chunks"] = static_cast<double>(map.chunkCount());
    }
    state.counters["loads/s"] = benchmark::Counter(static_cast<double>(loads) * static_cast<double>(state.iterations()),
                                                   benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(BM_TopMapHeapsFillingUpwards)
    ->RangeMultiplier(2)
    ->Range(1 << 20, 1 << 24)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

BENCHMARK_MAIN();
