// The symbol resolver's .NET completion without a PDB and its assembly reader
// lookup through a stand-in for the caller's locator. Completion from a real
// PDB: dotnet_assembly_reader_test.

#include "api/symbol_resolver.h"
#include "log_capture.h"
#include "model/dotnet_method.h"
#include "path_list.h"
#include "trace_builder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarvel;
using quarvel_test::LogCapture;
using quarvel_test::makeLoad;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

namespace symbol_resolver_test {

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
    SymbolResolver::Ptr resolverFor(const std::string& sourceFile, const ISymbolFileLocator::Ptr& locator,
                                    u32 token = 0) {
        TraceMethodLoad load = makeLoad(1, 100, 0x5000, 16, "Main", "Program");
        load.tail.metadataToken = token;
        load.tail.moduleName = dir.file("Program.dll"); // a new path per test: failures are logged once per file
        load.tail.sourceFile = sourceFile;
        load.tail.lines.nativeToManaged = {{0, 8, 0}, {8, 16, 5}};
        const std::string path = TraceBuilder().load(3, load).writeTo(dir.file("h.1.jit"));
        SymbolResolver::Ptr resolver(new SymbolResolver(locator));
        EXPECT_EQ(meSuccess, resolver->initializeJitFiles(quarvel_test::PathList{path}.it(), taAny));
        return resolver;
    }
    JitMethod::Ptr onlyMethod(const SymbolResolver::Ptr& resolver) {
        auto it = resolver->getSymbols();
        EXPECT_FALSE(it.atEnd());
        return JitMethod::Ptr(static_cast<JitMethod*>(it.current().get()));
    }
    TempDir dir;
};

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
    SymbolResolver::Ptr resolver = resolverFor("", ISymbolFileLocator::Ptr(), 0x06000001);
    JitMethod::Ptr method = onlyMethod(resolver);
    ISymbol::Ptr symbol = resolver->getSymbol(method->getStartJitRva() + 3);
    EXPECT_EQ(method, symbol);
    EXPECT_TRUE(table(method, quarvel_line_info_managed_to_source).empty());
    ASSERT_EQ(1u, log.errors().size()) << log.dump();
    EXPECT_NE(std::string::npos, log.errors()[0].find(dir.file("Program.dll"))) << log.errors()[0];
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
    ASSERT_EQ(1u, log.errors().size()) << log.dump();
    EXPECT_NE(std::string::npos, log.errors()[0].find("/located" + module)) << log.errors()[0];
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
    EXPECT_NE(std::string::npos, log.errors()[0].find(path)) << log.errors()[0];
}

} // namespace
