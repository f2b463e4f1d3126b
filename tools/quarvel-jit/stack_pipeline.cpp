#include "stack_pipeline.h"

#include "samples.h"
#include "stack_resolver.h"

#include <algorithm>
#include <map>
#include <unordered_map>

namespace quarvel_jit {

namespace {

bool contains(const std::vector<unsigned>& list, unsigned value) {
    return list.empty() || std::find(list.begin(), list.end(), value) != list.end();
}

// Whether a frame's name matches, decided once per frame.
class FrameMatcher {
public:
    FrameMatcher(const std::regex* match, const FrameTable& frames) : m_match(match), m_frames(frames) {}
    bool anyIn(const Stack& stack) {
        if (!m_match)
            return true;
        for (const StackElem& e : stack) {
            if (e.frame >= m_known.size())
                m_known.resize(m_frames.size(), 0);
            int8_t& known = m_known[e.frame];
            if (known == 0)
                known = std::regex_search(m_frames.at(e.frame).name, *m_match) ? 1 : -1;
            if (known > 0)
                return true;
        }
        return false;
    }

private:
    const std::regex* m_match;
    const FrameTable& m_frames;
    std::vector<int8_t> m_known; // by frame id: 0 not yet known, 1 matches, -1 does not
};

} // namespace

StackSummary collectStacks(TraceView& view, StackReader& reader, const StackFilter& filter, StackProfile& profile) {
    StackResolver resolver(view, profile.frames());
    FrameMatcher matcher(filter.match, profile.frames());
    StackSummary summary;
    StackSample sample;
    Stack stack;
    while (reader.next(sample)) {
        ++summary.samplesRead;
        if (!contains(filter.pids, sample.pid) ||
            (!filter.tids.empty() && !(sample.hasTid && contains(filter.tids, sample.tid))) ||
            sample.time < filter.from || sample.time > filter.to)
            continue;
        resolver.resolve(sample, stack);
        if (!matcher.anyIn(stack))
            continue;
        ++summary.samplesKept;
        profile.add(stack);
    }

    const StackInputStats& in = reader.stats();
    summary.malformedLines = in.malformedLines;
    summary.droppedSamples = in.droppedSamples;
    summary.truncatedSamples = in.truncatedSamples;
    summary.errors = in.errors;
    const StackCounters& c = resolver.counters();
    summary.untracedSamples = c.untracedSamples;
    summary.untracedProcesses.assign(c.untracedProcesses.begin(), c.untracedProcesses.end());
    std::stable_sort(summary.untracedProcesses.begin(), summary.untracedProcesses.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    summary.noHostSamples = c.noHostSamples;
    summary.beforeTraces = c.beforeTraces;
    summary.frames = c.frames;
    summary.jitFrames = c.jitFrames;
    summary.unnamedJitFrames = c.unnamedJitFrames;
    summary.samplesWithUnnamed = c.samplesWithUnnamed;
    summary.distinctStacks = profile.distinctStacks();
    return summary;
}

std::vector<FrameCount> topFrames(const StackProfile& profile, size_t n) {
    struct Counts {
        uint64_t self = 0;
        uint64_t total = 0;
        uint64_t lastStack = 0; // counts a frame once per stack, recursion or not
    };
    std::map<std::pair<uint32_t, uint32_t>, Counts> counts;
    uint64_t stackNumber = 0;
    for (const auto& entry : profile.sorted()) {
        const Stack& stack = *entry.first;
        ++stackNumber;
        for (size_t i = 0; i < stack.size(); ++i) {
            Counts& c = counts[{stack[i].frame, stack[i].line}];
            if (c.lastStack != stackNumber) {
                c.lastStack = stackNumber;
                c.total += entry.second;
            }
            if (i + 1 == stack.size())
                c.self += entry.second;
        }
    }
    std::vector<FrameCount> rows;
    rows.reserve(counts.size());
    for (const auto& entry : counts) {
        const FrameInfo& f = profile.frames().at(entry.first.first);
        rows.push_back(FrameCount{f.name, f.module, frameKindName(f.kind), f.sourceFile, entry.first.second,
                                  entry.second.self, entry.second.total});
    }
    std::stable_sort(rows.begin(), rows.end(), [](const FrameCount& a, const FrameCount& b) {
        if (a.self != b.self)
            return a.self > b.self;
        if (a.total != b.total)
            return a.total > b.total;
        if (a.name != b.name)
            return a.name < b.name;
        return a.line < b.line;
    });
    if (n > 0 && rows.size() > n)
        rows.resize(n);
    return rows;
}

std::vector<StatRow> stackStatRows(const StackSummary& s) {
    return {
        {"stack_samples", "stack samples read", s.samplesRead},
        {"stack_samples_kept", "  kept by the filters", s.samplesKept},
        {"stack_malformed_lines", "malformed lines", s.malformedLines},
        {"stack_dropped_samples", "  samples left out for them", s.droppedSamples},
        {"stack_truncated_samples", "samples cut short by the end of the input", s.truncatedSamples},
        {"stack_untraced_samples", "samples of processes without traces", s.untracedSamples},
        {"stack_no_host_samples", "samples without a host", s.noHostSamples},
        {"stack_samples_before_traces", "samples before their process's first jitted code", s.beforeTraces},
        {"stack_frames", "frames", s.frames},
        {"stack_jit_frames", "  named from the traces", s.jitFrames},
        {"stack_unnamed_jit_frames", "  in jitted code, not named", s.unnamedJitFrames},
        {"stack_samples_with_unnamed", "samples with a jitted frame not named", s.samplesWithUnnamed},
        {"stack_distinct_stacks", "distinct stacks", s.distinctStacks},
    };
}

bool parseTimeBound(const std::string& text, uint64_t& value) {
    if (text.find('.') != std::string::npos)
        return parsePerfTime(text, value);
    return parseDecimal(text, value);
}

} // namespace quarvel_jit
