// The PE/COFF and ECMA-335 metadata reader over synthetic assemblies: the
// shapes compilers rarely emit and damage at known offsets. Compiler output
// is compared with an independent reader in tests/dotnet.

#include "dotnet_test_support.h"

#include "dotnet/assembly_metadata.h"
#include "dotnet/metadata_heaps.h"
#include "dotnet/pe_image.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using namespace quarvel;
using namespace dotnet_test;
using quarvel_test::compressed;

namespace dotnet_metadata_test {

struct SignatureCase {
    const char* what;
    Bytes blob;
    const char* signature = "";
    const char* returnType = "";
};

// TypeRefs: 1 System.Collections.Generic.List`1, 2 System.Runtime.InteropServices.InAttribute,
// 3 Ext.Outer, 4 Ext.Outer.Inner (nested through its resolution scope).
// TypeDefs: 1 <Module>, 2 Fixture.Sample.Calculator, 3 Calculator.Gen`1<T> (nested).
// TypeSpec 1: List`1<!0>; TypeSpec 2 names itself as a modifier (a cycle);
// TypeSpecs 3 to 15 are List`1<next, next>: 2^13 types in 13 levels.
class Signatures : public ::testing::Test {
protected:
    static const uint8_t kList = (1 << 2) | 1, kIn = (2 << 2) | 1, kInner = (4 << 2) | 1;
    static const uint8_t kCalculator = (2 << 2) | 0, kListOfT = (1 << 2) | 2, kCycle = (2 << 2) | 2;
    static const uint8_t kDoubling = (3 << 2) | 2;

    void SetUp() override {
        md.row(M::TypeRef, {(1 << 2) | 2, md.string("List`1"), md.string("System.Collections.Generic")});
        md.row(M::TypeRef, {(1 << 2) | 2, md.string("InAttribute"), md.string("System.Runtime.InteropServices")});
        md.row(M::TypeRef, {(1 << 2) | 2, md.string("Outer"), md.string("Ext")});
        md.row(M::TypeRef, {(3 << 2) | 3, md.string("Inner"), 0});
        md.row(M::TypeSpec, {md.blob({0x15, 0x12, kList, 0x01, 0x13, 0x00})});
        md.row(M::TypeSpec, {md.blob({0x20, kCycle, 0x08})});
        for (uint8_t next = 4; next <= 15; ++next)
            md.row(M::TypeSpec, {md.blob({0x15, 0x12, kList, 0x02, 0x12, uint8_t((next << 2) | 2), 0x12,
                                          uint8_t((next << 2) | 2)})});
        md.row(M::TypeSpec, {md.blob({0x15, 0x12, kList, 0x02, 0x08, 0x08})});
    }

    // Builds the assembly with one Calculator method per case, and one generic
    // method in Gen`1.
    std::shared_ptr<const AssemblyMetadata> build(const std::vector<SignatureCase>& cases) {
        addModuleAndClass(md);
        md.row(M::TypeDef, {0x100002, md.string("Gen`1"), 0, 0, 1, uint32_t(cases.size() + 1)});
        md.row(M::NestedClass, {3, 2});
        for (const SignatureCase& c : cases)
            method(md, c.what, c.blob);
        genericMethod = method(md, "Generic", {0x30, 0x01, 0x02, 0x1E, 0x00, 0x13, 0x00, 0x1E, 0x00});
        typeSpecMethod = method(md, "TypeSpecModifier", {0x00, 0x01, 0x01, 0x20, kListOfT, 0x08});
        md.row(M::GenericParam, {0, 0, (3 << 1) | 0, md.string("T")});
        md.row(M::GenericParam, {0, 0, (genericMethod << 1) | 1, md.string("U")});
        image = pe.build(md.build());
        return open(image);
    }
    // File offset of a blob's first byte (after its one-byte length).
    size_t blobAt(uint32_t index) const { return pe.metadataOffset() + md.streamOffset("#Blob") + index + 1; }

