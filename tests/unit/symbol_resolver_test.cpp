// The symbol resolver's .NET completion and assembly reader lookup, with
// stand-ins for the PDB reader and the caller's locator.

#include "model/dotnet_method.h"
#include "log_capture.h"
#include "api/symbol_resolver.h"
#include "trace_builder.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

// Global, for the standard algorithms to find it; internal to this file.
static bool operator==(const quarvel_line_number_entry& a, const quarvel_line_number_entry& b) {
    return a.startOffset == b.startOffset && a.endOffset == b.endOffset && a.value == b.value;
}

using namespace quarvel_3_13;
using quarvel_test::LogCapture;
using quarvel_test::makeLoad;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

namespace {

class FakePdb : public CoreCLRSymbolReader {
public:
    quarvel_error_t initialize() override { return meSuccess; }
    quarvel_error_t getSourceFileWithFuncRowID(u32 rowId, std::string& fileName) override {
        lastRow = rowId;
        fileName = file;
        return meSuccess;
    }
    quarvel_error_t getSourceLineWithFuncRowIDAndILOffset(u32, u32 ilOffset, unsigned& line) override {
        line = lineBase + ilOffset;
        return meSuccess;
    }
    std::string file = "Program.cs";
    unsigned lineBase = 100;
    u32 lastRow = 0;
};

class FileStub : public ILocatedFile {
public:
    explicit FileStub(std::string path) : m_path(std::move(path)) {}
    const char* getPath() const override { return m_path.c_str(); }

private:
    std::string m_path;
};

class LocatorStub : public ISymbolFileLocator {
public:
    void locate(const char* modulePath, ILocatedFile::Ptr& assembly, ILocatedFile::Ptr& debugFile) override {
        asked.push_back(modulePath);
        if (found) {
            assembly.reset(new FileStub(std::string("/located") + modulePath));
            debugFile.reset(new FileStub("/located/x.pdb"));
        }
    }
    bool found = true;
    std::vector<std::string> asked;
};

std::vector<quarvel_line_number_entry> table(const ISymbol::Ptr& s, quarvel_line_info_type type) {
    unsigned n = 0;
    if (s->getLineNumberInfo(type, nullptr, &n, 0) != meSuccess || n == 0)
        return {};
    std::vector<quarvel_line_number_entry> out(n);
    EXPECT_EQ(meSuccess, s->getLineNumberInfo(type, out.data(), &n, 0));
    return out;
}

class SymbolResolverTest : public ::testing::Test {
protected:
    // One .NET-like method of 16 bytes with a native-to-managed table.
    SymbolResolver::Ptr resolverFor(const std::string& sourceFile, const ISymbolFileLocator::Ptr& locator) {
        TraceMethodLoad load = makeLoad(1, 100, 0x5000, 16, "Main", "Program");
        load.tail.moduleName = dir.file("Program.dll"); // a new path per test: failures are logged once per file
        load.tail.sourceFile = sourceFile;
        load.tail.lines.nativeToManaged = {{0, 8, 0}, {8, 16, 5}};
        const std::string path = TraceBuilder().load(3, load).writeTo(dir.file("h.1.jit"));
        SymbolResolver::Ptr resolver(new SymbolResolver(locator));
        std::vector<const char*> paths{path.c_str()};
        generic_iterator_t<const char*> it(paths.begin(), paths.end());
        EXPECT_EQ(meSuccess, resolver->initializeJitFiles(it, taAny));
        return resolver;
    }
    JitMethod::Ptr onlyMethod(const SymbolResolver::Ptr& resolver) {
        auto it = resolver->getSymbols();
        EXPECT_FALSE(it.atEnd());
        return JitMethod::Ptr(static_cast<JitMethod*>(it.current().get()));
    }
    TempDir dir;
};

TEST_F(SymbolResolverTest, CompletionFromAPortablePdb) {
    SymbolResolver::Ptr resolver = resolverFor("Dynamic Code", ISymbolFileLocator::Ptr());
    JitMethod::Ptr method = onlyMethod(resolver);
    std::shared_ptr<FakePdb> pdb(new FakePdb());
    DotNetMethod dotNet(0x06000007);
    dotNet.setSymbolReader(pdb);

    resolver->completeDotNetMethod(method, dotNet);
    const std::vector<quarvel_line_number_entry> managed{{0, 0, 100}, {5, 5, 105}};
    const std::vector<quarvel_line_number_entry> native{{0, 8, 100}, {8, 16, 105}};
    EXPECT_EQ(managed, table(method, quarvel_line_info_managed_to_source));
    EXPECT_EQ(native, table(method, quarvel_line_info_native_to_source));
    ASSERT_TRUE(method->getSourceFile());
    EXPECT_STREQ("Program.cs", method->getSourceFile()->getSourceFileName());
    EXPECT_EQ(7u, pdb->lastRow);
    // Names the trace gave are kept.
    EXPECT_NE(std::string::npos, std::string(method->getMethodName()).find("Main"));

    // Tables are built once.
    pdb->lineBase = 500;
    resolver->completeDotNetMethod(method, dotNet);
    EXPECT_EQ(managed, table(method, quarvel_line_info_managed_to_source));
}

TEST_F(SymbolResolverTest, CompletionWithoutAPdbLeavesTablesAndSourceFile) {
    SymbolResolver::Ptr resolver = resolverFor("Dynamic Code", ISymbolFileLocator::Ptr());
    JitMethod::Ptr method = onlyMethod(resolver);
    resolver->completeDotNetMethod(method, DotNetMethod(0x06000007));
    EXPECT_TRUE(table(method, quarvel_line_info_managed_to_source).empty());
    EXPECT_TRUE(table(method, quarvel_line_info_native_to_source).empty());
    EXPECT_EQ(2u, table(method, quarvel_line_info_native_to_managed).size());
    EXPECT_STREQ("Dynamic Code", method->getSourceFile()->getSourceFileName());
}

TEST_F(SymbolResolverTest, TokenedMethodWithoutAnAssemblyReaderComesBackAsItIs) {
    LogCapture log;
    SymbolResolver::Ptr resolver = resolverFor("", ISymbolFileLocator::Ptr());
    JitMethod::Ptr method = onlyMethod(resolver);
    method->info()->setMethodToken(0x06000001);
    ISymbol::Ptr symbol = resolver->getSymbol(method->getStartJitRva() + 3);
    EXPECT_EQ(method, symbol);
    EXPECT_TRUE(table(method, quarvel_line_info_managed_to_source).empty());
    EXPECT_TRUE(log.contains("Couldn't open .NET assembly: " + dir.file("Program.dll") +
                                 ": cannot open: No such file or directory",
                             log4cplus::ERROR_LOG_LEVEL))
        << log.dump();
    // Once per file, however often the file is asked for.
    log.clear();
    EXPECT_EQ(method, resolver->getSymbol(method->getStartJitRva() + 3));
    EXPECT_TRUE(log.errors().empty()) << log.dump();
}

TEST_F(SymbolResolverTest, AssemblyReaderLookupAsksTheLocator) {
    boost::intrusive_ptr<LocatorStub> locator(new LocatorStub());
    SymbolResolver::Ptr resolver = resolverFor("", ISymbolFileLocator::Ptr(locator));
    LogCapture log;
    const std::string module = dir.file("Program.dll");
    EXPECT_FALSE(resolver->getAssemblyReader(module));
    ASSERT_EQ(1u, locator->asked.size());
    EXPECT_EQ(module, locator->asked[0]);
    EXPECT_TRUE(log.contains("Couldn't open .NET assembly: /located" + module, log4cplus::ERROR_LOG_LEVEL))
        << log.dump();
    // A failed creation is not cached: the next request asks again.
    EXPECT_FALSE(resolver->getAssemblyReader(module));
    EXPECT_EQ(2u, locator->asked.size());

    // An assembly the locator cannot find is not opened at all.
    locator->found = false;
    log.clear();
    EXPECT_FALSE(resolver->getAssemblyReader(dir.file("Other.dll")));
    EXPECT_TRUE(log.errors().empty()) << log.dump();
}

TEST(AssemblyReaderCreation, AMissingAssemblyIsRefusedAndLoggedOnce) {
    TempDir dir;
    LogCapture log;
    IAssemblyReader::Ptr reader;
    const std::string path = dir.file("b.dll");
    EXPECT_EQ(meFileOpenError, IAssemblyReader::create(path.c_str(), nullptr, reader));
    EXPECT_FALSE(reader);
    EXPECT_EQ(meFileOpenError, IAssemblyReader::create(path.c_str(), nullptr, reader));
    EXPECT_EQ(meNotFound, IAssemblyReader::create(nullptr, nullptr, reader));
    ASSERT_EQ(2u, log.errors().size()) << log.dump();
    EXPECT_EQ(0u, log.errors()[0].find("Couldn't open .NET assembly: " + path + ": cannot open: No such file or directory, "
                                       "at file: vcs/quarvel3/src/jitreader/assembly_reader_impl:"))
        << log.errors()[0];
    EXPECT_EQ(0u, log.errors()[1].find("Couldn't open a .NET assembly: no path was given")) << log.errors()[1];
}

} // namespace
