#include "log_capture.h"

#include "support/log.h"

#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <sstream>

namespace quarvel_test {

namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;

class CaptureAppender : public log4cplus::Appender {
public:
    CaptureAppender() { setName(LOG4CPLUS_TEXT("quarvel-test-capture")); }
    ~CaptureAppender() override { destructorImpl(); }
    void close() override {}

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_lines.push_back(LogLine{event.getLogLevel(), event.getMessage()});
    }
};

} // namespace

LogCapture::LogCapture() {
    clear();
    log4cplus::Logger logger = quarvel::log::logger();
    m_previousLevel = logger.getLogLevel();
    m_appender = new CaptureAppender();
    logger.addAppender(m_appender);
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    // Keep the console quiet while capturing: only our appender sees TRACE lines.
    if (auto console = logger.getAppender(LOG4CPLUS_TEXT("quarvel-stderr")))
        console->setThreshold(log4cplus::OFF_LOG_LEVEL);
}

LogCapture::~LogCapture() {
    log4cplus::Logger logger = quarvel::log::logger();
    logger.removeAppender(m_appender);
    logger.setLogLevel(m_previousLevel);
    if (auto console = logger.getAppender(LOG4CPLUS_TEXT("quarvel-stderr")))
        console->setThreshold(log4cplus::NOT_SET_LOG_LEVEL);
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<std::string> LogCapture::messages(log4cplus::LogLevel level) const {
    std::vector<std::string> out;
    for (const LogLine& line : lines())
        if (line.level == level)
            out.push_back(line.message);
    return out;
}

bool LogCapture::contains(const std::string& text, log4cplus::LogLevel level) const {
    for (const LogLine& line : lines())
        if ((level == log4cplus::NOT_SET_LOG_LEVEL || line.level == level) &&
            line.message.find(text) != std::string::npos)
            return true;
    return false;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

std::string LogCapture::dump() const {
    std::ostringstream os;
    for (const LogLine& line : lines())
        os << log4cplus::getLogLevelManager().toString(line.level) << " " << line.message << "\n";
    return os.str();
}

} // namespace quarvel_test
