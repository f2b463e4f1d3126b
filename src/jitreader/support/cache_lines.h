#ifndef QUARVEL_SUPPORT_CACHE_LINES_H
#define QUARVEL_SUPPORT_CACHE_LINES_H

#include <quarvel/namespace.h>

#include <cstdint>

QUARVEL_NAMESPACE_BEGIN

const std::uintptr_t kCacheLine = 64;

// Starts loading every cache line that [begin, end) touches: the lines a
// search would read one after another then come in together. Counted in
// addresses, so that no pointer is formed outside the caller's array.
inline void fetchLines(const void* begin, const void* end) {
    const std::uintptr_t last = reinterpret_cast<std::uintptr_t>(end);
    for (std::uintptr_t line = reinterpret_cast<std::uintptr_t>(begin) & ~(kCacheLine - 1); line < last;
         line += kCacheLine)
        __builtin_prefetch(reinterpret_cast<const void*>(line));
}

QUARVEL_NAMESPACE_END

#endif
