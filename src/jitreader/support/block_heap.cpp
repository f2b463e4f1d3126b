#include "support/block_heap.h"

#include "support/object_pool.h"

#include <cstdint>
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

// One pool per class of kStep bytes, made on first use and never destroyed,
// so that blocks freed during static destruction still find theirs.
ObjectPool& poolOf(size_t sizeClass) {
    static ObjectPool* pools[kClasses] = {};
    static std::once_flag made[kClasses];
    std::call_once(made[sizeClass], [sizeClass] { pools[sizeClass] = new ObjectPool((sizeClass + 1) * kStep); });
    return *pools[sizeClass];
}

} // namespace

void* allocate(size_t bytes) {
    const size_t whole = bytes + kHeader;
    size_t sizeClass = kGeneral;
    void* raw = nullptr;
    if (QUARVEL_POOLED_OBJECTS && whole <= kLargestPooled) {
        sizeClass = (whole - 1) / kStep;
        raw = poolOf(sizeClass).allocate();
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
        poolOf(sizeClass).deallocate(raw);
}

} // namespace block_heap
QUARVEL_NAMESPACE_END
