#ifndef QUARVEL_JIT_STACK_RESOLVER_H
#define QUARVEL_JIT_STACK_RESOLVER_H

// Names every frame of a call-stack sample at the sample's time. Frames in a
// traced process's jitted code are looked up in the traces: the leaf at its
// address, every caller at its return address - 1 (the call instruction), and
// the methods inlined there become frames of their own, outermost first.
// Other frames keep the name and module the profiler gave them.

#include "stack_profile.h"
#include "stack_reader.h"
#include "trace_view.h"

#include <map>
#include <string>
#include <unordered_map>
#include <utility>

namespace quarvel_jit {

// What resolving found that the user should know about.
struct StackCounters {
    uint64_t samples = 0;
    uint64_t untracedSamples = 0;                      // samples of processes without traces
    std::map<std::string, uint64_t> untracedProcesses; // "pid" or "pid@host" -> samples
    uint64_t noHostSamples = 0;                        // no host given while the traces come from several
    // Samples of a traced process taken before its first jitted code: the
    // traces say nothing of that time (or the clocks differ). A trace does not
    // record when its process ended, so no sample is too late for it.
    uint64_t beforeTraces = 0;
    uint64_t frames = 0;             // frames read (before inlined frames are added)
    uint64_t jitFrames = 0;          // frames named from the traces
    uint64_t unnamedJitFrames = 0;   // frames in a process's jitted code area that no trace names
    uint64_t samplesWithUnnamed = 0; // samples with at least one of those
};

class StackResolver {
public:
    StackResolver(TraceView& view, FrameTable& frames) : m_view(view), m_frames(frames) {}
    // The sample's frames, the root first.
    void resolve(const StackSample& sample, Stack& rootFirst);
    const StackCounters& counters() const { return m_counters; }

private:
    struct Process {
        bool traced = false;
        bool noHost = false; // no host given, and the traces come from several
        unsigned hostId = 0;
        const TraceView::CodeExtent* extent = nullptr;
    };
    const Process& processOf(const StackSample& sample);
    // Appends the frames of the code at a jit rva, innermost first; false when
    // no method holds it.
    bool appendJit(uint64_t jitRva, Stack& leafFirst);
    uint32_t profilerFrame(const RawFrame& raw, FrameKind kind);

    TraceView& m_view;
    FrameTable& m_frames;
    StackCounters m_counters;
    std::map<std::pair<std::string, unsigned>, Process> m_processes;
    std::unordered_map<uint64_t, Stack> m_expansions;           // jit rva -> frames, innermost first
    std::unordered_map<std::string, uint32_t> m_profilerFrames; // kind, symbol, module -> frame
    std::string m_key;
};

// Whether the profiler's module name means memory without a file behind it,
// where jitted code lives (and where perf shows addresses as they are).
bool isAnonymousModule(const std::string& module);
bool isKernelFrame(const RawFrame& frame);

} // namespace quarvel_jit

#endif
