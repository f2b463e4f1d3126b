#ifndef QUARVEL_DOTNET_FAILURE_LOG_H
#define QUARVEL_DOTNET_FAILURE_LOG_H

#include <quarvel/namespace.h>

#include <string>

QUARVEL_NAMESPACE_BEGIN

// Remembers which files' problems were logged, so that a missing or damaged
// assembly or PDB is reported once per file rather than once per method
// (the resolver asks again for every method of a file it could not open).
class FailureLog {
public:
    // True the first time it is asked about `file`, false after; any thread.
    static bool firstReport(const std::string& file);
};

QUARVEL_NAMESPACE_END

#endif
