#ifndef QUARVEL_SUPPORT_BYTE_CURSOR_H
#define QUARVEL_SUPPORT_BYTE_CURSOR_H

// The one way the library reads bytes that came from a file: a cursor over a
// span whose failure is sticky. After a failed read the offset stops moving,
// every later read fails too, and error() names the field, the offset and
// what was short, so a run of reads is checked once at its end:
//
//     ByteCursor c(record.data);
//     c.u32(id, "method id"); c.u64(loadTime, "load time");
//     if (!c) return refuse(c.error());
//
// Offsets in messages are absolute: a cursor made with a base offset (or cut
// from another with sub()) reports where the byte lies in the file.

#include <quarvel/namespace.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

class ByteCursor {
public:
    enum class Order { little, big };
    static constexpr Order kHostOrder = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? Order::big : Order::little;

    ByteCursor(const uint8_t* data, size_t size, Order order = Order::little, uint64_t baseOffset = 0)
        : m_data(data), m_size(size), m_order(order), m_base(baseOffset) {}
    explicit ByteCursor(const std::vector<uint8_t>& bytes, Order order = Order::little, uint64_t baseOffset = 0)
        : ByteCursor(bytes.data(), bytes.size(), order, baseOffset) {}

    bool u8(uint8_t& value, const char* field) { return fixed(value, field); }
    bool u16(uint16_t& value, const char* field) { return fixed(value, field); }
    bool u32(uint32_t& value, const char* field) { return fixed(value, field); }
    bool u64(uint64_t& value, const char* field) { return fixed(value, field); }
    bool i32(int32_t& value, const char* field) {
        uint32_t raw = 0;
        if (!u32(raw, field))
            return false;
        std::memcpy(&value, &raw, sizeof value);
        return true;
    }

    // Points `bytes` at the next n bytes (no copy).
    bool bytes(size_t n, const uint8_t*& bytes, const char* field) {
        if (!take(n, field))
            return false;
        bytes = m_data + m_offset - n;
        return true;
    }
    bool skip(size_t n, const char* field) { return take(n, field); }

    // Moves to an offset of this cursor's span (0..size()).
    bool seek(size_t offset, const char* field) {
        if (!m_error.empty())
            return false;
        if (offset > m_size) {
            m_error = "offset " + std::to_string(m_base + offset) + " of " + field +
                      " lies past the end of the data (" + std::to_string(m_base + m_size) + ")";
            return false;
        }
        m_offset = offset;
        return true;
    }

    // A u16 length followed by that many bytes; the text ends at the first
    // zero byte. Assigned in place: a string reused from record to record
    // keeps its storage.
    bool countedString(std::string& value, const char* field) {
        uint16_t n = 0;
        const uint8_t* p = nullptr;
        if (!u16(n, field) || !bytes(n, p, field))
            return false;
        const size_t length = countedLength(p, n);
        if (length == 0)
            value.clear(); // inline: assigning nothing is still a call (empty module names, checksums)
        else
            value.assign(reinterpret_cast<const char*>(p), length);
        return true;
    }

    // Text up to a zero byte, which is consumed; fails when no zero byte follows.
    bool cString(std::string& value, const char* field) {
        std::string text;
        if (!appendCString(text, field))
            return false;
        value = std::move(text);
        return true;
    }
    // The same, appended to value (names built from parts need no copies).
    bool appendCString(std::string& value, const char* field) {
        if (!m_error.empty())
            return false;
        const void* zero = std::memchr(m_data + m_offset, 0, m_size - m_offset);
        if (!zero) {
            m_error = "unterminated " + std::string(field) + " at offset " + std::to_string(m_base + m_offset);
            return false;
        }
        const size_t n = static_cast<size_t>(static_cast<const uint8_t*>(zero) - (m_data + m_offset));
        value.append(reinterpret_cast<const char*>(m_data + m_offset), n);
        m_offset += n + 1;
        return true;
    }

    // A cursor over the next n bytes, which this one steps over. On failure
    // the returned cursor is empty and failed too.
    ByteCursor sub(size_t n, const char* field) {
        const size_t at = m_offset;
        if (!take(n, field)) {
            ByteCursor failed(m_data, 0, m_order, m_base + at);
            failed.fail(m_error);
            return failed;
        }
        return ByteCursor(m_data + at, n, m_order, m_base + at);
    }

    // The text of n bytes, cut at the first zero byte, never read past n.
    static std::string makeCountedString(const uint8_t* p, size_t n) {
        return std::string(reinterpret_cast<const char*>(p), countedLength(p, n));
    }
    static size_t countedLength(const uint8_t* p, size_t n) {
        const void* zero = n ? std::memchr(p, 0, n) : nullptr;
        return zero ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - p) : n;
    }

    const uint8_t* data() const { return m_data; }
    size_t offset() const { return m_offset; }
    // Where the next byte lies in the file.
    uint64_t fileOffset() const { return m_base + m_offset; }
    size_t size() const { return m_size; }
    size_t remaining() const { return m_size - m_offset; }
    bool atEnd() const { return m_offset == m_size; }
    Order order() const { return m_order; }
    // Whether a value's bytes come in the other order than the host's.
    bool swapsBytes() const { return m_order != kHostOrder; }
    void setOrder(Order order) { m_order = order; }
    bool ok() const { return m_error.empty(); }
    explicit operator bool() const { return ok(); }
    // "unexpected end of data at offset 14 while reading method name: 2 bytes needed, 1 left"
    const std::string& error() const { return m_error; }

    // Fails the cursor with a message of the caller's (a bad count, a bad value).
    void fail(const std::string& message) {
        if (m_error.empty())
            m_error = message;
    }

    template <typename T>
    static T byteSwapped(T v) {
        if constexpr (sizeof(T) == 1)
            return v;
        else if constexpr (sizeof(T) == 2)
            return static_cast<T>(__builtin_bswap16(v));
        else if constexpr (sizeof(T) == 4)
            return static_cast<T>(__builtin_bswap32(v));
        else
            return static_cast<T>(__builtin_bswap64(v));
    }

private:
    template <typename T>
    bool fixed(T& value, const char* field) {
        if (!take(sizeof(T), field))
            return false;
        // Copied, then swapped when the data's order is not the host's: no
        // alignment assumption, and one load on the common path.
        T v;
        std::memcpy(&v, m_data + m_offset - sizeof(T), sizeof(T));
        if (swapsBytes())
            v = byteSwapped(v);
        value = v;
        return true;
    }

    // The check stays small enough to inline into every field read; the
    // message is built out of line, on the rare failing path.
    bool take(size_t n, const char* field) {
        if (!m_error.empty())
            return false;
        // A subtraction, so that a huge n cannot overflow the sum.
        if (n > m_size - m_offset) {
            failShort(n, field);
            return false;
        }
        m_offset += n;
        return true;
    }

    [[gnu::cold, gnu::noinline]] void failShort(size_t n, const char* field) {
        m_error = "unexpected end of data at offset " + std::to_string(m_base + m_offset) + " while reading " + field +
                  ": " + std::to_string(n) + " bytes needed, " + std::to_string(m_size - m_offset) + " left";
    }

    const uint8_t* m_data;
    size_t m_size;
    Order m_order;
    uint64_t m_base;
    size_t m_offset = 0;
    std::string m_error;
};

QUARVEL_NAMESPACE_END

#endif
