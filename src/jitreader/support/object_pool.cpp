#include "support/object_pool.h"

#include "support/bulk_memory.h"

#include <algorithm>

QUARVEL_NAMESPACE_BEGIN

namespace {

// Every block can hold the free list's link.
size_t roundedUp(size_t size, size_t alignment) {
    const size_t align = std::max(alignment, alignof(void*));
    size = std::max(size, sizeof(void*));
    return (size + align - 1) / align * align;
}

} // namespace

ObjectPool::ObjectPool(size_t blockSize, size_t alignment) : m_blockSize(roundedUp(blockSize, alignment)) {}

ObjectPool::~ObjectPool() {
    for (const Chunk& chunk : m_chunks)
        bulk_memory::freeChunk(chunk.at, chunk.bytes);
}

void* ObjectPool::allocate() {
    tbb::spin_mutex::scoped_lock lock(m_mutex);
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
    tbb::spin_mutex::scoped_lock lock(m_mutex);
    FreeBlock* freed = static_cast<FreeBlock*>(block);
    freed->next = m_free;
    m_free = freed;
}

void* ObjectPool::carve() {
    if (static_cast<size_t>(m_end - m_next) < m_blockSize) {
        // Chunks double up to 2 MiB: the smaller ones share huge pages with
        // the other pools' (bulk_memory), so a small trace takes little.
        const size_t bytes = bulk_memory::chunkSize(std::max(m_chunkBytes, m_blockSize));
        m_chunks.reserve(m_chunks.size() + 1);
        char* const chunk = static_cast<char*>(bulk_memory::allocateChunk(bytes));
        m_chunks.push_back(Chunk{chunk, bytes});
        m_next = chunk;
        m_end = m_next + bytes;
        m_chunkBytes = std::min(m_chunkBytes * 2, kChunkBytes);
    }
    void* block = m_next;
    m_next += m_blockSize;
    bulk_memory::prepareForWrite(m_next, m_end, m_blockSize);
    return block;
}

QUARVEL_NAMESPACE_END
