// Debug records: which load each describes (by code address, whatever came
// between), and whether their addresses carry the ELF-header bias some writers
// add, so that exact lines can be recovered. Both together on a written dump:
// runtime_files_test (LinesComeFromTheDebugRecordWithTheBiasRemoved).

#include "format/jitdump_debug_bias.h"
#include "format/jitdump_debug_pairing.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarvel;

namespace jitdump_debug_info_test {

JitdumpDebugInfo debugAt(uint64_t codeAddr, std::initializer_list<uint64_t> addresses) {
    JitdumpDebugInfo info;
    info.codeAddr = codeAddr;
    int line = 1;
    for (uint64_t a : addresses)
        info.entries.push_back({a, line++, 0, "a.js", false});
    return info;
}

// One debug record set against its code: entry offsets from the code's start.
struct Evidence {
    uint64_t codeSize;
    std::vector<uint64_t> offsets;
};

struct BiasCase {
    const char* name;
    uint32_t elfMachine;
    std::vector<Evidence> records;
    uint64_t bias;
    uint64_t unbiased, biased64, biased32, undecided;
};

class JitdumpBias : public ::testing::TestWithParam<BiasCase> {};

TEST_P(JitdumpBias, TheOffsetThatKeepsEntriesInsideTheirCodeWins) {
    const BiasCase& c = GetParam();
    JitdumpDebugBias bias(c.elfMachine);
    uint64_t code = 0x7f00aa000000;
    for (const Evidence& e : c.records) {
        JitdumpDebugInfo info;
        info.codeAddr = code;
        for (uint64_t off : e.offsets)
            info.entries.push_back({code + off, 1, 0, "f.js", false});
        bias.observe(info, code, e.codeSize);
        code += 0x1000;
    }
    EXPECT_EQ(c.bias, bias.bias());
    EXPECT_EQ(c.unbiased, bias.unbiasedRecords());
    EXPECT_EQ(c.biased64, bias.biased64Records());
    EXPECT_EQ(c.biased32, bias.biased32Records());
    EXPECT_EQ(c.undecided, bias.undecidedRecords());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, JitdumpBias,
    ::testing::Values(
        // Entries from the code's first byte: only no bias fits.
        BiasCase{"ExactWriter", 62, {{0x100, {0x0, 0x10, 0x100}}, {0x80, {0x4}}}, 0, 2, 0, 0, 0},
        // Entries past the code's end by up to 0x40, none before 0x40.
        BiasCase{"Elf64Bias", 62, {{0x100, {0x40, 0x140}}, {0x20, {0x50, 0x60}}, {0x200, {0x80}}}, 0x40, 0, 2, 0, 1},
        BiasCase{"Elf32Bias", 3, {{0x100, {0x34, 0x134}}, {0x10, {0x3c}}}, 0x34, 0, 0, 2, 0},
        // Entries in the middle of large code fit every offset: no evidence, no bias.
        BiasCase{"OnlyAmbiguous", 62, {{0x1000, {0x100, 0x200}}, {0x1000, {0x800}}}, 0, 0, 0, 0, 2},
        // Entries that fit every offset are judged by where the first one lies.
        BiasCase{"FirstEntryAtTheBias",
                 62,
                 {{0x1000, {0x80, 0x40}}, {0x1000, {0x40}}, {0x1000, {0x34, 0x50}}},
                 0x40,
                 0,
                 2,
                 1,
                 0},
        BiasCase{"FirstEntryAtTheStart", 62, {{0x1000, {0x0, 0x40}}, {0x1000, {0x0}}}, 0, 2, 0, 0, 0},
        // Entries past the end of the code even with the bias: no offset fits.
        BiasCase{"NothingFits", 62, {{0x10, {0x40, 0x100}}}, 0, 0, 0, 0, 1},
        BiasCase{"NoEntries", 62, {{0x100, {}}}, 0, 0, 0, 0, 1},
        // A few odd records do not overturn the many.
        BiasCase{
            "BiasedMajority", 62, {{0x20, {0x60}}, {0x20, {0x60}}, {0x20, {0x60}}, {0x100, {0x0}}}, 0x40, 1, 3, 0, 0},
        BiasCase{"UnbiasedMajority", 62, {{0x20, {0x60}}, {0x100, {0x0}}, {0x100, {0x4}}}, 0, 2, 1, 0, 0},
        BiasCase{"TieBrokenByA32BitMachine", 40, {{0x10, {0x50}}, {0x10, {0x34}}}, 0x34, 0, 1, 1, 0},
        BiasCase{"TieBrokenByA64BitMachine", 62, {{0x10, {0x50}}, {0x10, {0x34}}}, 0x40, 0, 1, 1, 0}),
    [](const ::testing::TestParamInfo<BiasCase>& info) { return std::string(info.param.name); });

TEST(JitdumpBias, AddressesAtTheTopOfTheRangeDoNotWrap) {
    const uint64_t top = ~uint64_t(0) - 0x10;
    JitdumpDebugInfo info = debugAt(top, {top + 0x8});
    EXPECT_TRUE(JitdumpDebugBias::fits(info, top, 0x10, 0));
    EXPECT_FALSE(JitdumpDebugBias::fits(info, top, 0x10, 0x40));
    // An entry below the bias itself cannot have had it added.
    EXPECT_FALSE(JitdumpDebugBias::fits(debugAt(0, {0x10}), 0, 0x100, 0x40));
}

TEST(JitdumpPairing, ByCodeAddressWhateverCameBetween) {
    JitdumpDebugPairing pairing;
    // Two writer threads: both debug records, then the loads in the other order.
    pairing.addDebugInfo(debugAt(0xA000, {0xA000}));
    pairing.addDebugInfo(debugAt(0xB000, {0xB000, 0xB004}));
    const JitdumpDebugInfo* b = pairing.takeFor(0xB000);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(2u, b->entries.size());
    const JitdumpDebugInfo* a = pairing.takeFor(0xA000);
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(0xA000u, a->entries[0].address);
    // Taken once: a second load at the same address has no lines of its own.
    EXPECT_EQ(nullptr, pairing.takeFor(0xA000));
    EXPECT_EQ(nullptr, pairing.takeFor(0xC000));
    EXPECT_EQ(2u, pairing.paired());

    pairing.addDebugInfo(debugAt(0xD000, {0xD000}));
    pairing.addDebugInfo(debugAt(0xD000, {0xD008}));
    EXPECT_EQ(1u, pairing.replaced());
    EXPECT_EQ(1u, pairing.waiting());
    EXPECT_EQ(0xD008u, pairing.takeFor(0xD000)->entries[0].address);
    EXPECT_EQ(0u, pairing.waiting());
}

} // namespace
