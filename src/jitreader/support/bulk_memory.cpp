#include "support/bulk_memory.h"

#include "support/object_pool.h"

#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>

#include <sys/mman.h>

QUARVEL_NAMESPACE_BEGIN
namespace bulk_memory {

namespace {

bool mapped(size_t bytes) {
    return QUARVEL_POOLED_OBJECTS && bytes >= kHugePage;
}

// The smallest shared block: arrays from this size, and chunks from
// kSmallestShared, up to a huge page come from shared blocks.
constexpr size_t kSmallestBlock = size_t(4) << 10;

bool sharedChunk(size_t bytes) {
    return QUARVEL_POOLED_OBJECTS && bytes >= kSmallestShared && bytes < kHugePage;
}

bool sharedArray(size_t bytes) {
    return QUARVEL_POOLED_OBJECTS && bytes >= kSmallestBlock && bytes < kHugePage;
}

size_t roundedToHugePages(size_t bytes) {
    return (bytes + kHugePage - 1) / kHugePage * kHugePage;
}

char* mapHuge(size_t bytes) {
    char* const block = mapAligned(bytes, kHugePage);
    ::madvise(block, bytes, MADV_HUGEPAGE);
    return block;
}

// Blocks of 4 KiB, 8 KiB, ... 2 MiB carved from 2 MiB huge pages, each size
// with its free list (a freed block's first word links the next).
class SharedBlocks {
public:
    static constexpr unsigned kSizes = 10; // 4 KiB to 2 MiB

    static unsigned sizeClass(size_t bytes) {
        unsigned c = 0;
        while ((kSmallestBlock << c) < bytes)
            ++c;
        return c;
    }
    static size_t blockSize(size_t bytes) { return kSmallestBlock << sizeClass(bytes); }

    void* take(unsigned c) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (void* const block = m_free[c]) {
            m_free[c] = *static_cast<void**>(block);
            return block;
        }
        const size_t bytes = kSmallestBlock << c;
        if (static_cast<size_t>(m_end - m_next) < bytes) {
            keepRest();
            m_next = mapHuge(kHugePage);
            m_end = m_next + kHugePage;
        }
        void* const block = m_next;
        m_next += bytes;
        return block;
    }

    void give(void* block, unsigned c) {
        std::lock_guard<std::mutex> lock(m_mutex);
        push(block, c);
    }

private:
    void push(void* block, unsigned c) {
        *static_cast<void**>(block) = m_free[c];
        m_free[c] = block;
    }
    // The tail of a spent huge page goes to the free lists, largest first:
    // blocks are carved in multiples of the smallest size, so none is lost.
    void keepRest() {
        for (unsigned c = kSizes; c-- > 0;)
            while (static_cast<size_t>(m_end - m_next) >= (kSmallestBlock << c)) {
                push(m_next, c);
                m_next += kSmallestBlock << c;
            }
    }

    std::mutex m_mutex;
    char* m_next = nullptr;
    char* m_end = nullptr;
    void* m_free[kSizes] = {};
};

// Never destroyed: blocks are given back from other objects' destructors
// until the process ends.
SharedBlocks& sharedBlocks() {
    static SharedBlocks* const blocks = new SharedBlocks;
    return *blocks;
}

// The huge pages of mappings given back while a read holds a PageRecycling.
class KeptPages {
public:
    void begin() {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_readers;
    }
    void end() {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (--m_readers > 0)
            return;
        for (; m_count > 0; --m_count)
            ::munmap(m_pages[m_count - 1], kHugePage);
    }
    // block: a mapping of bytes, both multiples of a huge page. Allocates
    // nothing: it runs where memory is given back.
    void give(char* block, size_t bytes) {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t at = 0;
        if (m_readers > 0)
            for (; at < bytes && m_count < kMostPages; at += kHugePage)
                m_pages[m_count++] = block + at;
        if (at < bytes)
            ::munmap(block + at, bytes - at);
    }
    // Moves kept pages to the front of [target, target + bytes), a fresh
    // mapping aligned to a huge page: as whole page-table entries, no copy.
    void fill(char* target, size_t bytes) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (size_t at = 0; at < bytes && m_count > 0; at += kHugePage) {
            if (::mremap(m_pages[m_count - 1], kHugePage, kHugePage, MREMAP_MAYMOVE | MREMAP_FIXED, target + at) ==
                MAP_FAILED)
                return;
            --m_count;
            ++m_reused;
        }
    }
    size_t kept() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }
    size_t reused() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_reused;
    }

