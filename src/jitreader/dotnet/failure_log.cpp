#include "dotnet/failure_log.h"

#include <mutex>
#include <set>

QUARVEL_NAMESPACE_BEGIN

bool FailureLog::firstReport(const std::string& file) {
    static std::mutex mutex;
    static std::set<std::string> reported;
    std::lock_guard<std::mutex> lock(mutex);
    return reported.insert(file).second;
}

QUARVEL_NAMESPACE_END
