#include "support/usage_statistics.h"

#include <mutex>

QUARVEL_NAMESPACE_BEGIN

namespace {

class NullUsageStatistics : public UsageStatistics {
public:
    void reportCategory(const std::string& /*category*/) override {}
};

std::mutex g_mutex;

UsageStatistics::Ptr& current() {
    static UsageStatistics::Ptr sink = std::make_shared<NullUsageStatistics>();
    return sink;
}

} // namespace

UsageStatistics::Ptr UsageStatistics::instance() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return current();
}

UsageStatistics::Ptr UsageStatistics::install(Ptr sink) {
    if (!sink)
        sink = std::make_shared<NullUsageStatistics>();
    std::lock_guard<std::mutex> lock(g_mutex);
    current().swap(sink);
    return sink;
}

QUARVEL_NAMESPACE_END