    MetadataBuilder md;
    PeBuilder pe;
    Bytes image;
    uint32_t genericMethod = 0;
    uint32_t typeSpecMethod = 0;
};

TEST_F(Signatures, ReadAsText) {
    const std::vector<SignatureCase> cases = {
        {"static void", {0x00, 0x00, 0x01}, "()", "void"},
        {"instance two ints", {0x20, 0x02, 0x08, 0x08, 0x08}, "(int, int)", "int"},
        {"primitives",
         {0x00, 0x10, 0x16, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x18, 0x19,
          0x1C},
         "(bool, char, sbyte, byte, short, ushort, int, uint, long, ulong, float, double, string, nint, nuint, object)",
         "TypedReference"},
        // void* (int32*, int32&, int32[], int32[,], int32[0...2,1...], string[][]), as monodis reads it.
        {"pointers and arrays",
         {0x00, 0x06, 0x0F, 0x01, 0x0F, 0x08, 0x10, 0x08, 0x1D, 0x08, 0x14, 0x08, 0x02,
          0x00, 0x00, 0x14, 0x08, 0x02, 0x01, 0x03, 0x02, 0x00, 0x02, 0x1D, 0x1D, 0x0E},
         "(int*, int&, int[], int[,], int[0...2,1...], string[][])",
         "void*"},
        {"rank 1 array, negative bound",
         {0x00, 0x02, 0x01, 0x14, 0x08, 0x01, 0x00, 0x00, 0x14, 0x08, 0x01, 0x01, 0x02, 0x01, 0x7B},
         "(int[*], int[-3...-2])",
         "void"},
        {"classes",
         {0x00, 0x03, 0x01, 0x15, 0x12, kList, 0x01, 0x0E, 0x11, kCalculator, 0x12, kInner},
         "(System.Collections.Generic.List`1<string>, Fixture.Sample.Calculator, Ext.Outer.Inner)",
         "void"},
        {"unnamed generic parameters", {0x00, 0x02, 0x01, 0x13, 0x01, 0x1E, 0x03}, "(!1, !!3)", "void"},
        {"function pointers",
         {0x00, 0x03, 0x01, 0x1B, 0x00, 0x01, 0x08, 0x08, 0x1B, 0x01, 0x00, 0x01, 0x1B, 0x29, 0x01, 0x01, 0x0D},
         "(delegate*<int, int>, delegate* unmanaged[Cdecl]<void>, delegate* instance unmanaged<double, void>)",
         "void"},
        {"modifiers",
         {0x00, 0x02, 0x1F, kIn, 0x10, 0x08, 0x10, 0x20, kIn, 0x08, 0x45, 0x0E},
         "(int modopt(System.Runtime.InteropServices.InAttribute)&, string pinned)",
         "int& modreq(System.Runtime.InteropServices.InAttribute)"},
        {"vararg with sentinel", {0x05, 0x02, 0x01, 0x08, 0x41, 0x0E}, "(int, string, __arglist)", "void"},
    };
    std::shared_ptr<const AssemblyMetadata> a = build(cases);
    ASSERT_TRUE(a);
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].what);
        Expected<MethodDescription> m = a->describeMethod(0x06000001 + uint32_t(i));
        ASSERT_TRUE(m.ok()) << m.reason().text();
        EXPECT_EQ(cases[i].what, m->name);
        EXPECT_EQ(cases[i].signature, m->signature);
        EXPECT_EQ(cases[i].returnType, m->returnType);
    }
    Expected<MethodDescription> generic = a->describeMethod(0x06000000 | genericMethod);
    ASSERT_TRUE(generic.ok()) << generic.reason().text();
    EXPECT_EQ("Fixture.Sample.Calculator.Gen`1", generic->typeName);
    EXPECT_EQ("<U>(T, U)", generic->signature);
    EXPECT_EQ("U", generic->returnType);
    Expected<MethodDescription> modified = a->describeMethod(0x06000000 | typeSpecMethod);
    ASSERT_TRUE(modified.ok()) << modified.reason().text();
    EXPECT_EQ("(int modopt(System.Collections.Generic.List`1<T>))", modified->signature);
}

