#ifndef QUARVEL_FORMAT_RECORD_H
#define QUARVEL_FORMAT_RECORD_H

#include <quarvel/jittrace_format.h>
#include <quarvel/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// The agent's name of a record type: QUARVEL3_TRACE_JITTRACE(FunctionUpdate_v2) is 14.
#define QUARVEL3_TRACE_JITTRACE(name) quarvel_jt_##name

QUARVEL_NAMESPACE_BEGIN

// Bytes owned by someone else (a mapped file, a test's vector).
class ByteSpan {
public:
    ByteSpan() = default;
    ByteSpan(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    ByteSpan(const std::vector<uint8_t>& bytes) : m_data(bytes.data()), m_size(bytes.size()) {}

    const uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    const uint8_t* begin() const { return m_data; }
    const uint8_t* end() const { return m_data + m_size; }
    uint8_t operator[](size_t i) const { return m_data[i]; }

private:
    const uint8_t* m_data = nullptr;
    size_t m_size = 0;
};

// One trace record as read: where its type field starts, its type, and its
// body (or the four bytes of a value record's value). The bytes belong to the
// reader that handed the record out and stay valid until it hands out the
// next one (bytes in memory: as long as those bytes).
struct Record {
    u64 offset = 0;
    u32 type = 0;
    ByteSpan data;

    // Where the body starts in the file.
    u64 bodyOffset() const { return offset + 8; }
};

QUARVEL_NAMESPACE_END

#endif
