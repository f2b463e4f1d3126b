#ifndef QUARVEL_FORMAT_JITDUMP_DEBUG_BIAS_H
#define QUARVEL_FORMAT_JITDUMP_DEBUG_BIAS_H

// Some writers add the size of an ELF header to every debug entry address
// (0x40 on 64-bit hosts, 0x34 on 32-bit ones), for an old convention of the
// tools that turn each load into an ELF file. Exact lines need it removed, and
// nothing in the file says whether it is there: the entries of each debug
// record are set against the code they describe, and the offset that keeps
// them inside that code wins. Most records fit every offset (their entries lie
// well inside their code); those are judged by their first entry, which
// writers put at the code's first instruction: seen in a JavaScript engine's
// dumps for all but a handful of thousands of records.
//
//     JitdumpDebugBias bias(header.elfMachine);
//     for each debug record and its code load: bias.observe(info, load.codeAddr, load.codeSize);
//     line address = entry.address - bias.bias();

#include "format/jitdump_records.h"

#include <cstdint>

QUARVEL_NAMESPACE_BEGIN

class JitdumpDebugBias {
public:
    static constexpr uint64_t kElf64HeaderSize = 0x40;
    static constexpr uint64_t kElf32HeaderSize = 0x34;

    // The machine breaks ties between the two sizes: 0x34 for 32-bit machines.
    explicit JitdumpDebugBias(uint32_t elfMachine = 0);

    // Whether every entry lies in [codeAddr + offset, codeAddr + codeSize + offset]
    // (the end is included: an entry may name the address after the last instruction).
    static bool fits(const JitdumpDebugInfo& info, uint64_t codeAddr, uint64_t codeSize, uint64_t offset);

    // Adds one debug record's vote: for the one offset its entries fit, else
    // (several fit) for the offset its lowest entry lies at from the code's
    // start. Records without entries, or that neither rule decides, add nothing.
    void observe(const JitdumpDebugInfo& info, uint64_t codeAddr, uint64_t codeSize);

    // The offset to subtract from every entry address: 0 unless records that
    // vote for a bias outnumber those that vote for none.
    uint64_t bias() const;

    // Records that vote for no bias, for 0x40, for 0x34.
    uint64_t unbiasedRecords() const { return m_unbiased; }
    uint64_t biased64Records() const { return m_biased64; }
    uint64_t biased32Records() const { return m_biased32; }
    // Records that decided nothing.
    uint64_t undecidedRecords() const { return m_undecided; }

private:
    bool m_prefer32;
    uint64_t m_unbiased = 0;
    uint64_t m_biased64 = 0;
    uint64_t m_biased32 = 0;
    uint64_t m_undecided = 0;
};

QUARVEL_NAMESPACE_END

#endif
