#ifndef QUARVEL_INGEST_JITDUMP_FILE_READER_H
#define QUARVEL_INGEST_JITDUMP_FILE_READER_H

// The reading pass over one jitdump file (jit-<pid>.dump), as runtimes write
// them for profilers:
//  - each CODE_LOAD is a method of one region, live from the record's time
//    until other code is loaded over any part of it (as for our own traces),
//    named as written, in the pseudo module "[Dynamic code]";
//  - the CODE_DEBUG_INFO with the load's code address gives its line table
//    and source file, with the writer's address bias removed;
//  - a CODE_MOVE puts the moved code at its new address from the record's
//    time on, as the same method;
//  - CODE_CLOSE, CODE_UNWINDING_INFO and unknown records are skipped by size.
// Record times are kept as written: CLOCK_MONOTONIC nanoseconds, or raw
// cycle counts when the header's flag says so.
//
// A load the model cannot hold (0 bytes, at address 0, ...) is refused with
// its reason and the pass reads on; a cut or damaged record ends the file,
// and everything before it stays.

#include "ingest/address_ranges.h"
#include "ingest/jit_file_reader.h"
#include "ingest/runtime_code_builder.h"

QUARVEL_NAMESPACE_BEGIN

class JitDataManager;

class JitdumpFileReader {
public:
    // stats may be null; modules may be shared across the files of a pass.
    JitdumpFileReader(JitReadStats* stats, ModuleCache& modules) : m_stats(stats), m_modules(modules) {}

    // meSuccess, meBadRecord when a cut or damaged record ended the file,
    // meFileOpenError (or meBadRecord for a bad header) when nothing could be
    // read. The addresses of every load placed go into `code` when given.
    quarvel_error_t readFile(const RuntimeFileContext& file, JitDataManager& dataManager, AddressRanges* code);

private:
    JitReadStats* m_stats;
    ModuleCache& m_modules;
};

QUARVEL_NAMESPACE_END

#endif
