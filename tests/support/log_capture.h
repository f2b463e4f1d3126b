#ifndef QUARVEL_TESTS_LOG_CAPTURE_H
#define QUARVEL_TESTS_LOG_CAPTURE_H

// Captures what the library logs while the object lives, at every level
// (internal checks that fire are the check listener's: check_listener.h).

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

#include <mutex>
#include <string>
#include <vector>

namespace quarvel_test {

struct LogLine {
    log4cplus::LogLevel level;
    std::string message;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    std::vector<std::string> messages(log4cplus::LogLevel level) const;
    std::vector<std::string> errors() const { return messages(log4cplus::ERROR_LOG_LEVEL); }
    // True when some line of that level contains text.
    bool contains(const std::string& text, log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL) const;
    void clear();
    // Everything captured, one line each, for failure messages.
    std::string dump() const;

private:
    log4cplus::SharedAppenderPtr m_appender;
    log4cplus::LogLevel m_previousLevel;
};

} // namespace quarvel_test

#endif
