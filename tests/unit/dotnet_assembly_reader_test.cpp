// IAssemblyReader and the PDB search over synthetic assemblies, the .NET
// Core classification, and the resolver completing traced .NET methods with
// or without a PDB, through the caller's locator or none.
// The same paths over compiler-built assemblies: tests/dotnet.

#include "dotnet_test_support.h"
#include "log_capture.h"
#include "path_list.h"
#include "temp_dir.h"
#include "trace_builder.h"
#include "trace_equality.h"

#include "api/symbol_resolver.h"
#include "dotnet/assembly_reader_impl.h"
#include "model/dotnet_method.h"

#include <quarvel/facades.h>
#include <quarvel/generic_iterator.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

using namespace quarvel;
using namespace dotnet_test;
using quarvel_test::LogCapture;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

namespace dotnet_assembly_reader_test {

typedef std::function<void(MetadataBuilder&)> Shape;
const uint32_t kEpilogueOffset = 0xFFFFFFFD; // the runtime's IL offset of epilogue code

class AssemblyReaderTest : public ::testing::Test {
protected:
    // name may have one directory part, made on the way.
    std::string write(const std::string& name, const Bytes& bytes) {
        const size_t slash = name.find('/');
        if (slash != std::string::npos)
            ::mkdir(dir.file(name.substr(0, slash)).c_str(), 0700);
        writeFile(dir.file(name), bytes);
        return dir.file(name);
    }
    IAssemblyReader::Ptr create(const std::string& path, const char* debug = nullptr) {
        IAssemblyReader::Ptr reader;
        EXPECT_EQ(meSuccess, IAssemblyReader::create(path.c_str(), debug, reader));
        return reader;
    }
    TempDir dir;
};

TEST_F(AssemblyReaderTest, FindsThePdbWhereverItIs) {
    const Bytes pdb = samplePdb(pdbId(5));
    struct Case {
        const char* what;
        std::function<std::string()> place; // writes the files, returns the assembly's path
        const char* debugFile;
    };
    // Embedded PDBs: APdbOfAnotherBuildIsRefusedOnce, DamagedEmbeddedPdbs and tests/dotnet.
    const std::vector<Case> cases = {
        {"beside, under the CodeView name",
         [&] {
             write("b/Sample.pdb", pdb);
             return write("b/Renamed.dll", SampleAssembly().build());
         },
         nullptr},
        {"beside, under the assembly's name",
         [&] {
             write("s/Other.pdb", pdb);
             return write("s/Other.dll", SampleAssembly().build());
         },
         nullptr},
        {"named by the caller",
         [&] {
             write("n/symbols.pdb", pdb);
             return write("n/Sample.dll", SampleAssembly().build());
         },
         "n/symbols.pdb"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string assembly = c.place();
        const std::string debug = c.debugFile ? dir.file(c.debugFile) : std::string();
        IAssemblyReader::Ptr reader = create(assembly, c.debugFile ? debug.c_str() : nullptr);
        ASSERT_TRUE(reader);
        DotNetMethod::Ptr add = reader->getMethod(0x06000001);
        ASSERT_TRUE(add);
        ASSERT_TRUE(add->symbolReader());
        EXPECT_EQ(11u, add->getSourceLineByILOffset(3));
        SourceFile file;
        ASSERT_EQ(meSuccess, add->getSourceFileInfo(file));
        EXPECT_STREQ("/src/Calculator.cs", file.getSourceFileName());
    }
}

TEST_F(AssemblyReaderTest, APdbOfAnotherBuildIsRefusedOnce) {
    const std::string assembly = write("m/Sample.dll", SampleAssembly().build());
    const std::string stale = write("m/Sample.pdb", samplePdb(pdbId(77)));
    LogCapture log;
    IAssemblyReader::Ptr reader = create(assembly);
    ASSERT_TRUE(reader);
    DotNetMethod::Ptr add = reader->getMethod(0x06000001);
    ASSERT_TRUE(add);
    EXPECT_EQ("Add", add->getMethodName()); // names do not need the PDB
    EXPECT_FALSE(add->symbolReader());
    ASSERT_EQ(1u, log.errors().size()) << log.dump();
    for (const std::string& named : {assembly, stale, std::string("PDB id differs")})
        EXPECT_NE(std::string::npos, log.errors()[0].find(named)) << log.errors()[0];
    log.clear();
    EXPECT_TRUE(create(assembly));
    EXPECT_TRUE(log.errors().empty()) << log.dump();

    // A wrong file named by the caller is refused too; the embedded PDB still serves.
    const Bytes pdb = samplePdb(pdbId(5));
    SampleAssembly withEmbedded;
    withEmbedded.embedded = &pdb;
    const std::string both = write("w/Sample.dll", withEmbedded.build());
    const std::string wrong = write("w/wrong.pdb", samplePdb(pdbId(78)));
    reader = create(both, wrong.c_str());
    ASSERT_TRUE(reader && reader->getMethod(0x06000001)->symbolReader());
    EXPECT_EQ(1u, log.errors().size()) << log.dump();
}

TEST_F(AssemblyReaderTest, DamagedEmbeddedPdbs) {
    const Bytes pdb = samplePdb(pdbId(5));
    struct Case {
        const char* what;
        std::function<void(Bytes&, size_t)> damage; // bytes, offset of the entry's data
        std::string reason;
    };
    const std::vector<Case> cases = {
        {"a size deflate cannot reach", [](Bytes& b, size_t at) { b[at + 7] = 0x7F; },
         ": embedded PDB: claims 2130706"},
        {"bad deflate data",
         [](Bytes& b, size_t at) {
             b[at + 8] = 0xFF;
             b[at + 9] = 0xFF;
         },
         ": embedded PDB: the compressed data does not inflate to "},
        {"no MPDB signature", [](Bytes& b, size_t at) { b[at] = 'X'; }, ": embedded PDB: no MPDB signature"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SampleAssembly a;
        a.embedded = &pdb;
        Bytes bytes = a.build();
        c.damage(bytes, a.pe.debugDataOffset(1));
        const std::string path = write(std::string(1, c.what[0]) + "/Sample.dll", bytes);
        LogCapture log;
        IAssemblyReader::Ptr reader = create(path);
        ASSERT_TRUE(reader);
        EXPECT_FALSE(reader->getMethod(0x06000001)->symbolReader());
        ASSERT_EQ(1u, log.errors().size()) << log.dump();
        EXPECT_NE(std::string::npos, log.errors()[0].find(path + " (embedded PDB): offset ")) << log.errors()[0];
        EXPECT_NE(std::string::npos, log.errors()[0].find(c.reason)) << log.errors()[0];
    }
}

TEST_F(AssemblyReaderTest, BadTokensAndDamagedRowsGiveNoMethodAndOneLogLine) {
    const std::string path = write("t/Sample.dll", SampleAssembly().build());
    IAssemblyReader::Ptr reader = create(path);
    ASSERT_TRUE(reader);
    LogCapture log;
    EXPECT_FALSE(reader->getMethod(0x06000002)); // its signature is damaged
    EXPECT_FALSE(reader->getMethod(0x06000009));
    EXPECT_FALSE(reader->getMethod(0x0A000001));
    ASSERT_EQ(1u, log.errors().size()) << log.dump();
    EXPECT_NE(std::string::npos, log.errors()[0].find(path + ": offset ")) << log.errors()[0];
    EXPECT_NE(std::string::npos, log.errors()[0].find(": method 0x6000002: method signature: unknown element type 23"));
}

// Each file's failure is logged once, however often it is asked for.
TEST_F(AssemblyReaderTest, UnreadableAssembliesAreRefusedAndLoggedOncePerFile) {
    const std::string text = write("text.dll", {'n', 'o', 't', ' ', 'a', ' ', 'P', 'E'});
    const std::string missing = dir.file("missing.dll");
    LogCapture log;
    IAssemblyReader::Ptr reader;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(meBadRecord, IAssemblyReader::create(text.c_str(), nullptr, reader));
        EXPECT_EQ(meFileOpenError, IAssemblyReader::create(missing.c_str(), nullptr, reader));
    }
    EXPECT_FALSE(reader);
    EXPECT_EQ(meNotFound, IAssemblyReader::create(nullptr, nullptr, reader));
    ASSERT_EQ(3u, log.errors().size()) << log.dump();
    EXPECT_NE(std::string::npos,
              log.errors()[0].find(text + ": offset 0: not a PE image: no MZ signature (found 0x6f6e)"))
        << log.errors()[0];
    EXPECT_NE(std::string::npos, log.errors()[1].find(missing)) << log.errors()[1];
}

// Core or not, from the metadata and the image.
TEST_F(AssemblyReaderTest, DotNetCoreClassification) {
    auto ref = [](const std::string& name, uint16_t major, uint16_t minor, bool key) {
        return [=](MetadataBuilder& md) {
            const uint32_t token = key ? md.blob({0xb0, 0x3f, 0x5f, 0x7f, 0x11, 0xd5, 0x0a, 0x3a}) : 0;
            md.row(M::AssemblyRef, {major, minor, 0, 0, 0, token, md.string(name), 0, 0});
        };
    };
    auto framework = [](const std::string& text) {
        return [=](MetadataBuilder& md) {
            const uint32_t type = md.row(M::TypeRef, {(1 << 2) | 2, md.string("TargetFrameworkAttribute"),
                                                      md.string("System.Runtime.Versioning")});
            const uint32_t ctor =
                md.row(M::MemberRef, {(type << 3) | 1, md.string(".ctor"), md.blob({0x20, 0x01, 0x01, 0x0E})});
            Bytes value = {0x01, 0x00, uint8_t(text.size())};
            for (char ch : text)
                value.push_back(uint8_t(ch));
            value.push_back(0); // no named arguments
            value.push_back(0);
            md.row(M::Assembly, {0x8004, 1, 0, 0, 0, 0, 0, md.string("App"), 0});
            md.row(M::CustomAttribute, {(1 << 5) | 14, (ctor << 3) | 3, md.blob(value)});
        };
    };
    auto both = [](Shape a, Shape b) {
        return [=](MetadataBuilder& md) {
            a(md);
            b(md);
        };
    };
    struct Case {
        const char* what;
        Shape shape;
        std::function<void(PeBuilder&)> image;
        bool core;
    };
    const std::vector<Case> cases = {
        {"no references", nullptr, nullptr, false},
        {"System.Runtime 8.0", ref("System.Runtime", 8, 0, true), nullptr, true},
        {"System.Runtime 4.2 (Core 2.1)", ref("System.Runtime", 4, 2, true), nullptr, true},
        {"System.Runtime 4.1 (netstandard 1.x)", ref("System.Runtime", 4, 1, true), nullptr, false},
        {"System.Private.CoreLib", ref("System.Private.CoreLib", 10, 0, true), nullptr, true},
        {"mscorlib", ref("mscorlib", 4, 0, true), nullptr, false},
        {"netstandard", ref("netstandard", 2, 0, true), nullptr, false},
        {"a keyless mscorlib before the real corlib",
         both(ref("mscorlib", 0, 0, false), ref("System.Runtime", 9, 0, true)), nullptr, true},
        {".NETCoreApp target", framework(".NETCoreApp,Version=v8.0"), nullptr, true},
        {".NETFramework target wins over a reference",
         both(framework(".NETFramework,Version=v4.7.2"), ref("System.Runtime", 8, 0, true)), nullptr, false},
        {"the Core corlib itself",
         [](MetadataBuilder& md) {
             md.row(M::Assembly, {0x8004, 10, 0, 0, 0, 0, 0, md.string("System.Private.CoreLib"), 0});
         },
         nullptr, true},
        {"ReadyToRun code", nullptr, [](PeBuilder& pe) { pe.readyToRun(); }, true},
        {"a Linux ReadyToRun machine", nullptr, [](PeBuilder& pe) { pe.pe32Plus().machine(0x8664 ^ 0x7B79); }, true},
    };
    LogCapture log;
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].what);
        SampleAssembly a;
        a.shape = cases[i].shape;
        if (cases[i].image)
            cases[i].image(a.pe);
        EXPECT_EQ(cases[i].core, isDotNetCore(write("c" + std::to_string(i) + ".dll", a.build())));
    }
    EXPECT_TRUE(log.errors().empty()) << log.dump();

    EXPECT_FALSE(isDotNetCore(""));
    EXPECT_TRUE(log.errors().empty());
    EXPECT_FALSE(isDotNetCore(write("plain.txt", {'h', 'i'})));
    Bytes noMetadata = SampleAssembly().build();
    noMetadata[PeBuilder::kTextOffset + 8] = 0x00; // the CLI header's metadata RVA
    noMetadata[PeBuilder::kTextOffset + 9] = 0x00;
    noMetadata[PeBuilder::kTextOffset + 10] = 0x90;
    EXPECT_FALSE(isDotNetCore(write("nometadata.dll", noMetadata)));
    EXPECT_EQ(2u, log.errors().size()) << log.dump(); // one per refused file
}