TEST_F(Signatures, DamageIsNamedWithItsOffset) {
    const std::vector<SignatureCase> cases = {
        {"unknown element type", {0x00, 0x01, 0x01, 0x17}},
        {"instantiation of an int", {0x00, 0x01, 0x01, 0x15, 0x08, kList, 0x01, 0x08}},
        {"more parameters than bytes", {0x00, 0x7F, 0x01}},
        {"array of rank 0", {0x00, 0x01, 0x01, 0x14, 0x08, 0x00, 0x00, 0x00}},
        {"modifier cycle", {0x00, 0x01, 0x01, 0x20, kCycle, 0x08}},
        {"truncated", {0x00, 0x02, 0x01, 0x08}},
        {"field signature", {0x06, 0x08}},
        {"missing TypeSpec", {0x00, 0x01, 0x01, 0x12, 0x81, 0x8E}}, // TypeSpec 99
        {"bad compressed integer", {0x00, 0xE0}},
        // Found by fuzzing: a generic count of half a billion spelled "!!n" for each.
        {"generic count beyond the rows", {0x10, 0xDF, 0xFF, 0xFF, 0xFF, 0x00, 0x01}},
        // Found by fuzzing: TypeSpecs naming the next one twice expand exponentially.
        {"exponential TypeSpecs", {0x00, 0x01, 0x01, 0x12, kDoubling}},
    };
    std::shared_ptr<const AssemblyMetadata> a = build(cases);
    ASSERT_TRUE(a);
    std::vector<std::string> got;
    for (size_t i = 0; i < cases.size(); ++i) {
        Expected<MethodDescription> m = a->describeMethod(0x06000001 + uint32_t(i));
        ASSERT_FALSE(m.ok()) << cases[i].what;
        got.push_back(m.reason().message);
    }
    // Offsets are of the bytes in the file; blob indices follow the heap layout.
    auto at = [&](size_t caseIndex, size_t byte) {
        uint32_t index = 0;
        a->tables().read(table::MethodDef, uint32_t(caseIndex + 1), 4, index);
        return std::to_string(blobAt(index) + byte);
    };
    const std::vector<std::string> expected = {
        "method signature: unknown element type 23 at offset " + at(0, 3),
        "method signature: generic instantiation of element type 8 at offset " + at(1, 4),
        "method signature: 127 parameters in a signature of 3 bytes at offset " + at(2, 0),
        "method signature: array of rank 0 with 0 sizes at offset " + at(3, 5),
        "method signature: types nested deeper than 64 at offset ", // where the 65th TypeSpec starts
        "method signature: unexpected end of data at offset " + at(5, 4) +
            " while reading element type: 1 bytes needed, 0 left",
        "method signature: not a method signature (header 6) at offset " + at(6, 0),
        "method signature: TypeSpec row 99 does not exist at offset " + at(7, 4),
        "method signature: bad compressed integer (first byte 224) at offset " + at(8, 1) +
            " while reading parameter count",
        "method signature: 536870911 generic parameters, but 2 GenericParam rows at offset " + at(9, 0),
        "method signature: more than 4096 types in one signature at offset ",
    };
    for (size_t i = 0; i < expected.size(); ++i) {
        if (i == 4 || i == 10) // deep in the recursion
            EXPECT_EQ(0u, got[i].find(expected[i])) << got[i];
        else
            EXPECT_EQ(expected[i], got[i]) << cases[i].what;
    }

    // The whole reason names the file, the MethodDef row and the method.
    Expected<MethodDescription> m = a->describeMethod(0x06000001);
    EXPECT_EQ("test.dll: offset " + std::to_string(a->tables().rowFileOffset(table::MethodDef, 1)) +
                  ": method 0x6000001: " + expected[0],
              m.reason().text());
}

