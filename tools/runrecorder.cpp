#include "runrecorder.h"

#include "powergraph.h"
#include "simulatedtimedispatcher.h"

#include "PowerNode.h"
#include "cmreply.h"

#include <QCoreApplication>
#include <QElapsedTimer>

const QString RunRecorder::requestTrack = QStringLiteral("requests");

RunRecorder::Clock RunRecorder::eventLoopClock()
{
    if (auto* simulated = qobject_cast<SimulatedTimeDispatcher*>(QCoreApplication::eventDispatcher())) {
        const qint64 startMs = simulated->elapsedMs();
        return [simulated, startMs]() { return (simulated->elapsedMs() - startMs) * 1000; };
    }
    QElapsedTimer wall;
    wall.start();
    return [wall]() { return wall.nsecsElapsed() / 1000; };
}

RunRecorder::RunRecorder(const GraphFile& file, Clock clock, Listener listener)
    : m_file(file)
    , m_clock(std::move(clock))
    , m_listener(std::move(listener))
    , m_log([this](const LibraryLog::Record& record) { takeLibraryRecord(record); })
{
    m_tracks.append({Track::Requests, requestTrack});
    for (const GraphFile::Resource& resource : file.resources)
        m_tracks.append({Track::Node, resource.name});
    for (const GraphFile::Target& target : file.targets)
        m_tracks.append({Track::Node, target.name});
    for (const GraphFile::Module& module : file.modules)
        m_tracks.append({Track::Module, module.name});
}

void RunRecorder::watchStates(const PowerGraph& graph)
{
    m_graph = &graph;
}

void RunRecorder::showLibraryLog(log4cplus::LogLevel level)
{
    m_shownLevel = level;
    m_log.lowerLevel(level);
}

qint64 RunRecorder::nowUs() const
{
    return m_clock();
}

const RunRecorder::Span* RunRecorder::requestSpan(int number) const
{
    const auto found = m_requestSpans.constFind(number);
    return found == m_requestSpans.constEnd() ? nullptr : &m_spans.at(found.value() - 1);
}

void RunRecorder::add(const QString& kind, const QString& subject, const QString& detail)
{
    record(kind, subject, detail);
    publish();
}

void RunRecorder::requestSent(int number, const QString& description)
{
    const QString subject = QStringLiteral("#%1").arg(number);
    const int index = record(QStringLiteral("request"), subject, description);
    const int span = beginSpan(Span::Request, requestTrack, subject + ' ' + description, QString(), index);
    m_requestSpans.insert(number, span);
    m_events[index].beginsSpan = span;
    publish();
}

void RunRecorder::requestAnswered(int number, const QString& answer, bool failed)
{
    const int index = record(QStringLiteral("answer"), QStringLiteral("#%1").arg(number), answer);
    const int span = m_requestSpans.value(number);
    ++m_requestsAnswered;
    if (span != 0) {
        m_spans[span - 1].failed = failed;
        endSpan(span, answer, index);
    }
    publish();
}

void RunRecorder::platformCall(const char* event, const QString& text, const SimulatedPlatform::Call& call)
{
    const QLatin1String kind(event);
    if (kind == QLatin1String("write"))
        writeArrived(text, call);
    else if (kind == QLatin1String("message"))
        messageArrived(text, call);
    else
        callAnswered(event, text, call);
    publish();
}

void RunRecorder::finish()
{
    const qint64 now = m_clock();
    for (Span& span : m_spans) {
        if (span.isOpen()) {
            span.endUs = now;
            span.outcome = QStringLiteral("no answer by the end of the run");
        }
    }
    m_openTransitions.clear();
    m_openWrites.clear();
    m_openMessages.clear();
}

