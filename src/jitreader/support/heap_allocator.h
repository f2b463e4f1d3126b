#ifndef QUARVEL_SUPPORT_HEAP_ALLOCATOR_H
#define QUARVEL_SUPPORT_HEAP_ALLOCATOR_H

#include <quarvel/namespace.h>

#include <cstddef>

QUARVEL_NAMESPACE_BEGIN

// A standard allocator over one of the library's heaps: Heap::allocate(bytes)
// and Heap::free(block, bytes). Stateless, so every instance is equal.
template <class T, class Heap>
struct HeapAllocator {
    typedef T value_type;
    HeapAllocator() noexcept = default;
    template <class U>
    HeapAllocator(const HeapAllocator<U, Heap>&) noexcept {}
    T* allocate(size_t n) { return static_cast<T*>(Heap::allocate(n * sizeof(T))); }
    void deallocate(T* p, size_t n) noexcept { Heap::free(p, n * sizeof(T)); }
    template <class U>
    bool operator==(const HeapAllocator<U, Heap>&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(const HeapAllocator<U, Heap>&) const noexcept {
        return false;
    }
};

QUARVEL_NAMESPACE_END

#endif
