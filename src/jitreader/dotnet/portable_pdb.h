#ifndef QUARVEL_DOTNET_PORTABLE_PDB_H
#define QUARVEL_DOTNET_PORTABLE_PDB_H

#include "dotnet/debug_directory.h"
#include "dotnet/file_bytes.h"
#include "dotnet/metadata_heaps.h"
#include "dotnet/metadata_root.h"
#include "dotnet/metadata_tables.h"
#include "dotnet/sequence_points.h"
#include "support/result.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

struct PdbDocument {
    std::string name;
    Guid language{};
};

// A portable PDB: its id, documents and the sequence points of each method.
// Opened once, then queried from any thread; blobs are decoded when asked for.
class PortablePdb {
public:
    // Refuses Windows (MSF) PDBs, Mono .mdb files and anything without the
    // #Pdb stream, with the reason.
    static Expected<std::shared_ptr<const PortablePdb>> open(const FileBytes& file);

    PortablePdb(const PortablePdb&) = delete;
    PortablePdb& operator=(const PortablePdb&) = delete;

    const std::string& name() const { return m_file.name(); }
    const PdbId& id() const { return m_id; }
    uint32_t entryPoint() const { return m_entryPoint; }
    const MetadataTables& tables() const { return m_tables; }
    uint32_t documentCount() const { return m_tables.rows(table::Document); }
    // Rows of MethodDebugInformation: 0, or one per MethodDef.
    uint32_t methodCount() const { return m_tables.rows(table::MethodDebugInformation); }

    Expected<PdbDocument> document(uint32_t rid) const;
    // The points of MethodDef rid `methodRid`; none for a method without a
    // row. On damage `out` keeps the points before it.
    Status sequencePoints(uint32_t methodRid, std::vector<SequencePoint>& out) const;

private:
    PortablePdb() = default;

    FileBytes m_file;
    MetadataRoot m_root;
    MetadataTables m_tables;
    MetadataHeaps m_heaps;
    PdbId m_id{};
    uint32_t m_entryPoint = 0;
};

QUARVEL_NAMESPACE_END

#endif