private:
    // At most 1 GiB waits for reuse; the rest goes back at once.
    static constexpr size_t kMostPages = 512;
    std::mutex m_mutex;
    int m_readers = 0;
    char* m_pages[kMostPages];
    size_t m_count = 0;
    size_t m_reused = 0;
};

// Never destroyed (mappings are given back until the process ends), and
// made without allocating.
KeptPages& keptStore() {
    alignas(KeptPages) static unsigned char storage[sizeof(KeptPages)];
    static KeptPages* const pages = new (storage) KeptPages;
    return *pages;
}

// A mapping of its own for an array or a chunk, with kept pages first.
char* mapArray(size_t bytes) {
    char* const block = mapHuge(bytes);
    keptStore().fill(block, bytes);
    return block;
}

} // namespace

PageRecycling::PageRecycling() {
    keptStore().begin();
}

PageRecycling::~PageRecycling() {
    keptStore().end();
}

size_t PageRecycling::keptPages() {
    return keptStore().kept();
}

size_t PageRecycling::reusedPages() {
    return keptStore().reused();
}

char* mapAligned(size_t bytes, size_t align) {
    void* at = ::mmap(nullptr, bytes + align, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED)
        throw std::bad_alloc();
    char* const raw = static_cast<char*>(at);
    const uintptr_t start = (reinterpret_cast<uintptr_t>(raw) + align - 1) & ~(uintptr_t(align) - 1);
    char* const aligned = reinterpret_cast<char*>(start);
    if (aligned > raw)
        ::munmap(raw, static_cast<size_t>(aligned - raw));
    const size_t tail = static_cast<size_t>(raw + bytes + align - (aligned + bytes));
    if (tail > 0)
        ::munmap(aligned + bytes, tail);
    return aligned;
}

size_t usableSize(size_t bytes) {
    if (sharedArray(bytes))
        return SharedBlocks::blockSize(bytes);
    return mapped(bytes) ? roundedToHugePages(bytes) : bytes;
}

void* allocateLarge(size_t bytes) {
    return mapped(bytes) ? mapArray(roundedToHugePages(bytes)) : ::operator new(bytes);
}

void freeLarge(void* block, size_t bytes) noexcept {
    if (!block)
        return;
    if (mapped(bytes))
        keptStore().give(static_cast<char*>(block), roundedToHugePages(bytes));
    else
        ::operator delete(block);
}

// What allocateLarge does, with the shared blocks in between.
void* allocate(size_t bytes) {
    return sharedArray(bytes) ? sharedBlocks().take(SharedBlocks::sizeClass(bytes)) : allocateLarge(bytes);
}

void free(void* block, size_t bytes) noexcept {
    if (block && sharedArray(bytes))
        sharedBlocks().give(block, SharedBlocks::sizeClass(bytes));
    else
        freeLarge(block, bytes);
}

void* reallocate(void* block, size_t bytes, size_t used, size_t newBytes) {
    if (block && mapped(bytes) && mapped(newBytes)) {
        const size_t from = roundedToHugePages(bytes);
        const size_t to = roundedToHugePages(newBytes);
        // The target is reserved first so that the moved pages keep the
        // huge-page alignment: moved as whole page-table entries, never split.
        char* const target = mapAligned(to, kHugePage);
        void* const moved = ::mremap(block, from, to, MREMAP_MAYMOVE | MREMAP_FIXED, target);
        if (moved != MAP_FAILED) {
            ::madvise(moved, to, MADV_HUGEPAGE);
            keptStore().fill(static_cast<char*>(moved) + from, to - from);
            return moved;
        }
        ::munmap(target, to);
    }
    void* const grown = allocate(newBytes);
    if (used)
        std::memcpy(grown, block, used);
    free(block, bytes);
    return grown;
}

size_t chunkSize(size_t bytes) {
    return sharedChunk(bytes) ? SharedBlocks::blockSize(bytes) : usableSize(bytes);
}

void* allocateChunk(size_t bytes) {
    return sharedChunk(bytes) ? sharedBlocks().take(SharedBlocks::sizeClass(bytes)) : allocate(bytes);
}

void freeChunk(void* chunk, size_t bytes) noexcept {
    if (chunk && sharedChunk(bytes))
        sharedBlocks().give(chunk, SharedBlocks::sizeClass(bytes));
    else
        free(chunk, bytes);
}

} // namespace bulk_memory
QUARVEL_NAMESPACE_END
