// Perf maps: the input is the whole file. Every entry is walked; the names
// the reader hands out must lie inside the input, hold no line end, and line
// numbers must grow; a broken promise traps.

#include "fuzz_support.h"

#include "format/perf_map_reader.h"

#include <cstring>
#include <limits>

using namespace quarvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const bool detected = PerfMapReader::detect(data, size);
    PerfMapReader reader = PerfMapReader::fromBytes(data, size, "perf-1.map");
    PerfMapEntry e;
    uint64_t lastLine = 0, entries = 0;
    const char* begin = reinterpret_cast<const char*>(data);
    while (reader.next(e)) {
        ++entries;
        if (e.line <= lastLine || e.name.empty() || e.name.data() < begin ||
            e.name.size() > static_cast<size_t>(begin + size - e.name.data()) ||
            std::memchr(e.name.data(), '\n', e.name.size()) || e.offset >= size ||
            e.size > std::numeric_limits<uint64_t>::max() - e.start)
            __builtin_trap();
        lastLine = e.line;
    }
    if (reader.problems().size() > PerfMapReader::kKeptProblems || reader.problems().size() > reader.malformedLines() ||
        entries + reader.malformedLines() > reader.linesRead())
        __builtin_trap();
    for (const PerfMapProblem& p : reader.problems())
        (void)p.reason.text();
    (void)detected;
    return 0;
}