TEST(MethodOwners, RunsOfMethodsBelongToTheLastTypeThatStartsThem) {
    // Empty types share their MethodList with the next type; the last one owns the run.
    for (bool pointers : {false, true}) {
        SCOPED_TRACE(pointers ? "through a MethodPtr table in #-" : "plain #~");
        MetadataBuilder md;
        PeBuilder pe;
        md.row(M::Module, {0, md.string("Edge.dll"), 0, 0, 0});
        md.row(M::TypeDef, {0, md.string("<Module>"), 0, 0, 1, 1});
        md.row(M::TypeDef, {0, md.string("A"), md.string("Edge"), 0, 1, 2});
        md.row(M::TypeDef, {0, md.string("Empty"), md.string("Edge"), 0, 1, 4});
        md.row(M::TypeDef, {0, md.string("Color"), md.string("Edge"), 0, 1, 4});
        md.row(M::TypeDef, {0, md.string("Last"), md.string("Edge"), 0, 1, 4});
        for (const char* name : {"m1", "m2", "m3", "m4", "m5"})
            method(md, name, {0x00, 0x00, 0x01});
        if (pointers) {
            md.uncompressed();
            for (uint32_t rid : {5u, 4u, 3u, 2u, 1u})
                md.row(M::MethodPtr, {rid});
        }
        std::shared_ptr<const AssemblyMetadata> a = open(pe.build(md.build()));
        ASSERT_TRUE(a);
        const std::vector<std::string> owners =
            pointers ? std::vector<std::string>{"Edge.Last", "Edge.Last", "Edge.A", "Edge.A", "<Module>"}
                     : std::vector<std::string>{"<Module>", "Edge.A", "Edge.A", "Edge.Last", "Edge.Last"};
        for (uint32_t rid = 1; rid <= 5; ++rid) {
            Expected<MethodDescription> m = a->describeMethod(0x06000000 | rid);
            ASSERT_TRUE(m.ok()) << m.reason().text();
            EXPECT_EQ(owners[rid - 1], m->typeName) << "method " << rid;
            EXPECT_EQ("m" + std::to_string(rid), m->name);
        }
    }
}

TEST(MethodOwners, NestedTypesAreNamedOutermostFirstWithinLimits) {
    MetadataBuilder md;
    PeBuilder pe;
    md.row(M::Module, {0, md.string("Edge.dll"), 0, 0, 0});
    md.row(M::TypeDef, {0, md.string("<Module>"), 0, 0, 1, 1});
    md.row(M::TypeDef, {0, md.string("Gen`1"), md.string("Edge"), 0, 1, 1});
    md.row(M::TypeDef, {0, md.string("Mid"), 0, 0, 1, 1});
    md.row(M::TypeDef, {0, md.string("Inner"), 0, 0, 1, 1});
    md.row(M::TypeDef, {0, md.string("Loop"), 0, 0, 1, 2});
    const std::string longName(1000, 'N');
    for (uint32_t i = 0; i < 20; ++i) // rows 6 to 25, each nested in the one before
        md.row(M::TypeDef, {0, md.string(longName + std::to_string(i)), 0, 0, 1, 3});
    method(md, "InInner", {0x00, 0x00, 0x01});
    method(md, "InLoop", {0x00, 0x00, 0x01});
    method(md, "Deep", {0x00, 0x00, 0x01});
    md.row(M::NestedClass, {3, 2});
    md.row(M::NestedClass, {4, 3});
    md.row(M::NestedClass, {5, 5}); // a damaged file: a type nested in itself
    for (uint32_t i = 1; i < 20; ++i)
        md.row(M::NestedClass, {6 + i, 5 + i});
    std::shared_ptr<const AssemblyMetadata> a = open(pe.build(md.build()));
    ASSERT_TRUE(a);
    EXPECT_EQ("Edge.Gen`1.Mid.Inner", a->describeMethod(0x06000001)->typeName);
    // The cycle is cut after 64 enclosing types.
    std::string loop = "Loop";
    for (int i = 0; i < 64; ++i)
        loop += ".Loop";
    EXPECT_EQ(loop, a->describeMethod(0x06000002)->typeName);
    Expected<MethodDescription> deep = a->describeMethod(0x06000003);
    ASSERT_FALSE(deep.ok());
    EXPECT_EQ("the full name of TypeDef row 25 is longer than 16384 bytes", deep.reason().message);
}

