#include "format/jitdump_debug_bias.h"

QUARVEL_NAMESPACE_BEGIN

namespace {

// ELF machines whose writers are 32-bit processes.
bool is32BitMachine(uint32_t machine) {
    const uint32_t kI386 = 3, kPowerPc = 20, kArm = 40;
    return machine == kI386 || machine == kPowerPc || machine == kArm;
}

} // namespace

JitdumpDebugBias::JitdumpDebugBias(uint32_t elfMachine) : m_prefer32(is32BitMachine(elfMachine)) {}

bool JitdumpDebugBias::fits(const JitdumpDebugInfo& info, uint64_t codeAddr, uint64_t codeSize, uint64_t offset) {
    for (const JitdumpDebugEntry& e : info.entries) {
        // Subtractions only: addresses near the top of the range must not wrap.
        if (e.address < offset || e.address - offset < codeAddr || e.address - offset - codeAddr > codeSize)
            return false;
    }
    return true;
}

void JitdumpDebugBias::observe(const JitdumpDebugInfo& info, uint64_t codeAddr, uint64_t codeSize) {
    if (info.entries.empty()) {
        ++m_undecided;
        return;
    }
    const uint64_t offsets[] = {0, kElf64HeaderSize, kElf32HeaderSize};
    uint64_t* const votes[] = {&m_unbiased, &m_biased64, &m_biased32};
    int fitting = 0, fit = -1;
    for (int i = 0; i < 3; ++i) {
        if (fits(info, codeAddr, codeSize, offsets[i])) {
            ++fitting;
            fit = i;
        }
    }
    if (fitting == 1) {
        ++*votes[fit];
        return;
    }
    uint64_t lowest = info.entries.front().address;
    for (const JitdumpDebugEntry& e : info.entries)
        lowest = e.address < lowest ? e.address : lowest;
    for (int i = 0; i < 3; ++i) {
        if (fitting > 1 && lowest - codeAddr == offsets[i] && lowest >= codeAddr &&
            fits(info, codeAddr, codeSize, offsets[i])) {
            ++*votes[i];
            return;
        }
    }
    ++m_undecided;
}

uint64_t JitdumpDebugBias::bias() const {
    if (m_biased64 <= m_unbiased && m_biased32 <= m_unbiased)
        return 0;
    if (m_biased32 > m_biased64 || (m_biased32 == m_biased64 && m_prefer32))
        return kElf32HeaderSize;
    return kElf64HeaderSize;
}

QUARVEL_NAMESPACE_END
