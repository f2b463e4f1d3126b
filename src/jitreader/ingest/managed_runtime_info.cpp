#include "ingest/managed_runtime_info.h"

#include "support/log.h"
#include "support/usage_statistics.h"

#include <boost/regex.hpp>

QUARVEL_NAMESPACE_BEGIN

std::string managedRuntimeCategory(const TraceRuntimeInfo& info) {
    if (info.runtimeType == quarvel_runtime_java) {
        QV_TRACE("Managed runtime type is Java");
        std::string category = "mrte.java";
        // HotSpot first: an OpenJDK build names both.
        static const struct {
            const char* mark;
            const char* suffix;
        } kVendors[] = {{"HotSpot", ".hotspot"}, {"JRockit", ".jrockit"}, {"J9", ".j9"}, {"OpenJDK", ".openjdk"}};
        const char* vendor = ".unknown";
        for (const auto& v : kVendors)
            if (info.name.find(v.mark) != std::string::npos) {
                vendor = v.suffix;
                break;
            }
        category += vendor;
        std::string digits = "unknown";
        try {
            static const boost::regex kDigits("\\d+");
            boost::smatch match;
            if (boost::regex_search(info.version, match, kDigits))
                digits = match.str();
        } catch (const std::exception& e) {
            // The category is a statistic: a failed search must not stop the reading.
            QV_TRACE("Couldn't search the runtime version: " << e.what());
        }
        return category + digits;
    }
    if (info.runtimeType == quarvel_runtime_python)
        QV_TRACE("Managed runtime type is Python");
    else
        QV_TRACE("Managed runtime type is unknown - unable to construct mrte category to report Google Analytics");
    return std::string();
}

void reportManagedRuntimeInfo(const TraceRuntimeInfo& info) {
    const std::string category = managedRuntimeCategory(info);
    if (category.empty())
        return;
    QV_TRACE("Report category '" << category << "' to Google Analytics");
    UsageStatistics::instance()->reportCategory(category);
}

QUARVEL_NAMESPACE_END
