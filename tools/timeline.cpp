#include "timeline.h"

#include "dbglog.h"

#include <log4cplus/spi/loggingevent.h>

#include <iomanip>

// Turns the library's own records into timeline entries.
class Timeline::LogForwarder : public log4cplus::Appender
{
public:
    explicit LogForwarder(Timeline* timeline) : m_timeline(timeline) {}
    ~LogForwarder() override { destructorImpl(); }
    void close() override {}

    log4cplus::LogLevel libraryLevel = log4cplus::OFF_LOG_LEVEL;

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        static const std::string statePrefix = "Node: ";
        static const std::string stateInfix = " enters state: ";
        const std::string& message = event.getMessage();
        const std::string::size_type infix = message.find(stateInfix);
        if (message.compare(0, statePrefix.size(), statePrefix) == 0 && infix != std::string::npos) {
            m_timeline->add("state", QString::fromStdString(message.substr(statePrefix.size(),
                                                                           infix - statePrefix.size())
                                                            + " -> " + message.substr(infix + stateInfix.size())));
            return;
        }
        if (event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL) {
            m_timeline->add(event.getLogLevel() >= log4cplus::FATAL_LOG_LEVEL ? "fatal" : "error",
                            QString::fromStdString(message));
            return;
        }
        if (event.getLogLevel() >= libraryLevel)
            m_timeline->add("log", QString::fromStdString(message));
    }

private:
    Timeline* m_timeline;
};

Timeline::Timeline(std::ostream& out)
    : m_out(out)
{
    m_clock.start();
    m_forwarder = log4cplus::SharedAppenderPtr(new LogForwarder(this));
    log4cplus::Logger& logger = vela::powerManagerLogger();
    logger.setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
    logger.addAppender(m_forwarder);
}

Timeline::~Timeline()
{
    vela::powerManagerLogger().removeAppender(m_forwarder);
}

void Timeline::showLibraryLog(log4cplus::LogLevel level)
{
    static_cast<LogForwarder*>(m_forwarder.get())->libraryLevel = level;
    if (level < log4cplus::DEBUG_LOG_LEVEL)
        vela::powerManagerLogger().setLogLevel(level);
}

void Timeline::add(const char* kind, const QString& text)
{
    m_out << "[" << std::setw(6) << m_clock.elapsed() << " ms] " << std::left << std::setw(10) << kind
          << std::right << text << '\n';
    m_out.flush();
}
