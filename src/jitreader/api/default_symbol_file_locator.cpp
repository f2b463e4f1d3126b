#include "api/default_symbol_file_locator.h"

#include "api/located_file.h"

#include <string>

#include <sys/stat.h>

QUARVEL_NAMESPACE_BEGIN

namespace {

bool isFile(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// "/a/b.dll" -> "/a/b.pdb"; an extension only counts in the last component.
std::string pdbBeside(const std::string& path) {
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    return (hasExtension ? path.substr(0, dot) : path) + ".pdb";
}

} // namespace

void DefaultSymbolFileLocator::locate(const char* modulePath, ILocatedFile::Ptr& assembly,
                                      ILocatedFile::Ptr& debugFile) {
    assembly.reset();
    debugFile.reset();
    if (!modulePath || !isFile(modulePath))
        return;
    assembly.reset(new LocatedFile(modulePath));
    const std::string pdb = pdbBeside(modulePath);
    if (isFile(pdb))
        debugFile.reset(new LocatedFile(pdb));
}

ISymbolFileLocator::Ptr ISymbolFileLocator::createDefault() {
    return Ptr(new DefaultSymbolFileLocator());
}

QUARVEL_NAMESPACE_END
