#ifndef QUARVEL_TESTS_DOTNET_TEST_SUPPORT_H
#define QUARVEL_TESTS_DOTNET_TEST_SUPPORT_H

// Helpers of the .NET reader tests: synthetic images written with the
// fixture builders, held in memory or written to files.

#include "dotnet/assembly_metadata.h"
#include "dotnet/file_bytes.h"
#include "dotnet_image_builder.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <functional>
#include <string>

namespace dotnet_test {

using quarvel_test::Bytes;
using quarvel_test::MetadataBuilder;
using quarvel_test::PeBuilder;
typedef MetadataBuilder M;

inline void writeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

inline quarvel::FileBytes hold(const Bytes& bytes, const std::string& name = "test.dll") {
    return quarvel::FileBytes::hold(bytes, name);
}

inline std::array<uint8_t, 20> pdbId(uint8_t seed) {
    std::array<uint8_t, 20> id{};
    for (size_t i = 0; i < id.size(); ++i)
        id[i] = uint8_t(seed + i * 7);
    return id;
}

inline std::array<uint8_t, 16> guid(uint8_t seed) {
    std::array<uint8_t, 16> g{};
    for (size_t i = 0; i < g.size(); ++i)
        g[i] = uint8_t(seed ^ (i * 13));
    return g;
}

// Module, <Module> and one class "Fixture.Sample.Calculator" whose methods
// start at row 1 + globals; callers add MethodDef rows.
inline void addModuleAndClass(MetadataBuilder& md, uint32_t globals = 0) {
    md.row(M::Module, {0, md.string("Test.dll"), md.guid(guid(1)), 0, 0});
    md.row(M::TypeDef, {0, md.string("<Module>"), 0, 0, 1, 1});
    md.row(M::TypeDef, {0x100001, md.string("Calculator"), md.string("Fixture.Sample"), 0, 1, 1 + globals});
}

inline uint32_t method(MetadataBuilder& md, const std::string& name, const Bytes& signature, uint32_t rva = 0,
                       uint16_t implFlags = 0) {
    return md.row(M::MethodDef, {rva, implFlags, 0x86, md.string(name), md.blob(signature), 1});
}

inline std::shared_ptr<const quarvel::AssemblyMetadata> open(const Bytes& image, const std::string& name = "test.dll") {
    auto opened = quarvel::AssemblyMetadata::open(hold(image, name));
    EXPECT_TRUE(opened.ok()) << (opened.ok() ? "" : opened.reason().text());
    return opened.ok() ? opened.value() : nullptr;
}

// "/src/Calculator.cs": method 1 has points at IL 0 (line 10), 2 (11) and 6 (12).
inline Bytes samplePdb(const std::array<uint8_t, 20>& id) {
    MetadataBuilder md;
    md.pdb(id, {{0x06, 2}});
    const uint32_t src = md.blob({'s', 'r', 'c'});
    const uint32_t file = md.blob({'C', 'a', 'l', 'c', 'u', 'l', 'a', 't', 'o', 'r', '.', 'c', 's'});
    md.row(M::Document, {md.blob({'/', 0x00, uint8_t(src), uint8_t(file)}), 0, 0, 0});
    md.row(M::MethodDebugInformation, {1, md.blob({0x00, 0x00, 0x00, 0x01, 0x0A, 0x05, 0x02, 0x00, 0x04, 0x02, 0x00,
                                                   0x04, 0x00, 0x01, 0x02, 0x00})});
    md.row(M::MethodDebugInformation, {0, 0});
    return md.build("PDB v1.0");
}

// Fixture.Sample.Calculator with Add(int, int) (rid 1) and Broken (rid 2,
// whose signature is damaged). The CodeView record names a PDB of id `id`.
struct SampleAssembly {
    std::array<uint8_t, 20> id = pdbId(5);
    const Bytes* embedded = nullptr;
    std::function<void(MetadataBuilder&)> shape;
    PeBuilder pe;

    Bytes build() {
        MetadataBuilder md;
        addModuleAndClass(md);
        Bytes body = {(8 << 2) | 2};
        body.resize(9, 0);
        method(md, "Add", {0x20, 0x02, 0x08, 0x08, 0x08}, pe.addMethodBody(body));
        method(md, "Broken", {0x00, 0x01, 0x01, 0x17});
        if (shape)
            shape(md);
        pe.codeView(id, "/build/obj/Sample.pdb");
        if (embedded)
            pe.embedPdb(*embedded);
        return pe.build(md.build());
    }
};

} // namespace dotnet_test

#endif
