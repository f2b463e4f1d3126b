// The resolver over compiler-built assemblies: a trace names every method of
// the fixtures that has source lines by module path and MethodDef token only,
// with a native-to-IL table; getSymbol must give the full names and the
// source lines that the peer tool (System.Reflection.Metadata) reads from the
// same assemblies and PDBs. Public API only.

#include "path_list.h"
#include "temp_dir.h"
#include "trace_builder.h"

#include <quarvel/facades.h>
#include <quarvel/jittrace_writer.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using namespace quarvel;

namespace {

const uint32_t kPrologue = 0xFFFFFFFE; // the runtime's IL offsets of code outside the IL
const uint32_t kEpilogue = 0xFFFFFFFD;
const uint32_t kHidden = 0xFEEFEE;

struct PeerPoint {
    uint32_t il;
    uint32_t document;
    uint32_t line; // kHidden for hidden points
};

struct PeerMethod {
    std::string token, type, name, signature;
    std::vector<PeerPoint> points;
};

struct PeerAssembly {
    std::map<uint32_t, std::string> documents;
    std::vector<PeerMethod> methods;
};

std::string fixturesDir() {
    const char* out = std::getenv("QUARVEL_DOTNET_OUT");
    return out ? out : "";
}

std::vector<std::string> split(const std::string& line, char sep) {
    std::vector<std::string> fields;
    std::stringstream in(line);
    std::string field;
    while (std::getline(in, field, sep))
        fields.push_back(field);
    return fields;
}

// What a command prints on its standard output.
std::string run(const std::string& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    std::string text;
    char buffer[1 << 16];
    size_t n = 0;
    while (pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe.get())) > 0)
        text.append(buffer, n);
    return text;
}

// Runs the peer tool over one assembly and keeps what the test checks.
PeerAssembly readByPeer(const std::string& assembly) {
    PeerAssembly peer;
    const std::string text = run("DOTNET_CLI_TELEMETRY_OPTOUT=1 DOTNET_NOLOGO=1 dotnet '" + fixturesDir() +
                                 "/bin/MetadataPeer/MetadataPeer.dll' '" + assembly + "'");
    for (const std::string& line : split(text, '\n')) {
        const std::vector<std::string> f = split(line, '\t');
        if (f[0] == "document" && f.size() == 4) {
            peer.documents[std::stoul(f[1])] = f[3];
        } else if (f[0] == "method" && f.size() == 8) {
            peer.methods.push_back(PeerMethod{f[1], f[2], f[3], f[4], {}});
        } else if (f[0] == "point" && f.size() == 5 && !peer.methods.empty()) {
            const uint32_t line = f[4] == "hidden" ? kHidden : uint32_t(std::stoul(split(f[4], ':')[0]));
            peer.methods.back().points.push_back(
                {uint32_t(std::stoul(f[2], nullptr, 16)), uint32_t(std::stoul(f[3])), line});
        }
    }
    return peer;
}

// The resolver joins name parts with "::", as it does for every runtime.
std::string colons(const std::string& dotted) {
    std::string out;
    for (const std::string& part : split(dotted, '.')) {
        if (part.empty())
            continue;
        if (!out.empty())
            out += "::";
        out += part;
    }
    return out;
}

// The line the test expects for an IL offset, straight from the peer's points.
uint32_t expectedLine(const std::vector<PeerPoint>& points, uint32_t il) {
    uint32_t line = 0;
    for (const PeerPoint& p : points) {
        if (p.line == kHidden)
            continue;
        if (il == kPrologue)
            return p.line;
        if (il != kEpilogue && p.il > il)
            break;
        line = p.line;
    }
    return line;
}

struct Traced {
    const PeerMethod* method;
    const PeerAssembly* assembly;
    uint64_t address;
    std::vector<quarvel_line_number_entry> nativeToIl;
};

