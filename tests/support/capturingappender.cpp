#include "capturingappender.h"

#include "dbglog.h"

#include <log4cplus/spi/loggingevent.h>

#include <sstream>

class LogCapture::Appender : public log4cplus::Appender
{
public:
    Appender() = default;
    ~Appender() override { destructorImpl(); }

    void close() override {}

    std::vector<CapturedEvent> events() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(CapturedEvent{event.getLogLevel(), event.getMessage(), event.getFile(), event.getLine(),
                                         event.getFunction()});
    }

private:
    mutable std::mutex m_mutex;
    std::vector<CapturedEvent> m_events;
};

LogCapture::LogCapture(log4cplus::LogLevel level)
    : m_impl(new Appender)
{
    m_appender = log4cplus::SharedAppenderPtr(m_impl);
    log4cplus::Logger& logger = vela::powerManagerLogger();
    m_previousLevel = logger.getLogLevel();
    logger.setLogLevel(level);
    logger.addAppender(m_appender);
}

LogCapture::~LogCapture()
{
    log4cplus::Logger& logger = vela::powerManagerLogger();
    logger.removeAppender(m_appender);
    logger.setLogLevel(m_previousLevel);
}

std::vector<CapturedEvent> LogCapture::events() const
{
    return m_impl->events();
}

void LogCapture::clear()
{
    m_impl->clear();
}

std::vector<CapturedEvent> LogCapture::withMessage(const std::string& message) const
{
    std::vector<CapturedEvent> result;
    for (const CapturedEvent& event : events()) {
        if (event.message == message)
            result.push_back(event);
    }
    return result;
}

int LogCapture::count(log4cplus::LogLevel level, const std::string& message) const
{
    int n = 0;
    for (const CapturedEvent& event : events()) {
        if (event.level == level && event.message == message)
            ++n;
    }
    return n;
}

bool LogCapture::containsFragment(log4cplus::LogLevel level, const std::string& fragment) const
{
    for (const CapturedEvent& event : events()) {
        if (event.level == level && event.message.find(fragment) != std::string::npos)
            return true;
    }
    return false;
}

std::string LogCapture::dump() const
{
    std::ostringstream out;
    for (const CapturedEvent& event : events())
        out << event.level << ' ' << event.file << ':' << event.line << " [" << event.function << "] "
            << event.message << '\n';
    return out.str();
}
