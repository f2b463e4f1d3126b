#include "support/log.h"

#include <quarvel/dotnet.h>

namespace quarvel_3_13 {

// No .NET metadata reader is built into this library yet: every request is
// refused honestly, and the symbol resolver then returns methods as the
// trace described them.
quarvel_error_t IAssemblyReader::create(const char* assemblyPath, const char* /*debugFilePath*/, Ptr& /*reader*/) {
    if (!assemblyPath) {
        QV_ERROR("No .NET assembly reader is available: no assembly path was given");
        return meNotFound;
    }
    QV_ERROR("No .NET assembly reader is available for " << assemblyPath);
    return meFileOpenError;
}

} // namespace quarvel_3_13
