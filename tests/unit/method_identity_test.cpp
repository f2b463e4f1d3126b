// Ranges as map keys, class and method names, identity digests (the order
// of method ids is any strict order: the data manager's tests see it used).

#include "model/base_method_info.h"
#include "model/jit_method.h"
#include "model/md5_hash_generator.h"
#include "model/module.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <map>

using namespace quarvel;

namespace method_identity_test {

// Overlapping and adjacent ranges: the map test below.
TEST(RangeTest, AnEmptyRangeSortsBeforeRangesFromItsStartAndAfterRangesEndingThere) {
    const Range::Comparator less;
    EXPECT_TRUE(less(Range(0x2000, 0), Range(0x2000, 4)));
    EXPECT_TRUE(less(Range(0x1FF0, 0x10), Range(0x2000, 0)));
    EXPECT_FALSE(less(Range(0x2000, 4), Range(0x2000, 0)));
}

TEST(RangeTest, AMapKeyedByRangesHoldsDisjointRangesAndFindsByProbe) {
    std::map<Range, int, Range::Comparator> map;
    EXPECT_TRUE(map.emplace(Range(100, 50), 1).second);
    EXPECT_TRUE(map.emplace(Range(150, 10), 2).second);
    EXPECT_FALSE(map.emplace(Range(140, 20), 3).second) << "overlaps both stored ranges";
    EXPECT_FALSE(map.emplace(Range(149, 1), 4).second);
    struct Probe {
        u64 address;
        int expected; // 0: not found
    };
    for (const Probe& p : {Probe{99, 0}, Probe{100, 1}, Probe{149, 1}, Probe{150, 2}, Probe{159, 2}, Probe{160, 0}}) {
        auto it = map.find(Range(p.address, 1));
        EXPECT_EQ(p.expected, it == map.end() ? 0 : it->second) << p.address;
    }
    auto run = map.equal_range(Range(120, 35));
    EXPECT_EQ(2, std::distance(run.first, run.second));
}

struct ClassNameCase {
    const char* input;
    const char* expected;
};

TEST(BaseMethodInfoTest, ClassNamesAreJoinedWithDoubleColons) {
    const ClassNameCase cases[] = {
        {"java.lang.String", "java::lang::String"},
        {"a..b", "a::b"},
        {".a.", "a"},
        {"Plain", "Plain"},
        {"", "Plain"},    // empty keeps the old name
        {"...", "Plain"}, // dots only keep it too
    };
    BaseMethodInfo info;
    for (const ClassNameCase& c : cases) {
        if (std::string(c.input) == "")
            info.setClassName("Plain");
        info.setClassName(c.input);
        EXPECT_EQ(c.expected, info.className()) << c.input;
    }
}

struct MethodNameCase {
    const char* className;
    const char* input;
    const char* name;
    const char* qualified;
};

TEST(BaseMethodInfoTest, MethodNamesAreDemangledOrQualified) {
    const MethodNameCase cases[] = {
        {"pkg.Foo", "run(java.lang.String)", "pkg::Foo::run", "pkg::Foo::run(java::lang::String)"},
        {"pkg.Foo", "run", "pkg::Foo::run", "pkg::Foo::run"},
        {"", "main", "main", "main"},
        {"", "a.b.c", "a::b::c", "a::b::c"},
        // Itanium names are demangled; the class name plays no part then.
        {"Ignored", "_ZN2ns3Foo3barEic", "ns::Foo::bar", "ns::Foo::bar(int, char)"},
        {"", "_ZNK2ns3Foo3getEv", "ns::Foo::get", "ns::Foo::get() const"},
        // Not a valid mangling: taken as a plain name.
        {"", "_Zgarbage", "_Zgarbage", "_Zgarbage"},
    };
    for (const MethodNameCase& c : cases) {
        BaseMethodInfo info;
        info.setClassName(c.className);
        info.setMethodName(c.input);
        EXPECT_EQ(c.name, info.methodName()) << c.input;
        EXPECT_EQ(c.qualified, info.qualifiedMethodName()) << c.input;
    }
    BaseMethodInfo info;
    info.setMethodName("kept");
    info.setMethodName("");
    EXPECT_EQ("kept", info.methodName());
    // A name ends at its first NUL, as the C string handed out for it does;
    // the names after it stay whole.
    info.setVerbatimName(std::string("cut\0here", 8));
    info.setClassName("pkg.Bar");
    EXPECT_EQ("cut", info.methodName());
    EXPECT_EQ("cut", info.qualifiedMethodName());
    EXPECT_EQ("pkg::Bar", info.className());
}

// The reading pass hands the class name over as a view of the qualified
// name's start; the names must come out as from separate strings.
TEST(BaseMethodInfoTest, NamesFromViewsOfTheQualifiedNameMatchNamesFromCopies) {
    const struct {
        std::string qualified;
        size_t classLength;
    } cases[] = {
        {"pkg::Foo::run(int)", 8},
        {"pkg::Foo::run", 8},
        {std::string("pkg::Foo::r\0un(int)", 19), 8}, // the names end at a NUL
        {std::string("pk\0g::Foo::run(int)", 19), 8},
        {"a(b::m(int)", 3}, // the method name ends inside the class name
    };
    for (const auto& c : cases) {
        const std::string_view q = c.qualified;
        BaseMethodInfo views;
        views.setQualifiedNames(q.substr(0, c.classLength), q);
        BaseMethodInfo copies;
        copies.setQualifiedNames(std::string(q.substr(0, c.classLength)), std::string(q));
        const std::string shown = std::string(q.substr(0, q.find('\0'))) + " (" + std::to_string(q.size()) + ")";
        EXPECT_EQ(copies.className(), views.className()) << shown;
        EXPECT_EQ(copies.methodName(), views.methodName()) << shown;
        EXPECT_EQ(copies.qualifiedMethodName(), views.qualifiedMethodName()) << shown;
        EXPECT_STREQ(copies.classNameCString(), views.classNameCString()) << shown;
        EXPECT_STREQ(copies.methodNameCString(), views.methodNameCString()) << shown;
    }
}

JitMethod::Ptr methodWith(u32 host, u32 pid, quarvel_arch arch, const char* module = "m.dll") {
    JitMethod::Ptr method(new JitMethod());
    method->info()->setModule(IModule::Ptr(new Module(module, meSuccess, arch)));
    method->addCodeRegion(Region::Ptr(new Region(host, pid, 1, 1, 0, 0x1000, 16, nullptr)));
    return method;
}

// Names make the identity of older records; reading tests check that through
// the reading pass (ReadingPassModel).
TEST(Md5HashGeneratorTest, DigestsOfRawIdsScopedByHostProcessAndArchitecture) {
    // Id 7 on host 1, process 4242, architecture 2 reads "7.1.42422", whose
    // MD5 is e9f83e23a24931fe 9c3aa679e1b49e74, read as two little-endian halves.
    const BaseMethodId base = Md5HashGenerator::getHashValue(7, methodWith(1, 4242, quarvel_arch_vx64));
    EXPECT_EQ(BaseMethodId(0xfe3149a2233ef8e9ull, 0x749eb4e179a63a9cull), base);
    // RFC 1321 test vector "abc" = 900150983cd24fb0 d6963f7d28e17f72.
    EXPECT_EQ(BaseMethodId(0xb04fd23c98500190ull, 0x727fe1287d3f96d6ull), Md5HashGenerator::hashText("abc"));
    EXPECT_NE(base, Md5HashGenerator::getHashValue(7, methodWith(2, 4242, quarvel_arch_vx64)));
    EXPECT_NE(base, Md5HashGenerator::getHashValue(7, methodWith(1, 4243, quarvel_arch_vx64)));
    EXPECT_NE(base, Md5HashGenerator::getHashValue(7, methodWith(1, 4242, quarvel_arch_vx32)));
    // Texts of one block are padded by hand, longer ones go through the
    // digest's own padding: both sides of the bound against a one-shot digest.
    for (size_t length = 0; length <= 130; ++length) {
        std::string text(length, ' ');
        for (size_t i = 0; i < length; ++i)
            text[i] = static_cast<char>('0' + (i * 7) % 75);
        unsigned char bytes[EVP_MAX_MD_SIZE] = {};
        unsigned int size = 0;
        ASSERT_EQ(1, EVP_Digest(text.data(), text.size(), bytes, &size, EVP_md5(), nullptr));
        u64 halves[2] = {0, 0};
        for (unsigned i = 0; i < 16; ++i)
            halves[i / 8] |= u64(bytes[i]) << (8 * (i % 8));
        EXPECT_EQ(BaseMethodId(halves[0], halves[1]), Md5HashGenerator::hashText(text)) << length;
    }
    // A method without regions has host and process 0.
    JitMethod::Ptr bare(new JitMethod());
    bare->info()->setModule(IModule::Ptr(new Module("m", meSuccess, quarvel_arch_varda64)));
    EXPECT_EQ("3.0.01", Md5HashGenerator::identityText(3, bare));
}

} // namespace
