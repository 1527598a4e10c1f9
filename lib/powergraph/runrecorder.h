#ifndef VELA_POWERGRAPH_RUNRECORDER_H
#define VELA_POWERGRAPH_RUNRECORDER_H

#include "graphfile.h"
#include "libraryrecords.h"
#include "platformcall.h"
#include "runevent.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QVector>

#include <functional>

class PowerGraph;
class PowerNode;

/*
 * Everything a run of a graph does, recorded once, with the time since the
 * run started in microseconds. The text timeline, the events file, the trace
 * and the chart are all written from this one record. It is fed by the
 * library's log (decoded by LibraryRecord), by the platform that serves the
 * library's calls (simulated or real) and by whoever sends the requests.
 * What an event costs does not grow with the graph: the recorder looks only
 * at the nodes the library's records point to, never at all of them. (A node
 * left at rest among those stays looked at until the library returns to its
 * event loop; a run that never returns there while many such nodes wait pays
 * for each of them at every event.)
 *
 * Two kinds of entries:
 *  - events, in the order they happened: a request sent, an answer, a
 *    signal, a write or revoke message arriving at the platform, a node's
 *    state change, an error of the library;
 *  - spans, each on one track (the request queue, a node, a module): a
 *    request from sent to answered, a node from enabling/disabling to its
 *    next state, a write from the platform's receiving it to its answer or
 *    time-out, a revoke message from arrival to answer.
 * An event that opens or closes a span names it, so a span can be followed
 * back to the events around it.
 *
 *   RunRecorder recorder(graph, clock, [&](const RunEvent& e) { timeline.print(e); });
 *   recorder.requestSent(1, "target active");
 *   ...
 *   recorder.finish();   // spans still open end at the run's end
 */
class RunRecorder
{
public:
    using Event = RunEvent;
    struct Span {
        enum Kind { Request, Transition, Write, Message };
        int id = 0;
        Kind kind = Request;
        QString track;
        QString name;
        // The path written to or messaged, for writes and messages.
        QString path;
        qint64 beginUs = 0;
        qint64 endUs = -1;
        // The index of the event that ended it; -1 when the run's end did.
        int endEvent = -1;
        // How it ended: the answer, or the state reached.
        QString outcome;
        bool failed = false;
        bool timedOut = false;

        bool isOpen() const { return endUs < 0; }
        qint64 durationUs() const { return endUs - beginUs; }
    };
    struct Track {
        enum Kind { Requests, Node, Module };
        Kind kind = Requests;
        QString name;
    };
    // Microseconds since the run started.
    using Clock = std::function<qint64()>;
    using Listener = std::function<void(const Event& event)>;

    static const QString requestTrack;

    // The wall clock, zero now.
    static Clock wallClock();

    RunRecorder(const GraphSpec& graph, Clock clock, Listener listener);
    RunRecorder(const RunRecorder&) = delete;
    RunRecorder& operator=(const RunRecorder&) = delete;

    // Watch the states of the graph's nodes: the library reports when a node
    // reaches enabled or disabled, but not when it starts on the way there.
    // The recorder looks at the nodes the records it reads may have set on
    // their way (the node a module's action was set on, the nodes a node
    // locks or releases, the resources a target request cleans up after).
    void watchStates(const PowerGraph& graph);
    // Also record every library log record at `level` and above.
    void showLibraryLog(log4cplus::LogLevel level);

    // An event that belongs to no span.
    void add(Event::Kind kind, const QString& subject, const QString& detail);
    void requestSent(int number, const QString& description);
    void requestAnswered(int number, const QString& answer, bool failed);
    // A call of the platform and what became of it.
    void platformCall(PlatformCall::Step step, const PlatformCall& call);
    // Ends the spans still open now, as never answered.
    void finish();
    // Keeps only what is still open: events once the listener has them, and
    // spans once they and every older span have ended. For a recorder that
    // lives as long as a service and only feeds its listener; events() and
    // spans() then hold only what is still to come or still open.
    void keepOnlyWhatIsOpen() { m_keepsHistory = false; }