// Heap index widths by flag, the extra data after the row counts, and coded,
// simple and list indices that grow to 4 bytes with the row counts they reach.
TEST(TableLayout, IndexWidthsFollowFlagsAndRowCounts) {
    struct Case {
        const char* what;
        std::function<void(MetadataBuilder&)> shape;
        uint32_t farTypeRef;   // a TypeRef row named "Far" that the signature uses
        unsigned extendsWidth; // TypeDef.Extends, a TypeDefOrRef coded index
        unsigned paramListWidth;
    };
    const std::vector<Case> cases = {
        {"small", [](MetadataBuilder&) {}, 1, 2, 2},
        {"large heap flags and extra data", [](MetadataBuilder& md) { md.largeHeaps(0x7).extraData(); }, 1, 2, 2},
        {"16384 TypeRefs widen TypeDefOrRef", [](MetadataBuilder& md) { md.padRows(M::TypeRef, 16383); }, 16384, 4, 2},
        {"65536 Params widen ParamList", [](MetadataBuilder& md) { md.padRows(M::Param, 65536); }, 1, 2, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MetadataBuilder md;
        PeBuilder pe;
        c.shape(md);
        md.row(M::TypeRef, {(1 << 2) | 2, md.string("Far"), md.string("Away")});
        addModuleAndClass(md);
        Bytes sig = {0x00, 0x01, 0x01, 0x12};
        for (uint8_t byte : compressed((c.farTypeRef << 2) | 1))
            sig.push_back(byte);
        method(md, "UsesFar", sig);
        std::shared_ptr<const AssemblyMetadata> a = open(pe.build(md.build()));
        ASSERT_TRUE(a);
        EXPECT_EQ(c.extendsWidth, a->tables().columnWidth(table::TypeDef, 3));
        EXPECT_EQ(c.paramListWidth, a->tables().columnWidth(table::MethodDef, 5));
        Expected<MethodDescription> m = a->describeMethod(0x06000001);
        ASSERT_TRUE(m.ok()) << m.reason().text();
        EXPECT_EQ("Fixture.Sample.Calculator", m->typeName);
        EXPECT_EQ("(Away.Far)", m->signature);
    }
}

TEST(PeHeaders, MachineValuesAndBothOptionalHeaders) {
    struct Case {
        bool pe32Plus;
        uint16_t machine;
        uint16_t baseMachine;
        const char* system;
    };
    const Case cases[] = {
        {false, 0x014C, 0x014C, nullptr},
        {true, 0x8664, 0x8664, nullptr},
        {true, 0x8664 ^ 0x7B79, 0x8664, "Linux"},
        {true, 0xAA64 ^ 0x4644, 0xAA64, "Apple"},
        {true, 0x8664 ^ 0xADC4, 0x8664, "FreeBSD"},
        {false, 0x1234, 0x1234, nullptr}, // unknown machines are read, not refused
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.machine);
        MetadataBuilder md;
        PeBuilder pe;
        addModuleAndClass(md);
        method(md, "Run", {0x00, 0x00, 0x01});
        std::shared_ptr<const AssemblyMetadata> a = open(pe.pe32Plus(c.pe32Plus).machine(c.machine).build(md.build()));
        ASSERT_TRUE(a);
        EXPECT_EQ(c.pe32Plus, a->image().isPe32Plus());
        EXPECT_EQ(c.machine, a->image().machine());
        EXPECT_EQ(c.baseMachine, a->image().baseMachine());
        EXPECT_STREQ(c.system, a->image().targetSystem());
        EXPECT_EQ("Run", a->describeMethod(0x06000001)->name);
    }
}

