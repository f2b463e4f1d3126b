#include "heap_reservation.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace quarvel_jit {

namespace {

constexpr uintptr_t kHugePage = uintptr_t(2) << 20;
// Allocations up to this size come from the heap rather than from a mapping of their own.
constexpr int kMmapThreshold = 32 << 20;
constexpr size_t kProbe = 64 << 10;
constexpr int kMaxProbes = 64;

} // namespace

#ifndef MADV_COLLAPSE
#define MADV_COLLAPSE 25 // Linux 6.1; older C library headers lack it
#endif

void reserveHeap(size_t bytes) {
#if defined(__GLIBC__) && defined(MADV_HUGEPAGE)
    if (bytes > static_cast<size_t>(INT32_MAX))
        bytes = INT32_MAX;
    // The heap grows by `bytes` past each request and keeps them when memory is freed.
    if (mallopt(M_TOP_PAD, static_cast<int>(bytes)) != 1 || mallopt(M_TRIM_THRESHOLD, static_cast<int>(bytes)) != 1 ||
        mallopt(M_MMAP_THRESHOLD, kMmapThreshold) != 1)
        return;
    // The heap's end moves to a huge page boundary first. Otherwise the heap
    // would fill the rest of the 2 MiB block it ends in before it reaches the
    // marked memory, one 4 KiB fault per page: up to 512 faults, as many as
    // the whole model of a mid-sized trace takes. The skipped bytes are
    // address space only; malloc takes the foreign break move as a gap.
    const uintptr_t end0 = reinterpret_cast<uintptr_t>(sbrk(0));
    const uintptr_t gap = ((end0 + kHugePage - 1) & ~(kHugePage - 1)) - end0;
    if (gap != 0 && sbrk(static_cast<intptr_t>(gap)) == reinterpret_cast<void*>(-1))
        return;
    // Small requests until the heap grows: the growth then takes the pad at once.
    const uintptr_t before = reinterpret_cast<uintptr_t>(sbrk(0));
    void* probes[kMaxProbes] = {};
    uintptr_t after = before;
    for (int i = 0; i < kMaxProbes && after == before; ++i) {
        probes[i] = std::malloc(kProbe);
        after = reinterpret_cast<uintptr_t>(sbrk(0));
    }
    for (void* p : probes)
        std::free(p);
    const uintptr_t start = (before + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = after & ~(kHugePage - 1);
    if (end <= start || ::madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE) != 0)
        return;
    // The probes wrote malloc's headers into the first block before it was
    // marked, so its pages came one by one; a collapse makes it one huge page
    // now (kernels without MADV_COLLAPSE refuse, and the block stays as it is).
    ::madvise(reinterpret_cast<void*>(start), kHugePage, MADV_COLLAPSE);
#else
    (void)bytes;
#endif
}

} // namespace quarvel_jit
