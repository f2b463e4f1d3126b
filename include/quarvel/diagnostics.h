#ifndef QUARVEL_DIAGNOSTICS_H
#define QUARVEL_DIAGNOSTICS_H

// Diagnostics beyond the symbol interfaces, for tools such as quarvel-jit:
// what a reading pass did, which files a resolver holds, the full text dump of
// a method, and the inline tree of a region. Free functions, so that the
// interfaces themselves keep their slots.

#include <quarvel/export.h>
#include <quarvel/facades.h>
#include <quarvel/symbol.h>
#include <quarvel/types.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Why a record, or a whole file, did not make it into the model.
struct TraceRefusal {
    static constexpr uint64_t kNoOffset = ~uint64_t(0);

    std::string file;                 // the trace file
    uint64_t offset = kNoOffset;      // where in it: the record's start or the bad field
    std::string field;                // the field that was wrong, when known
    std::string reason;               // what was wrong, with the bad value
    std::string kind;                 // "bad input", "not found" or "internal"
    quarvel_error_t code = meSuccess; // the status the operation gave
};

// What the reading pass of a symbol resolver did.
struct TraceStatistics {
    uint64_t files = 0;        // files the pass went through
    uint64_t failedFiles = 0;  // files that could not be opened or ended in a damaged record
    uint64_t bytes = 0;        // bytes consumed
    uint64_t records[16] = {}; // records read, by record type 0..15
    uint64_t magicRecords = 0;

    // Records that did not make it into the model, by reason.
    uint64_t refusedBodies = 0;        // a body decoder refused the record
    uint64_t refusedByDataManager = 0; // registration, inline attachment or update refused
    uint64_t architectureFiltered = 0; // a load of the other variant ended a file
    uint64_t ignoredUpdates = 0;       // method updates read but not applied
    uint64_t secondTraces = 0;         // a Magic record past the start ended a file
    uint64_t damagedRecords = 0;       // framing errors: truncated record, unknown type, size 0

    // Files runtimes write for profilers (jitdump files, perf maps). A cut
    // jitdump or perf map counts as a damaged record.
    uint64_t jitdumpCodeLoads = 0;
    uint64_t jitdumpCodeMoves = 0;
    uint64_t jitdumpDebugInfo = 0;
    uint64_t jitdumpOtherRecords = 0;         // close, unwinding information, unknown types: skipped
    uint64_t perfMapEntries = 0;              // well-formed lines
    uint64_t perfMapEntriesLeftToJitdump = 0; // lines over code a jitdump of the same process describes

    // .NET event traces (.nettrace). A cut trace counts as a damaged record.
    uint64_t nettraceEvents = 0;        // events of every provider
    uint64_t nettraceCodeLoads = 0;     // method loads: one per native code version
    uint64_t nettraceRundownCode = 0;   // code only the rundown listed (precompiled, or compiled unseen)
    uint64_t nettraceILMaps = 0;        // native-to-IL maps given to their code
    uint64_t nettraceUnloads = 0;       // unloads that ended code's life (collectible and dynamic code)
    uint64_t nettraceDroppedEvents = 0; // events the runtime numbered but did not write (full buffers)

    // Why, in the order they were met: refused and damaged records and files
    // that could not be read. The first thousand are kept; the rest counted.
    std::vector<TraceRefusal> refusals;
    uint64_t refusalsNotKept = 0;

    // The model that came out.
    uint64_t methods = 0;        // registered methods
    uint64_t regions = 0;        // their code regions
    uint64_t inlinedMethods = 0; // methods attached into the inline trees, nested ones included

    uint64_t totalRecords() const {
        uint64_t n = magicRecords + jitdumpCodeLoads + jitdumpCodeMoves + jitdumpDebugInfo + jitdumpOtherRecords +
                     perfMapEntries + nettraceEvents;
        for (uint64_t r : records)
            n += r;
        return n;
    }
};

// One trace file of a resolver's file set.
struct TraceFileInfo {
    std::string path;
    std::string hostName;
    unsigned hostId = 0;
    unsigned pid = 0;
    uint64_t jitRvaBase = 0; // the file owns [jitRvaBase, jitRvaBase + size)
    uint64_t size = 0;
};

// A method inlined into a region, with the region it occupies.
struct InlinedCode {
    ICodeRegion::Ptr region;
    ISymbol::Ptr symbol;
};

// Why a list of trace files or directories would not make a file set (the
// reason the facades' factories return an empty pointer for): the result is
// the status of the set's initialisation; on failure `why` says which path
// and what is wrong with it. Reads no record.
QUARVEL_API quarvel_error_t checkTraceFiles(generic_iterator_t<const char*>& paths, TraceRefusal& why);

// Called for every internal check of the library that fails, after the ERROR
// line that names the condition: a check that fails means a broken invariant
// of the library, never bad input (bad input is refused with a reason). Null
// removes the observer. Returns the previous one. The observer may be called
// from any thread that uses the library.
typedef void (*InternalCheckObserver)(const char* condition, const char* file, int line);
QUARVEL_API InternalCheckObserver setInternalCheckObserver(InternalCheckObserver observer);

// meInvalidPointer for an empty pointer, meNotFound when the resolver was not made by this library.
QUARVEL_API quarvel_error_t collectTraceStatistics(const ISymbolResolver::Ptr& resolver, TraceStatistics& out);

// The jit rva of the code live at an address at a time in a process, from
// what the resolver read: the answer IJitLoader::resolveJitPoint gives for
// the same files (one trace, one answer), without reading them a second
// time. meNotFound when no code was there then (or for a resolver not made
// by this library), meInvalidPointer for an empty pointer.
QUARVEL_API quarvel_error_t resolveJitPoint(const ISymbolResolver::Ptr& resolver, u64 timestamp, u64 virtualAddress,
                                            unsigned pid, unsigned hostId, u64& jitRva);

// The resolver's files, for each host in ascending host id, each pid in
// ascending order, in the order the files were added. Errors as above.
QUARVEL_API quarvel_error_t listTraceFiles(const ISymbolResolver::Ptr& resolver, std::vector<TraceFileInfo>& out);

// The full diagnostic dump of a method (identity, names, regions with
// disassembly, line tables), followed by the inline tree of each region.
// meInvalidPointer for an empty pointer, meNotFound for a symbol not made by this library.
QUARVEL_API quarvel_error_t dumpSymbol(const ISymbol::Ptr& symbol, std::ostream& os);

// The methods inlined directly into region, in attachment order; empty for an
// empty pointer or a region not made by this library. Nested inlines are the
// inlined regions of each child.
QUARVEL_API std::vector<InlinedCode> inlinedRegions(const ICodeRegion::Ptr& region);

// The raw id of the method a symbol was inlined into (0 for a top-level method).
QUARVEL_API unsigned rawParentId(const ISymbol::Ptr& symbol);

QUARVEL_NAMESPACE_END

#endif
