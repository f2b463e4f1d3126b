#ifndef QUARVEL_INGEST_NETTRACE_FILE_READER_H
#define QUARVEL_INGEST_NETTRACE_FILE_READER_H

// The reading pass over one event trace (.nettrace) that the .NET runtime
// writes of its own process when told to by environment variables:
//  - each method load (one per native code version: tier 0, tier 1, OSR,
//    dynamic methods, IL stubs) is a method of one region, live from the
//    event's time, with its assembly as module, its MethodDef token and its
//    native-to-IL map as native-to-managed rows; the resolver then takes
//    names from the assembly's metadata and lines from its PDB. Code whose
//    assembly is not a file here (dynamic methods, dynamic or vanished
//    assemblies) keeps the names the event gives;
//  - an unload of collectible or dynamic code ends its life at the event's
//    time. Ordinary code is never freed: the unloads the runtime reports for
//    it as the process ends mark the start of its exit, and that unload and
//    every later one are passed over;
//  - the rundown adds the code alive at the end (or at the start of a
//    session that began late) whose load was not seen: precompiled
//    (ReadyToRun) code, live from its assembly's load, and code compiled
//    while the session opened or closed;
//  - events are handled in time order: the runtime writes each thread's
//    events in order, but the threads' buffers as they fill.
// Times are the trace's clock in nanoseconds (CLOCK_MONOTONIC on Linux, the
// clock of perf record -k mono). A damaged or cut trace keeps every whole
// event before the damage.

#include "ingest/address_ranges.h"
#include "ingest/jit_file_reader.h"
#include "ingest/runtime_code_builder.h"

QUARVEL_NAMESPACE_BEGIN

class JitDataManager;

class NettraceFileReader {
public:
    // stats may be null; modules may be shared across the files of a pass.
    NettraceFileReader(JitReadStats* stats, ModuleCache& modules) : m_stats(stats), m_modules(modules) {}

    // meSuccess, meBadRecord when damage ended the file, meFileOpenError (or
    // meBadRecord for a bad header) when nothing could be read. The
    // addresses of all code placed go into `code` when given.
    quarvel_error_t readFile(const RuntimeFileContext& file, JitDataManager& dataManager, AddressRanges* code);

private:
    JitReadStats* m_stats;
    ModuleCache& m_modules;
};

QUARVEL_NAMESPACE_END

#endif
