#ifndef QUARVEL_JITTRACE_WRITER_H
#define QUARVEL_JITTRACE_WRITER_H

/* Writes JIT trace files in the format the reader understands (see
   docs/trace-format.md). Every record is encoded whole in memory and appended
   with one write call, so records of concurrent writers never interleave and a
   writer killed mid-run leaves at most one partial record at the end.

   The first part is a plain C interface for agents written in C; the C++
   part below it offers the encoders themselves and JitTraceWriter. */

#include <quarvel/export.h>
#include <quarvel/jittrace_format.h>
#include <quarvel/types.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An open trace file. Every call on one handle is thread-safe. */
typedef struct quarvel_trace_writer quarvel_trace_writer;

/* Results of the C calls. */
enum quarvel_trace_status {
    quarvel_trace_ok = 0,
    quarvel_trace_invalid_argument = 1, /* null handle or record, or a count a field cannot hold */
    quarvel_trace_open_failed = 2,      /* the file could not be created or opened */
    quarvel_trace_write_failed = 3,     /* the write failed or the handle is closed */
    quarvel_trace_no_memory = 4
};

/* One code region: code_size bytes of machine code at start_address.
   byte_count code bytes follow the region in the file (0 writes none; the
   reader then has no code to disassemble). */
typedef struct quarvel_trace_region {
    uint64_t start_address;
    uint32_t code_size;
    const uint8_t* bytes;
    uint32_t byte_count;
} quarvel_trace_region;

/* A line table: count rows {start offset, end offset, value}. */
typedef struct quarvel_trace_line_table {
    const quarvel_line_number_entry* entries;
    uint32_t count; /* at most 65535 */
} quarvel_trace_line_table;

/* The descriptive tail of load and inline records. Null strings are written
   empty; a string is at most 65535 bytes. */
typedef struct quarvel_trace_method_tail {
    const char* module_name;
    uint16_t module_arch; /* a quarvel_arch value */
    const char* method_name;
    const char* class_name; /* dotted; the reader joins its parts with "::" */
    const char* source_file;
    uint16_t checksum_type;
    const char* checksum;
    uint16_t language;                          /* a quarvel_language_type value */
    quarvel_trace_line_table managed_to_source; /* IL offset range -> source line */
    quarvel_trace_line_table native_to_managed; /* code offset range -> IL offset */
    quarvel_trace_line_table native_to_source;  /* code offset range -> source line */
    uint32_t metadata_token;                    /* .NET MethodDef token; 0 for other runtimes.
                                                   Written by version 3 loads and inline loads only.
                                                   A .NET method needs only this, module_name (the
                                                   assembly's path) and native_to_managed (the
                                                   runtime's native-to-IL map): the symbol resolver
                                                   reads names and lines from the assembly and its
                                                   PDB (docs/trace-format.md, ".NET methods"). */
} quarvel_trace_method_tail;

/* A method load (versions 0 to 3) or a method update (the version 3 layout). */
typedef struct quarvel_trace_method_load {
    uint32_t hash_key; /* versions 2 and 3: set it to method_id (see TraceMethodLoad below) */
    uint32_t method_id;
    uint8_t inline_flag; /* version 3: 1 makes the record an inline load */
    uint64_t load_time;
    const quarvel_trace_region* regions;
    uint32_t region_count; /* at most 65535 */
    quarvel_trace_method_tail tail;
} quarvel_trace_method_load;

/* A method inlined into the method whose raw id is parent_id; its one region
   lies inside the parent's code. */
typedef struct quarvel_trace_inline_load {
    uint32_t method_id;
    uint32_t parent_id;
    uint64_t load_time;
    quarvel_trace_region region;
    quarvel_trace_method_tail tail;
} quarvel_trace_inline_load;

/* New code bytes for [start_address, start_address + length) of a loaded method. */
typedef struct quarvel_trace_update_v2 {
    uint32_t method_id;
    uint64_t load_time;
    uint64_t start_address;
    uint32_t length;
    const uint8_t* bytes;
    uint32_t byte_count;
} quarvel_trace_update_v2;

typedef struct quarvel_trace_runtime_info {
    uint32_t runtime_type; /* a quarvel_runtime_type value */
    const char* version;
    const char* name;
} quarvel_trace_runtime_info;

/* Creates the file (truncating it unless append is non-zero) and stores a new
   handle in *writer; on failure *writer is null and errno tells why. */
QUARVEL_API int quarvel_trace_writer_open(const char* path, int append, quarvel_trace_writer** writer);
/* Closes the file and frees the handle; null is accepted. */
QUARVEL_API void quarvel_trace_writer_close(quarvel_trace_writer* writer);
/* Why the last call on the handle failed; valid until the next call on it. */
QUARVEL_API const char* quarvel_trace_writer_error(const quarvel_trace_writer* writer);
/* Bytes appended through the handle so far. */
QUARVEL_API uint64_t quarvel_trace_writer_bytes_written(const quarvel_trace_writer* writer);

QUARVEL_API int quarvel_trace_write_magic(quarvel_trace_writer* writer, uint32_t value);
QUARVEL_API int quarvel_trace_write_collector_type(quarvel_trace_writer* writer, uint32_t type);
/* version 0..3; is64 selects the second record type of the pair. */
QUARVEL_API int quarvel_trace_write_method_load(quarvel_trace_writer* writer, int version, int is64,
                                                const quarvel_trace_method_load* load);
QUARVEL_API int quarvel_trace_write_method_update(quarvel_trace_writer* writer,
                                                  const quarvel_trace_method_load* update);
QUARVEL_API int quarvel_trace_write_inline_load(quarvel_trace_writer* writer, int is64,
                                                const quarvel_trace_inline_load* load);
QUARVEL_API int quarvel_trace_write_update_v2(quarvel_trace_writer* writer, const quarvel_trace_update_v2* update);
QUARVEL_API int quarvel_trace_write_runtime_info(quarvel_trace_writer* writer, const quarvel_trace_runtime_info* info);

#ifdef __cplusplus
} /* extern "C" */

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

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
    // .NET: the MethodDef token of the method in the module's metadata; the
    // symbol resolver takes names and lines from the assembly and its PDB.
    // A .NET producer sets moduleName to the assembly's path as the runtime
    // loaded it, this token, and lines.nativeToManaged to the runtime's
    // native-to-IL map (IL offsets 0xFFFFFFFE prologue, 0xFFFFFFFD epilogue,
    // 0xFFFFFFFF unmapped, as they come); names and source may stay empty.
    // Written (when non-zero) after the line tables of version 3 loads and of
    // inline loads; older layouts have no room for it.
    uint32_t metadataToken = 0;
};

// A method load (versions 0 to 3) or a method update (the version 3 layout).
struct TraceMethodLoad {
    // Versions 2 and 3: the raw id the method's identity is hashed from (with
    // host, pid and module architecture). Set it to methodId so that each load
    // is its own method and inline records can name it as their parent; 0
    // hashes the names instead, so loads with equal names become one method.
    uint32_t hashKey = 0;
    uint32_t methodId = 0;
    uint8_t inlineFlag = 0; // version 3
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

    // Creates the file, or appends to it. Without append an existing file is
    // replaced by a new one, not truncated: a reader may still map the old
    // one (a process id reused), and truncating it would fault that reader.
    // False with errorText() on failure.
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

QUARVEL_NAMESPACE_END

#endif /* __cplusplus */

#endif
