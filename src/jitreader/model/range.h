#ifndef QUARVEL_MODEL_RANGE_H
#define QUARVEL_MODEL_RANGE_H

#include <quarvel/types.h>

QUARVEL_NAMESPACE_BEGIN

// A half-open interval [start, start + length) of addresses or jit rvas.
struct Range {
    u64 start = 0;
    u32 length = 0;

    Range() = default;
    Range(u64 s, u32 l) : start(s), length(l) {}

    u64 end() const { return start + length; }
    bool contains(u64 value) const { return start <= value && value - start < length; }

    // a < b exactly when a ends at or before b begins: overlapping ranges are
    // equivalent, so a map keyed this way holds disjoint ranges only and a
    // one-byte probe finds the stored range that contains it.
    struct Comparator {
        bool operator()(const Range& a, const Range& b) const { return a.start + a.length <= b.start; }
    };
};

inline bool operator==(const Range& a, const Range& b) {
    return a.start == b.start && a.length == b.length;
}
inline bool operator!=(const Range& a, const Range& b) {
    return !(a == b);
}

QUARVEL_NAMESPACE_END

#endif
