#ifndef QUARVEL_SUPPORT_BYTE_BUFFER_IMPL_H
#define QUARVEL_SUPPORT_BYTE_BUFFER_IMPL_H

#include <quarvel/byte_buffer.h>

#include <cstddef>

QUARVEL_NAMESPACE_BEGIN

// Code bytes in one block-heap block of the size first assigned, no larger
// and not zeroed first: a region's bytes are assigned once, and most
// regions hold a few hundred bytes. The storage never shrinks. The buffer
// and its shared count are one block-heap block too (IByteBuffer::create).
class ByteBuffer final : public IByteBuffer {
public:
    ByteBuffer() = default;
    ~ByteBuffer();
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer& operator=(const ByteBuffer&) = delete;

    unsigned size() const override { return m_size; }
    const unsigned char* data() const override { return m_size ? m_bytes : nullptr; }
    void assign(const void* bytes, unsigned length) override;

    size_t capacityBytes() const { return m_capacity; }

private:
    unsigned char* m_bytes = nullptr; // m_capacity bytes from block_heap
    unsigned m_size = 0;
    unsigned m_capacity = 0;
};

QUARVEL_NAMESPACE_END

#endif
