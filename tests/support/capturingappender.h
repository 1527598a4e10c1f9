#ifndef VELA_TESTS_CAPTURINGAPPENDER_H
#define VELA_TESTS_CAPTURINGAPPENDER_H

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

#include <mutex>
#include <string>
#include <vector>

// One log event as the "PowerManager" logger produced it.
struct CapturedEvent {
    log4cplus::LogLevel level;
    std::string message;
    std::string file;
    int line;
    std::string function;
};

/*
 * Records every event of the "PowerManager" logger. Construct one in a test
 * (it attaches itself and sets the logger to `level`, TRACE by default) and
 * it detaches and restores the level when destroyed.
 */
class LogCapture
{
public:
    explicit LogCapture(log4cplus::LogLevel level = log4cplus::TRACE_LOG_LEVEL);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedEvent> events() const;
    void clear();
    // Events with exactly this message (any level).
    std::vector<CapturedEvent> withMessage(const std::string& message) const;
    // Number of events with this level and exact message.
    int count(log4cplus::LogLevel level, const std::string& message) const;
    // True when some event has this level and contains `fragment`.
    bool containsFragment(log4cplus::LogLevel level, const std::string& fragment) const;
    std::string dump() const;

private:
    class Appender;
    log4cplus::SharedAppenderPtr m_appender;
    Appender* m_impl;
    log4cplus::LogLevel m_previousLevel;
};

#endif
