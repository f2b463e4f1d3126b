#include "model/jit_method.h"
#include "model/method_dump.h"
#include "model/module.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace quarvel_3_13;

IByteBuffer::Ptr bufferOf(const std::vector<uint8_t>& bytes) {
    IByteBuffer::Ptr buffer = IByteBuffer::create();
    buffer->assign(bytes.data(), static_cast<unsigned>(bytes.size()));
    return buffer;
}

std::string disassemble(const std::vector<uint8_t>& bytes, uint64_t address, quarvel_arch arch) {
    std::ostringstream os;
    dumpCodeDisassembly(os, bytes.empty() ? nullptr : bytes.data(), static_cast<uint32_t>(bytes.size()), address,
                        arch);
    return os.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream is(text);
    for (std::string line; std::getline(is, line);)
        lines.push_back(line);
    return lines;
}

// "  XDIS <address>: <hex bytes><padding><text>", split into its three parts.
struct XdisLine {
    std::string address, hex, text;
};

XdisLine parseXdis(const std::string& line) {
    XdisLine x;
    const std::string prefix = "  XDIS ";
    EXPECT_EQ(0u, line.compare(0, prefix.size(), prefix)) << line;
    const size_t colon = line.find(": ", prefix.size());
    if (colon == std::string::npos)
        return x;
    x.address = line.substr(prefix.size(), colon - prefix.size());
    std::istringstream rest(line.substr(colon + 2));
    rest >> x.hex >> std::ws;
    std::getline(rest, x.text);
    return x;
}

TEST(Disassembly, DecodesBothModes) {
    struct Case {
        quarvel_arch arch;
        std::vector<uint8_t> bytes;
        std::vector<XdisLine> expected;
    } cases[] = {
        {quarvel_arch_vx64, {0x55, 0x48, 0x89, 0xE5, 0xC3},
         {{"401000", "55", "push rbp"}, {"401001", "4889E5", "mov rbp, rsp"}, {"401004", "C3", "ret"}}},
        {quarvel_arch_varda64, {0x55}, {{"401000", "55", "push rbp"}}},
        {quarvel_arch_vx32, {0x55, 0x89, 0xE5}, {{"401000", "55", "push ebp"}, {"401001", "89E5", "mov ebp, esp"}}},
    };
    for (const Case& c : cases) {
        const std::vector<std::string> lines = linesOf(disassemble(c.bytes, 0x401000, c.arch));
        ASSERT_EQ(c.expected.size(), lines.size()) << c.arch;
        for (size_t i = 0; i < lines.size(); ++i) {
            const XdisLine x = parseXdis(lines[i]);
            EXPECT_EQ(c.expected[i].address, x.address) << lines[i];
            EXPECT_EQ(c.expected[i].hex, x.hex) << lines[i];
            EXPECT_EQ(c.expected[i].text, x.text) << lines[i];
        }
    }
}