void RunRecorder::takeLibraryRecord(const LibraryLog::Record& record)
{
    if (record.isStateChange()) {
        stateChanged(record.node, record.state);
    } else if (record.level >= log4cplus::FATAL_LOG_LEVEL) {
        this->record(QStringLiteral("fatal"), QString(), record.message);
    } else if (record.level >= log4cplus::ERROR_LOG_LEVEL) {
        actionFailed(this->record(QStringLiteral("error"), QString(), record.message));
    } else if (record.level >= m_shownLevel) {
        this->record(QStringLiteral("log"), QString(), record.message);
    }
    publish();
}

void RunRecorder::stateChanged(const QString& node, const QString& state)
{
    const int index = record(QStringLiteral("state"), node, state);
    int open = m_openTransitions.take(node);
    if (open == 0) {
        // On the way and there within one instant, between two looks.
        const QString way =
            state == QLatin1String("enabled") ? QStringLiteral("enabling") : QStringLiteral("disabling");
        open = beginSpan(Span::Transition, node, way, QString(), index);
        m_events[index].beginsSpan = open;
    }
    endSpan(open, state, index);
}

// Opens a transition span for every node found enabling or disabling that
// has none yet, at the time of the latest event.
void RunRecorder::findTransitions()
{
    if (!m_graph || m_events.isEmpty())
        return;
    const int latest = m_events.size() - 1;
    for (const Track& track : qAsConst(m_tracks)) {
        if (track.kind != Track::Node || m_openTransitions.contains(track.name))
            continue;
        const PowerNode* node = m_graph->node(track.name);
        const VelaPowerNodeStates::Enum state = node ? node->state() : VelaPowerNodeStates::initial;
        if (state == VelaPowerNodeStates::enabling || state == VelaPowerNodeStates::disabling)
            m_openTransitions.insert(track.name, beginSpan(Span::Transition, track.name,
                                                           VelaPowerNodeStates::toString(state), QString(), latest));
    }
}

// "<node> failed to <enable|disable> Message: <error>": the library gave up
// on a node's write, because the platform refused it or did not answer in
// time. Ends the node's write span; a write that never reached the platform
// (no one owns its path) gets a span of no length.
void RunRecorder::actionFailed(int eventIndex)
{
    const QString& message = m_events.at(eventIndex).detail;
    static const QString infix = QStringLiteral(" failed to ");
    static const QString marker = QStringLiteral(" Message: ");
    const int at = message.indexOf(infix);
    const int markerAt = message.indexOf(marker);
    if (at <= 0 || markerAt < at)
        return;
    const QString node = message.left(at);
    const QString action = message.mid(at + infix.size(), markerAt - at - infix.size());
    const QString error = message.mid(markerAt + marker.size());
    int span = m_openWrites.take(node);
    if (span == 0) {
        const GraphFile::Resource* resource = m_file.resource(node);
        if (!resource)
            return;
        const GraphFile::Write& write = action == QLatin1String("enable") ? resource->enable : resource->disable;
        span = beginSpan(Span::Write, node, write.key + " = " + write.value.toString(), write.path, eventIndex);
    }
    Span& failed = m_spans[span - 1];
    failed.failed = true;
    failed.timedOut = error == CMVoidReply::ErrorTimeout();
    endSpan(span, error, eventIndex);
}

void RunRecorder::writeArrived(const QString& text, const SimulatedPlatform::Call& call)
{
    const int index = record(QStringLiteral("write"), call.path, text.mid(call.path.size() + 1));
    const QString node = writer(call);
    const int span = beginSpan(Span::Write, node, call.key + " = " + call.value.toString(), call.path, index);
    m_events[index].beginsSpan = span;
    if (answersAtOnce(call.path))
        endSpan(span, QStringLiteral("done"), index);
    else
        m_openWrites.insert(node, span);
}

void RunRecorder::messageArrived(const QString& text, const SimulatedPlatform::Call& call)
{
    const int index = record(QStringLiteral("message"), call.path, text.mid(call.path.size() + 1));
    const GraphFile::Module* module = recipient(call.path);
    const int span = beginSpan(Span::Message, module ? module->name : call.path, messageName(call), call.path, index);
    m_events[index].beginsSpan = span;
    if (answersAtOnce(call.path))
        endSpan(span, QStringLiteral("done"), index);
    else
        m_openMessages[call.path].append(span);
}

