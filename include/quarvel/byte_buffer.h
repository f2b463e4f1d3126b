#ifndef QUARVEL_BYTE_BUFFER_H
#define QUARVEL_BYTE_BUFFER_H

#include <quarvel/export.h>

#include <memory>

QUARVEL_NAMESPACE_BEGIN

// Shared byte buffer for code bytes, held through std::shared_ptr (a buffer
// handed out stays valid after the region that held it takes new bytes).
class QUARVEL_API IByteBuffer {
public:
    typedef std::shared_ptr<IByteBuffer> Ptr;

    virtual unsigned size() const = 0;
    // Null while the buffer is empty.
    virtual const unsigned char* data() const = 0;
    // Replaces the content; a null pointer or a zero length empties the buffer.
    virtual void assign(const void* bytes, unsigned length) = 0;

    static Ptr create();

protected:
    ~IByteBuffer() = default;
};

QUARVEL_NAMESPACE_END

#endif
