#ifndef QUARVEL_DOTNET_ASSEMBLY_METADATA_H
#define QUARVEL_DOTNET_ASSEMBLY_METADATA_H

#include "dotnet/file_bytes.h"
#include "dotnet/generic_parameter_index.h"
#include "dotnet/metadata_heaps.h"
#include "dotnet/metadata_root.h"
#include "dotnet/metadata_tables.h"
#include "dotnet/pe_image.h"
#include "dotnet/signature_decoder.h"
#include "dotnet/type_names.h"
#include "support/result.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

struct MethodDescription {
    enum class IlBody { none, present, damaged };

    uint32_t token = 0;
    uint32_t declaringType = 0; // TypeDef rid
    std::string typeName;       // "Namespace.Outer`1.Inner"
    std::string name;           // as in metadata: "Add", ".ctor", "<Main>b__0_0"
    std::string signature;      // "<T>(int, string)"
    std::string returnType;
    uint32_t rva = 0;
    uint16_t implFlags = 0;
    uint16_t flags = 0;
    IlBody ilBody = IlBody::none; // none: abstract, runtime or native code (see readIlBody)
    uint32_t ilSize = 0;
};

// The metadata of one .NET assembly, opened once and then queried from any
// thread: MethodDef token -> declaring type, name, signature, RVA and IL
// size. Opening reads the headers and the table layout and indexes which
// type owns each method; everything else is read when asked for.
class AssemblyMetadata {
public:
    static Expected<std::shared_ptr<const AssemblyMetadata>> open(const FileBytes& file);
    static Expected<std::shared_ptr<const AssemblyMetadata>> open(const PeImage& image);

    AssemblyMetadata(const AssemblyMetadata&) = delete;
    AssemblyMetadata& operator=(const AssemblyMetadata&) = delete;

    const std::string& name() const { return m_image.name(); }
    const PeImage& image() const { return m_image; }
    const MetadataRoot& root() const { return m_root; }
    const MetadataTables& tables() const { return m_tables; }
    const MetadataHeaps& heaps() const { return m_heaps; }
    const TypeNames& typeNames() const { return m_names; }

    uint32_t methodCount() const { return m_tables.rows(table::MethodDef); }
    // The TypeDef rid that owns a method, 0 when none does.
    uint32_t declaringType(uint32_t methodRid) const { return methodRid < m_owner.size() ? m_owner[methodRid] : 0; }
    // A MethodDef token (0x06xxxxxx) described; the reason names what was
    // damaged. The IL body is left for readIlBody: looking at it touches the
    // method's code, which naming does not need.
    Expected<MethodDescription> describeMethod(uint32_t token) const;
    // Fills ilBody and ilSize from the method's body header.
    void readIlBody(MethodDescription& method) const;

private:
    AssemblyMetadata() = default;
    Status index();

    PeImage m_image;
    MetadataRoot m_root;
    MetadataTables m_tables;
    MetadataHeaps m_heaps;
    TypeNames m_names;
    GenericParameterIndex m_generics;
    SignatureDecoder m_signatures;
    std::vector<uint32_t> m_owner; // TypeDef rid by MethodDef rid
};

QUARVEL_NAMESPACE_END

#endif