TEST_F(AssemblyReaderTest, DefaultLocatorFindsTheAssemblyAndThePdbBesideIt) {
    const std::string assembly = write("l/Sample.dll", SampleAssembly().build());
    ISymbolFileLocator::Ptr locator = ISymbolFileLocator::createDefault();
    ILocatedFile::Ptr found;
    ILocatedFile::Ptr debug;
    locator->locate(assembly.c_str(), found, debug);
    ASSERT_TRUE(found);
    EXPECT_STREQ(assembly.c_str(), found->getPath());
    EXPECT_FALSE(debug);
    const std::string pdb = write("l/Sample.pdb", samplePdb(pdbId(5)));
    locator->locate(assembly.c_str(), found, debug);
    ASSERT_TRUE(debug);
    EXPECT_STREQ(pdb.c_str(), debug->getPath());
    locator->locate(dir.file("l/Missing.dll").c_str(), found, debug);
    EXPECT_FALSE(found);
    EXPECT_FALSE(debug);
    locator->locate(nullptr, found, debug);
    EXPECT_FALSE(found);
}

// The caller's locator: finds every module at one path, or nothing.
class LocatorStub : public ISymbolFileLocator {
public:
    class File : public ILocatedFile {
    public:
        explicit File(std::string path) : m_path(std::move(path)) {}
        const char* getPath() const override { return m_path.c_str(); }

