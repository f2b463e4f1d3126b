#include "support/object_pool.h"

#include "support/bulk_memory.h"

#include <algorithm>
#include <cstdint>
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

ObjectPool::~ObjectPool() {
    for (const Chunk& chunk : m_chunks) {
        if (chunk.mapped)
            ::munmap(chunk.at, chunk.bytes);
        else
            std::free(chunk.at);
    }
}

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
        const size_t bytes = std::max(m_chunkBytes, m_blockSize);
        const bool huge = bytes >= kChunkBytes;
        // A 2 MiB chunk is mapped apart, aligned to its size so that it can be
        // one huge page; smaller ones come from the general heap, so that a
        // small trace does not pay a fresh mapping's page faults for each.
        const size_t align = huge ? kChunkBytes : kFirstChunkBytes;
        const size_t rounded = (bytes + align - 1) / align * align;
        m_chunks.reserve(m_chunks.size() + 1);
        char* chunk = huge ? bulk_memory::mapAligned(rounded, align) : static_cast<char*>(std::aligned_alloc(align, rounded));
        if (!chunk)
            throw std::bad_alloc();
        m_chunks.push_back(Chunk{chunk, rounded, huge});
        if (huge)
            ::madvise(chunk, rounded, MADV_HUGEPAGE);
        m_next = chunk;
        m_end = m_next + rounded;
        m_chunkBytes = std::min(m_chunkBytes * 2, kChunkBytes);
    }
    void* block = m_next;
    m_next += m_blockSize;
    return block;
}

QUARVEL_NAMESPACE_END
