#include "ingest/code_bytes.h"

#include <cstring>

QUARVEL_NAMESPACE_BEGIN

void CodeBytes::assign(const void* bytes, unsigned length) {
    m_size = 0;
    if (!bytes || !length)
        return;
    if (m_capacity < length) {
        // Not value-initialised: every byte is written just below.
        m_bytes.reset(new unsigned char[length]);
        m_capacity = length;
    }
    std::memcpy(m_bytes.get(), bytes, length);
    m_size = length;
}

QUARVEL_NAMESPACE_END