    private:
        std::string m_path;
    };

    void locate(const char* modulePath, ILocatedFile::Ptr& assembly, ILocatedFile::Ptr& debugFile) override {
        asked.push_back(modulePath);
        if (!found.empty())
            assembly.reset(new File(found));
        debugFile.reset();
    }
    std::string found;
    std::vector<std::string> asked;
};

// One open per assembly, not one per method, with or without a locator. A
// failed open is not remembered (the file may appear later); what the
// locator cannot find is not opened at all.
TEST_F(AssemblyReaderTest, TheResolverOpensEachAssemblyOnceWhereTheLocatorSays) {
    const std::string assembly = write("o/Sample.dll", SampleAssembly().build());
    for (const ISymbolFileLocator::Ptr& locator : {ISymbolFileLocator::Ptr(), ISymbolFileLocator::createDefault()}) {
        SymbolResolver::Ptr resolver(new SymbolResolver(locator));
        const IAssemblyReader::Ptr first = resolver->getAssemblyReader(assembly);
        ASSERT_TRUE(first);
        EXPECT_EQ(first, resolver->getAssemblyReader(assembly));
    }

    boost::intrusive_ptr<LocatorStub> stub(new LocatorStub());
    SymbolResolver::Ptr resolver(new SymbolResolver(ISymbolFileLocator::Ptr(stub)));
    const std::string module = "/deployed/App.dll";
    stub->found = assembly;
    ASSERT_TRUE(resolver->getAssemblyReader(module));
    EXPECT_TRUE(resolver->getAssemblyReader(module));
    EXPECT_EQ(std::vector<std::string>{module}, stub->asked);

    LogCapture log;
    stub->found = dir.file("o/Missing.dll");
    EXPECT_FALSE(resolver->getAssemblyReader("/deployed/Other.dll"));
    EXPECT_FALSE(resolver->getAssemblyReader("/deployed/Other.dll"));
    EXPECT_EQ(3u, stub->asked.size());
    ASSERT_EQ(1u, log.errors().size()) << log.dump();
    EXPECT_NE(std::string::npos, log.errors()[0].find(stub->found)) << log.errors()[0];
    stub->found.clear();
    EXPECT_FALSE(resolver->getAssemblyReader("/deployed/Third.dll"));
    EXPECT_EQ(1u, log.errors().size()) << log.dump();
}

