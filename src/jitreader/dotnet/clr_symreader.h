#ifndef QUARVEL_DOTNET_CLR_SYMREADER_H
#define QUARVEL_DOTNET_CLR_SYMREADER_H

#include "dotnet/portable_pdb.h"
#include "dotnet/sequence_points.h"
#include "model/clr_symreader.h"
#include "support/result.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The portable PDB reader behind DotNetMethod: source files and lines of
// methods by MethodDef row id. Made over a PDB file (read by initialize())
// or over a PDB already opened and matched to its assembly.
class ClrSymReader : public CoreCLRSymbolReader {
public:
    explicit ClrSymReader(std::string pdbPath);
    explicit ClrSymReader(std::shared_ptr<const PortablePdb> pdb);

    // meSuccess when the file is a readable portable PDB, else meNotFound
    // with the reason in failure().
    quarvel_error_t initialize() override;
    quarvel_error_t getSourceFileWithFuncRowID(u32 rowId, std::string& fileName) override;
    quarvel_error_t getSourceLineWithFuncRowIDAndILOffset(u32 rowId, u32 ilOffset, unsigned& line) override;

    const Reason& failure() const { return m_failure; }
    const std::shared_ptr<const PortablePdb>& pdb() const { return m_pdb; }

private:
    // The points of one method, decoded once while its IL offsets are asked
    // one by one. Call with m_mutex held.
    const std::vector<SequencePoint>& pointsOf(u32 rowId);

    std::string m_path;
    std::shared_ptr<const PortablePdb> m_pdb;
    Reason m_failure;
    std::mutex m_mutex; // guards the cache below
    bool m_cached = false;
    u32 m_cachedRow = 0;
    std::vector<SequencePoint> m_cachedPoints;
};

QUARVEL_NAMESPACE_END

#endif
