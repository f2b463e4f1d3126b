#include "support/block_heap.h"

#include "support/bulk_memory.h"
#include "support/object_pool.h"

#include <algorithm>
#include <mutex>
#include <new>

QUARVEL_NAMESPACE_BEGIN
namespace block_heap {

namespace {

// The word before each block: its size class, or kGeneral for the general heap.
constexpr size_t kHeader = alignof(std::max_align_t);
constexpr size_t kStep = 16;
constexpr size_t kLargestPooled = 1024;
constexpr size_t kClasses = kLargestPooled / kStep;
constexpr size_t kGeneral = ~size_t(0);

// Every class carves its blocks from the same chunk, so that only one chunk
// is ever partly used (a chunk per class would leave dozens of huge pages
// partly empty); freed blocks wait on their class's list for the next block
// of that size. Chunks double from 64 KiB to 2 MiB (bulk memory: from there
// on huge pages), and stay until the process ends.
class Heap {
public:
    void* take(size_t sizeClass) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (FreeBlock* block = m_free[sizeClass]) {
            m_free[sizeClass] = block->next;
            return block;
        }
        const size_t bytes = (sizeClass + 1) * kStep;
        if (static_cast<size_t>(m_end - m_next) < bytes)
            grow();
        void* const block = m_next;
        m_next += bytes;
        return block;
    }

    void give(void* block, size_t sizeClass) noexcept {
        std::lock_guard<std::mutex> lock(m_mutex);
        FreeBlock* const freed = static_cast<FreeBlock*>(block);
        freed->next = m_free[sizeClass];
        m_free[sizeClass] = freed;
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

    std::mutex m_mutex;
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
    const size_t whole = bytes + kHeader;
    size_t sizeClass = kGeneral;
    void* raw = nullptr;
    if (QUARVEL_POOLED_OBJECTS && whole <= kLargestPooled) {
        sizeClass = (whole - 1) / kStep;
        raw = heap().take(sizeClass);
    } else {
        raw = ::operator new(whole);
    }
    *static_cast<size_t*>(raw) = sizeClass;
    return static_cast<char*>(raw) + kHeader;
}

void free(void* block) noexcept {
    if (!block)
        return;
    void* const raw = static_cast<char*>(block) - kHeader;
    const size_t sizeClass = *static_cast<const size_t*>(raw);
    if (sizeClass == kGeneral)
        ::operator delete(raw);
    else
        heap().give(raw, sizeClass);
}

} // namespace block_heap
QUARVEL_NAMESPACE_END
