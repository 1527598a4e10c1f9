#include "runrecorder.h"

#include "powergraph.h"

#include "PowerNode.h"
#include "cmreply.h"

#include <QElapsedTimer>

#include <algorithm>

const QString RunRecorder::requestTrack = QStringLiteral("requests");

RunRecorder::Clock RunRecorder::wallClock()
{
    QElapsedTimer wall;
    wall.start();
    return [wall]() { return wall.nsecsElapsed() / 1000; };
}

RunRecorder::RunRecorder(const GraphSpec& graph, Clock clock, Listener listener)
    : m_graph(graph)
    , m_clock(std::move(clock))
    , m_listener(std::move(listener))
    , m_log([this](const LibraryRecord& record) { takeLibraryRecord(record); })
{
    m_tracks.append({Track::Requests, requestTrack});
    for (const GraphSpec::Resource& resource : graph.resources)
        m_tracks.append({Track::Node, resource.name});
    for (const GraphSpec::Target& target : graph.targets)
        m_tracks.append({Track::Node, target.name});
    for (const GraphSpec::Module& module : graph.modules)
        m_tracks.append({Track::Module, module.name});
    m_tracksByName.reserve(m_tracks.size());
    // Backwards, so that of two tracks of one name the first is found.
    for (int track = m_tracks.size() - 1; track > 0; --track)
        m_tracksByName.insert(m_tracks.at(track).name, track);
}

void RunRecorder::watchStates(const PowerGraph& graph)
{
    m_nodes = QVector<const PowerNode*>(m_tracks.size(), nullptr);
    m_nodeTracks.reserve(m_tracks.size());
    for (int track = 1; track < m_tracks.size(); ++track) {
        if (m_tracks.at(track).kind != Track::Node)
            continue;
        const PowerNode* node = graph.node(m_tracks.at(track).name);
        m_nodes[track] = node;
        if (node && !m_nodeTracks.contains(node))
            m_nodeTracks.insert(node, track);
    }
    for (int track = 1; track <= m_graph.resources.size(); ++track)
        m_neverSwitched.append(track);
    m_isCandidate = QVector<bool>(m_tracks.size(), false);
    m_lookedAt = QVector<quint64>(m_tracks.size(), 0);
    m_awaitedAt = QVector<quint64>(m_tracks.size(), 0);
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
    return found == m_requestSpans.constEnd() ? nullptr : &m_spans.at(found.value() - 1 - m_spanBase);
}

void RunRecorder::add(Event::Kind kind, const QString& subject, const QString& detail)
{
    record(kind, subject, detail);
    publish();
}

void RunRecorder::requestSent(int number, const QString& description)
{
    const QString subject = QLatin1Char('#') + QString::number(number);
    const int index = record(Event::Kind::Request, subject, description);
    const int span = beginSpan(Span::Request, requestTrack, subject + ' ' + description, QString(), index);
    m_requestSpans.insert(number, span);
    ++m_requestsSent;
    eventAt(index).beginsSpan = span;
    publish();
}

void RunRecorder::requestAnswered(int number, const QString& answer, bool failed)
{
    const int index = record(Event::Kind::Answer, QLatin1Char('#') + QString::number(number), answer);
    const int span = m_requestSpans.value(number);
    ++m_requestsAnswered;
    if (span != 0) {
        spanAt(span).failed = failed;
        endSpan(span, answer, index);
    }
    publish();
}

