#ifndef QUARVEL_TESTS_BYTE_BUFFERS_H
#define QUARVEL_TESTS_BYTE_BUFFERS_H

// Code bytes as plain vectors, so that a test compares a buffer's whole
// content with one EXPECT_EQ.

#include <quarvel/byte_buffer.h>

#include <cstdint>
#include <vector>

namespace quarvel_test {

inline quarvel::IByteBuffer::Ptr bufferOf(const std::vector<uint8_t>& bytes) {
    quarvel::IByteBuffer::Ptr buffer = quarvel::IByteBuffer::create();
    buffer->assign(bytes.data(), static_cast<unsigned>(bytes.size()));
    return buffer;
}

// What the buffer holds; no buffer holds nothing.
inline std::vector<uint8_t> bytesOf(const quarvel::IByteBuffer* buffer) {
    if (!buffer || !buffer->data())
        return {};
    return std::vector<uint8_t>(buffer->data(), buffer->data() + buffer->size());
}

} // namespace quarvel_test

#endif
