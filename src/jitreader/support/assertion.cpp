#include "support/assertion.h"

#include "support/log.h"

#include <atomic>

QUARVEL_NAMESPACE_BEGIN

namespace {

std::atomic<AssertionHandler> g_observer{nullptr};

} // namespace

AssertionHandler setAssertionObserver(AssertionHandler observer) {
    return g_observer.exchange(observer);
}

void assertionFailed(const char* condition, const char* file, int line) {
    LOG4CPLUS_ERROR(log::logger(), "Assertion failed: " << condition << log::errorSuffix(file, line));
    if (AssertionHandler observer = g_observer.load())
        observer(condition, file, line);
}

QUARVEL_NAMESPACE_END