TEST(Disassembly, ReportsWhatCannotBeDecoded) {
    EXPECT_EQ("  no bytes\n", disassemble({}, 0x1000, quarvel_arch_vx64));
    std::ostringstream os;
    dumpCodeDisassembly(os, nullptr, 4, 0x1000, quarvel_arch_vx64);
    EXPECT_EQ("  no bytes\n", os.str());
    EXPECT_EQ("  wrong architecture of code\n", disassemble({0x55}, 0x1000, quarvel_arch_mcx1));
    EXPECT_EQ("  wrong architecture of code\n", disassemble({0x55}, 0x1000, static_cast<quarvel_arch>(-1)));

    // A push, then an instruction cut short: the walk stops at it.
    const std::vector<std::string> lines = linesOf(disassemble({0x55, 0x48, 0x89}, 0x2000, quarvel_arch_vx64));
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("push rbp", parseXdis(lines[0]).text);
    EXPECT_EQ(0u, lines[1].find("       2001: could not decode instruction. Error: ")) << lines[1];
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

JitMethod::Ptr sampleMethod() {
    JitMethod::Ptr method(new JitMethod());
    method->setRawMethodId(0x2A);
    method->setRawParentId(0x7);
    method->setLoadTime(0x1234);
    method->setStartJitRva(1000);
    BaseMethodInfo& info = *method->info();
    info.setMethodToken(0x06000001);
    info.setClassName("pkg.Foo");
    info.setMethodName("run");
    info.setModule(IModule::Ptr(new Module("app.so", meNotFound, quarvel_arch_vx64)));
    info.setSourceFile(SourceFile("Foo.java", "abc", 1, 5));
    method->addCodeRegion(Region::Ptr(
        new Region(1, 42, 1000, 0x1234, 0, 0x401000, 4, bufferOf({0x55, 0x48, 0x89, 0xE5}))));
    method->addCodeRegion(Region::Ptr(new Region(1, 42, 1004, 0x1234, 0, 0x402000, 16, IByteBuffer::Ptr())));
    method->addLineNumberInfo(quarvel_line_info_native_to_source, {{0, 4, 10}, {4, 20, 11}}, Range(0, 20));
    method->addLineNumberInfo(quarvel_line_info_managed_to_source, {{0, 2, 10}}, Range(0, 20));
    return method;
}

TEST(MethodDump, PrintsEveryItem) {
    std::ostringstream os;
    os << *sampleMethod();
    const std::vector<std::string> lines = linesOf(os.str());
    const std::vector<std::string> head = {
        "Method id:       0x2a",
        "Parent id:       0x7",
        "Metadata token:  0x6000001",
        "Load time:       0x1234",
        "Name:            pkg::Foo::run",
        "Full name:       pkg::Foo::run",
        "Class:           pkg::Foo",
        "Module:          app.so",
        "Module arch:     vx64",
        "Source file:     Foo.java",
        "Checksum type:   1",
        "Checksum:        abc",
        "Language type:   5",
        "Code info:",
        "number of code regions: 2",
        "  Code region:   0",
        "  JitRVA range:  0x3e8-0x3ec",
        "  startAddr:     0x401000",
        "  size:          0x4",
        "  IP range:      0x401000-0x401004",
        "  Disassembly:",
    };
    ASSERT_GE(lines.size(), head.size() + 2);
    for (size_t i = 0; i < head.size(); ++i)
        EXPECT_EQ(head[i], lines[i]);
    EXPECT_EQ("push rbp", parseXdis(lines[head.size()]).text);
    EXPECT_EQ("mov rbp, rsp", parseXdis(lines[head.size() + 1]).text);

    const std::vector<std::string> tail = {
        "  Code region:   1",
        "  JitRVA range:  0x3ec-0x3fc",
        "  startAddr:     0x402000",
        "  size:          0x10",
        "  IP range:      0x402000-0x402010",
        "  Disassembly:",
        "  no bytes",
        "Managed to source map: (ILOffset, lineNo)",
        "number of lines: 1",
        "    0-2  10",
        "Native to managed map: (nativeStartOffset-nativeEndOffset, ILOffset)",
        "number of lines: 0",
        "Native to source map: (nativeStartOffset-nativeEndOffset, LineNo)",
        "number of lines: 2",
        "    0-4  10",
        "    4-20  11",
    };
    ASSERT_EQ(head.size() + 2 + tail.size(), lines.size()) << os.str();
    for (size_t i = 0; i < tail.size(); ++i)
        EXPECT_EQ(tail[i], lines[head.size() + 2 + i]);
}

TEST(MethodDump, MethodWithoutRegionsOrSource) {
    JitMethod::Ptr method(new JitMethod());
    method->info()->setModule(IModule::Ptr(new Module("x", meNotFound, quarvel_arch_mcx1)));
    std::ostringstream os;
    os << *method;
    const std::string text = os.str();
    EXPECT_NE(std::string::npos, text.find("Module arch:     mcx1\n"));
    EXPECT_NE(std::string::npos, text.find("number of code regions: 0\n"));
    EXPECT_EQ(std::string::npos, text.find("Code region:"));
    EXPECT_EQ(std::string::npos, text.find("Source file:"));

    JitMethod::Ptr noModule(new JitMethod());
    std::ostringstream other;
    other << *noModule;
    EXPECT_NE(std::string::npos, other.str().find("Module arch:     UNKNOWN\n"));
}

TEST(MethodDump, DumpRegionsListsEachRegion) {
    const std::string text = sampleMethod()->dumpRegions();
    const std::vector<std::string> lines = linesOf(text);
    ASSERT_EQ(2u, lines.size()) << text;
    EXPECT_EQ(0u, lines[0].find("Code region #0"));
    EXPECT_NE(std::string::npos, lines[0].find("0x401000-0x401004"));
    EXPECT_EQ(0u, lines[1].find("Code region #1"));
    EXPECT_NE(std::string::npos, lines[1].find("0x402000-0x402010"));
    EXPECT_EQ("", JitMethod().dumpRegions());
}

} // namespace
