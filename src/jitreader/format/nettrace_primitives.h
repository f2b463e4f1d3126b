#ifndef QUARVEL_FORMAT_NETTRACE_PRIMITIVES_H
#define QUARVEL_FORMAT_NETTRACE_PRIMITIVES_H

// The small encodings of the runtime's event trace, read through a
// ByteCursor so that a short or bad value fails the cursor like any other
// read: variable-length integers, UTF-16 strings ending in a zero unit (the
// runtime's payloads and older metadata) and length-prefixed UTF-8 strings
// (version 6 metadata).

#include "support/byte_cursor.h"

#include <cstddef>
#include <cstdint>
#include <string>

QUARVEL_NAMESPACE_BEGIN
namespace nettrace {

// Seven bits a byte, low bits first, high bit set while more follow. A value
// that does not fit the type (or an encoding longer than it can be) fails.
bool readVarUInt32(ByteCursor& cursor, uint32_t& value, const char* field);
bool readVarUInt64(ByteCursor& cursor, uint64_t& value, const char* field);

// UTF-16LE up to a zero code unit, which is consumed; converted to UTF-8.
// Fails when no zero unit follows within the cursor.
bool readUtf16String(ByteCursor& cursor, std::string& utf8, const char* field);

// A varuint32 byte count and that many bytes of UTF-8.
bool readUtf8String(ByteCursor& cursor, std::string& value, const char* field);

// UTF-16LE code units to UTF-8; a lone surrogate becomes U+FFFD. The second
// form replaces out's text and keeps its buffer (decoders reuse their strings).
std::string utf16ToUtf8(const uint8_t* data, size_t units);
void utf16ToUtf8(const uint8_t* data, size_t units, std::string& out);

} // namespace nettrace
QUARVEL_NAMESPACE_END

#endif
