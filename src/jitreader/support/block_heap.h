#ifndef QUARVEL_SUPPORT_BLOCK_HEAP_H
#define QUARVEL_SUPPORT_BLOCK_HEAP_H

#include "support/heap_allocator.h"

#include <quarvel/types.h>

#include <cstddef>

QUARVEL_NAMESPACE_BEGIN

// Variable-size blocks for what every method has one of, in sizes that vary
// (its names, its line tables, its regions' code bytes): blocks up to 4 KiB
// are carved, in classes of 8 bytes, from chunks on transparent huge pages
// (bulk_memory). On the general heap the same blocks were one fresh 4 KiB
// page fault per few dozen methods (per method or two, for code bytes), and a
// fault of a fresh page costs 40-50 us on a virtual machine: more than the
// rest of reading the method. Larger blocks go to the general heap.
//
// Blocks carry no header: the owner gives back the size it asked for (it
// knows it anyway: a name's length, a table's count), which saves 16 bytes
// per block, a few per method. Blocks are aligned to 8 bytes, enough for
// what is kept here. Thread-safe. Sanitizer builds use the general heap for
// every block, where a wrong size given back is reported.
namespace block_heap {

constexpr size_t kAlignment = alignof(u64);
constexpr size_t kLargestPooled = 4096; // larger blocks come from the general heap

// At least `bytes` bytes aligned to kAlignment; never null (throws std::bad_alloc).
void* allocate(size_t bytes);
// A block from allocate(bytes) with the same bytes, or null.
void free(void* block, size_t bytes) noexcept;

} // namespace block_heap

// For the small arrays there is one of per method or per region.
template <class T>
using BlockAllocator = HeapAllocator<T, block_heap::allocate, block_heap::free>;

QUARVEL_NAMESPACE_END

#endif
