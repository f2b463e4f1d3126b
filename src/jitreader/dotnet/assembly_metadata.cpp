#include "dotnet/assembly_metadata.h"

#include <algorithm>
#include <sstream>

QUARVEL_NAMESPACE_BEGIN

namespace {

// MethodDef: RVA, ImplFlags, Flags, Name, Signature, ParamList.
const unsigned kMethodRva = 0;
const unsigned kMethodImplFlags = 1;
const unsigned kMethodFlags = 2;
const unsigned kMethodName = 3;
const unsigned kMethodSignature = 4;
// TypeDef: Flags, Name, Namespace, Extends, FieldList, MethodList.
const unsigned kTypeMethodList = 5;
const uint16_t kCodeTypeMask = 0x3; // IL 0, native 1, runtime 3
const uint8_t kTinyFormat = 0x2;
const uint8_t kFatFormat = 0x3;
const uint32_t kStandAloneSigTable = 0x11;

std::string hexToken(uint32_t token) {
    std::ostringstream os;
    os << "0x" << std::hex << token;
    return os.str();
}

} // namespace

Expected<std::shared_ptr<const AssemblyMetadata>> AssemblyMetadata::open(const FileBytes& file) {
    Expected<PeImage> image = PeImage::parse(file);
    if (!image)
        return image.reason();
    return open(image.value());
}

Expected<std::shared_ptr<const AssemblyMetadata>> AssemblyMetadata::open(const PeImage& image) {
    std::shared_ptr<AssemblyMetadata> m(new AssemblyMetadata());
    m->m_image = image;
    const std::string& name = image.name();
    const DataDirectory md = image.cliHeader().metadata;
    Expected<ByteCursor> block = image.at(md.rva, md.size, "metadata");
    if (!block)
        return block.reason();
    Expected<MetadataRoot> root = MetadataRoot::parse(block.value(), name);
    if (!root)
        return root.reason();
    m->m_root = std::move(root.value());

    const char* streamName = m->m_root.has("#~") ? "#~" : m->m_root.has("#-") ? "#-" : nullptr;
    if (!streamName)
        return Reason::badInput("the metadata has no table stream (#~ or #-)").inFile(name);
    Expected<MetadataTables> tables = MetadataTables::parse(m->m_root.stream(streamName), name, m->m_root.has("#JTD"));
    if (!tables)
        return tables.reason();
    m->m_tables = std::move(tables.value());
    m->m_heaps = MetadataHeaps(m->m_root, name);
    m->m_names = TypeNames(&m->m_tables, &m->m_heaps);
    m->m_generics = GenericParameterIndex(&m->m_tables, &m->m_heaps);
    m->m_signatures = SignatureDecoder(&m->m_tables, &m->m_heaps, &m->m_names, &m->m_generics);
    Status indexed = m->index();
    if (!indexed)
        return indexed.reason();
    return std::shared_ptr<const AssemblyMetadata>(std::move(m));
}

Status AssemblyMetadata::index() {
    const uint32_t types = m_tables.rows(table::TypeDef);
    const uint32_t methods = m_tables.rows(table::MethodDef);
    const uint32_t pointers = m_tables.rows(table::MethodPtr);
    const uint32_t listLength = pointers ? pointers : methods;

    // Methods belong to the last type whose MethodList is at or before them:
    // each type owns the run up to the next type's MethodList.
    m_owner.assign(size_t(methods) + 1, 0);
    uint32_t next = 0;
    if (types)
        m_tables.read(table::TypeDef, 1, kTypeMethodList, next);
    for (uint32_t type = 1; type <= types; ++type) {
        const uint32_t start = std::max<uint32_t>(next, 1);
        next = listLength + 1;
        if (type < types)
            m_tables.read(table::TypeDef, type + 1, kTypeMethodList, next);
        const uint32_t end = std::min<uint32_t>(next, listLength + 1);
        for (uint32_t position = start; position < end; ++position) {
            uint32_t method = position;
            if (pointers && !m_tables.read(table::MethodPtr, position, 0, method))
                continue;
            if (method >= 1 && method <= methods)
                m_owner[method] = type;
        }
    }
    m_names.build();
    m_generics.build();
    return Status::success();
}

Expected<MethodDescription> AssemblyMetadata::describeMethod(uint32_t token) const {
    const uint32_t rid = token & 0xFFFFFF;
    if (token >> 24 != table::MethodDef)
        return Reason::notFound("token " + hexToken(token) + " is not a MethodDef token").inFile(name());
    if (rid == 0 || rid > methodCount())
        return Reason::notFound("token " + hexToken(token) + " names no method (the assembly has " +
                                std::to_string(methodCount()) + ")")
            .inFile(name());

    MethodDescription m;
    m.token = token;
    uint32_t row[TableSchema::kMaxColumns] = {};
    m_tables.readRow(table::MethodDef, rid, row);
    m.rva = row[kMethodRva];
    m.implFlags = static_cast<uint16_t>(row[kMethodImplFlags]);
    m.flags = static_cast<uint16_t>(row[kMethodFlags]);
    const uint32_t nameIndex = row[kMethodName];
    const uint32_t signature = row[kMethodSignature];
    const uint64_t rowAt = m_tables.rowFileOffset(table::MethodDef, rid);
    auto damaged = [&](Reason reason) {
        return reason.inFile(name()).at(rowAt).ofField("method " + hexToken(token));
    };

    m.declaringType = declaringType(rid);
    if (m.declaringType) {
        Status s = m_names.appendTypeDef(m.declaringType, m.typeName);
        if (!s)
            return damaged(s.reason());
    }
    Status s = m_heaps.appendString(nameIndex, m.name);
    if (!s)
        return damaged(s.reason());
    MethodSignatureText text;
    const GenericContext context{m.declaringType, rid};
    s = m_signatures.decodeMethod(signature, context, text);
    if (!s)
        return damaged(s.reason());
    m.signature = text.text(m_generics, rid);
    m.returnType = std::move(text.returnType);
    return m;
}

void AssemblyMetadata::readIlBody(MethodDescription& m) const {
    m.ilBody = MethodDescription::IlBody::none;
    if (m.rva == 0 || (m.implFlags & kCodeTypeMask) != 0)
        return;
    m.ilBody = MethodDescription::IlBody::damaged;
    Expected<ByteCursor> body = m_image.sectionRest(m.rva, "method body");
    if (!body)
        return;
    ByteCursor c = body.value();
    uint8_t first = 0;
    if (!c.u8(first, "method header"))
        return;
    if ((first & 0x3) == kTinyFormat) {
        const uint32_t size = first >> 2;
        if (c.skip(size, "IL code")) {
            m.ilSize = size;
            m.ilBody = MethodDescription::IlBody::present;
        }
        return;
    }
    if ((first & 0x3) != kFatFormat)
        return;
    uint8_t second = 0;
    uint16_t maxStack = 0;
    uint32_t size = 0;
    uint32_t localSignature = 0;
    c.u8(second, "method header size");
    c.u16(maxStack, "method max stack");
    c.u32(size, "method code size");
    c.u32(localSignature, "method local signature");
    // The fat header is three 4-byte words; its local signature is a StandAloneSig token.
    if (!c || (second >> 4) != 3 || size > 0x7FFFFFFF ||
        (localSignature != 0 && localSignature >> 24 != kStandAloneSigTable))
        return;
    if (c.skip(size, "IL code")) {
        m.ilSize = size;
        m.ilBody = MethodDescription::IlBody::present;
    }
}

QUARVEL_NAMESPACE_END
