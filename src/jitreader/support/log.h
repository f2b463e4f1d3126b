#ifndef QUARVEL_SUPPORT_LOG_H
#define QUARVEL_SUPPORT_LOG_H

// The library's one logger, "quarvel.jitreader". It is configured once,
// lazily: level from QUARVEL_LOG (TRACE, DEBUG, INFO, WARN, ERROR, OFF;
// default WARN) to stderr, or a log4cplus properties file named by
// QUARVEL_LOG_CONFIG. The host application's root logger is never touched.
//
// The macros test the level before the message is built, so a TRACE line
// costs one comparison when TRACE is off.

#include <quarvel/namespace.h>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <string>

QUARVEL_NAMESPACE_BEGIN
namespace log {

const log4cplus::Logger& logger();

// ", at file: vcs/quarvel3/src/jitreader/<stem of file>:<line>", the tail of every ERROR line.
std::string errorSuffix(const char* file, int line);

// Re-reads QUARVEL_LOG / QUARVEL_LOG_CONFIG (the tool's --log-level sets the former).
void reconfigure();

} // namespace log
QUARVEL_NAMESPACE_END

// Like the LOG4CPLUS_* macros, but the logger is used through a reference:
// theirs copy it, a reference-count round trip on one shared object per log
// statement, which every thread's queries would contend on.
#define QV_LOG_AT(level, expr)                                                                                   \
    do {                                                                                                         \
        const log4cplus::Logger& qv_logger_ = ::quarvel::log::logger();                                          \
        if (qv_logger_.isEnabledFor(level)) {                                                                    \
            LOG4CPLUS_MACRO_INSTANTIATE_OSTRINGSTREAM(qv_log_buffer_);                                           \
            qv_log_buffer_ << expr;                                                                              \
            log4cplus::detail::macro_forced_log(qv_logger_, level, qv_log_buffer_.str(), LOG4CPLUS_MACRO_FILE(), \
                                                __LINE__, LOG4CPLUS_MACRO_FUNCTION());                           \
        }                                                                                                        \
    } while (0)

#define QV_TRACE(expr) QV_LOG_AT(log4cplus::TRACE_LOG_LEVEL, expr)
#define QV_DEBUG(expr) QV_LOG_AT(log4cplus::DEBUG_LOG_LEVEL, expr)
#define QV_INFO(expr) QV_LOG_AT(log4cplus::INFO_LOG_LEVEL, expr)
#define QV_WARN(expr) QV_LOG_AT(log4cplus::WARN_LOG_LEVEL, expr)
#define QV_ERROR(expr) QV_LOG_AT(log4cplus::ERROR_LOG_LEVEL, expr << ::quarvel::log::errorSuffix(__FILE__, __LINE__))
#define QV_TRACE_ENABLED() ::quarvel::log::logger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)
// TRACE lies below INFO: where INFO is off, so is TRACE.
#define QV_INFO_ENABLED() ::quarvel::log::logger().isEnabledFor(log4cplus::INFO_LOG_LEVEL)

#endif
