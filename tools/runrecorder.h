#ifndef VELA_TOOLS_RUNRECORDER_H
#define VELA_TOOLS_RUNRECORDER_H

#include "graphfile.h"
#include "librarylog.h"
#include "simulatedplatform.h"

#include <QHash>
#include <QString>
#include <QVector>

#include <functional>

class PowerGraph;

/*
 * Everything a run of a graph does, recorded once, with the time since the
 * run started in microseconds. The text timeline, the events file, the trace
 * and the chart are all written from this one record.
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
 *   RunRecorder recorder(file, clock, [&](const RunRecorder::Event& e) { timeline.print(e); });
 *   recorder.requestSent(1, "target active");
 *   ...
 *   recorder.finish();   // spans still open end at the run's end
 */
class RunRecorder
{
public:
    struct Event {
        qint64 timeUs = 0;
        QString kind;
        // Who or what it is about (a request "#1", a node, a path, a signal),
        // and the rest of what happened.
        QString subject;
        QString detail;
        // The span this event opens or closes; 0 for none.
        int beginsSpan = 0;
        int endsSpan = 0;
    };
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

    // The event loop's clock: the simulated one when the application runs
    // on a SimulatedTimeDispatcher, else the wall clock; zero now.
    static Clock eventLoopClock();

    RunRecorder(const GraphFile& file, Clock clock, Listener listener);
    RunRecorder(const RunRecorder&) = delete;
    RunRecorder& operator=(const RunRecorder&) = delete;

    // Watch the states of the graph's nodes: the library reports when a node
    // reaches enabled or disabled, but not when it starts on the way there,
    // so the recorder looks at every node's state after each event.
    void watchStates(const PowerGraph& graph);
    // Also record every library log record at `level` and above.
    void showLibraryLog(log4cplus::LogLevel level);

    // An event that belongs to no span.
    void add(const QString& kind, const QString& subject, const QString& detail);
    void requestSent(int number, const QString& description);
    void requestAnswered(int number, const QString& answer, bool failed);
    // A call of the simulated platform, as its listener reports it.
    void platformCall(const char* event, const QString& text, const SimulatedPlatform::Call& call);
    // Ends the spans still open now, as never answered.
    void finish();

    qint64 nowUs() const;
    const QVector<Event>& events() const { return m_events; }
    const QVector<Span>& spans() const { return m_spans; }
    // The request queue, then every node (resources, targets) and every
    // module in the file's order.
    const QVector<Track>& tracks() const { return m_tracks; }
    int requestsSent() const { return m_requestSpans.size(); }
    int requestsAnswered() const { return m_requestsAnswered; }
    // The request span of request `number`; null if it was never sent.
    const Span* requestSpan(int number) const;

private:
    void takeLibraryRecord(const LibraryLog::Record& record);
    void stateChanged(const QString& node, const QString& state);
    void findTransitions();
    void actionFailed(int eventIndex);
    void writeArrived(const QString& text, const SimulatedPlatform::Call& call);
    void messageArrived(const QString& text, const SimulatedPlatform::Call& call);
    void callAnswered(const char* event, const QString& text, const SimulatedPlatform::Call& call);
    bool answersAtOnce(const QString& path) const;
    QString messageName(const SimulatedPlatform::Call& call) const;
    QString writer(const SimulatedPlatform::Call& call) const;
    const GraphFile::Module* recipient(const QString& path) const;
    int record(const QString& kind, const QString& subject, const QString& detail);
    void publish();
    int beginSpan(Span::Kind kind, const QString& track, const QString& name, const QString& path, int eventIndex);
    void endSpan(int id, const QString& outcome, int eventIndex);

    const GraphFile& m_file;
    const PowerGraph* m_graph = nullptr;
    Clock m_clock;
    Listener m_listener;
    QVector<Event> m_events;
    int m_published = 0;
    QVector<Span> m_spans;
    QVector<Track> m_tracks;
    // Open spans: a node's transition and write, by node; a path's messages
    // in arrival order; a request's span by its number.
    QHash<QString, int> m_openTransitions;
    QHash<QString, int> m_openWrites;
    QHash<QString, QVector<int>> m_openMessages;
    QHash<int, int> m_requestSpans;
    int m_requestsAnswered = 0;
    log4cplus::LogLevel m_shownLevel = log4cplus::OFF_LOG_LEVEL;
    LibraryLog m_log;
};

#endif
