#include "dotnet/portable_pdb.h"

#include "dotnet/compressed_integer.h"

#include <cstring>

QUARVEL_NAMESPACE_BEGIN

namespace {

const char kMsfSignature[] = "Microsoft C/C++ MSF 7.00";
const uint64_t kMdbSignature = 0x45E82623FD7FA614ull;
// Document: Name, HashAlgorithm, Hash, Language. MethodDebugInformation: Document, SequencePoints.
const unsigned kDocumentName = 0;
const unsigned kDocumentLanguage = 3;
const unsigned kMethodDocument = 0;
const unsigned kMethodSequencePoints = 1;
const size_t kMaxDocumentName = 1 << 13; // paths and URLs are far shorter

} // namespace

Expected<std::shared_ptr<const PortablePdb>> PortablePdb::open(const FileBytes& file) {
    ByteCursor c = file.cursor();
    const uint8_t* head = nullptr;
    if (c.remaining() >= sizeof kMsfSignature - 1 && c.bytes(sizeof kMsfSignature - 1, head, "signature") &&
        std::memcmp(head, kMsfSignature, sizeof kMsfSignature - 1) == 0)
        return Reason::badInput("a Windows PDB, not a portable PDB").inFile(file.name()).at(0);
    c = file.cursor();
    uint64_t mdb = 0;
    if (c.u64(mdb, "signature") && mdb == kMdbSignature)
        return Reason::badInput("a Mono .mdb symbol file, not a portable PDB").inFile(file.name()).at(0);

    std::shared_ptr<PortablePdb> pdb(new PortablePdb());
    pdb->m_file = file;
    Expected<MetadataRoot> root = MetadataRoot::parse(file.cursor(), file.name());
    if (!root)
        return root.reason();
    pdb->m_root = std::move(root.value());
    if (!pdb->m_root.has("#Pdb"))
        return Reason::badInput("no #Pdb stream: not a portable PDB").inFile(file.name());

    ByteCursor s = pdb->m_root.stream("#Pdb");
    const uint8_t* id = nullptr;
    uint64_t referenced = 0;
    s.bytes(20, id, "PDB id");
    s.u32(pdb->m_entryPoint, "entry point");
    s.u64(referenced, "referenced type system tables");
    if (!s)
        return Reason::badInput(s.error()).inFile(file.name());
    std::memcpy(pdb->m_id.data(), id, 20);
    TableRowCounts typeSystemRows{};
    for (unsigned t = 0; t < table::count; ++t) {
        if (!(referenced >> t & 1))
            continue;
        if (t >= table::Document)
            return Reason::badInput("#Pdb counts rows of table " + std::to_string(t) +
                                    ", which is not a type system table")
                .inFile(file.name())
                .at(s.fileOffset() - 8);
        s.u32(typeSystemRows[t], "type system table row count");
    }
    if (!s)
        return Reason::badInput(s.error()).inFile(file.name());

    const char* streamName = pdb->m_root.has("#~") ? "#~" : pdb->m_root.has("#-") ? "#-" : nullptr;
    if (!streamName)
        return Reason::badInput("the PDB has no table stream (#~ or #-)").inFile(file.name());
    Expected<MetadataTables> tables =
        MetadataTables::parse(pdb->m_root.stream(streamName), file.name(), pdb->m_root.has("#JTD"), &typeSystemRows);
    if (!tables)
        return tables.reason();
    pdb->m_tables = std::move(tables.value());
    pdb->m_heaps = MetadataHeaps(pdb->m_root, file.name());
    return std::shared_ptr<const PortablePdb>(std::move(pdb));
}

Expected<PdbDocument> PortablePdb::document(uint32_t rid) const {
    uint32_t nameBlob = 0;
    uint32_t language = 0;
    if (!m_tables.read(table::Document, rid, kDocumentName, nameBlob) ||
        !m_tables.read(table::Document, rid, kDocumentLanguage, language))
        return Reason::badInput("Document row " + std::to_string(rid) + " does not exist").inFile(name());
    PdbDocument doc;
    Status s = m_heaps.guid(language, doc.language);
    if (!s)
        return s.reason();
    // A separator, then the parts as blob indices, joined by the separator.
    Expected<ByteCursor> blob = m_heaps.blob(nameBlob);
    if (!blob)
        return blob.reason();
    ByteCursor c = blob.value();
    uint8_t separator = 0;
    if (!c.u8(separator, "document name separator"))
        return Reason::badInput(c.error()).inFile(name());
    if (separator > 0x7F)
        return Reason::badInput("document name separator " + std::to_string(separator) + " is not ASCII")
            .inFile(name())
            .at(c.fileOffset() - 1);
    bool firstPart = true;
    while (!c.atEnd()) {
        uint32_t part = 0;
        if (!readCompressedUnsigned(c, part, "document name part"))
            return Reason::badInput(c.error()).inFile(name());
        if (!firstPart && separator)
            doc.name += static_cast<char>(separator);
        firstPart = false;
        Expected<ByteCursor> text = m_heaps.blob(part);
        if (!text)
            return text.reason();
        // Parts may name one blob many times; no real path is this long.
        if (doc.name.size() + text.value().size() > kMaxDocumentName)
            return Reason::badInput("document name of row " + std::to_string(rid) + " longer than " +
                                    std::to_string(kMaxDocumentName) + " bytes")
                .inFile(name());
        const uint8_t* bytes = nullptr;
        text.value().bytes(text.value().size(), bytes, "document name part");
        doc.name.append(reinterpret_cast<const char*>(bytes), text.value().size());
    }
    return doc;
}

Status PortablePdb::sequencePoints(uint32_t methodRid, std::vector<SequencePoint>& out) const {
    out.clear();
    uint32_t document = 0;
    uint32_t blobIndex = 0;
    if (!m_tables.read(table::MethodDebugInformation, methodRid, kMethodDocument, document) ||
        !m_tables.read(table::MethodDebugInformation, methodRid, kMethodSequencePoints, blobIndex) || blobIndex == 0)
        return Status::success();
    Expected<ByteCursor> blob = m_heaps.blob(blobIndex);
    if (!blob)
        return blob.reason();
    Status s = decodeSequencePoints(blob.value(), document, out);
    if (!s) {
        Reason r = s.reason();
        r.field = "sequence points of method " + std::to_string(methodRid);
        return r.inFile(name());
    }
    return s;
}

QUARVEL_NAMESPACE_END
