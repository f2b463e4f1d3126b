#ifndef QUARVEL_JIT_REPORT_H
#define QUARVEL_JIT_REPORT_H

// What each subcommand finds, as plain data. trace_view fills these from the
// library; printer writes them in the chosen format.

#include <cstdint>
#include <string>
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
    std::string name;          // qualified name, the plain name when there is none
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
    SourcePoint method;              // the compiled method and its line at the sample
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
