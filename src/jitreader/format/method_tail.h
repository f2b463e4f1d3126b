#ifndef QUARVEL_FORMAT_METHOD_TAIL_H
#define QUARVEL_FORMAT_METHOD_TAIL_H

// The pieces shared by the load and inline bodies: code regions and the
// descriptive tail (module, names, source file, three line tables, and the
// optional metadata token of the newer layouts).

#include "format/record_bodies.h"
#include "support/byte_cursor.h"

QUARVEL_NAMESPACE_BEGIN

// Refusal of a body at the cursor's position: the cursor's own error when it
// ran short, else `message`.
Reason bodyReason(const ByteCursor& cursor, const std::string& file, const char* field, std::string message);

// Empties a load for the next record, keeping the storage of its strings and
// tables; every other field takes its default.
void recycle(TraceMethodLoad& load);
void recycle(TraceInlineLoad& load);

// One region head and its code bytes, which stay in the record.
bool readCodeRegion(ByteCursor& cursor, TraceCodeRegion& region, ByteSpan& bytes);
// Keeps a region's code bytes as the options ask: copied, their span noted,
// or neither.
void keepCodeBytes(TraceCodeRegion& region, ByteSpan bytes, const BodyOptions& options);

bool readModule(ByteCursor& cursor, TraceMethodTail& tail);
// Names, source file and line tables.
bool readSymbolic(ByteCursor& cursor, TraceMethodTail& tail, const BodyOptions& options);
// The token follows the tables when four bytes remain.
bool readMetadataToken(ByteCursor& cursor, TraceMethodTail& tail);

QUARVEL_NAMESPACE_END

#endif
