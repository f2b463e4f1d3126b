#ifndef QUARVEL_INGEST_MANAGED_RUNTIME_INFO_H
#define QUARVEL_INGEST_MANAGED_RUNTIME_INFO_H

#include <quarvel/jittrace_writer.h>

#include <string>

QUARVEL_NAMESPACE_BEGIN

// The usage category of a runtime: "mrte.java" + vendor + the first run of
// digits of the version ("mrte.java.hotspot17"); empty for other runtimes.
std::string managedRuntimeCategory(const TraceRuntimeInfo& info);

// Reports the runtime's category to the usage-statistics sink.
void reportManagedRuntimeInfo(const TraceRuntimeInfo& info);

QUARVEL_NAMESPACE_END

#endif