// Native code of 8 bytes per sequence point: half at the point's IL offset,
// half one IL byte further; a prologue before and an epilogue after.
std::vector<quarvel_line_number_entry> nativeToIl(const std::vector<PeerPoint>& points) {
    std::vector<quarvel_line_number_entry> table{{0, 4, kPrologue}};
    uint32_t native = 4;
    for (size_t i = 0; i < points.size(); ++i) {
        const uint32_t il = points[i].il;
        const bool room = i + 1 == points.size() || points[i + 1].il > il + 1;
        table.push_back({native, native + 4, il});
        table.push_back({native + 4, native + 8, room ? il + 1 : il});
        native += 8;
    }
    table.push_back({native, native + 4, kEpilogue});
    return table;
}

class DotNetResolver : public ::testing::TestWithParam<bool> {};

TEST_P(DotNetResolver, NamesAndLinesOfTracedMethodsAgreeWithThePeer) {
    const std::string out = fixturesDir();
    if (std::system("command -v dotnet >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "the .NET SDK (dotnet) is not installed";
    if (out.empty() || !std::ifstream(out + "/built.stamp"))
        GTEST_SKIP() << "the .NET fixtures were not built";
    const std::vector<std::string> assemblies = {out + "/bin/Embedded/Quarvel.Fixtures.Embedded.dll",
                                                 out + "/bin/Standalone/Quarvel.Fixtures.Standalone.dll"};
    std::vector<PeerAssembly> peers;
    for (const std::string& a : assemblies)
        peers.push_back(readByPeer(a));

    quarvel_test::TraceBuilder trace;
    trace.magic().collector(1);
    std::vector<Traced> traced;
    uint32_t id = 1;
    for (size_t a = 0; a < assemblies.size(); ++a) {
        ASSERT_FALSE(peers[a].methods.empty()) << "the peer read nothing from " << assemblies[a];
        for (const PeerMethod& m : peers[a].methods) {
            if (expectedLine(m.points, kEpilogue) == 0)
                continue; // no visible line to check
            TraceMethodLoad load;
            load.hashKey = load.methodId = id;
            load.loadTime = 1000 + id;
            const uint64_t address = 0x100000 + uint64_t(id) * 0x1000;
            std::vector<quarvel_line_number_entry> table = nativeToIl(m.points);
            load.regions.push_back(TraceCodeRegion{address, table.back().endOffset, {}});
            load.tail.moduleName = assemblies[a];
            load.tail.metadataToken = uint32_t(std::stoul(m.token, nullptr, 16));
            load.tail.lines.nativeToManaged = table;
            trace.load(3, load);
            traced.push_back(Traced{&m, &peers[a], address, table});
            ++id;
        }
    }
    ASSERT_GT(traced.size(), 200u);
    quarvel_test::TempDir dir;
    const std::string path = trace.writeTo(dir.file("fixtures.4242.jit"));

    ISymbolFileLocator::Ptr locator = GetParam() ? ISymbolFileLocator::createDefault() : ISymbolFileLocator::Ptr();
    ISymbolResolver::Ptr resolver = ISymbolResolver::create(quarvel_test::PathList{path}.it(), locator);
    ASSERT_TRUE(resolver);
    std::map<uint64_t, uint64_t> jitRvaOf; // by address
    for (auto it = resolver->getSymbols(); !it.atEnd(); it.advance())
        for (auto r = it.current()->getRegions(); !r.atEnd(); r.advance())
            jitRvaOf[r.current()->getStartVirtualAddress()] = r.current()->getStartJitRva();

    size_t lines = 0;
    for (const Traced& t : traced) {
        const PeerMethod& m = *t.method;
        SCOPED_TRACE(m.token + " " + m.type + "::" + m.name + m.signature);
        ASSERT_TRUE(jitRvaOf.count(t.address));
        const ISymbol::Ptr symbol = resolver->getSymbol(jitRvaOf[t.address]);
        ASSERT_TRUE(symbol);
        const std::string qualified = colons(m.type) + "::" + colons(m.name + m.signature);
        EXPECT_EQ(colons(m.type), symbol->getClassName());
        EXPECT_EQ(qualified, symbol->getQualifiedMethodName());
        EXPECT_EQ(qualified.substr(0, qualified.find('(')), symbol->getMethodName());

        uint32_t firstVisibleDocument = 0;
        for (const PeerPoint& p : m.points)
            if (p.line != kHidden) {
                firstVisibleDocument = p.document;
                break;
            }
        ASSERT_TRUE(symbol->getSourceFile());
        EXPECT_EQ(t.assembly->documents.at(firstVisibleDocument), symbol->getSourceFile()->getSourceFileName());

        unsigned n = 0;
        ASSERT_EQ(meSuccess, symbol->getLineNumberInfo(quarvel_line_info_native_to_source, nullptr, &n, 0));
        std::vector<quarvel_line_number_entry> nativeToSource(n);
        ASSERT_EQ(meSuccess,
                  symbol->getLineNumberInfo(quarvel_line_info_native_to_source, nativeToSource.data(), &n, 0));
        ASSERT_EQ(t.nativeToIl.size(), nativeToSource.size());
        for (size_t i = 0; i < nativeToSource.size(); ++i) {
            EXPECT_EQ(t.nativeToIl[i].startOffset, nativeToSource[i].startOffset);
            EXPECT_EQ(expectedLine(m.points, t.nativeToIl[i].value), nativeToSource[i].value)
                << "IL offset " << t.nativeToIl[i].value;
            ++lines;
        }
    }
    RecordProperty("methods", int(traced.size()));
    RecordProperty("lines", int(lines));
}

// quarvel-jit goes through getSymbol, so its listings show what the
// assemblies and PDBs say about a method the trace names by token only.
TEST(DotNetTool, ListsAndResolvesWithCompletedNamesAndLines) {
    const std::string out = fixturesDir();
    if (std::system("command -v dotnet >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "the .NET SDK (dotnet) is not installed";
    if (out.empty() || !std::ifstream(out + "/built.stamp"))
        GTEST_SKIP() << "the .NET fixtures were not built";
    if (std::string(QUARVEL_JIT_TOOL).empty())
        GTEST_SKIP() << "quarvel-jit is not built (QUARVEL_BUILD_TOOLS=OFF)";
    const std::string assembly = out + "/bin/Standalone/Quarvel.Fixtures.Standalone.dll";
    const PeerAssembly peer = readByPeer(assembly);
    const PeerMethod* add = nullptr;
    for (const PeerMethod& m : peer.methods)
        if (m.type == "Quarvel.Fixtures.Calculator" && m.name == "Add" && m.signature == "(int, int)")
            add = &m;
    ASSERT_TRUE(add && add->points.size() >= 2);

    TraceMethodLoad load;
    load.hashKey = load.methodId = 1;
    load.loadTime = 1000;
    load.regions.push_back(TraceCodeRegion{0x7f0000001000, 64, {}});
    load.tail.moduleName = assembly;
    load.tail.metadataToken = uint32_t(std::stoul(add->token, nullptr, 16));
    load.tail.lines.nativeToManaged = {{0, 32, add->points[0].il}, {32, 64, add->points[1].il}};
    quarvel_test::TempDir dir;
    quarvel_test::TraceBuilder().magic().collector(1).load(3, load).writeTo(dir.file("fixtures.4242.jit"));
    std::ofstream(dir.file("samples.csv")) << "time,address,pid,host\n2000,0x7f0000001028,4242,fixtures\n";

    const std::string tool = std::string(QUARVEL_JIT_TOOL) + " --log-level off ";
    const std::string source = peer.documents.at(add->points[1].document);
    const std::string name = "Quarvel::Fixtures::Calculator::Add(int, int)";
    const std::string symbols = run(tool + "symbols " + dir.path());
    EXPECT_NE(std::string::npos, symbols.find(name)) << symbols;
    EXPECT_NE(std::string::npos, symbols.find(source)) << symbols;
    const std::string resolved =
        run(tool + "--format csv resolve " + dir.path() + " --samples " + dir.file("samples.csv"));
    EXPECT_NE(std::string::npos, resolved.find(name)) << resolved;
    EXPECT_NE(std::string::npos, resolved.find(source + "," + std::to_string(add->points[1].line))) << resolved;
    const std::string dump = run(tool + "dump " + dir.path() + " --match Add");
    EXPECT_NE(std::string::npos, dump.find(name)) << dump;
}

INSTANTIATE_TEST_SUITE_P(Locators, DotNetResolver, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "DefaultLocator" : "NoLocator";
                         });

} // namespace