// A call not answered at once: "answered" ends its span now, as does "fails"
// for a message; "ignored" leaves it open (a write then ends at its time-out).
void RunRecorder::callAnswered(const char* event, const QString& text, const SimulatedPlatform::Call& call)
{
    const QLatin1String kind(event);
    const int index = record(QString(kind), call.path, text.mid(call.path.size() + 1));
    if (kind == QLatin1String("ignored"))
        return;
    int span = 0;
    if (call.kind == SimulatedPlatform::Call::Write) {
        // A refused write ends when the library takes the refusal (its
        // "failed to" record), which also covers paths no one owns.
        if (kind == QLatin1String("fails"))
            return;
        span = m_openWrites.take(writer(call));
    } else {
        QVector<int>& open = m_openMessages[call.path];
        if (!open.isEmpty())
            span = open.takeFirst();
    }
    if (span == 0)
        return;
    const bool failed = kind == QLatin1String("fails");
    m_spans[span - 1].failed = failed;
    endSpan(span, failed ? text.mid(text.lastIndexOf(QLatin1String(": ")) + 2) : QStringLiteral("done"), index);
}

// "revoke audio, wifi" or "postRevoke audio": what a revoke message is and
// the resources it names.
QString RunRecorder::messageName(const SimulatedPlatform::Call& call) const
{
    const GraphFile::Module* module = recipient(call.path);
    const bool isRevoke = !module || module->revokePath == call.path;
    return (isRevoke ? QStringLiteral("revoke ") : QStringLiteral("postRevoke ")) +
           SimulatedPlatform::revokedResources(call.message).join(QStringLiteral(", "));
}

bool RunRecorder::answersAtOnce(const QString& path) const
{
    return m_file.platform.value(path).kind == GraphFile::Answer::Immediate;
}

// The resource whose write this is (the first in the file that writes this
// path, key and value); the path itself when none does.
QString RunRecorder::writer(const SimulatedPlatform::Call& call) const
{
    for (const GraphFile::Resource& resource : m_file.resources) {
        for (const GraphFile::Write* write : {&resource.enable, &resource.disable}) {
            if (write->present && write->path == call.path && write->key == call.key && write->value == call.value)
                return resource.name;
        }
    }
    return call.path;
}

// The module a revoke path belongs to; null when none declares it.
const GraphFile::Module* RunRecorder::recipient(const QString& path) const
{
    for (const GraphFile::Module& module : m_file.modules) {
        if (module.revokePath == path || module.postRevokePath == path)
            return &module;
    }
    return nullptr;
}

int RunRecorder::record(const QString& kind, const QString& subject, const QString& detail)
{
    Event event;
    event.timeUs = m_clock();
    event.kind = kind;
    event.subject = subject;
    event.detail = detail;
    m_events.append(event);
    return m_events.size() - 1;
}

// Hands the events recorded since the last call to the listener, once the
// spans they open or close are marked on them.
void RunRecorder::publish()
{
    findTransitions();
    while (m_published < m_events.size())
        m_listener(m_events.at(m_published++));
}

// Spans begin and end at the time of the event that causes them, so that
// the trace and the timeline agree to the microsecond on a wall clock too.
int RunRecorder::beginSpan(Span::Kind kind, const QString& track, const QString& name, const QString& path,
                           int eventIndex)
{
    Span span;
    span.id = m_spans.size() + 1;
    span.kind = kind;
    span.track = track;
    span.name = name;
    span.path = path;
    span.beginUs = m_events.at(eventIndex).timeUs;
    m_spans.append(span);
    return span.id;
}

void RunRecorder::endSpan(int id, const QString& outcome, int eventIndex)
{
    Span& span = m_spans[id - 1];
    span.endUs = m_events.at(eventIndex).timeUs;
    span.endEvent = eventIndex;
    span.outcome = outcome;
    m_events[eventIndex].endsSpan = id;
}
