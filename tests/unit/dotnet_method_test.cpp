#include "model/dotnet_method.h"
#include "model/module_evaluator.h"

#include <gtest/gtest.h>

#include <memory>

#include <map>
#include <sstream>
#include <string>

namespace {

using namespace quarvel_3_13;

// A PDB reader that knows one method row.
class FakeSymbolReader : public CoreCLRSymbolReader {
public:
    quarvel_error_t initialize() override { return meSuccess; }
    quarvel_error_t getSourceFileWithFuncRowID(u32 rowId, std::string& fileName) override {
        lastRowId = rowId;
        if (rowId != 0x12)
            return meNotFound;
        fileName = "Program.cs";
        return meSuccess;
    }
    quarvel_error_t getSourceLineWithFuncRowIDAndILOffset(u32 rowId, u32 ilOffset, unsigned& line) override {
        lastRowId = rowId;
        if (rowId != 0x12 || ilOffset > 10)
            return meNotFound;
        line = 100 + ilOffset;
        return meSuccess;
    }
    u32 lastRowId = 0;
};

TEST(DotNetMethod, WithoutReaderFindsNothing) {
    DotNetMethod::Ptr method(new DotNetMethod(0x06000012));
    SourceFile file("untouched", "", 0, 0);
    EXPECT_EQ(meNotFound, method->getSourceFileInfo(file));
    EXPECT_STREQ("untouched", file.getSourceFileName());
    EXPECT_EQ(0u, method->getSourceLineByILOffset(3));
    unsigned count = 0;
    EXPECT_EQ(meNotFound, method->getILToSourceMapping(nullptr, &count));
}

TEST(DotNetMethod, AsksReaderByRowId) {
    auto reader = std::make_shared<FakeSymbolReader>();
    DotNetMethod method(0x06000012);
    method.setSymbolReader(reader);
    EXPECT_EQ(0x12u, method.rowId());

    SourceFile file;
    ASSERT_EQ(meSuccess, method.getSourceFileInfo(file));
    EXPECT_EQ(0x12u, reader->lastRowId);
    EXPECT_STREQ("Program.cs", file.getSourceFileName());
    EXPECT_STREQ("", file.getChecksum());
    EXPECT_EQ(0u, file.getChecksumType());
    EXPECT_EQ(0u, file.getLanguageType());

    EXPECT_EQ(104u, method.getSourceLineByILOffset(4));
    EXPECT_EQ(0u, method.getSourceLineByILOffset(11)); // the reader finds none
    unsigned count = 0;
    EXPECT_EQ(meNotFound, method.getILToSourceMapping(nullptr, &count));

    DotNetMethod other(0x06000013);
    other.setSymbolReader(reader);
    EXPECT_EQ(meNotFound, other.getSourceFileInfo(file));
    EXPECT_STREQ("Program.cs", file.getSourceFileName()); // not written on failure
}

TEST(DotNetMethod, PrintsItsBlock) {
    std::ostringstream os;
    os << DotNetMethod(0x0600002A) << 42;
    EXPECT_EQ("Method (600002a)\n" + std::string(55, '-') +
                  "\n     MethodName:      \n     TypeDefName:     \n     MethodSignature: \n\n42",
              os.str());
}

TEST(DotNetMethod, PrintsTheNamesTheAssemblyReaderFilled) {
    DotNetMethod method(0x06000001);
    method.setNames("Ns.Outer`1.Inner", ".ctor", "(int, T[])");
    std::ostringstream os;
    os << method;
    EXPECT_EQ("Method (6000001)\n" + std::string(55, '-') +
                  "\n     MethodName:      .ctor\n     TypeDefName:     Ns.Outer`1.Inner\n"
                  "     MethodSignature: (int, T[])\n\n",
              os.str());
}

TEST(ModuleEvaluator, ClassifiesPaths) {
    const std::map<std::string, quarvel_error_t> cases = {
        {"C:\\Windows\\assembly\\NativeImages_v4.0\\x.ni.dll", meSuccess},
        {"C:\\Windows\\assembly\\GAC_MSIL\\System\\System.dll", meSuccess},
        {"/dev/ashmem/dalvik-jit-code-cache (deleted)", meSuccess},
        {"/anon_hugepage", meSuccess},
        {"/usr/lib/libfoo.so", meNotFound},
        {"C:\\Windows\\ASSEMBLY\\gac\\x.dll", meNotFound}, // case-sensitive
        {"C:/Windows/assembly/GAC/x.dll", meNotFound},     // the backslash is part of the mark
        {"", meNotFound},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, isNativeImage(c.first)) << c.first;
        IModuleEvaluator::Ptr evaluator(new ModuleEvaluator(c.first.c_str()));
        EXPECT_EQ(c.second, evaluator->isNativeImage()) << c.first;
    }
    EXPECT_EQ(meNotFound, ModuleEvaluator(nullptr).isNativeImage());
}

} // namespace
