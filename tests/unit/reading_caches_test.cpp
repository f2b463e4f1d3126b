// What the reading pass remembers between records: class names in stored
// form and the ids of raw ids. A remembered answer must be the one the
// question would get afresh, whatever was asked before it.

#include "ingest/class_name_cache.h"
#include "ingest/method_id_cache.h"
#include "model/module.h"

#include <gtest/gtest.h>

#include <string>

using namespace quarvel;

namespace reading_caches_test {

TEST(ClassNameCache, AnswersEachNameAndFormOnItsOwn) {
    const struct {
        const char* written;
        bool java;
        const char* stored;
    } asked[] = {
        {"Lpkg/Foo;", true, "pkg::Foo"},
        {"Lpkg/Fo;", true, "pkg::Fo"},
        {"Lpkg/Foo;", false, "Lpkg/Foo;"}, // the same text, not a descriptor
        {"Lpkg/Foo;", true, "pkg::Foo"},
        // Truncated: the parser keeps what it read.
        {"Lpkg/Foo", true, "pkg::Foo"},
        {"Lpkg/Foo", false, "Lpkg/Foo"},
        {"java.lang.String", true, "java::lang::String"},
        {"java.lang.String", false, "java::lang::String"},
        {"Ljava/util/Map<Ljava/lang/String;*>;", true, "java::util::Map<java::lang::String,?>"},
        {"Lpkg/Shop$$Lambda$1.0x00007f1700000a08;", true, "pkg::Shop$$Lambda$1/0x00007f1700000a08"},
        {"La//b;", true, "a::b"},
        {"", true, ""},
        {"...", false, ""},
        {"Lpkg/Fo;", true, "pkg::Fo"},
    };
    ClassNameCache cache;
    for (const auto& a : asked)
        EXPECT_EQ(a.stored, cache.stored(a.written, a.java)) << a.written << " java " << a.java;
}

// Names that are not Java descriptors are the ones kept (descriptors are
// converted afresh each time).
TEST(ClassNameCache, StartingOverAfterManyNamesKeepsTheAnswersRight) {
    ClassNameCache cache;
    for (int i = 0; i < 70000; ++i) {
        const std::string n = std::to_string(i);
        ASSERT_EQ("p::C" + n, cache.stored("p.C" + n, false)) << i;
    }
    EXPECT_EQ("p::C0", cache.stored("p.C0", false));
    EXPECT_EQ("p::C69999", cache.stored("p.C69999", false));
    EXPECT_EQ("p::C0", cache.stored("Lp/C0;", true));
}

JitMethod::Ptr methodWith(u32 host, u32 pid, quarvel_arch arch, const char* className = "") {
    JitMethod::Ptr method(new JitMethod());
    method->info()->setModule(IModule::Ptr(new Module("m.so", meSuccess, arch)));
    method->info()->setClassName(className);
    method->addCodeRegion(Region::Ptr(new Region(host, pid, 1, 1, 0, 0x1000, 16, nullptr)));
    return method;
}

TEST(MethodIdCache, AnswersEachIdentityOnItsOwn) {
    // The same raw id in another host, process or architecture lands in the
    // same place of the cache and must not take the id remembered there.
    const struct {
        u32 rawId;
        u32 host;
        u32 pid;
        quarvel_arch arch;
        const char* identity;
    } asked[] = {
        {7, 1, 4242, quarvel_arch_vx64, "7.1.42422"},
        {7, 1, 4242, quarvel_arch_vx64, "7.1.42422"},
        {7, 2, 4242, quarvel_arch_vx64, "7.2.42422"},
        {7, 1, 4243, quarvel_arch_vx64, "7.1.42432"},
        {7, 1, 4242, quarvel_arch_vx32, "7.1.42420"},
        {8, 1, 4242, quarvel_arch_vx64, "8.1.42422"},
        {7, 1, 4242, quarvel_arch_vx64, "7.1.42422"},
        {4294967295u, 4294967295u, 4294967295u, quarvel_arch_vx64, "4294967295.4294967295.42949672952"},
    };
    MethodIdCache cache;
    for (const auto& a : asked)
        EXPECT_EQ(Md5HashGenerator::hashText(a.identity), cache.get(a.rawId, methodWith(a.host, a.pid, a.arch)))
            << a.identity;
}

TEST(MethodIdCache, RawIdZeroTakesTheIdFromTheNamesEveryTime) {
    MethodIdCache cache;
    const BaseMethodId a = cache.get(0, methodWith(1, 4242, quarvel_arch_vx64, "A"));
    const BaseMethodId b = cache.get(0, methodWith(1, 4242, quarvel_arch_vx64, "B"));
    EXPECT_EQ(Md5HashGenerator::hashText("0Am.so2"), a);
    EXPECT_EQ(Md5HashGenerator::hashText("0Bm.so2"), b);
}

} // namespace reading_caches_test
