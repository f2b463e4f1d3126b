#include "format/nettrace_primitives.h"

QUARVEL_NAMESPACE_BEGIN
namespace nettrace {

namespace {

bool readVarUInt(ByteCursor& cursor, uint64_t& value, unsigned bits, const char* field) {
    const uint64_t start = cursor.fileOffset();
    uint64_t result = 0;
    for (unsigned shift = 0;; shift += 7) {
        uint8_t byte = 0;
        if (!cursor.u8(byte, field))
            return false;
        const uint64_t part = byte & 0x7F;
        // The bits this byte adds must fit in the value's width.
        if (shift >= bits || (bits - shift < 7 && (part >> (bits - shift)) != 0)) {
            cursor.fail("variable-length " + std::string(field) + " at offset " + std::to_string(start) +
                        " does not fit in " + std::to_string(bits) + " bits");
            return false;
        }
        result |= part << shift;
        if (!(byte & 0x80))
            break;
    }
    value = result;
    return true;
}

// Writes cp at p; returns the byte after it.
char* putUtf8(char* p, uint32_t cp) {
    if (cp < 0x80) {
        *p++ = static_cast<char>(cp);
    } else if (cp < 0x800) {
        *p++ = static_cast<char>(0xC0 | (cp >> 6));
        *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *p++ = static_cast<char>(0xE0 | (cp >> 12));
        *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        *p++ = static_cast<char>(0xF0 | (cp >> 18));
        *p++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
    return p;
}

uint16_t unitAt(const uint8_t* data, size_t i) {
    return static_cast<uint16_t>(data[2 * i] | data[2 * i + 1] << 8);
}

} // namespace

bool readVarUInt32(ByteCursor& cursor, uint32_t& value, const char* field) {
    uint64_t wide = 0;
    if (!readVarUInt(cursor, wide, 32, field))
        return false;
    value = static_cast<uint32_t>(wide);
    return true;
}

bool readVarUInt64(ByteCursor& cursor, uint64_t& value, const char* field) {
    return readVarUInt(cursor, value, 64, field);
}

bool readUtf16String(ByteCursor& cursor, std::string& utf8, const char* field) {
    if (!cursor)
        return false;
    const uint8_t* p = cursor.data() + cursor.offset();
    const size_t units = cursor.remaining() / 2;
    size_t n = 0;
    while (n < units && (p[2 * n] | p[2 * n + 1]) != 0)
        ++n;
    if (n == units) {
        cursor.fail("unterminated " + std::string(field) + " (UTF-16) at offset " +
                    std::to_string(cursor.fileOffset()));
        return false;
    }
    utf16ToUtf8(p, n, utf8);
    return cursor.skip(2 * (n + 1), field);
}

bool readUtf8String(ByteCursor& cursor, std::string& value, const char* field) {
    uint32_t length = 0;
    const uint8_t* p = nullptr;
    if (!readVarUInt32(cursor, length, field) || !cursor.bytes(length, p, field))
        return false;
    value.assign(reinterpret_cast<const char*>(p), length);
    return true;
}

std::string utf16ToUtf8(const uint8_t* data, size_t units) {
    std::string out;
    utf16ToUtf8(data, units, out);
    return out;
}

void utf16ToUtf8(const uint8_t* data, size_t units, std::string& out) {
    // At most three bytes per unit (a surrogate pair: four bytes for two units).
    out.resize(units * 3);
    char* begin = &out[0];
    char* p = begin;
    for (size_t i = 0; i < units; ++i) {
        uint32_t cp = unitAt(data, i);
        if (cp < 0x80) { // most names are ASCII
            *p++ = static_cast<char>(cp);
            continue;
        }
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < units) {
            const uint32_t low = unitAt(data, i + 1);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            } else {
                cp = 0xFFFD;
            }
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        p = putUtf8(p, cp);
    }
    out.resize(static_cast<size_t>(p - begin));
}

} // namespace nettrace
QUARVEL_NAMESPACE_END