    qint64 nowUs() const;
    const QVector<Event>& events() const { return m_events; }
    const QVector<Span>& spans() const { return m_spans; }
    // The request queue, then every node (resources, targets) and every
    // module in the graph's order.
    const QVector<Track>& tracks() const { return m_tracks; }
    int requestsSent() const { return m_requestsSent; }
    int requestsAnswered() const { return m_requestsAnswered; }
    // The request span of request `number`; null if it was never sent.
    const Span* requestSpan(int number) const;

private:
    void takeLibraryRecord(const LibraryRecord& record);
    void noteNodesToLookAt(const LibraryRecord& record);
    void stateChanged(const QString& node, const QString& state);
    void openTransitions();
    void actionFailed(const LibraryRecord& record, int eventIndex);
    void callArrived(const PlatformCall& call);
    void callAnswered(PlatformCall::Step step, const PlatformCall& call);
    int record(Event::Kind kind, const QString& subject, const QString& detail);
    Event& eventAt(int index) { return m_events[index - m_eventBase]; }
    Span& spanAt(int id) { return m_spans[id - 1 - m_spanBase]; }
    void letGoOfWhatIsDone();
    void publish();
    int beginSpan(Span::Kind kind, const QString& track, const QString& name, const QString& path, int eventIndex);
    void endSpan(int id, const QString& outcome, int eventIndex);
    int trackOf(const PowerNode* node) const;
    void lookAtRequiredNodes(int track, QVector<int>* into) const;
    void addCandidates(const QVector<int>& tracks);

    const GraphSpec& m_graph;
    Clock m_clock;
    Listener m_listener;
    // What was let go comes before these: an event's index and a span's id
    // go on from there.
    QVector<Event> m_events;
    int m_eventBase = 0;
    int m_published = 0;
    QVector<Span> m_spans;
    int m_spanBase = 0;
    int m_requestsSent = 0;
    bool m_keepsHistory = true;
    QVector<Track> m_tracks;
    // Open spans: a node's transition and write, by node; a path's messages
    // in arrival order; a request's span by its number.
    QHash<QString, int> m_openTransitions;
    QHash<QString, int> m_openWrites;
    QHash<QString, QVector<int>> m_openMessages;
    QHash<int, int> m_requestSpans;
    int m_requestsAnswered = 0;
    log4cplus::LogLevel m_shownLevel = log4cplus::OFF_LOG_LEVEL;

    // The library's nodes, by track, and the tracks by node and by name.
    QVector<const PowerNode*> m_nodes;
    QHash<const PowerNode*, int> m_nodeTracks;
    QHash<QString, int> m_tracksByName;
    // Nodes whose module action was just set: the library enables or
    // disables them right away, so one look at the next event tells.
    QVector<int> m_lookOnce;
    // Nodes that the library may set off on a transition in a loop it has
    // just begun (releasing a node's dependencies, cleaning up after a
    // request): looked at until the library has gone back to its event loop,
    // by when it has done all it was doing when it logged. Each node once.
    QVector<int> m_candidates;
    QVector<bool> m_isCandidate;
    // Marks of one look over the nodes (its serial number), by track: looked
    // at, or awaited as a node an enabling node locks.
    QVector<quint64> m_lookedAt;
    QVector<quint64> m_awaitedAt;
    quint64 m_looks = 0;
    bool m_candidatesExpire = false;
    QObject m_expiry;
    // Nodes that an enabling node is about to lock: looked at until they
    // have left their resting state.
    QVector<int> m_awaitingLock;
    // Resources never switched yet: a target request's clean-up may disable
    // them.
    QVector<int> m_neverSwitched;
    // Last: records arrive as soon as it exists and use the members above.
    LibraryLogWatcher m_log;
};

// Moved, not copied, when the vector of spans grows.
Q_DECLARE_TYPEINFO(RunRecorder::Span, Q_MOVABLE_TYPE);

#endif
