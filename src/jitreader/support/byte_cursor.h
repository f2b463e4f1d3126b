#ifndef QUARVEL_SRC_BODY_READER_H
#define QUARVEL_SRC_BODY_READER_H

// The one way record bodies are read: a cursor over the body's bytes whose
// failure is sticky. After a failed read the offset stops moving, every later
// read fails too, and error() names the field, the offset and what was short:
//
//     BodyReader r(record.data);
//     r.u32(id, "method id"); r.u64(loadTime, "load time");
//     if (!r) { log r.error(); refuse; }

#include <quarvel/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace quarvel_3_13 {

class BodyReader {
public:
    BodyReader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    explicit BodyReader(const std::vector<uint8_t>& body) : BodyReader(body.data(), body.size()) {}

    bool u8(uint8_t& value, const char* field) { return fixed(value, field); }
    bool u16(uint16_t& value, const char* field) { return fixed(value, field); }
    bool u32(uint32_t& value, const char* field) { return fixed(value, field); }
    bool u64(uint64_t& value, const char* field) { return fixed(value, field); }

    // Points `bytes` at the next n bytes of the body (no copy).
    bool bytes(size_t n, const uint8_t*& bytes, const char* field) {
        if (!take(n, field))
            return false;
        bytes = m_data + m_offset - n;
        return true;
    }
    bool skip(size_t n, const char* field) { return take(n, field); }

    // A u16 length followed by that many bytes; the text ends at the first zero byte.
    bool countedString(std::string& value, const char* field) {
        uint16_t n = 0;
        const uint8_t* p = nullptr;
        if (!u16(n, field) || !bytes(n, p, field))
            return false;
        value = makeCountedString(p, n);
        return true;
    }

    // The text of n bytes, cut at the first zero byte, never read past n.
    static std::string makeCountedString(const uint8_t* p, size_t n) {
        const void* zero = n ? std::memchr(p, 0, n) : nullptr;
        size_t len = zero ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - p) : n;
        return std::string(reinterpret_cast<const char*>(p), len);
    }

    size_t offset() const { return m_offset; }
    size_t size() const { return m_size; }
    size_t remaining() const { return m_size - m_offset; }
    bool atEnd() const { return m_offset == m_size; }
    bool ok() const { return m_error.empty(); }
    explicit operator bool() const { return ok(); }
    // "unexpected end of body at offset 14 while reading method name: 2 bytes needed, 1 left"
    const std::string& error() const { return m_error; }

    // Fails the cursor with a message of the caller's (e.g. a bad count).
    void fail(const std::string& message) {
        if (m_error.empty())
            m_error = message;
    }

private:
    template <typename T>
    bool fixed(T& value, const char* field) {
        if (!take(sizeof(T), field))
            return false;
        T v = 0;
        // Little-endian on the wire, assembled byte by byte: no alignment or host-order assumption.
        for (size_t i = 0; i < sizeof(T); ++i)
            v |= static_cast<T>(static_cast<T>(m_data[m_offset - sizeof(T) + i]) << (8 * i));
        value = v;
        return true;
    }

    bool take(size_t n, const char* field) {
        if (!m_error.empty())
            return false;
        // Written as a subtraction so that a huge n cannot overflow the sum.
        if (n > m_size - m_offset) {
            m_error = "unexpected end of body at offset " + std::to_string(m_offset) + " while reading " + field +
                      ": " + std::to_string(n) + " bytes needed, " + std::to_string(m_size - m_offset) + " left";
            return false;
        }
        m_offset += n;
        return true;
    }

    const uint8_t* m_data;
    size_t m_size;
    size_t m_offset = 0;
    std::string m_error;
};

} // namespace quarvel_3_13

#endif