TEST(MethodBodies, IlSizeFromTinyAndFatHeaders) {
    MetadataBuilder md;
    PeBuilder pe;
    Bytes tiny = {(10 << 2) | 2};
    tiny.resize(11, 0x00);
    // Fat: flags 0x3013 (fat, init locals, 3 words), max stack 8, 20 bytes of code, StandAloneSig 1.
    Bytes fat = {0x13, 0x30, 0x08, 0x00, 20, 0, 0, 0, 0x01, 0x00, 0x00, 0x11};
    fat.resize(fat.size() + 20, 0x00);
    Bytes badWords = fat;
    badWords[1] = 0x20;
    Bytes badLocals = fat;
    badLocals[11] = 0x06;
    Bytes tooLong = {0x13, 0x30, 0x08, 0x00, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0};
    addModuleAndClass(md);
    method(md, "Tiny", {0x00, 0x00, 0x01}, pe.addMethodBody(tiny));
    method(md, "Fat", {0x00, 0x00, 0x01}, pe.addMethodBody(fat));
    method(md, "Abstract", {0x20, 0x00, 0x01}, 0);
    method(md, "Runtime", {0x20, 0x00, 0x01}, pe.addMethodBody(tiny), 0x3);
    method(md, "HeaderOfTwoWords", {0x00, 0x00, 0x01}, pe.addMethodBody(badWords));
    method(md, "LocalsOfAMethodToken", {0x00, 0x00, 0x01}, pe.addMethodBody(badLocals));
    method(md, "CodePastTheSection", {0x00, 0x00, 0x01}, pe.addMethodBody(tooLong));
    method(md, "OutsideEverySection", {0x00, 0x00, 0x01}, 0x900000);
    std::shared_ptr<const AssemblyMetadata> a = open(pe.build(md.build()));
    ASSERT_TRUE(a);
    typedef MethodDescription::IlBody Body;
    const std::vector<std::pair<Body, uint32_t>> expected = {
        {Body::present, 10}, {Body::present, 20}, {Body::none, 0},    {Body::none, 0},
        {Body::damaged, 0},  {Body::damaged, 0},  {Body::damaged, 0}, {Body::damaged, 0}};
    for (uint32_t rid = 1; rid <= expected.size(); ++rid) {
        Expected<MethodDescription> m = a->describeMethod(0x06000000 | rid);
        ASSERT_TRUE(m.ok()) << m.reason().text();
        EXPECT_EQ(Body::none, m->ilBody);
        a->readIlBody(m.value());
        EXPECT_EQ(expected[rid - 1].first, m->ilBody) << m->name;
        EXPECT_EQ(expected[rid - 1].second, m->ilSize) << m->name;
    }
}

