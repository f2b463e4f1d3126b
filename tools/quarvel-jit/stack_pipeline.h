#ifndef QUARVEL_JIT_STACK_PIPELINE_H
#define QUARVEL_JIT_STACK_PIPELINE_H

// Samples in, counted stacks out: read one sample, filter it, resolve its
// frames, count its stack, and on to the next; nothing per sample is kept.

#include "report.h"
#include "stack_profile.h"
#include "stack_reader.h"
#include "trace_view.h"

#include <cstdint>
#include <limits>
#include <regex>
#include <vector>

namespace quarvel_jit {

struct StackFilter {
    std::vector<unsigned> pids; // empty: every process
    std::vector<unsigned> tids; // empty: every thread
    uint64_t from = 0;          // the time window, in the samples' time units, both ends included
    uint64_t to = std::numeric_limits<uint64_t>::max();
    const std::regex* match = nullptr; // keep samples with a frame whose name matches; null: all
};

StackSummary collectStacks(TraceView& view, StackReader& reader, const StackFilter& filter, StackProfile& profile);

// Self and total samples of every frame (of every frame and line when the
// profile keeps lines), hottest first; n = 0: all.
std::vector<FrameCount> topFrames(const StackProfile& profile, size_t n);

// The summary as rows of `stats`.
std::vector<StatRow> stackStatRows(const StackSummary& summary);

// A time for --from/--to: "sec.fraction" (perf's notation) becomes
// nanoseconds, a plain integer is taken as it is.
bool parseTimeBound(const std::string& text, uint64_t& value);

} // namespace quarvel_jit

#endif
