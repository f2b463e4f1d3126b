#ifndef QUARVEL_DOTNET_COMPRESSED_INTEGER_H
#define QUARVEL_DOTNET_COMPRESSED_INTEGER_H

// The compressed integers of .NET metadata signatures, blob lengths and PDB
// blobs: 1, 2 or 4 big-endian bytes whose leading bits give the width
// (0xxxxxxx, 10xxxxxx x, 110xxxxx x x x). Signed values are the 7, 14 or 29
// bit two's complement rotated left by one, so the sign sits in bit 0.

#include "support/byte_cursor.h"

#include <cstdint>
#include <string>

QUARVEL_NAMESPACE_BEGIN

// Reads one compressed unsigned integer; `width` receives its byte count.
inline bool readCompressedUnsigned(ByteCursor& c, uint32_t& value, const char* field, unsigned* width = nullptr) {
    const uint64_t at = c.fileOffset();
    uint8_t b0 = 0;
    if (!c.u8(b0, field))
        return false;
    if ((b0 & 0x80) == 0) {
        value = b0;
        if (width)
            *width = 1;
        return true;
    }
    if ((b0 & 0xC0) == 0x80) {
        uint8_t b1 = 0;
        if (!c.u8(b1, field))
            return false;
        value = (uint32_t(b0 & 0x3F) << 8) | b1;
        if (width)
            *width = 2;
        return true;
    }
    if ((b0 & 0xE0) == 0xC0) {
        uint8_t b[3] = {};
        if (!c.u8(b[0], field) || !c.u8(b[1], field) || !c.u8(b[2], field))
            return false;
        value = (uint32_t(b0 & 0x1F) << 24) | (uint32_t(b[0]) << 16) | (uint32_t(b[1]) << 8) | b[2];
        if (width)
            *width = 4;
        return true;
    }
    c.fail("bad compressed integer (first byte " + std::to_string(b0) + ") at offset " + std::to_string(at) +
           " while reading " + field);
    return false;
}

inline bool readCompressedSigned(ByteCursor& c, int32_t& value, const char* field) {
    uint32_t raw = 0;
    unsigned width = 0;
    if (!readCompressedUnsigned(c, raw, field, &width))
        return false;
    const int32_t magnitude = static_cast<int32_t>(raw >> 1);
    if ((raw & 1) == 0) {
        value = magnitude;
        return true;
    }
    // Negative: the value bits sign-extended from 6, 13 or 28 bits.
    const int32_t bias = width == 1 ? 0x40 : width == 2 ? 0x2000 : 0x10000000;
    value = magnitude - bias;
    return true;
}

QUARVEL_NAMESPACE_END

#endif
