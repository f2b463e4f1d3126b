// Debug records: which load each describes (by code address, whatever came
// between), and whether their addresses carry the ELF-header bias some writers
// add, so that exact lines can be recovered.

#include "format/jitdump_debug_bias.h"
#include "format/jitdump_debug_pairing.h"
#include "format/jitdump_reader.h"
#include "jitdump_writer.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

using namespace quarvel_3_13;
using quarvel_test::JitdumpDebugFields;
using quarvel_test::JitdumpLoadFields;
using quarvel_test::JitdumpWriter;

namespace {

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
        BiasCase{"FirstEntryAtTheBias", 62, {{0x1000, {0x80, 0x40}}, {0x1000, {0x40}}, {0x1000, {0x34, 0x50}}},
                 0x40, 0, 2, 1, 0},
        BiasCase{"FirstEntryAtTheStart", 62, {{0x1000, {0x0, 0x40}}, {0x1000, {0x0}}}, 0, 2, 0, 0, 0},
        // Entries past the end of the code even with the bias: no offset fits.
        BiasCase{"NothingFits", 62, {{0x10, {0x40, 0x100}}}, 0, 0, 0, 0, 1},
        BiasCase{"NoEntries", 62, {{0x100, {}}}, 0, 0, 0, 0, 1},
        // A few odd records do not overturn the many.
        BiasCase{"BiasedMajority", 62, {{0x20, {0x60}}, {0x20, {0x60}}, {0x20, {0x60}}, {0x100, {0x0}}}, 0x40, 1, 3, 0, 0},
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

// The pieces together on a dump shaped like one a JavaScript engine writes:
// debug addresses biased by 0x40, debug records of two threads interleaved,
// the "same file" form. Subtracting the detected bias gives the lines back
// at the addresses the writer meant.
TEST(JitdumpDebugInfo, BiasedInterleavedDumpGivesExactLines) {
    struct Fn {
        uint64_t addr;
        uint64_t size;
        std::map<uint64_t, int> lines; // code offset -> line
    };
    const std::vector<Fn> fns = {{0x10000, 0x30, {{0x0, 10}, {0x18, 11}, {0x30, 12}}},
                                 {0x20000, 0x28, {{0x4, 20}, {0x28, 21}}},
                                 {0x30000, 0x100, {{0x0, 30}, {0xF0, 31}}}};
    JitdumpWriter w;
    w.header();
    auto debugOf = [](const Fn& f) {
        JitdumpDebugFields d;
        d.codeAddr = f.addr;
        bool first = true;
        for (const auto& l : f.lines) {
            d.entries.push_back({f.addr + l.first + 0x40, l.second, 0, first ? "/app/x.js" : "", !first});
            first = false;
        }
        return d;
    };
    auto loadOf = [](const Fn& f, uint64_t index) {
        JitdumpLoadFields l;
        l.codeAddr = f.addr;
        l.code.assign(f.size, 0xCC);
        l.codeIndex = index;
        return l;
    };
    w.debugInfo(debugOf(fns[0])).debugInfo(debugOf(fns[1])).codeLoad(loadOf(fns[1], 0)).codeLoad(loadOf(fns[0], 1));
    w.debugInfo(debugOf(fns[2])).codeLoad(loadOf(fns[2], 2));

    Expected<JitdumpReader> reader = JitdumpReader::fromBytes(w.bytes().data(), w.size(), "jit-1.dump");
    ASSERT_TRUE(reader);
    JitdumpDebugPairing pairing;
    JitdumpDebugBias bias(reader->header().elfMachine);
    // Lines as written, by code address; the bias is known only once all are seen.
    std::map<uint64_t, std::vector<JitdumpDebugEntry>> linesOf;
    JitdumpRecord r;
    while (reader->next(r)) {
        if (r.kind == JitdumpRecordKind::debugInfo)
            pairing.addDebugInfo(r.debugInfo);
        if (r.kind == JitdumpRecordKind::codeLoad) {
            const JitdumpDebugInfo* info = pairing.takeFor(r.load.codeAddr);
            ASSERT_NE(nullptr, info) << std::hex << r.load.codeAddr;
            bias.observe(*info, r.load.codeAddr, r.load.codeSize);
            linesOf[r.load.codeAddr] = info->entries;
        }
    }
    ASSERT_EQ(nullptr, reader->stopReason());
    ASSERT_EQ(0x40u, bias.bias());
    for (const Fn& f : fns) {
        std::map<uint64_t, int> got;
        for (const JitdumpDebugEntry& e : linesOf[f.addr]) {
            got[e.address - bias.bias() - f.addr] = e.line;
            EXPECT_EQ("/app/x.js", e.file);
        }
        EXPECT_EQ(f.lines, got) << std::hex << f.addr;
    }
}

} // namespace
