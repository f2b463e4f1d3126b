#ifndef QUARVEL_DOTNET_PDB_FINDER_H
#define QUARVEL_DOTNET_PDB_FINDER_H

#include "dotnet/assembly_metadata.h"
#include "dotnet/portable_pdb.h"
#include "support/result.h"

#include <memory>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Finds the portable PDB of an assembly and checks that it belongs to it.
// Candidates, in order: the debug file the caller named; beside the
// assembly, the file name of its CodeView record, then <assembly stem>.pdb;
// the CodeView path itself; the PDB embedded in the assembly. A candidate
// whose #Pdb id differs from the id in the assembly's CodeView record is
// refused, and the search goes on.
class PdbFinder {
public:
    struct Result {
        std::shared_ptr<const PortablePdb> pdb; // null when none was found
        std::string source;                     // "embedded", or the path of the file used
        std::vector<Reason> refused;            // candidates that exist but could not be used
    };

    static Result find(const AssemblyMetadata& assembly, const char* debugFilePath);
};

QUARVEL_NAMESPACE_END

#endif
