#ifndef QUARVEL_INGEST_CODE_BYTES_H
#define QUARVEL_INGEST_CODE_BYTES_H

// The code bytes of one piece of code a runtime file carries: an owned copy
// of exactly their size. Runtime files hold thousands of small pieces of
// code, each copied once and never grown, so the general buffer's reserve
// would only cost a second write of every byte.

#include <quarvel/byte_buffer.h>

#include <memory>

QUARVEL_NAMESPACE_BEGIN

class CodeBytes final : public IByteBuffer {
public:
    CodeBytes(const void* bytes, unsigned length) { assign(bytes, length); }

    unsigned size() const override { return m_size; }
    const unsigned char* data() const override { return m_size ? m_bytes.get() : nullptr; }
    void assign(const void* bytes, unsigned length) override;

private:
    std::unique_ptr<unsigned char[]> m_bytes;
    unsigned m_size = 0;
    unsigned m_capacity = 0;
};

QUARVEL_NAMESPACE_END

#endif
