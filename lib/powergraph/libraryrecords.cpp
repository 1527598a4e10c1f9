#include "libraryrecords.h"

#include "dbglog.h"

#include <log4cplus/spi/loggingevent.h>

namespace {

using Kind = LibraryRecord::Kind;
using Step = LibraryRecord::Step;

QString text(const std::string& message, std::string::size_type from, std::string::size_type to = std::string::npos)
{
    return QString::fromStdString(message.substr(from, to == std::string::npos ? to : to - from));
}

bool startsWith(const std::string& message, const std::string& prefix)
{
    return message.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& message, const std::string& suffix)
{
    return message.size() >= suffix.size() &&
           message.compare(message.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A request's identity at the end of `message`, after `prefix`; 0 when the
// rest is not a number.
qint64 identityAfter(const std::string& message, std::string::size_type from, std::string::size_type to)
{
    bool valid = false;
    const qint64 id = text(message, from, to).toLongLong(&valid);
    return valid ? id : 0;
}

// "Node: N enters state: S" and "Node: N updated by: M with action type: A".
bool decodeNodeLine(const std::string& message, LibraryRecord* record)
{
    static const std::string prefix = "Node: ";
    static const std::string enters = " enters state: ";
    static const std::string updated = " updated by: ";
    static const std::string actionType = " with action type: ";
    if (!startsWith(message, prefix))
        return false;
    const auto entersAt = message.find(enters);
    if (entersAt != std::string::npos) {
        record->kind = Kind::StateChanged;
        record->node = text(message, prefix.size(), entersAt);
        record->state = text(message, entersAt + enters.size());
        return true;
    }
    const auto updatedAt = message.find(updated);
    const auto actionAt = message.rfind(actionType);
    if (updatedAt == std::string::npos || actionAt == std::string::npos || actionAt < updatedAt)
        return false;
    record->kind = Kind::ModuleActionSet;
    record->node = text(message, prefix.size(), updatedAt);
    record->module = text(message, updatedAt + updated.size(), actionAt);
    record->action = text(message, actionAt + actionType.size());
    return true;
}

// "N failed to A Message: E" (ERROR) and "N is now A" (DEBUG): a resource's
// set-data action and how it ended.
bool decodeActionLine(const std::string& message, LibraryRecord* record)
{
    static const std::string failed = " failed to ";
    static const std::string marker = " Message: ";
    static const std::string done = " is now ";
    const auto failedAt = message.find(failed);
    const auto markerAt = message.find(marker);
    if (failedAt != std::string::npos && failedAt > 0 && markerAt != std::string::npos && markerAt >= failedAt) {
        record->kind = Kind::ActionFailed;
        record->node = text(message, 0, failedAt);
        record->action = text(message, failedAt + failed.size(), markerAt);
        record->error = text(message, markerAt + marker.size());
        return true;
    }
    const auto doneAt = message.rfind(done);
    if (doneAt == std::string::npos || doneAt == 0)
        return false;
    const std::string action = message.substr(doneAt + done.size());
    if (action != "enable" && action != "disable")
        return false;
    record->kind = Kind::ActionDone;
    record->node = text(message, 0, doneAt);
    record->action = QString::fromStdString(action);
    return true;
}

// "Failed to lock dependencies for N, error: E" and its three siblings.
bool decodeTransitionFailure(const std::string& message, LibraryRecord* record)
{
    static const struct {
        const char* prefix;
        Step step;
    } steps[] = {
        {"Failed to lock dependencies for ", Step::Lock},
        {"Failed to enable resource ", Step::Enable},
        {"Failed to disable resource ", Step::Disable},
        {"Failed to unlock all dependencies for ", Step::Unlock},
    };
    static const std::string errorMarker = ", error: ";
    for (const auto& candidate : steps) {
        const std::string prefix = candidate.prefix;
        const auto errorAt = message.find(errorMarker, prefix.size());
        if (!startsWith(message, prefix) || errorAt == std::string::npos)
            continue;
        record->kind = Kind::TransitionFailed;
        record->step = candidate.step;
        record->node = text(message, prefix.size(), errorAt);
        record->error = text(message, errorAt + errorMarker.size());
        return true;
    }
    return false;
}

// "Tried to make power node N require node O, but ..." and the three other
// refusals of an edge.
bool decodeEdgeRefusal(const std::string& message, LibraryRecord* record)
{
    static const struct {
        const char* prefix;
        const char* middle;
    } edges[] = {
        {"Tried to make power node ", " require node "},
        {"Tried to make power node ", " be required by node "},
        {"Tried to make power target ", " enable node "},
        {"Tried to make power target ", " disable node "},
    };
    static const std::string but = ", but ";
    for (const auto& edge : edges) {
        const std::string prefix = edge.prefix;
        const std::string middle = edge.middle;
        if (!startsWith(message, prefix))
            continue;
        const auto middleAt = message.find(middle, prefix.size());
        const auto butAt = middleAt == std::string::npos ? middleAt : message.find(but, middleAt + middle.size());
        if (butAt == std::string::npos)
            continue;
        record->kind = Kind::EdgeRefused;
        record->node = text(message, prefix.size(), middleAt);
        record->otherNode = text(message, middleAt + middle.size(), butAt);
        return true;
    }
    return false;
}

// The queue's lines about one request, and the refusals of a request.
bool decodeRequestLine(const std::string& message, LibraryRecord* record)
{
    static const std::string finishedPrefix = "request id: ";
    static const std::string finishedSuffix = " finished";
    static const std::string removedPrefix = "remove invalid request id: ";
    static const std::string startedMarker = "PowerNodeRequest::process(): nodeRequest id: ";
    static const std::string unreachable = "node unreachable: ";
    static const std::string unknownModule = "unknown power module requested: ";
    static const std::string moduleRefused = "Cannot register module: ";
    static const char* const refusals[] = {"Incorrect request", "Unknown target", "Unknown resource",
                                           "Cannot add request for requested target",
                                           "Cannot add request for requested resource"};
    if (startsWith(message, finishedPrefix) && endsWith(message, finishedSuffix)) {
        record->kind = Kind::RequestFinished;
        record->requestId = identityAfter(message, finishedPrefix.size(), message.size() - finishedSuffix.size());
        return true;
    }
    if (startsWith(message, removedPrefix)) {
        record->kind = Kind::InvalidRequestRemoved;
        record->requestId = identityAfter(message, removedPrefix.size(), std::string::npos);
        return true;
    }
    const auto startedAt = message.find(startedMarker);
    if (startsWith(message, "Enter ") && startedAt != std::string::npos) {
        record->kind = Kind::RequestStarted;
        record->requestId = identityAfter(message, startedAt + startedMarker.size(), std::string::npos);
        return true;
    }
    if (startsWith(message, unreachable)) {
        record->kind = Kind::TargetUnreachable;
        record->node = text(message, unreachable.size());
        return true;
    }
    if (startsWith(message, unknownModule)) {
        record->kind = Kind::UnknownModule;
        record->module = text(message, unknownModule.size());
        return true;
    }
    if (startsWith(message, moduleRefused)) {
        record->kind = Kind::ModuleRefused;
        return true;
    }
    for (const char* refusal : refusals) {
        const std::string reason = std::string(refusal) + ": ";
        if (startsWith(message, reason)) {
            record->kind = Kind::RequestRefused;
            record->error = QString::fromLatin1(refusal);
            return true;
        }
    }
    return false;
}

} // namespace

LibraryRecord LibraryRecord::decode(log4cplus::LogLevel level, const std::string& message)
{
    LibraryRecord record;
    record.level = level;
    record.message = message;
    if (decodeNodeLine(message, &record))
        return record;
    // The remaining texts are specific enough to be told apart by their
    // level first, which keeps the common DEBUG records cheap.
    if (level >= log4cplus::FATAL_LOG_LEVEL) {
        decodeTransitionFailure(message, &record);
        return record;
    }
    if (level >= log4cplus::ERROR_LOG_LEVEL) {
        if (!decodeActionLine(message, &record) && !decodeEdgeRefusal(message, &record))
            decodeRequestLine(message, &record);
        return record;
    }
    if (level >= log4cplus::DEBUG_LOG_LEVEL && level < log4cplus::INFO_LOG_LEVEL) {
        decodeActionLine(message, &record);
        return record;
    }
    decodeRequestLine(message, &record);
    return record;
}

QString LibraryRecord::disableEdgeRefusal(const QString& target, const QString& node)
{
    return QStringLiteral("Tried to make power target %1 disable node %2, but it already enables that node.")
        .arg(target, node);
}

class LibraryLogWatcher::Forwarder : public log4cplus::Appender
{
public:
    explicit Forwarder(Listener listener)
        : m_listener(std::move(listener))
    {
    }
    ~Forwarder() override { destructorImpl(); }
    void close() override {}

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        m_listener(LibraryRecord::decode(event.getLogLevel(), event.getMessage()));
    }

private:
    Listener m_listener;
};

LibraryLogWatcher::LibraryLogWatcher(Listener listener)
    : m_forwarder(new Forwarder(std::move(listener)))
{
    lowerLevel(log4cplus::DEBUG_LOG_LEVEL);
    vela::powerManagerLogger().addAppender(m_forwarder);
}

LibraryLogWatcher::~LibraryLogWatcher()
{
    vela::powerManagerLogger().removeAppender(m_forwarder);
}

void LibraryLogWatcher::lowerLevel(log4cplus::LogLevel level)
{
    log4cplus::Logger& logger = vela::powerManagerLogger();
    if (logger.getLogLevel() > level || logger.getLogLevel() == log4cplus::NOT_SET_LOG_LEVEL)
        logger.setLogLevel(level);
}
