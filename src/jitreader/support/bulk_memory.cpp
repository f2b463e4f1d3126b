#include "support/bulk_memory.h"

#include "support/object_pool.h"

#include <cstdint>
#include <new>

#include <sys/mman.h>

QUARVEL_NAMESPACE_BEGIN
namespace bulk_memory {

namespace {

bool mapped(size_t bytes) {
    return QUARVEL_POOLED_OBJECTS && bytes >= kHugePage;
}

size_t roundedToHugePages(size_t bytes) {
    return (bytes + kHugePage - 1) / kHugePage * kHugePage;
}

} // namespace

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
    return mapped(bytes) ? roundedToHugePages(bytes) : bytes;
}

void* allocate(size_t bytes) {
    if (!mapped(bytes))
        return ::operator new(bytes);
    const size_t rounded = roundedToHugePages(bytes);
    char* const block = mapAligned(rounded, kHugePage);
    ::madvise(block, rounded, MADV_HUGEPAGE);
    return block;
}

void free(void* block, size_t bytes) noexcept {
    if (!block)
        return;
    if (!mapped(bytes))
        ::operator delete(block);
    else
        ::munmap(block, roundedToHugePages(bytes));
}

} // namespace bulk_memory
QUARVEL_NAMESPACE_END
