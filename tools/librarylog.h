#ifndef VELA_TOOLS_LIBRARYLOG_H
#define VELA_TOOLS_LIBRARYLOG_H

#include <QString>

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

#include <functional>

/*
 * Watches the library's "PowerManager" log while it lives and hands each
 * record to a listener, with node state changes taken apart:
 *
 *   LibraryLog log([](const LibraryLog::Record& record) {
 *       if (record.isStateChange())
 *           qInfo() << record.node << "->" << record.state;
 *   });
 *
 * What a tool tells about the library comes from here, so that it is what
 * the library itself reported.
 */
class LibraryLog
{
public:
    struct Record {
        log4cplus::LogLevel level = log4cplus::TRACE_LOG_LEVEL;
        QString message;
        // Set for a node's state change: the node's name and its new state.
        QString node;
        QString state;

        bool isStateChange() const { return !node.isEmpty(); }
    };
    using Listener = std::function<void(const Record& record)>;

    // Lowers the logger's level to DEBUG if needed: state changes are DEBUG.
    explicit LibraryLog(Listener listener);
    ~LibraryLog();
    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;

    // Also receive records down to `level` (TRACE gives all).
    void lowerLevel(log4cplus::LogLevel level);

private:
    class Forwarder;

    log4cplus::SharedAppenderPtr m_forwarder;
};

#endif
