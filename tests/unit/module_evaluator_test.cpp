// Which module paths name precompiled or non-file code, by the path alone.

#include "model/module_evaluator.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace module_evaluator_test {

using namespace quarvel;

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
