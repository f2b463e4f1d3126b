#ifndef QUARVEL_SUPPORT_OBJECT_POOL_H
#define QUARVEL_SUPPORT_OBJECT_POOL_H

#include "support/bulk_memory.h"

#include <quarvel/namespace.h>

#include <oneapi/tbb/spin_mutex.h>

#include <cstddef>
#include <new>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Fixed-size blocks for the model objects there are millions of (methods,
// their records, regions), cut from chunks that double from 64 KiB (a small
// trace costs little) to 2 MiB, all on huge pages (bulk_memory).
// Beside the general heap this saves the allocator's bookkeeping per object,
// a page fault per 4 KiB as the model grows, and (on huge pages) most TLB
// misses of a query that lands on a method. Freed blocks are reused by the
// next object of the size; chunks go back to the system only at exit, so a
// pool keeps the high-water mark of the models it held.
//
// Thread-safe: objects are reference counted and may be released by any
// thread. Sanitizer builds use the general heap, where use after free and
// leaks stay visible.
class ObjectPool {
public:
    // Blocks are aligned to `alignment` (at least a pointer's): a class's
    // own alignment, not operator new's 16 bytes, so that an object of 88
    // bytes takes 88.
    explicit ObjectPool(size_t blockSize, size_t alignment = alignof(std::max_align_t));
    // Gives every chunk back: blocks still handed out die with it (the class
    // pools below are never destroyed).
    ~ObjectPool();
    ObjectPool(const ObjectPool&) = delete;
    ObjectPool& operator=(const ObjectPool&) = delete;

    void* allocate();
    void deallocate(void* block) noexcept;
    size_t blockSize() const { return m_blockSize; }

    static constexpr size_t kFirstChunkBytes = size_t(64) << 10;
    static constexpr size_t kChunkBytes = bulk_memory::kHugePage;

private:
    struct FreeBlock {
        FreeBlock* next;
    };
    struct Chunk {
        char* at;
        size_t bytes; // as given to bulk_memory::allocateChunk
    };
    void* carve(); // under m_mutex

    const size_t m_blockSize;
    // Held for a free-list pop or push: a spin lock takes one atomic
    // exchange and gives it back with a plain store, where a mutex paid a
    // call and an atomic operation each way (6% of a read's time for the
    // pools and the block heap together). A waiter backs off to yielding.
    tbb::spin_mutex m_mutex;
    FreeBlock* m_free = nullptr;
    char* m_next = nullptr; // the rest of the current chunk
    char* m_end = nullptr;
    size_t m_chunkBytes = kFirstChunkBytes; // the next chunk's
    std::vector<Chunk> m_chunks;
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUARVEL_POOLED_OBJECTS 0
#else
#define QUARVEL_POOLED_OBJECTS 1
#endif

// Gives a class operator new/delete from one pool of its size (one pool per
// class, made on first use and never destroyed, so that objects released
// during static destruction still find it). A derived class of another size
// goes to the general heap.
template <class T>
class Pooled {
public:
#if QUARVEL_POOLED_OBJECTS
    static void* operator new(size_t size) { return size == sizeof(T) ? pool().allocate() : ::operator new(size); }
    static void operator delete(void* block, size_t size) noexcept {
        if (size == sizeof(T))
            pool().deallocate(block);
        else
            ::operator delete(block);
    }

private:
    static ObjectPool& pool() {
        static ObjectPool* const instance = new ObjectPool(sizeof(T), alignof(T));
        return *instance;
    }
#endif
};

QUARVEL_NAMESPACE_END

#endif
