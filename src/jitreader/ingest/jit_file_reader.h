#ifndef QUARVEL_INGEST_JIT_FILE_READER_H
#define QUARVEL_INGEST_JIT_FILE_READER_H

#include "model/jit_method.h"

#include <quarvel/types.h>

#include <array>
#include <vector>

namespace quarvel_3_13 {

class JitDataManager;
class JitFileDecoder;

typedef std::vector<JitMethod::Ptr> JitMethodStorage;

// What the reading passes did; internal, printed by the command-line tool.
struct JitReadStats {
    // Record types 0..15 by value; Magic records apart.
    static constexpr size_t kTypeSlots = 16;

    u64 files = 0;             // files a pass went through
    u64 failedFiles = 0;       // files that could not be opened or ended in a damaged record
    u64 bytes = 0;             // bytes consumed by the passes
    std::array<u64, kTypeSlots> records{}; // records read, by type
    u64 magicRecords = 0;

    // Records that did not make it into the model, by reason.
    u64 refusedBodies = 0;        // a body decoder refused the record
    u64 refusedByDataManager = 0; // registration, inline attachment or update refused
    u64 architectureFiltered = 0; // a load of the other variant ended the file
    u64 ignoredUpdates = 0;       // update records outside decoding mode dmCodeBytes
    u64 secondTraces = 0;         // a Magic record past offset 0 ended the file
    u64 damagedRecords = 0;       // framing errors (truncated, unknown type, size 0)

    u64 totalRecords() const;
    JitReadStats& operator+=(const JitReadStats& other);
};

// Pulls every record of one file through its decoder and hands the decoded
// methods to the data manager.
class JitFileReader {
public:
    // stats may be null.
    explicit JitFileReader(JitReadStats* stats = nullptr) : m_stats(stats) {}

    // meSuccess, or the status of the failing step (the methods registered
    // before it stay registered).
    quarvel_error_t readJitFile(JitFileDecoder& decoder, target_arch_t arch, JitDataManager& dataManager);

    // Names the modules of 64-bit code "<name> (64)".
    static void patchModuleName64(JitMethodStorage& methods);

private:
    // True when the architecture filter ends the file at a load record of this type.
    static bool filteredOut(u32 type, target_arch_t arch);

    JitReadStats* m_stats;
};

} // namespace quarvel_3_13

#endif
