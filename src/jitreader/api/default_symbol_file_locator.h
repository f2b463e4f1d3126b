#ifndef QUARVEL_API_DEFAULT_SYMBOL_FILE_LOCATOR_H
#define QUARVEL_API_DEFAULT_SYMBOL_FILE_LOCATOR_H

#include <quarvel/facades.h>

QUARVEL_NAMESPACE_BEGIN

// ISymbolFileLocator::createDefault: the assembly at the module path itself,
// the PDB of the same name beside it (see facades.h).
class DefaultSymbolFileLocator : public ISymbolFileLocator {
public:
    void locate(const char* modulePath, ILocatedFile::Ptr& assembly, ILocatedFile::Ptr& debugFile) override;
};

QUARVEL_NAMESPACE_END

#endif
