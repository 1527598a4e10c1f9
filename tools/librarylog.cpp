#include "librarylog.h"

#include "dbglog.h"

#include <log4cplus/spi/loggingevent.h>

class LibraryLog::Forwarder : public log4cplus::Appender
{
public:
    explicit Forwarder(Listener listener) : m_listener(std::move(listener)) {}
    ~Forwarder() override { destructorImpl(); }
    void close() override {}

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        static const std::string statePrefix = "Node: ";
        static const std::string stateInfix = " enters state: ";
        const std::string& message = event.getMessage();
        Record record;
        record.level = event.getLogLevel();
        record.message = QString::fromStdString(message);
        const std::string::size_type infix = message.find(stateInfix);
        if (message.compare(0, statePrefix.size(), statePrefix) == 0 && infix != std::string::npos) {
            record.node = QString::fromStdString(message.substr(statePrefix.size(), infix - statePrefix.size()));
            record.state = QString::fromStdString(message.substr(infix + stateInfix.size()));
        }
        m_listener(record);
    }

private:
    Listener m_listener;
};

LibraryLog::LibraryLog(Listener listener)
    : m_forwarder(new Forwarder(std::move(listener)))
{
    lowerLevel(log4cplus::DEBUG_LOG_LEVEL);
    vela::powerManagerLogger().addAppender(m_forwarder);
}

LibraryLog::~LibraryLog()
{
    vela::powerManagerLogger().removeAppender(m_forwarder);
}

void LibraryLog::lowerLevel(log4cplus::LogLevel level)
{
    log4cplus::Logger& logger = vela::powerManagerLogger();
    if (logger.getLogLevel() > level || logger.getLogLevel() == log4cplus::NOT_SET_LOG_LEVEL)
        logger.setLogLevel(level);
}
