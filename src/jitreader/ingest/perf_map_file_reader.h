#ifndef QUARVEL_INGEST_PERF_MAP_FILE_READER_H
#define QUARVEL_INGEST_PERF_MAP_FILE_READER_H

// The reading pass over one perf map (perf-<pid>.map): each line
// "START SIZE name" is a method of one region in the pseudo module
// "[Dynamic code]". A map carries no times, so line n is taken as loaded at
// time n (its line number): every line is live before any real sample, and a
// later line over an earlier one's addresses ends the earlier one, as a
// later load does in a trace. A sample at any real time therefore gets the
// last line in file order that covers its address and that no later line
// overlapped.
//
// Paired with a jitdump of the same process, the dump wins where it has the
// code: a line over any address a jitdump of the process ever put code at
// is left out (counted), so only code the dump lacks comes from the map.
//
// A malformed line is refused with its line number and read past; a last
// line without its line end (the writer was stopped mid-line) is left out,
// since its size or name may be cut, and the cut is reported.

#include "ingest/address_ranges.h"
#include "ingest/jit_file_reader.h"
#include "ingest/runtime_code_builder.h"

QUARVEL_NAMESPACE_BEGIN

class JitDataManager;

class PerfMapFileReader {
public:
    // stats may be null; modules may be shared across the files of a pass.
    PerfMapFileReader(JitReadStats* stats, ModuleCache& modules) : m_stats(stats), m_modules(modules) {}

    // meSuccess, meBadRecord when the last line was cut, meFileOpenError
    // when the file cannot be read. Lines over `jitdumpCode` (may be null)
    // are left out.
    quarvel_error_t readFile(const RuntimeFileContext& file, JitDataManager& dataManager,
                             const AddressRanges* jitdumpCode);

private:
    JitReadStats* m_stats;
    ModuleCache& m_modules;
};

QUARVEL_NAMESPACE_END

#endif
