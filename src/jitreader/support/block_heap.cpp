#include "support/block_heap.h"

#include "support/bulk_memory.h"
#include "support/object_pool.h"

#include <oneapi/tbb/spin_mutex.h>

#include <algorithm>
#include <new>

QUARVEL_NAMESPACE_BEGIN
namespace block_heap {

namespace {

constexpr size_t kStep = kAlignment;
constexpr size_t kClasses = kLargestPooled / kStep;

bool pooled(size_t bytes) {
    return QUARVEL_POOLED_OBJECTS && bytes <= kLargestPooled;
}

// Class c holds blocks of (c + 1) * kStep bytes; a request of 0 bytes takes the smallest.
size_t sizeClass(size_t bytes) {
    return bytes == 0 ? 0 : (bytes - 1) / kStep;
}

// Every class carves its blocks from the same chunk, so that only one chunk
// is ever partly used (a chunk per class would leave dozens of huge pages
// partly empty); freed blocks wait on their class's list for the next block
// of that size. Chunks double from 64 KiB to 2 MiB (bulk memory: from there
// on huge pages), and stay until the process ends.
class Heap {
public:
    void* take(size_t c) {
        tbb::spin_mutex::scoped_lock lock(m_mutex);
        if (FreeBlock* block = m_free[c]) {
            m_free[c] = block->next;
            return block;
        }
        const size_t bytes = (c + 1) * kStep;
        if (static_cast<size_t>(m_end - m_next) < bytes)
            grow();
        void* const block = m_next;
        m_next += bytes;
        bulk_memory::prepareForWrite(m_next, m_end, bytes);
        return block;
    }

    void give(void* block, size_t c) noexcept {
        tbb::spin_mutex::scoped_lock lock(m_mutex);
        FreeBlock* const freed = static_cast<FreeBlock*>(block);
        freed->next = m_free[c];
        m_free[c] = freed;
    }

private:
    struct FreeBlock {
        FreeBlock* next;
    };

    void grow() {
        char* const chunk = static_cast<char*>(bulk_memory::allocateChunk(m_chunkBytes));
        m_next = chunk;
        m_end = chunk + bulk_memory::chunkSize(m_chunkBytes);
        m_chunkBytes = std::min(m_chunkBytes * 2, ObjectPool::kChunkBytes);
    }

    tbb::spin_mutex m_mutex; // see ObjectPool
    FreeBlock* m_free[kClasses] = {};
    char* m_next = nullptr;
    char* m_end = nullptr;
    size_t m_chunkBytes = ObjectPool::kFirstChunkBytes;
};

// Made on first use and never destroyed, so that blocks freed during static
// destruction still find it.
Heap& heap() {
    static Heap* const made = new Heap();
    return *made;
}

} // namespace

void* allocate(size_t bytes) {
    return pooled(bytes) ? heap().take(sizeClass(bytes)) : ::operator new(bytes);
}

void free(void* block, size_t bytes) noexcept {
    if (!block)
        return;
    if (pooled(bytes))
        heap().give(block, sizeClass(bytes));
    else
        ::operator delete(block, bytes);
}

} // namespace block_heap
QUARVEL_NAMESPACE_END
