#include "model/dotnet_method.h"
#include "model/module_evaluator.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

namespace dotnet_method_test {

using namespace quarvel;

// Lines through a real PDB: dotnet_assembly_reader_test and dotnet_pdb_test.
TEST(DotNetMethod, WithoutAPdbReaderFindsNothingAndWritesNothing) {
    DotNetMethod::Ptr method(new DotNetMethod(0x06000012));
    EXPECT_EQ(0x12u, method->rowId());
    SourceFile file("untouched", "", 0, 0);
    EXPECT_EQ(meNotFound, method->getSourceFileInfo(file));
    EXPECT_STREQ("untouched", file.getSourceFileName());
    EXPECT_EQ(0u, method->getSourceLineByILOffset(3));
    unsigned count = 0;
    EXPECT_EQ(meNotFound, method->getILToSourceMapping(nullptr, &count));
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
