#ifndef QUARVEL_SRC_LOG_H
#define QUARVEL_SRC_LOG_H

// The library's one logger, "quarvel.jitreader". It is configured once,
// lazily: level from QUARVEL_LOG (TRACE, DEBUG, INFO, WARN, ERROR, OFF;
// default WARN) to stderr, or a log4cplus properties file named by
// QUARVEL_LOG_CONFIG. The host application's root logger is never touched.
//
// The macros test the level before the message is built, so a TRACE line
// costs one comparison when TRACE is off.

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <string>

namespace quarvel_3_13 {
namespace log {

const log4cplus::Logger& logger();

// ", at file: vcs/quarvel3/src/jitreader/<stem of file>:<line>", the tail of every ERROR line.
std::string errorSuffix(const char* file, int line);

// Re-reads QUARVEL_LOG / QUARVEL_LOG_CONFIG (the tool's --log-level sets the former).
void reconfigure();

} // namespace log
} // namespace quarvel_3_13

#define QV_TRACE(expr) LOG4CPLUS_TRACE(::quarvel_3_13::log::logger(), expr)
#define QV_DEBUG(expr) LOG4CPLUS_DEBUG(::quarvel_3_13::log::logger(), expr)
#define QV_INFO(expr) LOG4CPLUS_INFO(::quarvel_3_13::log::logger(), expr)
#define QV_WARN(expr) LOG4CPLUS_WARN(::quarvel_3_13::log::logger(), expr)
#define QV_ERROR(expr) \
    LOG4CPLUS_ERROR(::quarvel_3_13::log::logger(), expr << ::quarvel_3_13::log::errorSuffix(__FILE__, __LINE__))
#define QV_TRACE_ENABLED() ::quarvel_3_13::log::logger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)

#endif
