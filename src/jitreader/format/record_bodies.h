#ifndef QUARVEL_FORMAT_RECORD_BODIES_H
#define QUARVEL_FORMAT_RECORD_BODIES_H

// Record bodies decoded into the plain structs the writer encodes from, so
// that one set of structs serves both directions. Decoders check every read
// against the body and refuse a body with a reason that names the file, the
// offset in the file, the field and the bad value; they build no model
// objects and keep no state.

#include "format/record.h"
#include "support/result.h"

#include <quarvel/jittrace_writer.h>

#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

struct BodyOptions {
    bool keepCodeBytes = true;  // copy code bytes into the structs
    bool keepLineTables = true; // false: line tables are checked and skipped
    // With keepCodeBytes: the bytes are not copied but left in the record,
    // and the span of each region kept is put here instead, in the regions'
    // order (the decoder clears it first). Lets a reader that can keep the
    // record's bytes alive make views of them.
    std::vector<ByteSpan>* codeSpans = nullptr;
};

// A method load (versions 0 to 3; a method update uses version 3). On
// refusal `load` still holds the regions read before the damage, so that a
// reader can account for the jit rvas they would have taken.
struct DecodedMethodLoad {
    TraceMethodLoad load;
    Status status;
};

DecodedMethodLoad decodeMethodLoad(const Record& record, int version, const std::string& file,
                                   const BodyOptions& options = BodyOptions());
Expected<TraceInlineLoad> decodeInlineLoad(const Record& record, const std::string& file,
                                           const BodyOptions& options = BodyOptions());
// The same into a struct the caller keeps from record to record: whatever it
// held is dropped, but its strings and tables keep their storage, so that a
// reading pass does not allocate them anew for every record.
Status decodeMethodLoadInto(const Record& record, int version, const std::string& file, const BodyOptions& options,
                            TraceMethodLoad& load);
Status decodeInlineLoadInto(const Record& record, const std::string& file, const BodyOptions& options,
                            TraceInlineLoad& load);
Expected<TraceUpdateV2> decodeUpdateV2(const Record& record, const std::string& file);
Expected<TraceRuntimeInfo> decodeRuntimeInfo(const Record& record, const std::string& file);

QUARVEL_NAMESPACE_END

#endif
