#include "index/jit_id_converter.h"

#include <algorithm>

QUARVEL_NAMESPACE_BEGIN

void JitIdConverter::initialize(const std::vector<u64>& startJitRvas, const std::vector<u64>& lengths,
                                const std::vector<u64>& startAddresses) {
    m_startJitRvas = startJitRvas;
    m_lengths = lengths;
    m_startAddresses = startAddresses;
    // The vectors are parallel; a shorter one bounds them all.
    const size_t n = std::min({m_startJitRvas.size(), m_lengths.size(), m_startAddresses.size()});
    m_startJitRvas.resize(n);
    m_lengths.resize(n);
    m_startAddresses.resize(n);
}

// Binary search over the start jit rvas. A key that is not stored ends on the
// midpoint where the search stopped, which may lie on either side of it. A key
// below the element at index 0 would step the index below 0: it stays at 0.
u32 JitIdConverter::search(u64 key) const {
    const u64 n = m_startJitRvas.size();
    if (n <= 1)
        return 0;
    u64 lo = 0;
    u64 hi = n - 1;
    u64 mid = (n - 1) / 2;
    while (lo < hi) {
        const u64 value = m_startJitRvas[mid];
        if (value < key) {
            lo = mid + 1;
            mid = (mid + hi + 1) / 2;
        } else if (value > key) {
            if (mid == 0)
                return 0;
            hi = mid - 1;
            mid = (lo + mid - 1) / 2;
        } else {
            break;
        }
    }
    return static_cast<u32>(mid);
}

quarvel_error_t JitIdConverter::convert(u32 indexOffset, u64 address, u64 baseJitRva, u64 jitRvaLimit,
                                        u64& jitRva) const {
    if (empty())
        return meNotFound;
    const u64 index = static_cast<u64>(search(baseJitRva)) + indexOffset;
    if (index >= m_startJitRvas.size())
        return meNotFound;
    const u64 start = m_startJitRvas[index];
    if (start >= jitRvaLimit)
        return meNotFound;
    const u64 startAddress = m_startAddresses[index];
    if (address < startAddress || address - startAddress >= m_lengths[index])
        return meNotFound;
    jitRva = start + (address - startAddress);
    return meSuccess;
}

quarvel_error_t JitIdConverter::findJitRva(u64 jitRva, u32& index) const {
    if (empty())
        return meNotFound;
    index = search(jitRva);
    return meSuccess;
}

QUARVEL_NAMESPACE_END
