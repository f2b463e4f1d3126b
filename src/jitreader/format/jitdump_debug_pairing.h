#ifndef QUARVEL_FORMAT_JITDUMP_DEBUG_PAIRING_H
#define QUARVEL_FORMAT_JITDUMP_DEBUG_PAIRING_H

// Pairs each debug record with the code load it describes. Writers put the
// debug record just before its load, but several writer threads can
// interleave, so the pairing goes by code address: a load takes the latest
// waiting debug record with its code address, wherever it was written.

#include "format/jitdump_records.h"

#include <cstdint>
#include <unordered_map>

QUARVEL_NAMESPACE_BEGIN

class JitdumpDebugPairing {
public:
    // Keeps a copy until a load of its code address comes (the file names stay
    // views into the file). A waiting record for the same address is replaced.
    void addDebugInfo(const JitdumpDebugInfo& info);

    // The debug record for a load at codeAddr, or null; valid until the next call.
    const JitdumpDebugInfo* takeFor(uint64_t codeAddr);

    // Debug records still waiting for their load.
    size_t waiting() const { return m_waiting.size(); }
    // Debug records replaced by a later one for the same address before any load took them.
    uint64_t replaced() const { return m_replaced; }
    uint64_t paired() const { return m_paired; }

private:
    std::unordered_map<uint64_t, JitdumpDebugInfo> m_waiting;
    JitdumpDebugInfo m_taken;
    uint64_t m_replaced = 0;
    uint64_t m_paired = 0;
};

QUARVEL_NAMESPACE_END

#endif