// Every structure on the way to a method, damaged one at a time: the reason
// names the file, the offset and the bad value.
TEST(DamagedImages, AreRefusedWithTheirReason) {
    MetadataBuilder md;
    PeBuilder pe;
    addModuleAndClass(md);
    method(md, "Run", {0x00, 0x00, 0x01});
    const Bytes metadata = md.build();
    const Bytes good = pe.build(metadata);
    ASSERT_TRUE(open(good));
    const size_t optional = 0x80 + 4 + 20;
    const size_t cliDirectory = optional + 96 + 14 * 8;
    const size_t root = pe.metadataOffset();
    const size_t tables = root + md.streamOffset("#~");
    const size_t firstStreamHeader = root + 16 + 12 + 4; // signature..length, "v4.0.30319" padded, flags+count
    auto patch32 = [](Bytes& b, size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i)
            b[at + i] = uint8_t(v >> (8 * i));
    };
    struct Case {
        const char* what;
        std::function<void(Bytes&)> damage;
        std::string reason;
    };
    const std::string size = std::to_string(good.size());
    const std::vector<Case> cases = {
        {"no MZ", [](Bytes& b) { b[0] = 'Z'; }, "test.dll: offset 0: not a PE image: no MZ signature (found 0x5a5a)"},
        {"e_lfanew past the end", [&](Bytes& b) { patch32(b, 0x3C, 0x100000); },
         "test.dll: offset 1048576 of PE signature lies past the end of the data (" + size + ")"},
        {"no PE signature", [](Bytes& b) { b[0x80] = 'X'; }, "test.dll: offset 128: no PE signature (found 0x4558)"},
        {"unknown optional magic", [&](Bytes& b) { b[optional + 1] = 0x03; },
         "test.dll: offset 152: unknown optional header magic 0x30b"},
        {"too many directories", [&](Bytes& b) { patch32(b, optional + 92, 100); },
         "test.dll: offset 244: NumberOfRvaAndSizes 100 does not fit the optional header (224 bytes)"},
        {"too many sections",
         [&](Bytes& b) {
             b[0x80 + 6] = 0xFF;
             b[0x80 + 7] = 0xFF;
         },
         "test.dll: offset 376: 65535 sections do not fit in the file (" + std::to_string(good.size() - 376) +
             " bytes left)"},
        {"no CLI header", [&](Bytes& b) { patch32(b, cliDirectory, 0); },
         "test.dll: not a .NET assembly: the image has no CLI header"},
        {"metadata outside the sections", [&](Bytes& b) { patch32(b, pe.cliHeaderOffset() + 8, 0x900000); },
         "test.dll: metadata at rva 0x900000 (" + std::to_string(metadata.size()) +
             " bytes) lies outside the file data of every section"},
        {"no BSJB", [&](Bytes& b) { b[root] = 'X'; },
         "test.dll: offset " + std::to_string(root) + ": no metadata signature BSJB (found 1112167256)"},
        {"stream past the metadata", [&](Bytes& b) { patch32(b, firstStreamHeader + 4, 0x7FFFFFFF); },
         "test.dll: offset " + std::to_string(firstStreamHeader) + ": stream #~ [" +
             std::to_string(md.streamOffset("#~")) + ", +2147483647) runs past the end of the metadata"},
        {"no table stream", [&](Bytes& b) { b[firstStreamHeader + 9] = 'X'; },
         "test.dll: the metadata has no table stream (#~ or #-)"},
        {"unknown table", [&](Bytes& b) { b[tables + 8 + 5] |= 0x20; },
         "test.dll: offset " + std::to_string(tables + 8) + ": unknown table 0x2d marked present in Valid"},
        {"rows past the stream",
         [&](Bytes& b) {
             patch32(b, tables + 32, 0x100000);
         }, // Module, TypeDef, MethodDef
            // The claimed rows widen TypeDef.MethodList to 4 bytes, so MethodDef starts 2 x 2 bytes later.
         "test.dll: offset " + std::to_string(md.tableOffset(M::MethodDef) + root + 4) +
             ": table MethodDef (1048576 rows of 14 bytes) runs past the end of the table stream"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bytes = good;
        c.damage(bytes);
        Expected<std::shared_ptr<const AssemblyMetadata>> a = AssemblyMetadata::open(hold(bytes));
        ASSERT_FALSE(a.ok());
        EXPECT_EQ(0u, a.reason().text().find(c.reason)) << a.reason().text();
    }
}

// Tokens and heap indices that name nothing. GUID text: dotnet_pdb_test (a document's language).
TEST(Indices, PastTheirTableOrHeapAreRefused) {
    MetadataBuilder md;
    PeBuilder pe;
    addModuleAndClass(md);
    md.row(M::MethodDef, {0, 0, 0, 0xFFF0, md.blob({0x00, 0x00, 0x01}), 1});
    md.row(M::MethodDef, {0, 0, 0, md.string("Ok"), 0xFFF0, 1});
    std::shared_ptr<const AssemblyMetadata> a = open(pe.build(md.build()));
    ASSERT_TRUE(a);
    EXPECT_EQ("test.dll: token 0x2000001 is not a MethodDef token", a->describeMethod(0x02000001).reason().text());
    EXPECT_EQ("test.dll: token 0x6000003 names no method (the assembly has 2)",
              a->describeMethod(0x06000003).reason().text());
    EXPECT_EQ(ErrorKind::notFound, a->describeMethod(0x06000000).reason().kind);
    const std::string strings = std::to_string(a->heaps().stringsSize());
    EXPECT_EQ("string index 65520 lies past the end of #Strings (" + strings + " bytes)",
              a->describeMethod(0x06000001).reason().message);
    EXPECT_EQ(0u, a->describeMethod(0x06000002).reason().message.find("blob index 65520: offset "))
        << a->describeMethod(0x06000002).reason().message;
    Guid g{};
    EXPECT_TRUE(a->heaps().guid(1, g).ok());
    EXPECT_EQ("GUID index 2 lies past the end of #GUID (1 entries)", a->heaps().guid(2, g).reason().message);
}

} // namespace
