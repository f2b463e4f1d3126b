#ifndef QUARVEL_SUPPORT_BLOCK_HEAP_H
#define QUARVEL_SUPPORT_BLOCK_HEAP_H

#include "support/heap_allocator.h"

#include <quarvel/namespace.h>

#include <cstddef>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Variable-size blocks for what every method has one of, in sizes that vary
// (its names, its line tables): blocks up to 1 KiB are carved, in classes of
// 16 bytes, from chunks on transparent huge pages (bulk_memory). On
// the general heap the same blocks were one fresh 4 KiB page fault per few
// dozen methods, and a fault of a fresh page costs 40-50 us on a virtual
// machine: more than the rest of reading the method. Larger blocks go to the
// general heap.
//
// A block remembers its size class in a word before it, so freeing needs no
// size. Thread-safe. Sanitizer builds use the general heap for every block.
namespace block_heap {

// At least `bytes` bytes aligned as operator new aligns; never null (throws std::bad_alloc).
void* allocate(size_t bytes);
// A block from allocate(), or null.
void free(void* block) noexcept;

// free() in the form a sized allocator calls.
inline void freeSized(void* block, size_t) noexcept {
    free(block);
}

// Deleter for std::unique_ptr over blocks of this heap.
struct Free {
    void operator()(void* block) const noexcept { block_heap::free(block); }
};

} // namespace block_heap

// For the small arrays there is one of per method or per region.
template <class T>
using BlockAllocator = HeapAllocator<T, block_heap::allocate, block_heap::freeSized>;

template <class T>
using BlockVector = std::vector<T, BlockAllocator<T>>;

QUARVEL_NAMESPACE_END

#endif
