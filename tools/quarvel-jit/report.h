#ifndef QUARVEL_JIT_REPORT_H
#define QUARVEL_JIT_REPORT_H

// What each subcommand finds, as plain data. trace_view fills these from the
// library; printer writes them in the chosen format.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace quarvel_jit {

struct ProcessRow {
    std::string host;
    unsigned pid = 0;
    unsigned files = 0;
    uint64_t bytes = 0;
    uint64_t methods = 0;
    uint64_t jitRvaStart = 0; // the process's code took [jitRvaStart, jitRvaEnd)
    uint64_t jitRvaEnd = 0;
};

// A method inlined into a region, with its own inlines.
struct InlineNode {
    unsigned methodId = 0;
    std::string name;
    std::string sourceFile;
    unsigned firstLine = 0; // 0: no line table
    unsigned lastLine = 0;
    uint64_t start = 0;
    uint32_t length = 0;
    uint64_t jitRva = 0;
    std::vector<InlineNode> inlined;
};

struct RegionRow {
    uint64_t start = 0;
    uint32_t length = 0;
    uint64_t jitRva = 0;
    uint64_t loadTime = 0;
    uint64_t unloadTime = 0; // 0: still loaded at the end of the trace
    unsigned pid = 0;
    std::string host;
    std::vector<InlineNode> inlined;
};

struct SymbolRow {
    unsigned methodId = 0;
    std::string name; // qualified name, the plain name when there is none
    std::string className;
    std::string module;
    std::string sourceFile;
    unsigned firstLine = 0;
    unsigned lastLine = 0;
    uint64_t loadTime = 0;
    uint64_t jitRva = 0;
    std::vector<RegionRow> regions;
};

struct DumpEntry {
    std::string name;
    uint64_t jitRva = 0;
    std::string text;
};

struct SourcePoint {
    std::string name;       // method name
    std::string sourceFile; // empty: unknown
    unsigned line = 0;      // 0: unknown
};

enum class SampleStatus { Resolved, NotJit, UnknownProcess, NoHost };

struct SampleResult {
    size_t inputLine = 0;
    uint64_t time = 0;
    uint64_t address = 0;
    unsigned pid = 0;
    std::string host;
    SampleStatus status = SampleStatus::NotJit;
    uint64_t jitRva = 0;
    std::string module;
    SourcePoint method;               // the compiled method and its line at the sample
    std::vector<SourcePoint> inlined; // innermost first
};

struct Counted {
    std::string key;    // method name or "file:line"
    std::string module; // methods only
    uint64_t samples = 0;
};

struct ResolveSummary {
    uint64_t samples = 0;
    uint64_t resolved = 0;
    uint64_t notJit = 0;
    uint64_t unknownProcess = 0;
    uint64_t noHost = 0;
    uint64_t malformedLines = 0;
};

struct TopReport {
    ResolveSummary summary;
    std::vector<Counted> methods; // hottest first
    std::vector<Counted> lines;
};

// What reading and resolving call stacks met, for the summary.
struct StackSummary {
    uint64_t samplesRead = 0; // good samples in the input
    uint64_t samplesKept = 0; // of those, the ones the filters kept
    uint64_t malformedLines = 0;
    uint64_t droppedSamples = 0;     // left out for a malformed line
    uint64_t truncatedSamples = 0;   // cut short by the end of the input, left out
    std::vector<std::string> errors; // the first few bad lines, "<line>: <what>"
    // Over the samples kept by --pid, --tid and the time window:
    uint64_t untracedSamples = 0;
    std::vector<std::pair<std::string, uint64_t>> untracedProcesses; // "pid[@host]", samples; most first
    uint64_t noHostSamples = 0;
    uint64_t beforeTraces = 0; // taken before their process's first jitted code
    uint64_t frames = 0;
    uint64_t jitFrames = 0;
    uint64_t unnamedJitFrames = 0;
    uint64_t samplesWithUnnamed = 0;
    uint64_t distinctStacks = 0;
};

// A frame's samples: self (it was the leaf) and total (it was on the stack).
struct FrameCount {
    std::string name;
    std::string module;
    std::string kind;
    std::string sourceFile;
    unsigned line = 0; // with --lines only
    uint64_t self = 0;
    uint64_t total = 0;
};

struct FrameTopReport {
    StackSummary summary;
    uint64_t samples = 0;           // the samples in the profile
    std::vector<FrameCount> frames; // by self, then total, hottest first
};

struct StatRow {
    std::string name; // stable key, e.g. "records.method_load_v3_64"
    std::string label;
    uint64_t value = 0;
};

// Why a record or a file did not make it into the model.
struct RefusalRow {
    std::string file;
    std::string offset; // decimal, or "-" when the reason names no place
    std::string field;
    std::string reason;
};

struct StatsReport {
    std::vector<StatRow> counters;
    std::vector<RefusalRow> refusals;
    uint64_t refusalsNotKept = 0;
};

} // namespace quarvel_jit

#endif
