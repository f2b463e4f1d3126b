#include "support/object_pool.h"

#include <cstdlib>
#include <new>

#include <sys/mman.h>

QUARVEL_NAMESPACE_BEGIN

namespace {

// Blocks keep the alignment operator new promises.
size_t roundedUp(size_t size) {
    const size_t align = alignof(std::max_align_t);
    size = size < sizeof(void*) ? sizeof(void*) : size;
    return (size + align - 1) / align * align;
}

} // namespace

ObjectPool::ObjectPool(size_t blockSize) : m_blockSize(roundedUp(blockSize)) {}

void* ObjectPool::allocate() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_free) {
        FreeBlock* block = m_free;
        m_free = block->next;
        return block;
    }
    return carve();
}

void ObjectPool::deallocate(void* block) noexcept {
    if (!block)
        return;
    std::lock_guard<std::mutex> lock(m_mutex);
    FreeBlock* freed = static_cast<FreeBlock*>(block);
    freed->next = m_free;
    m_free = freed;
}

void* ObjectPool::carve() {
    if (static_cast<size_t>(m_end - m_next) < m_blockSize) {
        // Aligned to its size, so that the whole chunk can be one huge page.
        void* chunk = std::aligned_alloc(kChunkBytes, kChunkBytes);
        if (!chunk)
            throw std::bad_alloc();
        ::madvise(chunk, kChunkBytes, MADV_HUGEPAGE);
        m_next = static_cast<char*>(chunk);
        m_end = m_next + kChunkBytes;
    }
    void* block = m_next;
    m_next += m_blockSize;
    return block;
}

QUARVEL_NAMESPACE_END
