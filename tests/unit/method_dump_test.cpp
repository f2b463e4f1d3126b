// Printing code and methods. The whole layout of a method's dump is checked by
// the tool's goldens (tests/cli/golden/dump_*); here: both decoder modes, what
// cannot be decoded, and the items a golden never shows.

#include "model/jit_method.h"
#include "model/method_dump.h"
#include "model/module.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace method_dump_test {

using namespace quarvel;

std::string disassemble(const std::vector<uint8_t>& bytes, uint64_t address, quarvel_arch arch) {
    std::ostringstream os;
    dumpCodeDisassembly(os, bytes.empty() ? nullptr : bytes.data(), static_cast<uint32_t>(bytes.size()), address, arch);
    return os.str();
}

// The instruction texts of "  XDIS <address>: <hex bytes><padding><text>" lines,
// each as "<address> <hex> <text>"; other lines as they are.
std::vector<std::string> instructions(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream is(text);
    for (std::string line; std::getline(is, line);) {
        std::istringstream fields(line);
        std::string tag, address, hex, rest;
        fields >> tag >> address >> hex >> std::ws;
        std::getline(fields, rest);
        out.push_back(tag == "XDIS" ? address + " " + hex + " " + rest : line);
    }
    return out;
}

TEST(Disassembly, DecodesEachModeAndSaysWhatItCannotDecode) {
    const struct {
        quarvel_arch arch;
        std::vector<uint8_t> bytes;
        std::vector<std::string> lines;
    } cases[] = {
        {quarvel_arch_vx64,
         {0x55, 0x48, 0x89, 0xE5, 0xC3},
         {"401000: 55 push rbp", "401001: 4889E5 mov rbp, rsp", "401004: C3 ret"}},
        {quarvel_arch_varda64, {0x55}, {"401000: 55 push rbp"}},
        {quarvel_arch_vx32, {0x55, 0x89, 0xE5}, {"401000: 55 push ebp", "401001: 89E5 mov ebp, esp"}},
        {quarvel_arch_vx64, {}, {"  no bytes"}},
        {quarvel_arch_mcx1, {0x55}, {"  wrong architecture of code"}},
        {static_cast<quarvel_arch>(-1), {0x55}, {"  wrong architecture of code"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.lines, instructions(disassemble(c.bytes, 0x401000, c.arch))) << c.arch;

    std::ostringstream os;
    dumpCodeDisassembly(os, nullptr, 4, 0x1000, quarvel_arch_vx64);
    EXPECT_EQ("  no bytes\n", os.str());
    // A push, then an instruction cut short: the walk stops at it.
    const std::vector<std::string> cut = instructions(disassemble({0x55, 0x48, 0x89}, 0x2000, quarvel_arch_vx64));
    ASSERT_EQ(2u, cut.size());
    EXPECT_EQ("2000: 55 push rbp", cut[0]);
    EXPECT_EQ(0u, cut[1].find("       2001: could not decode instruction. Error: ")) << cut[1];
}

TEST(Disassembly, HexLine) {
    char buffer[2 * 15 + 1];
    const uint8_t bytes[15] = {0x0F, 0xAB, 0x00, 0xFF, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    krad_print_hex_line(buffer, bytes, 2, sizeof buffer);
    EXPECT_STREQ("0FAB", buffer);
    krad_print_hex_line(buffer, bytes, 0, sizeof buffer); // 0 means the longest instruction
    EXPECT_STREQ("0FAB00FF0102030405060708090A0B", buffer);
    char small[5];
    krad_print_hex_line(small, bytes, 4, sizeof small); // clipped to the buffer
    EXPECT_STREQ("0FAB", small);
}

// What the example traces never hold: a method without a module, a region
// without bytes, a managed-to-source table.
TEST(MethodDump, PrintsMethodsTheGoldensDoNotHold) {
    JitMethod::Ptr method(new JitMethod());
    method->addCodeRegion(Region::Ptr(new Region(1, 42, 1004, 0x1234, 0, 0x402000, 16, IByteBuffer::Ptr())));
    method->addLineNumberInfo(quarvel_line_info_managed_to_source, {{0, 2, 10}}, Range(1004, 16));
    std::ostringstream os;
    os << *method;
    for (const char* part : {"Module arch:     UNKNOWN\n", "  Disassembly:\n  no bytes\n",
                             "Managed to source map: (ILOffset, lineNo)\nnumber of lines: 1\n    0-2  10\n"})
        EXPECT_NE(std::string::npos, os.str().find(part)) << part << "\n" << os.str();
    EXPECT_EQ(std::string::npos, os.str().find("Source file:"));

    JitMethod::Ptr empty(new JitMethod());
    empty->info()->setModule(IModule::Ptr(new Module("x", meNotFound, quarvel_arch_mcx1)));
    std::ostringstream other;
    other << *empty;
    for (const char* part : {"Module arch:     mcx1\n", "number of code regions: 0\n"})
        EXPECT_NE(std::string::npos, other.str().find(part)) << part << "\n" << other.str();
}

} // namespace
