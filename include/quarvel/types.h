#ifndef QUARVEL_TYPES_H
#define QUARVEL_TYPES_H

/* Plain types that cross the library boundary. They live at global scope so
   that C callers can use them too. */

#include <quarvel/namespace.h>

#include <stdint.h>

#ifdef __cplusplus
#define QUARVEL_ENUM(name, base) enum name : base
#else
#define QUARVEL_ENUM(name, base) \
    typedef base name;           \
    enum name##_values
#endif

/* Status of nearly every operation: 0 is success, anything else a failure. */
QUARVEL_ENUM(quarvel_error_t, uint32_t){
    meSuccess = 0,
    meEndOfData = 2,           /* the record stream of a trace file is exhausted */
    meNotFound = 4,            /* nothing matches the query */
    meJitFileNotFound = 10,    /* a named trace file is not part of the file set */
    meInvalidPointer = 12,     /* a required output pointer is null */
    meBadRecord = 14,          /* a record could not be read in full or has an unknown type */
    meInsufficientBuffer = 18, /* the caller's array is too short */
    meFileOpenError = 22       /* the trace file could not be opened */
};

/* Boolean at the C boundary: 0 false, anything else true. */
typedef int32_t quarvel_bool_t;

/* One row of a line-number table. */
typedef struct quarvel_line_number_entry {
    uint32_t startOffset; /* first covered offset */
    uint32_t endOffset;   /* one past the last covered offset */
    uint32_t value;       /* intermediate-language offset or source line */
} quarvel_line_number_entry;

/* Which of a method's three line tables a query addresses. */
QUARVEL_ENUM(quarvel_line_info_type, uint32_t){quarvel_line_info_native_to_managed = 0,
                                               quarvel_line_info_managed_to_source = 1,
                                               quarvel_line_info_native_to_source = 2};

/* Kind of a byte range rewritten by a method update. */
QUARVEL_ENUM(quarvel_segment_type_t, uint32_t){
    quarvel_segment_code = 1,     /* new instructions */
    quarvel_segment_padding = 2,  /* no code: the range is filled with no-operations */
    quarvel_segment_unchanged = 3 /* keep the type recorded for the range before */
};

/* Architecture of a module's code, as written in trace records. */
QUARVEL_ENUM(quarvel_arch, int32_t){quarvel_arch_vx32 = 0,    /* 32-bit x86 */
                                    quarvel_arch_varda64 = 1, /* 64-bit code, the profiler collector's 64-bit modules */
                                    quarvel_arch_vx64 = 2,    /* 64-bit x86 */
                                    quarvel_arch_mcx1 = 3};

/* Source language codes used by trace writers. */
QUARVEL_ENUM(quarvel_language_type, uint32_t){quarvel_language_unknown = 0, quarvel_language_java = 5};

#ifdef __cplusplus
QUARVEL_NAMESPACE_BEGIN

typedef uint64_t u64;
typedef uint32_t u32;
typedef uint64_t u64_t;
typedef uint32_t u32_t;
typedef uint64_t jit_rva_t;
typedef uint64_t address_t;

/* Which load-record variant a reading pass accepts. */
enum target_arch_t : uint32_t {
    taAny = 0,   /* both variants of every load pair */
    taX86 = 1,   /* the first variant (32-bit code) only */
    taX86_64 = 2 /* the second variant (64-bit code) only */
};

/* How much of a trace file a reading pass decodes (bit set). */
enum decoding_mode_t : uint32_t {
    dmNone = 0,
    dmCodeBytes = 1,   /* keep code bytes; apply method updates when exactly this */
    dmSkipSymbolic = 2 /* skip names, source files and line tables of old load records */
};

/* A trace file whose process and host the caller already knows. */
struct JitFileDescriptor {
    const char* path;
    unsigned pid;
    const char* hostName;
};

/* Collector types written by agents in the CollectorType record. */
enum collector_type_t : uint32_t { ctUnknown = 0, ctJitProfiler = 1 };

QUARVEL_NAMESPACE_END
#endif

#endif
