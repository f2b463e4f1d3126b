#ifndef QUARVEL_INDEX_JIT_ID_CONVERTER_H
#define QUARVEL_INDEX_JIT_ID_CONVERTER_H

#include <quarvel/types.h>

#include <cstddef>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Flat, sorted view of the jit rva domain (start jit rva, length, start
// address per region) that turns an address into a jit rva by binary search,
// without allocating.
class JitIdConverter {
public:
    void initialize(const std::vector<u64>& startJitRvas, const std::vector<u64>& lengths,
                    const std::vector<u64>& startAddresses);
    bool empty() const { return m_startJitRvas.empty(); }
    std::size_t size() const { return m_startJitRvas.size(); }

    quarvel_error_t convert(u32 indexOffset, u64 address, u64 baseJitRva, u64 jitRvaLimit, u64& jitRva) const;
    quarvel_error_t findJitRva(u64 jitRva, u32& index) const;

private:
    u32 search(u64 key) const;

    std::vector<u64> m_startJitRvas;
    std::vector<u64> m_lengths;
    std::vector<u64> m_startAddresses;
};

QUARVEL_NAMESPACE_END

#endif
