#include "support/assertion.h"

#include "support/log.h"

#include <atomic>

namespace quarvel_3_13 {

namespace {

void logAssertion(const char* condition, const char* file, int line) {
    LOG4CPLUS_ERROR(log::logger(), "Assertion failed: " << condition << log::errorSuffix(file, line));
}

std::atomic<AssertionHandler> g_handler{&logAssertion};

} // namespace

AssertionHandler setAssertionHandler(AssertionHandler handler) {
    return g_handler.exchange(handler ? handler : &logAssertion);
}

void assertionFailed(const char* condition, const char* file, int line) {
    g_handler.load()(condition, file, line);
}

} // namespace quarvel_3_13
