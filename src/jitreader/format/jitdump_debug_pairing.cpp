#include "format/jitdump_debug_pairing.h"

#include <utility>

QUARVEL_NAMESPACE_BEGIN

void JitdumpDebugPairing::addDebugInfo(const JitdumpDebugInfo& info) {
    auto inserted = m_waiting.try_emplace(info.codeAddr, info);
    if (!inserted.second) {
        inserted.first->second = info;
        ++m_replaced;
    }
}

const JitdumpDebugInfo* JitdumpDebugPairing::takeFor(uint64_t codeAddr) {
    const auto it = m_waiting.find(codeAddr);
    if (it == m_waiting.end())
        return nullptr;
    m_taken = std::move(it->second);
    m_waiting.erase(it);
    ++m_paired;
    return &m_taken;
}

QUARVEL_NAMESPACE_END
