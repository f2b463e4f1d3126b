#include "support/log.h"

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loglevel.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

QUARVEL_NAMESPACE_BEGIN
namespace log {

namespace {

const char* const kLoggerName = "quarvel.jitreader";

log4cplus::LogLevel levelFromEnvironment() {
    const char* value = std::getenv("QUARVEL_LOG");
    if (!value || !*value)
        return log4cplus::WARN_LOG_LEVEL;
    struct Named {
        const char* name;
        log4cplus::LogLevel level;
    };
    static const Named levels[] = {
        {"TRACE", log4cplus::TRACE_LOG_LEVEL}, {"DEBUG", log4cplus::DEBUG_LOG_LEVEL},
        {"INFO", log4cplus::INFO_LOG_LEVEL},   {"WARN", log4cplus::WARN_LOG_LEVEL},
        {"ERROR", log4cplus::ERROR_LOG_LEVEL}, {"OFF", log4cplus::OFF_LOG_LEVEL},
    };
    for (const Named& n : levels)
        if (strcasecmp(value, n.name) == 0)
            return n.level;
    return log4cplus::WARN_LOG_LEVEL;
}

void configure(log4cplus::Logger& logger) {
    logger.removeAllAppenders();
    const char* config = std::getenv("QUARVEL_LOG_CONFIG");
    if (config && *config) {
        log4cplus::PropertyConfigurator::doConfigure(LOG4CPLUS_C_STR_TO_TSTRING(config));
        return;
    }
    // Our own appender on our own logger only: the host's root logger is not touched.
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true /* stderr */, true));
    appender->setName(LOG4CPLUS_TEXT("quarvel-stderr"));
    appender->setLayout(
        std::unique_ptr<log4cplus::Layout>(new log4cplus::PatternLayout(LOG4CPLUS_TEXT("quarvel %-5p %m%n"))));
    logger.addAppender(appender);
    logger.setAdditivity(false);
    logger.setLogLevel(levelFromEnvironment());
}

std::once_flag g_once;
// Set once, then only read: every query logs at INFO and TRACE, so the
// common path is one acquire load rather than a std::call_once (which sets
// thread-local state on every call).
std::atomic<log4cplus::Logger*> g_logger{nullptr};

log4cplus::Logger& configuredLogger() {
    std::call_once(g_once, [] {
        log4cplus::initialize();
        static log4cplus::Logger instance = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT(kLoggerName));
        configure(instance);
        g_logger.store(&instance, std::memory_order_release);
    });
    return *g_logger.load(std::memory_order_acquire);
}

} // namespace

const log4cplus::Logger& logger() {
    if (const log4cplus::Logger* ready = g_logger.load(std::memory_order_acquire))
        return *ready;
    return configuredLogger();
}

void reconfigure() {
    configure(configuredLogger());
}

std::string errorSuffix(const char* file, int line) {
    // The stem of the source file: "…/src/jitreader/region.cpp" -> "region".
    const char* base = std::strrchr(file, '/');
    base = base ? base + 1 : file;
    const char* dot = std::strrchr(base, '.');
    std::string stem(base, dot ? static_cast<size_t>(dot - base) : std::strlen(base));
    return ", at file: vcs/quarvel3/src/jitreader/" + stem + ":" + std::to_string(line);
}

} // namespace log
QUARVEL_NAMESPACE_END
