#include "dotnet/clr_symreader.h"

#include "dotnet/failure_log.h"
#include "support/log.h"

QUARVEL_NAMESPACE_BEGIN

ClrSymReader::ClrSymReader(std::string pdbPath) : m_path(std::move(pdbPath)) {}

ClrSymReader::ClrSymReader(std::shared_ptr<const PortablePdb> pdb) : m_pdb(std::move(pdb)) {
    if (m_pdb)
        m_path = m_pdb->name();
}

quarvel_error_t ClrSymReader::initialize() {
    if (m_pdb)
        return meSuccess;
    Expected<FileBytes> file = FileBytes::map(m_path);
    if (!file) {
        m_failure = file.reason();
        return meNotFound;
    }
    Expected<std::shared_ptr<const PortablePdb>> pdb = PortablePdb::open(file.value());
    if (!pdb) {
        m_failure = pdb.reason();
        return meNotFound;
    }
    m_pdb = pdb.value();
    return meSuccess;
}

const std::vector<SequencePoint>& ClrSymReader::pointsOf(u32 rowId) {
    if (!m_cached || m_cachedRow != rowId) {
        const Status s = m_pdb->sequencePoints(rowId, m_cachedPoints);
        // The points before the damage still serve.
        if (!s && FailureLog::firstReport(m_pdb->name()))
            QV_ERROR("Couldn't read the sequence points of a method: " << s.reason().text());
        m_cached = true;
        m_cachedRow = rowId;
    }
    return m_cachedPoints;
}

quarvel_error_t ClrSymReader::getSourceFileWithFuncRowID(u32 rowId, std::string& fileName) {
    if (!m_pdb)
        return meNotFound;
    uint32_t document = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::vector<SequencePoint>& points = pointsOf(rowId);
        if (points.empty())
            return meNotFound;
        // The first visible point's document; a method of hidden points only
        // still has the document of its first.
        document = points.front().document;
        for (const SequencePoint& p : points)
            if (!p.hidden()) {
                document = p.document;
                break;
            }
    }
    Expected<PdbDocument> doc = m_pdb->document(document);
    if (!doc) {
        if (FailureLog::firstReport(m_pdb->name()))
            QV_ERROR("Couldn't read a document of a portable PDB: " << doc.reason().text());
        return meNotFound;
    }
    fileName = doc.value().name;
    return meSuccess;
}

quarvel_error_t ClrSymReader::getSourceLineWithFuncRowIDAndILOffset(u32 rowId, u32 ilOffset, unsigned& line) {
    if (!m_pdb)
        return meNotFound;
    std::lock_guard<std::mutex> lock(m_mutex);
    const SequencePoint* p = sequencePointAt(pointsOf(rowId), ilOffset);
    if (!p)
        return meNotFound;
    line = p->startLine;
    return meSuccess;
}

QUARVEL_NAMESPACE_END
