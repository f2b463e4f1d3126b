#ifndef QUARVEL_SUPPORT_HEAP_ALLOCATOR_H
#define QUARVEL_SUPPORT_HEAP_ALLOCATOR_H

#include <quarvel/namespace.h>

#include <cstddef>

QUARVEL_NAMESPACE_BEGIN

// A standard allocator over one of the library's heaps, given its allocate
// and free (the free takes the size the block was asked for). Stateless, so
// every instance is equal.
template <class T, void* (*Allocate)(size_t), void (*Free)(void*, size_t)>
struct HeapAllocator {
    typedef T value_type;
    template <class U>
    struct rebind {
        typedef HeapAllocator<U, Allocate, Free> other;
    };
    HeapAllocator() noexcept = default;
    template <class U>
    HeapAllocator(const HeapAllocator<U, Allocate, Free>&) noexcept {}
    T* allocate(size_t n) { return static_cast<T*>(Allocate(n * sizeof(T))); }
    void deallocate(T* p, size_t n) noexcept { Free(p, n * sizeof(T)); }
    template <class U>
    bool operator==(const HeapAllocator<U, Allocate, Free>&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(const HeapAllocator<U, Allocate, Free>&) const noexcept {
        return false;
    }
};

QUARVEL_NAMESPACE_END

#endif
