#ifndef QUARVEL_DOTNET_ASSEMBLY_READER_IMPL_H
#define QUARVEL_DOTNET_ASSEMBLY_READER_IMPL_H

#include "dotnet/assembly_metadata.h"
#include "model/clr_symreader.h"
#include "model/dotnet_method.h"

#include <quarvel/dotnet.h>

#include <memory>
#include <string>

QUARVEL_NAMESPACE_BEGIN

// IAssemblyReader over our own metadata reader: getMethod(token) gives the
// DotNetMethod with the declaring type's full name, the method's name and
// its signature, and the PDB reader when a matching portable PDB was found.
// Thread-safe: the metadata is read-only after opening.
class AssemblyReader : public IAssemblyReader {
public:
    AssemblyReader(std::shared_ptr<const AssemblyMetadata> metadata, CoreCLRSymbolReader::Ptr symbols);

    boost::intrusive_ptr<DotNetMethod> getMethod(unsigned token) const override;

    const AssemblyMetadata& metadata() const { return *m_metadata; }
    const CoreCLRSymbolReader::Ptr& symbolReader() const { return m_symbols; }

private:
    std::shared_ptr<const AssemblyMetadata> m_metadata;
    CoreCLRSymbolReader::Ptr m_symbols;
};

// Whether the module at path is a .NET Core (.NET 5 and later) assembly: its
// metadata targets Core, or it carries Core's ReadyToRun code. False for
// anything that cannot be read.
bool isDotNetCore(const std::string& path);

// Whether the file at path is a readable portable PDB.
bool isDotNetCoreValidPdb(const std::string& path);

QUARVEL_NAMESPACE_END

#endif
