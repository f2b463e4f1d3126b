#include "support/byte_buffer_impl.h"

#include "support/block_heap.h"

#include <cstring>

QUARVEL_NAMESPACE_BEGIN

ByteBuffer::~ByteBuffer() {
    block_heap::free(m_bytes, m_capacity);
}

void ByteBuffer::assign(const void* bytes, unsigned length) {
    if (!bytes || !length) {
        m_size = 0;
        return;
    }
    if (length > m_capacity) {
        unsigned char* const grown = static_cast<unsigned char*>(block_heap::allocate(length));
        std::memcpy(grown, bytes, length);
        block_heap::free(m_bytes, m_capacity);
        m_bytes = grown;
        m_capacity = length;
    } else {
        std::memmove(m_bytes, bytes, length); // the bytes may be this buffer's own
    }
    m_size = length;
}

IByteBuffer::Ptr IByteBuffer::create() {
    return std::allocate_shared<ByteBuffer>(BlockAllocator<ByteBuffer>());
}

QUARVEL_NAMESPACE_END