void RunRecorder::platformCall(PlatformCall::Step step, const PlatformCall& call)
{
    if (step == PlatformCall::Arrived)
        callArrived(call);
    else
        callAnswered(step, call);
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

void RunRecorder::takeLibraryRecord(const LibraryRecord& record)
{
    if (record.kind == LibraryRecord::Kind::StateChanged) {
        stateChanged(record.node, record.state);
    } else if (record.level >= log4cplus::FATAL_LOG_LEVEL) {
        this->record(Event::Kind::Fatal, QString(), record.text());
    } else if (record.level >= log4cplus::ERROR_LOG_LEVEL) {
        const int index = this->record(Event::Kind::Error, QString(), record.text());
        if (record.kind == LibraryRecord::Kind::ActionFailed)
            actionFailed(record, index);
    } else if (record.level >= m_shownLevel) {
        this->record(Event::Kind::Log, QString(), record.text());
    }
    publish();
    noteNodesToLookAt(record);
}

/*
 * What the library does right after writing `record` may set nodes on their
 * way to enabled or disabled, which it does not log: the node whose module
 * action was set is enabled or disabled; a node that has become disabled
 * releases the nodes it requires, one after another; a finished request may
 * disable the resources never switched, one after another.
 */
void RunRecorder::noteNodesToLookAt(const LibraryRecord& record)
{
    if (m_nodes.isEmpty())
        return;
    QVector<int> tracks;
    switch (record.kind) {
    case LibraryRecord::Kind::ModuleActionSet: {
        const int track = m_tracksByName.value(record.node);
        if (m_nodes.value(track))
            m_lookOnce.append(track);
        break;
    }
    case LibraryRecord::Kind::StateChanged:
        if (record.state == VelaPowerNodeStates::toString(VelaPowerNodeStates::disabled))
            lookAtRequiredNodes(m_tracksByName.value(record.node), &tracks);
        break;
    case LibraryRecord::Kind::RequestFinished: {
        const auto switched = [this](int track) { return m_nodes.at(track)->state() != VelaPowerNodeStates::initial; };
        m_neverSwitched.erase(std::remove_if(m_neverSwitched.begin(), m_neverSwitched.end(), switched),
                              m_neverSwitched.end());
        tracks = m_neverSwitched;
        break;
    }
    default:
        break;
    }
    addCandidates(tracks);
}

void RunRecorder::addCandidates(const QVector<int>& tracks)
{
    for (int track : tracks) {
        if (!m_isCandidate.at(track)) {
            m_isCandidate[track] = true;
            m_candidates.append(track);
        }
    }
    if (m_candidates.isEmpty() || m_candidatesExpire)
        return;
    m_candidatesExpire = true;
    QMetaObject::invokeMethod(
        &m_expiry,
        [this]() {
            for (int track : qAsConst(m_candidates))
                m_isCandidate[track] = false;
            m_candidates.clear();
            m_candidatesExpire = false;
        },
        Qt::QueuedConnection);
}

void RunRecorder::lookAtRequiredNodes(int track, QVector<int>* into) const
{
    const PowerNode* node = track > 0 ? m_nodes.at(track) : nullptr;
    if (!node)
        return;
    for (const PowerNode* required : node->requiredNodes(false)) {
        const int requiredTrack = trackOf(required);
        if (requiredTrack > 0)
            into->append(requiredTrack);
    }
}

int RunRecorder::trackOf(const PowerNode* node) const
{
    return m_nodeTracks.value(node);
}

void RunRecorder::stateChanged(const QString& node, const QString& state)
{
    const int index = record(Event::Kind::State, node, state);
    int open = m_openTransitions.take(node);
    if (open == 0) {
        // On the way and there within one instant, between two looks.
        const QString way =
            state == QLatin1String("enabled") ? QStringLiteral("enabling") : QStringLiteral("disabling");
        open = beginSpan(Span::Transition, node, way, QString(), index);
        eventAt(index).beginsSpan = open;
    }
    endSpan(open, state, index);
}

/*
 * Opens a transition span, at the time of the latest event, for every node
 * found enabling or disabling that has none yet. Only a candidate can be
 * such a node, or a node that an enabling node locks: an enabling node locks
 * every node it requires before it goes on, so those it has not reached yet
 * are looked at again until it has. Spans open in the order of the tracks,
 * as a look at every node would open them.
 */
void RunRecorder::openTransitions()
{
    if (m_nodes.isEmpty() || m_events.isEmpty() ||
        (m_lookOnce.isEmpty() && m_candidates.isEmpty() && m_awaitingLock.isEmpty()))
        return;
    const quint64 look = ++m_looks;
    QVector<int> toLook;
    toLook.swap(m_awaitingLock);
    for (int track : qAsConst(toLook))
        m_awaitedAt[track] = look;
    toLook += m_lookOnce;
    m_lookOnce.clear();
    // A candidate at rest (or not yet moved) is kept until it expires; one
    // that has moved and come to rest again is done.
    int kept = 0;
    for (int track : qAsConst(m_candidates)) {
        const VelaPowerNodeStates::Enum state = m_nodes.at(track)->state();
        const bool done = m_openTransitions.contains(m_tracks.at(track).name) ||
                          state == VelaPowerNodeStates::enabling || state == VelaPowerNodeStates::disabling ||
                          state == VelaPowerNodeStates::disabled;
        if (!done)
            m_candidates[kept++] = track;
        else
            m_isCandidate[track] = false;
        toLook.append(track);
    }
    m_candidates.resize(kept);
    QVector<int> found;
    for (int next = 0; next < toLook.size(); ++next) {
        const int track = toLook.at(next);
        if (m_lookedAt.at(track) == look)
            continue;
        m_lookedAt[track] = look;
        if (m_openTransitions.contains(m_tracks.at(track).name))
            continue;
        const VelaPowerNodeStates::Enum state = m_nodes.at(track)->state();
        if (state != VelaPowerNodeStates::enabling && state != VelaPowerNodeStates::disabling)
            continue;
        found.append(track);
        if (state == VelaPowerNodeStates::enabling) {
            const int before = toLook.size();
            lookAtRequiredNodes(track, &toLook);
            for (int index = before; index < toLook.size(); ++index)
                m_awaitedAt[toLook.at(index)] = look;
        }
    }
    // An enabling node locks every node it requires before it goes on, so
    // one still at rest is about to be locked.
    for (int track : qAsConst(toLook)) {
        if (m_awaitedAt.at(track) != look)
            continue;
        m_awaitedAt[track] = 0;
        const VelaPowerNodeStates::Enum state = m_nodes.at(track)->state();
        if (state == VelaPowerNodeStates::initial || state == VelaPowerNodeStates::disabled)
            m_awaitingLock.append(track);
    }
    std::sort(found.begin(), found.end());
    const int latest = m_eventBase + m_events.size() - 1;
    for (int track : qAsConst(found)) {
        const QString& name = m_tracks.at(track).name;
        const VelaPowerNodeStates::Enum state = m_nodes.at(track)->state();
        m_openTransitions.insert(
            name, beginSpan(Span::Transition, name, VelaPowerNodeStates::toString(state), QString(), latest));
    }
}

// The library gave up on a node's write, because the platform refused it or
// did not answer in time. Ends the node's write span; a write that never
// reached the platform (no one owns its path) gets a span of no length.
void RunRecorder::actionFailed(const LibraryRecord& failure, int eventIndex)
{
    int span = m_openWrites.take(failure.node);
    if (span == 0) {
        const int track = m_tracksByName.value(failure.node);
        if (track <= 0 || track > m_graph.resources.size())
            return;
        const GraphSpec::Resource& resource = m_graph.resources.at(track - 1);
        const GraphSpec::Write& write = failure.action == QLatin1String("enable") ? resource.enable : resource.disable;
        span = beginSpan(Span::Write, failure.node, write.key + " = " + write.value.toString(), write.path, eventIndex);
        eventAt(eventIndex).beginsSpan = span;
    }
    Span& failed = spanAt(span);
    failed.failed = true;
    failed.timedOut = failure.error == CMVoidReply::ErrorTimeout();
    endSpan(span, failure.error, eventIndex);
}

void RunRecorder::callArrived(const PlatformCall& call)
{
    if (call.kind == PlatformCall::Write) {
        // "key = value": the event's detail and the span's name, one text.
        const QString text = call.text();
        const int index = record(Event::Kind::Write, call.path, text);
        const QString node = call.resource.isEmpty() ? call.path : call.resource;
        const int span = beginSpan(Span::Write, node, text, call.path, index);
        eventAt(index).beginsSpan = span;
        if (call.answeredAtOnce)
            endSpan(span, QStringLiteral("done"), index);
        else
            m_openWrites.insert(node, span);
        return;
    }
    const int index = record(Event::Kind::Message, call.path, call.text());
    const int span =
        beginSpan(Span::Message, call.module.isEmpty() ? call.path : call.module, call.messageName(), call.path, index);
    eventAt(index).beginsSpan = span;
    if (call.answeredAtOnce)
        endSpan(span, QStringLiteral("done"), index);
    else
        m_openMessages[call.path].append(span);
}

// A call not answered at once: a late answer ends its span now, as does a
// refusal of a message; a call that will never be answered stays open (a
// write then ends at its time-out).
void RunRecorder::callAnswered(PlatformCall::Step step, const PlatformCall& call)
{
    const bool failed = step == PlatformCall::Failed;
    const QString detail = failed ? call.text() + QStringLiteral(": ") + call.error : call.text();
    const Event::Kind kind = failed                           ? Event::Kind::Fails
                             : step == PlatformCall::Answered ? Event::Kind::Answered
                                                              : Event::Kind::Ignored;
    const int index = record(kind, call.path, detail);
    if (step == PlatformCall::Ignored)
        return;
    int span = 0;
    if (call.kind == PlatformCall::Write) {
        // A refused write ends when the library takes the refusal (its
        // failed action record), which also covers paths no one owns.
        if (failed)
            return;
        span = m_openWrites.take(call.resource.isEmpty() ? call.path : call.resource);
    } else {
        QVector<int>& open = m_openMessages[call.path];
        if (!open.isEmpty())
            span = open.takeFirst();
    }
    if (span == 0)
        return;
    spanAt(span).failed = failed;
    endSpan(span, failed ? call.error : QStringLiteral("done"), index);
}

int RunRecorder::record(Event::Kind kind, const QString& subject, const QString& detail)
{
    Event event;
    event.timeUs = m_clock();
    event.kind = kind;
    event.subject = subject;
    event.detail = detail;
    m_events.append(event);
    return m_eventBase + m_events.size() - 1;
}

// Hands the events recorded since the last call to the listener, once the
// spans they open or close are marked on them.
void RunRecorder::publish()
{
    openTransitions();
    while (m_published < m_events.size())
        m_listener(m_events.at(m_published++));
    if (!m_keepsHistory)
        letGoOfWhatIsDone();
}

// Published events are not looked at again, nor are spans that have ended:
// they go, the oldest first (up to the oldest span still open, in batches,
// so that each costs little), and the numbering goes on.
void RunRecorder::letGoOfWhatIsDone()
{
    m_eventBase += m_published;
    m_events.remove(0, m_published);
    m_published = 0;
    int ended = 0;
    while (ended < m_spans.size() && !m_spans.at(ended).isOpen())
        ++ended;
    if (ended == 0 || ended * 2 < m_spans.size())
        return;
    m_spanBase += ended;
    m_spans.remove(0, ended);
    for (auto request = m_requestSpans.begin(); request != m_requestSpans.end();) {
        if (request.value() <= m_spanBase)
            request = m_requestSpans.erase(request);
        else
            ++request;
    }
}

// Spans begin and end at the time of the event that causes them, so that
// the trace and the timeline agree to the microsecond on a wall clock too.
int RunRecorder::beginSpan(Span::Kind kind, const QString& track, const QString& name, const QString& path,
                           int eventIndex)
{
    Span span;
    span.id = m_spanBase + m_spans.size() + 1;
    span.kind = kind;
    span.track = track;
    span.name = name;
    span.path = path;
    span.beginUs = eventAt(eventIndex).timeUs;
    m_spans.append(span);
    return span.id;
}

void RunRecorder::endSpan(int id, const QString& outcome, int eventIndex)
{
    Span& span = spanAt(id);
    span.endUs = eventAt(eventIndex).timeUs;
    span.endEvent = eventIndex;
    span.outcome = outcome;
    eventAt(eventIndex).endsSpan = id;
}
