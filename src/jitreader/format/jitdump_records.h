#ifndef QUARVEL_FORMAT_JITDUMP_RECORDS_H
#define QUARVEL_FORMAT_JITDUMP_RECORDS_H

// What a jitdump file (jit-<pid>.dump, written by runtimes for profilers)
// holds, as plain values. Names, file names and code bytes are views into the
// bytes the reader walks: they stay valid while the reader (or the buffer it
// was given) lives, so a dump of many megabytes is never copied.

#include <quarvel/namespace.h>

#include <cstdint>
#include <string_view>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

struct JitdumpHeader {
    static constexpr uint64_t kArchTimestampFlag = 1; // record times are raw cycle counts

    bool bigEndian = false; // the file's byte order (every field was swapped when it differs from ours)
    uint32_t version = 0;
    uint32_t totalSize = 0; // records start here; may exceed the 40 bytes the fields take
    uint32_t elfMachine = 0;
    uint32_t pad = 0;
    uint32_t pid = 0;
    uint64_t timestamp = 0; // may use another clock than the records
    uint64_t flags = 0;

    bool archTimestamp() const { return (flags & kArchTimestampFlag) != 0; }
    // Flag bits this reader does not know: reported, not refused.
    uint64_t unknownFlags() const { return flags & ~kArchTimestampFlag; }
};

enum class JitdumpRecordKind : uint8_t { codeLoad, codeMove, debugInfo, close, unwindingInfo, unknown };

// The record ids of the format.
enum JitdumpRecordId : uint32_t {
    kJitdumpCodeLoad = 0,
    kJitdumpCodeMove = 1,
    kJitdumpDebugInfo = 2,
    kJitdumpClose = 3,
    kJitdumpUnwindingInfo = 4,
};

const char* jitdumpRecordName(JitdumpRecordKind kind);

struct JitdumpCodeLoad {
    uint32_t pid = 0;
    uint32_t tid = 0;
    uint64_t vma = 0;
    uint64_t codeAddr = 0;
    uint64_t codeSize = 0;
    uint64_t codeIndex = 0;
    std::string_view name;
    const uint8_t* code = nullptr; // codeSize bytes, inside the file
    uint64_t codeOffset = 0;       // where they lie in the file
};

struct JitdumpCodeMove {
    uint32_t pid = 0;
    uint32_t tid = 0;
    uint64_t vma = 0;
    uint64_t oldCodeAddr = 0;
    uint64_t newCodeAddr = 0;
    uint64_t codeSize = 0;
    uint64_t codeIndex = 0;
};

struct JitdumpDebugEntry {
    uint64_t address = 0; // as written: some writers add a bias (see JitdumpDebugBias)
    int32_t line = 0;
    int32_t discriminator = 0;
    std::string_view file;           // resolved: the previous entry's file for the "same file" form
    bool sameFileAsPrevious = false; // written as the two bytes 0xFF 0x00
};

// Describes the code load with the same code address, usually the next one.
struct JitdumpDebugInfo {
    uint64_t codeAddr = 0;
    std::vector<JitdumpDebugEntry> entries;
};

// Skipped by readers of symbols; its sizes are checked all the same.
struct JitdumpUnwindingInfo {
    uint64_t unwindDataSize = 0; // eh_frame_hdr then eh_frame
    uint64_t ehFrameHdrSize = 0;
    uint64_t mappedSize = 0;
    const uint8_t* data = nullptr; // unwindDataSize bytes, inside the file
    uint64_t dataOffset = 0;
};

// One record as read. Only the member of its kind is filled; a reader reuses
// the same object for every record, so its vectors keep their capacity.
struct JitdumpRecord {
    JitdumpRecordKind kind = JitdumpRecordKind::unknown;
    uint32_t id = 0;
    uint32_t totalSize = 0; // the 16-byte prefix included
    uint64_t timestamp = 0;
    uint64_t offset = 0; // where the record starts in the file

    JitdumpCodeLoad load;
    JitdumpCodeMove move;
    JitdumpDebugInfo debugInfo;
    JitdumpUnwindingInfo unwinding;

    uint64_t end() const { return offset + totalSize; }
};

QUARVEL_NAMESPACE_END

#endif
