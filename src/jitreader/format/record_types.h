#ifndef QUARVEL_FORMAT_RECORD_TYPES_H
#define QUARVEL_FORMAT_RECORD_TYPES_H

// The one table of record types: how each is framed, which body it carries,
// and the line the reader logs when it meets one.

#include <quarvel/types.h>

QUARVEL_NAMESPACE_BEGIN

enum class Framing {
    sized, // type, size, body
    value  // type, one u32 value
};

enum class BodyKind {
    methodLoad,   // versions 0 to 3
    methodUpdate, // the version 3 load layout
    inlineLoad,
    updateV2,
    runtimeInfo,
    collectorType,
    magic
};

struct RecordTypeInfo {
    u32 type;
    const char* logLine; // "JIT TRACE: MethodLoad", ...
    Framing framing;
    BodyKind body;
    int loadVersion;    // 0..3 for method loads and updates, else -1
    bool secondVariant; // the second type of a load pair (64-bit code)
};

// Null for a type the format does not know (1, 3, 16 and up but Magic).
const RecordTypeInfo* recordTypeInfo(u32 type);

// Loads of the other variant end the file's pass: taAny reads both variants,
// taX86 only first variants, taX86_64 only second ones, larger values none.
bool excludedByArchitecture(const RecordTypeInfo& info, target_arch_t arch);

QUARVEL_NAMESPACE_END

#endif
