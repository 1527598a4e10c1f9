#ifndef VELA_TOOLS_TIMELINE_H
#define VELA_TOOLS_TIMELINE_H

#include "librarylog.h"

#include <QElapsedTimer>
#include <QString>

#include <ostream>

/*
 * What happened, in order, with the time since the run started:
 *   [    0 ms] request   #1 target active
 *   [    0 ms] write     /modules/display/power on = true
 *   [    0 ms] state     display -> enabled
 * Node state changes and the library's errors come from the "PowerManager"
 * log, so the timeline shows them exactly as the library reports them.
 */
class Timeline
{
public:
    explicit Timeline(std::ostream& out);
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;

    void add(const char* kind, const QString& text);
    // Also show every library record at `level` and above (TRACE shows all).
    void showLibraryLog(log4cplus::LogLevel level);

private:
    void addLibraryRecord(const LibraryLog::Record& record);

    std::ostream& m_out;
    QElapsedTimer m_clock;
    log4cplus::LogLevel m_shownLevel = log4cplus::OFF_LOG_LEVEL;
    LibraryLog m_log;
};

#endif
