#ifndef QUARVEL_INGEST_JIT_FILE_READER_H
#define QUARVEL_INGEST_JIT_FILE_READER_H

#include "ingest/method_builder.h"
#include "model/jit_method.h"
#include "support/result.h"

#include <quarvel/types.h>

#include <array>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

class JitDataManager;
class JitFileDecoder;

// What the reading passes did; internal, handed to tools by the diagnostics.
struct JitReadStats {
    // Record types 0..15 by value; Magic records apart.
    static constexpr size_t kTypeSlots = 16;
    // Refusals kept with their reasons; later ones are only counted.
    static constexpr size_t kKeptRefusals = 1000;

    u64 files = 0;                         // files a pass went through
    u64 failedFiles = 0;                   // files that could not be opened or ended in a damaged record
    u64 bytes = 0;                         // bytes consumed by the passes
    std::array<u64, kTypeSlots> records{}; // records read, by type
    u64 magicRecords = 0;

    // Records that did not make it into the model, by reason.
    u64 refusedBodies = 0;        // a body was damaged or carried a value the format forbids
    u64 refusedByDataManager = 0; // registration, inline attachment or update refused
    u64 architectureFiltered = 0; // a load of the other variant ended the file
    u64 ignoredUpdates = 0;       // update records outside decoding mode dmCodeBytes
    u64 secondTraces = 0;         // a Magic record past offset 0 ended the file
    u64 damagedRecords = 0;       // framing errors (truncated, unknown type, size 0)

    // The files runtimes write for profilers.
    u64 jitdumpCodeLoads = 0;
    u64 jitdumpCodeMoves = 0;
    u64 jitdumpDebugInfo = 0;
    u64 jitdumpOtherRecords = 0;         // close, unwinding information, unknown types: skipped
    u64 perfMapEntries = 0;              // well-formed lines
    u64 perfMapEntriesLeftToJitdump = 0; // lines over code a jitdump of the same process describes
    u64 nettraceEvents = 0;              // events of .NET event traces, of every provider
    u64 nettraceCodeLoads = 0;           // method loads: one per native code version
    u64 nettraceRundownCode = 0;         // code only the rundown listed (precompiled, or compiled unseen)
    u64 nettraceILMaps = 0;              // native-to-IL maps given to their code
    u64 nettraceUnloads = 0;             // unloads that ended code's life (collectible and dynamic code)
    u64 nettraceDroppedEvents = 0;       // events the runtime numbered but did not write (full buffers)

    // Why: every refused record, damaged record and unreadable file, each
    // naming the file and the offset, in the order they were met.
    std::vector<Reason> refusals;
    u64 refusalsNotKept = 0;

    void addRefusal(const Reason& reason);
    u64 totalRecords() const;
    JitReadStats& operator+=(const JitReadStats& other);
};

// Pulls every record of one file through its decoder, builds the model
// objects of each body and hands them to the data manager.
//
// Only broken framing ends a file: a record whose body is damaged, or that
// the data manager refuses, is counted with its reason and the pass reads
// on. Each code region of a method load takes its jit rva from the file's
// range as it is read, whatever becomes of the rest of its record, so that
// every decoding mode hands out the same jit rvas for the same bytes.
class JitFileReader {
public:
    // Each file owns this much jit rva space from its base: no file can run
    // into the next one's range.
    static constexpr u64 kJitRvaStride = u64(1) << 40;

    // stats may be null; modules may be shared across the files of a pass.
    JitFileReader(JitReadStats* stats, ModuleCache& modules) : m_stats(stats), m_modules(modules) {}

    // meSuccess, or the status that ended the file (meBadRecord for broken
    // framing, meFileOpenError); what was registered before stays.
    quarvel_error_t readJitFile(JitFileDecoder& decoder, target_arch_t arch, JitDataManager& dataManager);

    // Names the modules of 64-bit code "<name> (64)".
    static void patchModuleName64(JitMethodStorage& methods);

private:
    JitReadStats* m_stats;
    ModuleCache& m_modules;
};

QUARVEL_NAMESPACE_END

#endif
