#ifndef QUARVEL_SUPPORT_USAGE_STATISTICS_H
#define QUARVEL_SUPPORT_USAGE_STATISTICS_H

#include <quarvel/namespace.h>

#include <memory>
#include <string>

QUARVEL_NAMESPACE_BEGIN

// Where usage categories such as "mrte.java.hotspot11" go. The library's own
// sink does nothing: it never touches the network or the disk.
class UsageStatistics {
public:
    typedef std::shared_ptr<UsageStatistics> Ptr;

    virtual ~UsageStatistics() = default;
    virtual void reportCategory(const std::string& category) = 0;

    // The installed sink (the do-nothing one unless another was installed).
    static Ptr instance();
    // Installs a sink (null restores the do-nothing one); returns the previous
    // one. Safe against concurrent reports: a report in flight keeps its sink alive.
    static Ptr install(Ptr sink);
};

QUARVEL_NAMESPACE_END

#endif
