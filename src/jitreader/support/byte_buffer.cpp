#include "support/byte_buffer_impl.h"

#include <cstring>

QUARVEL_NAMESPACE_BEGIN

ByteBuffer::ByteBuffer() : m_bytes(512, 0) {}

const unsigned char* ByteBuffer::data() const {
    return m_size ? m_bytes.data() : nullptr;
}

void ByteBuffer::assign(const void* bytes, unsigned length) {
    m_size = 0;
    if (!bytes || !length)
        return;
    if (m_bytes.size() < length)
        m_bytes.resize(length);
    std::memcpy(m_bytes.data(), bytes, length);
    m_size = length;
}

IByteBuffer::Ptr IByteBuffer::create() {
    return IByteBuffer::Ptr(new ByteBuffer());
}

QUARVEL_NAMESPACE_END
