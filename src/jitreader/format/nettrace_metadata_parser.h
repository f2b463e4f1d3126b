#ifndef QUARVEL_FORMAT_NETTRACE_METADATA_PARSER_H
#define QUARVEL_FORMAT_NETTRACE_METADATA_PARSER_H

// Decodes the definition of one event type. Failures are left in the cursor
// (error() and fileOffset() say what and where).

#include "format/nettrace_types.h"
#include "support/byte_cursor.h"

QUARVEL_NAMESPACE_BEGIN

class NettraceMetadataParser {
public:
    // Versions 4 and 5: the payload of a metadata event. UTF-16 names, a
    // field list, then optional sized tags (opcode; a second field list that
    // can describe arrays).
    static bool parseEventPayload(ByteCursor& payload, NettraceEventMetadata& out);

    // Version 6: one metadata row (the bytes after its size). UTF-8 names,
    // typed field descriptions, then optional properties (version, level,
    // keywords, opcode, ...).
    static bool parseRow(ByteCursor& row, NettraceEventMetadata& out);

private:
    static bool parseObjectStreamFields(ByteCursor& c, std::vector<NettraceFieldDescription>* out, unsigned depth);
    static bool parseParameterTag(ByteCursor tag, std::vector<NettraceFieldDescription>& out);
    static bool parseRowFields(ByteCursor& c, std::vector<NettraceFieldDescription>* out, unsigned depth);
    static bool parseRowType(ByteCursor& c, NettraceFieldDescription& field, unsigned depth);
    static bool parseOptionalMetadata(ByteCursor c, NettraceEventMetadata& out);
};

QUARVEL_NAMESPACE_END

#endif
