#ifndef QUARVEL_SUPPORT_BULK_MEMORY_H
#define QUARVEL_SUPPORT_BULK_MEMORY_H

#include "support/heap_allocator.h"

#include <quarvel/namespace.h>

#include <cstddef>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Memory for the model's large arrays (an entry per region, per method, per
// piece of address history): an array of 2 MiB or more is a mapping of its
// own, aligned to 2 MiB and marked for transparent huge pages, so that
// filling it costs one page fault per 2 MiB rather than 512. A fault on a
// fresh 4 KiB page costs 40-50 us on a virtual machine, and reading a trace
// of 100k methods filled some 40 MB of such arrays. Arrays from 4 KiB up to
// 2 MiB (one per process read, times a thousand processes) are carved from
// shared huge pages, a free list per power-of-two size: the next process's
// arrays grow through the same sizes and reuse them, where the general heap
// grew by a fresh 4 KiB page every few of them (6,400 faults against 1,600
// for 200k loads over 100 processes). The price is the blocks a growing
// array leaves on its way up, a few MiB once. Smaller arrays use the
// general heap.
//
// The pools' chunks (allocateChunk) double from 64 KiB: those under 2 MiB
// are rounded up to a power of two and carved from shared huge pages, a free
// list per size, rather than mapped afresh in 4 KiB pages by the general heap
// (some 500 faults per pool). Chunks are kept for the process's life, so what
// is freed is reused.
//
// Sanitizer builds use the general heap for all of them.
namespace bulk_memory {

constexpr size_t kHugePage = size_t(2) << 20;
constexpr size_t kSmallestShared = size_t(64) << 10;

// Never null (throws std::bad_alloc).
void* allocate(size_t bytes);
// The bytes allocate(bytes) gives: from 4 KiB to under 2 MiB, rounded up to a
// power of two; from 2 MiB on, to whole huge pages.
size_t usableSize(size_t bytes);
// bytes: as given to allocate.
void free(void* block, size_t bytes) noexcept;
// A larger block, of newBytes (as given to allocate), holding the first
// `used` bytes of block (bytes as given to allocate; null when bytes is 0),
// which is given back. A block on a mapping of its own moves to the larger
// one with its pages (mremap): nothing is copied and no page is filled
// twice. On failure (std::bad_alloc) block stays as it was.
void* reallocate(void* block, size_t bytes, size_t used, size_t newBytes);

// For arrays there are few of, one per manager or per build (every method
// in order, a build's working arrays): from 2 MiB on a mapping of their own
// on huge pages, as allocate gives; smaller ones from the general heap, which
// reuses what was given back. The shared blocks are for arrays there is one
// of per process, which reuse each other's blocks; a few arrays alone would
// only touch a fresh shared huge page (2 MiB resident) on their way up.
void* allocateLarge(size_t bytes);
void freeLarge(void* block, size_t bytes) noexcept;

// While one lives (in any thread), the huge pages of mappings given back are
// kept, and move into the next mappings made (mremap) before those fault in
// fresh ones; when the last one ends, what is kept goes back. A read holds
// one: it frees working arrays (the top map, its links, an outgrown hash
// table, the index build's sorted bounds) while it makes the next ones, and
// on a virtual machine the kernel takes 0.5-3 ms to zero a fresh huge page.
// A kept page comes with its old contents, which the arrays and pools that
// take these mappings write before they read.
class PageRecycling {
public:
    PageRecycling();
    ~PageRecycling();
    PageRecycling(const PageRecycling&) = delete;
    PageRecycling& operator=(const PageRecycling&) = delete;

    // Huge pages kept for reuse now, and moved into new mappings so far (for tests).
    static size_t keptPages();
    static size_t reusedPages();
};

// A pool's chunk of at least `bytes`, chunkSize(bytes) in all; never null.
void* allocateChunk(size_t bytes);
// From 64 KiB on, rounded up to a power of two; from 2 MiB on, to whole huge pages.
size_t chunkSize(size_t bytes);
// bytes: as given to allocateChunk.
void freeChunk(void* chunk, size_t bytes) noexcept;

// A mapping of bytes (a multiple of align, a power of two of at least a
// page) at an address that is a multiple of align; throws std::bad_alloc.
char* mapAligned(size_t bytes, size_t align);

// A carver at `next` of a chunk ending at `end`, handing out blocks of about
// `step` bytes: asks for the lines a little ahead to be fetched. A chunk's
// memory is fresh, out of every cache: without this each new object's first
// store waits for its line, and so does every atomic operation after it
// (they wait for the stores before them).
inline void prepareForWrite(const char* next, const char* end, size_t step) {
    constexpr size_t kAhead = 256;
    if (static_cast<size_t>(end - next) >= kAhead + step) {
        __builtin_prefetch(next + kAhead, 1);
        __builtin_prefetch(next + kAhead + step - 1, 1);
    }
}

// The same for an array that grows by one element at a time.
template <class Vector>
void prepareToAppend(const Vector& v) {
    const char* const next = reinterpret_cast<const char*>(v.data() + v.size());
    const char* const end = reinterpret_cast<const char*>(v.data() + v.capacity());
    prepareForWrite(next, end, sizeof(typename Vector::value_type));
}

} // namespace bulk_memory

template <class T>
using BulkAllocator = HeapAllocator<T, bulk_memory::allocate, bulk_memory::free>;

template <class T>
using BulkVector = std::vector<T, BulkAllocator<T>>;

template <class T>
using LargeVector = std::vector<T, HeapAllocator<T, bulk_memory::allocateLarge, bulk_memory::freeLarge>>;

QUARVEL_NAMESPACE_END

#endif
