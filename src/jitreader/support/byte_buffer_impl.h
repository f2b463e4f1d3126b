#ifndef QUARVEL_SUPPORT_BYTE_BUFFER_IMPL_H
#define QUARVEL_SUPPORT_BYTE_BUFFER_IMPL_H

#include <quarvel/byte_buffer.h>

#include <vector>

QUARVEL_NAMESPACE_BEGIN

// A growable vector with a separate logical size: the storage never shrinks.
class ByteBuffer final : public IByteBuffer {
public:
    ByteBuffer();
    virtual ~ByteBuffer() = default;

    unsigned size() const override { return m_size; }
    const unsigned char* data() const override;
    void assign(const void* bytes, unsigned length) override;

    size_t capacityBytes() const { return m_bytes.size(); }

private:
    std::vector<unsigned char> m_bytes;
    unsigned m_size = 0;
};

QUARVEL_NAMESPACE_END

#endif
