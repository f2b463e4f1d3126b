#ifndef QUARVEL_SUPPORT_MIX_H
#define QUARVEL_SUPPORT_MIX_H

#include <quarvel/types.h>

QUARVEL_NAMESPACE_BEGIN

// Spreads a 64-bit key over all bits (the finaliser of splitmix64), for keys
// with structure (addresses, consecutive ids) that index power-of-two tables.
inline u64 mix64(u64 x) {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

QUARVEL_NAMESPACE_END

#endif
