#ifndef QUARVEL_JITTRACE_WRITER_H
#define QUARVEL_JITTRACE_WRITER_H

// Writes JIT trace files in the format the reader understands (see
// docs/trace-format.md). The encoders build record bodies field by field;
// JitTraceWriter appends whole records to a file, one write per record, so a
// writer killed mid-run leaves at most one partial record at the end.

#include <quarvel/export.h>
#include <quarvel/jittrace_format.h>
#include <quarvel/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace quarvel_3_13 {

// One code region of a load record. bytes may be shorter than codeSize, or
// empty when the code bytes are not written.
struct TraceCodeRegion {
    uint64_t startAddress = 0;
    uint32_t codeSize = 0;
    std::vector<uint8_t> bytes;
};

struct TraceLineTables {
    std::vector<quarvel_line_number_entry> managedToSource; // type 1, written first
    std::vector<quarvel_line_number_entry> nativeToManaged; // type 0
    std::vector<quarvel_line_number_entry> nativeToSource;  // type 2
};

// The descriptive tail shared by load and inline records.
struct TraceMethodTail {
    std::string moduleName;
    uint16_t moduleArch = quarvel_arch_vx64;
    std::string methodName;
    std::string className;
    std::string sourceFile;
    uint16_t checksumType = 0;
    std::string checksum;
    uint16_t language = 0;
    TraceLineTables lines;
};

// A method load (versions 0 to 3) or a method update (the version 3 layout).
struct TraceMethodLoad {
    uint32_t hashKey = 0;    // versions 2 and 3
    uint32_t methodId = 0;
    uint8_t inlineFlag = 0;  // version 3
    uint64_t loadTime = 0;
    std::vector<TraceCodeRegion> regions;
    TraceMethodTail tail;
};

// A method inlined into another; its one region lies inside its parent's code.
struct TraceInlineLoad {
    uint32_t methodId = 0;
    uint32_t parentId = 0;
    uint64_t loadTime = 0;
    TraceCodeRegion region;
    TraceMethodTail tail;
};

// New code bytes for [startAddress, startAddress + length) of a loaded method.
struct TraceUpdateV2 {
    uint32_t methodId = 0;
    uint64_t loadTime = 0;
    uint64_t startAddress = 0;
    uint32_t length = 0;
    std::vector<uint8_t> bytes;
};

struct TraceRuntimeInfo {
    uint32_t runtimeType = quarvel_runtime_unknown;
    std::string version;
    std::string name;
};

// Record bodies and frames, as bytes.
namespace jittrace {
QUARVEL_API std::vector<uint8_t> encodeMethodLoad(const TraceMethodLoad& load, int version);
QUARVEL_API std::vector<uint8_t> encodeInlineLoad(const TraceInlineLoad& load);
QUARVEL_API std::vector<uint8_t> encodeUpdateV2(const TraceUpdateV2& update);
QUARVEL_API std::vector<uint8_t> encodeRuntimeInfo(const TraceRuntimeInfo& info);
// type + value.
QUARVEL_API std::vector<uint8_t> frameValue(uint32_t type, uint32_t value);
// type + size + body.
QUARVEL_API std::vector<uint8_t> frameSized(uint32_t type, const std::vector<uint8_t>& body);
// The record type of a load of the given version (0..3), 32-bit or 64-bit variant.
QUARVEL_API uint32_t methodLoadType(int version, bool is64);
} // namespace jittrace

// Appends records to one trace file. All operations are thread-safe.
class QUARVEL_API JitTraceWriter {
public:
    JitTraceWriter();
    ~JitTraceWriter();
    JitTraceWriter(const JitTraceWriter&) = delete;
    JitTraceWriter& operator=(const JitTraceWriter&) = delete;

    // Creates (or truncates, unless append) the file. False with errorText() on failure.
    bool open(const std::string& path, bool append = false);
    bool isOpen() const;
    void close();
    const std::string& errorText() const { return m_error; }

    bool writeMagic(uint32_t value = 0);
    bool writeCollectorType(uint32_t type);
    bool writeMethodLoad(int version, bool is64, const TraceMethodLoad& load);
    bool writeMethodUpdate(const TraceMethodLoad& update);
    bool writeInlineLoad(bool is64, const TraceInlineLoad& load);
    bool writeUpdateV2(const TraceUpdateV2& update);
    bool writeRuntimeInfo(const TraceRuntimeInfo& info);
    // Any bytes, for example a record framed by hand.
    bool writeRaw(const std::vector<uint8_t>& bytes);

    uint64_t bytesWritten() const;

private:
    bool writeAll(const std::vector<uint8_t>& bytes);

    mutable std::mutex m_mutex;
    int m_fd = -1;
    uint64_t m_bytesWritten = 0;
    std::string m_error;
};

} // namespace quarvel_3_13

#endif
