#include "timeline.h"

#include <iomanip>

Timeline::Timeline(std::ostream& out)
    : m_out(out)
    , m_log([this](const LibraryLog::Record& record) { addLibraryRecord(record); })
{
    m_clock.start();
}

void Timeline::showLibraryLog(log4cplus::LogLevel level)
{
    m_shownLevel = level;
    m_log.lowerLevel(level);
}

void Timeline::addLibraryRecord(const LibraryLog::Record& record)
{
    if (record.isStateChange())
        add("state", record.node + " -> " + record.state);
    else if (record.level >= log4cplus::FATAL_LOG_LEVEL)
        add("fatal", record.message);
    else if (record.level >= log4cplus::ERROR_LOG_LEVEL)
        add("error", record.message);
    else if (record.level >= m_shownLevel)
        add("log", record.message);
}

void Timeline::add(const char* kind, const QString& text)
{
    m_out << "[" << std::setw(6) << m_clock.elapsed() << " ms] " << std::left << std::setw(10) << kind
          << std::right << text.toStdString() << '\n';
    m_out.flush();
}
