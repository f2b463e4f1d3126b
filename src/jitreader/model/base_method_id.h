#ifndef QUARVEL_MODEL_BASE_METHOD_ID_H
#define QUARVEL_MODEL_BASE_METHOD_ID_H

#include <quarvel/types.h>

#include <ostream>

QUARVEL_NAMESPACE_BEGIN

// 128-bit identity of a method: the MD5 digest of its identity text, read as
// two little-endian 64-bit halves.
struct BaseMethodId {
    u64 part0 = 0;
    u64 part1 = 0;

    BaseMethodId() = default;
    BaseMethodId(u64 p0, u64 p1) : part0(p0), part1(p1) {}

    bool isEmpty() const { return part0 == 0 && part1 == 0; }

    struct Comparator {
        bool operator()(const BaseMethodId& a, const BaseMethodId& b) const {
            return a.part0 < b.part0 || (a.part0 == b.part0 && a.part1 < b.part1);
        }
    };
};

inline bool operator==(const BaseMethodId& a, const BaseMethodId& b) {
    return a.part0 == b.part0 && a.part1 == b.part1;
}
inline bool operator!=(const BaseMethodId& a, const BaseMethodId& b) {
    return !(a == b);
}

// Printed as 32 hexadecimal digits, part0 first.
std::ostream& operator<<(std::ostream& os, const BaseMethodId& id);

QUARVEL_NAMESPACE_END

#endif