std::vector<quarvel_line_number_entry> table(const ISymbol::Ptr& s, quarvel_line_info_type type) {
    unsigned n = 0;
    if (s->getLineNumberInfo(type, nullptr, &n, 0) != meSuccess || n == 0)
        return {};
    std::vector<quarvel_line_number_entry> out(n);
    EXPECT_EQ(meSuccess, s->getLineNumberInfo(type, out.data(), &n, 0));
    return out;
}

// A trace names .NET methods by module path and token only; the resolver
// fills in names and lines from the assembly and its PDB and keeps what the
// trace gave where they have nothing.
TEST_F(AssemblyReaderTest, ResolverCompletesTracedMethods) {
    const std::string assembly = write("r/Sample.dll", SampleAssembly().build());
    write("r/Sample.pdb", samplePdb(pdbId(5)));
    const std::string withoutPdb = write("p/Sample.dll", SampleAssembly().build());
    const std::string missing = dir.file("r/Missing.dll");
    auto load = [&](uint32_t id, const std::string& module, uint32_t token, const std::string& name,
                    const std::string& sourceFile = "") {
        TraceMethodLoad l = quarvel_test::makeLoad(id, 100 + id, 0x1000 * id, 16, name, name.empty() ? "" : "Program");
        l.tail.moduleName = module;
        l.tail.sourceFile = sourceFile;
        l.tail.metadataToken = token;
        l.tail.lines.nativeToManaged = {{0, 4, 0}, {4, 10, 2}, {10, 16, kEpilogueOffset}};
        return l;
    };
    const std::string trace = TraceBuilder()
                                  .load(3, load(1, assembly, 0x06000001, "", "Dynamic Code"))
                                  .load(3, load(2, assembly, 0x06000001, "Main"))
                                  .load(3, load(3, assembly, 0x06000002, "FromTheTrace"))
                                  .load(3, load(4, withoutPdb, 0x06000001, ""))
                                  .load(3, load(5, missing, 0x06000001, "Kept"))
                                  .writeTo(dir.file("host.7.jit"));
    LogCapture log;
    for (bool withLocator : {false, true}) {
        SCOPED_TRACE(withLocator ? "default locator" : "no locator");
        ISymbolFileLocator::Ptr locator = withLocator ? ISymbolFileLocator::createDefault() : ISymbolFileLocator::Ptr();
        ISymbolResolver::Ptr resolver = ISymbolResolver::create(quarvel_test::PathList{trace}.it(), locator);
        ASSERT_TRUE(resolver);
        std::vector<ISymbol::Ptr> methods;
        for (auto s = resolver->getSymbols(); !s.atEnd(); s.advance())
            methods.push_back(resolver->getSymbol(s.current()->getStartJitRva() + 1));
        ASSERT_EQ(5u, methods.size());

        // Names and native-to-source lines of a method the trace names by
        // token only: tests/dotnet, against the peer reader. The trace's
        // placeholder source file gives way to the PDB's.
        const ISymbol::Ptr& add = methods[0];
        ASSERT_TRUE(add->getSourceFile());
        EXPECT_STREQ("/src/Calculator.cs", add->getSourceFile()->getSourceFileName());
        EXPECT_EQ(
            (std::vector<quarvel_line_number_entry>{{0, 0, 10}, {2, 2, 11}, {kEpilogueOffset, kEpilogueOffset, 12}}),
            table(add, quarvel_line_info_managed_to_source));
        ISourceLocation::Ptr at = add->getSourceLocation(add->getStartJitRva() + 5);
        ASSERT_TRUE(at);
        EXPECT_EQ(11u, at->getLine());
        // Asked again, the tables are not built a second time over the first.
        EXPECT_EQ(3u, table(resolver->getSymbol(add->getStartJitRva() + 2), quarvel_line_info_native_to_source).size());

        // Names the trace gave are kept; lines still come from the PDB.
        EXPECT_STREQ("Program::Main", methods[1]->getMethodName());
        EXPECT_EQ(3u, table(methods[1], quarvel_line_info_native_to_source).size());
        // A damaged row leaves the method as the trace described it.
        EXPECT_STREQ("Program::FromTheTrace", methods[2]->getMethodName());
        EXPECT_TRUE(table(methods[2], quarvel_line_info_native_to_source).empty());
        // Without a PDB: names from the assembly, no lines, the trace's IL map kept.
        EXPECT_STREQ("Fixture::Sample::Calculator::Add(int, int)", methods[3]->getQualifiedMethodName());
        EXPECT_TRUE(table(methods[3], quarvel_line_info_native_to_source).empty());
        EXPECT_TRUE(table(methods[3], quarvel_line_info_managed_to_source).empty());
        EXPECT_EQ(3u, table(methods[3], quarvel_line_info_native_to_managed).size());
        EXPECT_FALSE(methods[3]->getSourceFile());
        // An assembly that is not there: the method as the trace gave it.
        EXPECT_STREQ("Program::Kept", methods[4]->getMethodName());
        EXPECT_EQ(3u, table(methods[4], quarvel_line_info_native_to_managed).size());
        resolver->getSymbol(methods[4]->getStartJitRva());
    }
    size_t missingReported = 0;
    for (const std::string& e : log.errors())
        missingReported += e.find(missing) != std::string::npos;
    EXPECT_EQ(1u, missingReported) << log.dump();
}

} // namespace
