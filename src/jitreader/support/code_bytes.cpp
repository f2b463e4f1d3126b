#include "support/code_bytes.h"

#include "support/block_heap.h"

#include <cstring>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

IByteBuffer::Ptr CodeBytes::view(std::shared_ptr<const void> keeper, const unsigned char* bytes, unsigned length) {
    return std::allocate_shared<CodeBytes>(BlockAllocator<CodeBytes>(), std::move(keeper), bytes, length);
}

IByteBuffer::Ptr CodeBytes::view(const CodeView& code) {
    return code ? view(code.keeper, code.bytes, code.length) : IByteBuffer::Ptr();
}

CodeView CodeView::copyOf(const void* bytes, unsigned length) {
    IByteBuffer::Ptr copy = IByteBuffer::create();
    copy->assign(bytes, length);
    return of(copy);
}

CodeView CodeView::of(const std::shared_ptr<IByteBuffer>& buffer) {
    CodeView code;
    if (buffer) {
        code.bytes = buffer->data();
        code.length = code.bytes ? buffer->size() : 0;
        code.keeper = buffer;
    }
    return code;
}

void CodeBytes::assign(const void* bytes, unsigned length) {
    // The new bytes may lie in the mapping a view keeps alive: it is let go
    // only once they are copied.
    const std::shared_ptr<const void> keeper = std::move(m_keeper);
    m_size = 0;
    m_view = nullptr;
    if (!bytes || !length)
        return;
    if (m_capacity < length) {
        // Not value-initialised: every byte is written just below.
        m_owned.reset(new unsigned char[length]);
        m_capacity = length;
    }
    std::memmove(m_owned.get(), bytes, length);
    m_view = m_owned.get();
    m_size = length;
}

QUARVEL_NAMESPACE_END
