#ifndef VELA_POWERGRAPH_LIBRARYRECORDS_H
#define VELA_POWERGRAPH_LIBRARYRECORDS_H

#include <QString>

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

#include <functional>
#include <string>

/*
 * A record of the library's "PowerManager" log, taken apart. The library's
 * texts are its contract with whoever reads its log; this is the one place
 * in the programs that knows them. Everything else reads the kind and the
 * fields.
 */
struct LibraryRecord {
    enum class Kind {
        Other,
        StateChanged, // "Node: N enters state: S"
        ModuleActionSet, // "Node: N updated by: M with action type: A"
        ActionDone, // "N is now A" (A: enable or disable)
        ActionFailed, // "N failed to A Message: E"
        TransitionFailed, // "Failed to <step> ... N, error: E" (FATAL)
        EdgeRefused, // "Tried to make power node|target N ... O, but ..."
        TargetUnreachable, // "node unreachable: N"
        RequestStarted, // the entry line of a request's processing (TRACE)
        RequestFinished, // "request id: I finished"
        InvalidRequestRemoved, // "remove invalid request id: I"
        RequestRefused, // "<reason>: <request record>" (reason in `error`)
        UnknownModule, // "unknown power module requested: M"
        ModuleRefused, // "Cannot register module: <record>"
    };
    // The four steps of a node transition that can fail.
    enum class Step { None, Lock, Enable, Disable, Unlock };

    Kind kind = Kind::Other;
    log4cplus::LogLevel level = log4cplus::TRACE_LOG_LEVEL;
    // The record's text as the library wrote it (UTF-8).
    std::string message;
    // The node the record is about (StateChanged, ModuleActionSet,
    // ActionDone, ActionFailed, TransitionFailed, EdgeRefused,
    // TargetUnreachable).
    QString node;
    // StateChanged: the state entered.
    QString state;
    // ModuleActionSet: the module and its action; ActionDone, ActionFailed:
    // the action ("enable" or "disable"); UnknownModule: the module.
    QString module;
    QString action;
    // EdgeRefused: the other node of the refused edge.
    QString otherNode;
    // ActionFailed, TransitionFailed: the error's message; RequestRefused:
    // the reason given to the caller.
    QString error;
    Step step = Step::None;
    // RequestStarted, RequestFinished, InvalidRequestRemoved.
    qint64 requestId = 0;

    static LibraryRecord decode(log4cplus::LogLevel level, const std::string& message);
    // What the library logs when it refuses to make `target` disable `node`,
    // which it enables: for a check that tells before the library does.
    static QString disableEdgeRefusal(const QString& target, const QString& node);
    // The record's text; made only when asked for, since most records are
    // read for their fields alone.
    QString text() const { return QString::fromStdString(message); }
};

/*
 * Watches the library's "PowerManager" log while it lives and hands each
 * record, decoded, to a listener:
 *
 *   LibraryLogWatcher watcher([](const LibraryRecord& record) {
 *       if (record.kind == LibraryRecord::Kind::StateChanged)
 *           qInfo() << record.node << "->" << record.state;
 *   });
 */
class LibraryLogWatcher
{
public:
    using Listener = std::function<void(const LibraryRecord& record)>;

    // Lowers the logger's level to DEBUG if needed: state changes are DEBUG.
    explicit LibraryLogWatcher(Listener listener);
    ~LibraryLogWatcher();
    LibraryLogWatcher(const LibraryLogWatcher&) = delete;
    LibraryLogWatcher& operator=(const LibraryLogWatcher&) = delete;

    // Also receive records down to `level` (TRACE gives all).
    void lowerLevel(log4cplus::LogLevel level);

private:
    class Forwarder;

    log4cplus::SharedAppenderPtr m_forwarder;
};

#endif
