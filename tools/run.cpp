// vela-power run: runs a power graph and its scenario against a simulated
// platform and shows what happened: a timeline of requests, signals, revoke
// messages, writes and node states, then the final snapshot of all nodes.

#include "chartwriter.h"
#include "commandline.h"
#include "eventswriter.h"
#include "exitcodes.h"
#include "explainer.h"
#include "graphfile.h"
#include "graphverifier.h"
#include "interactive.h"
#include "powergraph.h"
#include "progressline.h"
#include "runrecorder.h"
#include "simulatedplatform.h"
#include "simulatedtimedispatcher.h"
#include "stopsignals.h"
#include "timeline.h"
#include "tracewriter.h"
#include "verbs.h"

#include "PowerHandler.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <algorithm>
#include <iostream>

namespace {

constexpr int defaultTimeoutMs = 60000;

// Issues the file's requests at their times and counts the answers.
class Scenario
{
public:
    Scenario(const PowerGraph& graph, PowerHandler& handler, RunRecorder& recorder)
        : m_graph(graph)
        , m_requests(graph.file().requests)
        , m_handler(handler)
        , m_recorder(recorder)
        , m_sent(m_requests.size(), false)
    {
        QObject::connect(&handler, &PowerHandler::nextTargetChanged, [&recorder](const VelaPowerManagerTarget& t) {
            recorder.add(QStringLiteral("signal"), QStringLiteral("nextTargetChanged"),
                         VelaPowerManagerTargets::toString(t.target()));
        });
        QObject::connect(&handler, &PowerHandler::targetChanged, [&recorder](const VelaPowerManagerTarget& t) {
            recorder.add(QStringLiteral("signal"), QStringLiteral("targetChanged"),
                         VelaPowerManagerTargets::toString(t.target()));
        });
    }

    void start()
    {
        for (int index = 0; index < m_requests.size(); ++index)
            QTimer::singleShot(m_requests.at(index).atMs, [this, index]() { issue(index); });
    }

    bool allAnswered() const { return m_answered == m_requests.size(); }
    int succeeded() const { return m_succeeded; }
    int answered() const { return m_answered; }
    int requestCount() const { return m_requests.size(); }
    int sent() const { return static_cast<int>(std::count(m_sent.begin(), m_sent.end(), true)); }
    // Requests sent and not answered, with the time they were sent.
    QStringList unanswered() const
    {
        QStringList names;
        for (int index = 0; index < m_requests.size(); ++index) {
            const RunRecorder::Span* span = m_recorder.requestSpan(index + 1);
            if (span && span->endEvent < 0)
                names.append(QStringLiteral("%1 (sent at %2 ms)").arg(span->name).arg(span->beginUs / 1000));
        }
        return names;
    }
    QStringList unsent() const
    {
        QStringList names;
        for (int index = 0; index < m_requests.size(); ++index) {
            if (!m_sent.at(index))
                names.append(QStringLiteral("#%1 %2 (due at %3 ms)")
                                 .arg(index + 1)
                                 .arg(m_requests.at(index).describe())
                                 .arg(m_requests.at(index).atMs));
        }
        return names;
    }

private:
    void issue(int index)
    {
        const GraphFile::Request& request = m_requests.at(index);
        const int number = index + 1;
        m_sent[index] = true;
        m_recorder.requestSent(number, request.describe());
        CMReply<QVariant> reply = Explainer::send(m_handler, m_graph, request);
        reply.onFinished([this, number, request](const CMReply<QVariant>& answer) {
            const CMError error = answer.error();
            if (error.isError()) {
                m_recorder.requestAnswered(number, "failed: " + error.message().toString(), true);
                const QString reason = Explainer::whyFailed(m_graph, request);
                if (!reason.isEmpty())
                    m_recorder.add(QStringLiteral("reason"), QStringLiteral("#%1").arg(number), reason);
            } else {
                ++m_succeeded;
                m_recorder.requestAnswered(number, QStringLiteral("done"), false);
            }
            if (++m_answered == m_requests.size())
                QCoreApplication::quit();
        });
    }

    const PowerGraph& m_graph;
    const QList<GraphFile::Request>& m_requests;
    PowerHandler& m_handler;
    RunRecorder& m_recorder;
    QVector<bool> m_sent;
    int m_answered = 0;
    int m_succeeded = 0;
};

// Findings with errors stop the run unless forced; either way they are
// shown. Returns whether the run may go on.
bool gate(const GraphFile& file, const QString& fileName, bool force)
{
    int errors = 0;
    for (const Finding& finding : GraphVerifier(file).findings()) {
        if (finding.severity != Finding::Error)
            continue;
        ++errors;
        std::cerr << QStringLiteral("%1:%2:%3: error: %4: %5\n")
                         .arg(fileName)
                         .arg(finding.place.line)
                         .arg(finding.place.column)
                         .arg(finding.code, finding.message)
                         .toStdString();
    }
    if (errors == 0)
        return true;
    if (force) {
        std::cerr << "vela-power run: running anyway (--force); the library's own refusals show in the timeline"
                  << std::endl;
        return true;
    }
    std::cerr << "vela-power run: " << errors << (errors == 1 ? " error" : " errors")
              << " in the graph; --force runs it anyway" << std::endl;
    return false;
}

// The write or revoke message, among those that began while the request was
// open, that took longest to be answered.
QString longestWait(const RunRecorder& recorder, const RunRecorder::Span& request)
{
    const RunRecorder::Span* longest = nullptr;
    for (const RunRecorder::Span& span : recorder.spans()) {
        if ((span.kind != RunRecorder::Span::Write && span.kind != RunRecorder::Span::Message) ||
            span.beginUs < request.beginUs || span.beginUs > request.endUs)
            continue;
        if (!longest || span.durationUs() > longest->durationUs())
            longest = &span;
    }
    if (!longest)
        return QStringLiteral("no write or revoke message");
    return QStringLiteral("waited longest on the %1 %2 (%3, %4 ms%5)")
        .arg(longest->kind == RunRecorder::Span::Write ? QStringLiteral("write to")
                                                       : QStringLiteral("revoke answer from"))
        .arg(longest->path)
        .arg(longest->track)
        .arg(longest->durationUs() / 1000)
        .arg(longest->timedOut ? QStringLiteral(", timed out") : QString());
}

// Each request's duration and what it waited on longest.
void printRequestDurations(const RunRecorder& recorder, int requestCount)
{
    std::cout << "\nRequests:\n";
    for (int number = 1; number <= requestCount; ++number) {
        const RunRecorder::Span* span = recorder.requestSpan(number);
        if (!span)
            continue;
        const QString answer = span->outcome.startsWith(QLatin1String("failed")) ? QStringLiteral("failed")
                               : span->outcome == QLatin1String("done")          ? QStringLiteral("done")
                                                                                 : QStringLiteral("no answer");
        std::cout << QStringLiteral("  %1: %2 after %3 ms; %4\n")
                         .arg(span->name, answer)
                         .arg(span->durationUs() / 1000)
                         .arg(longestWait(recorder, *span))
                         .toStdString();
    }
}

struct WriteCounts {
    int failed = 0;
    int timedOut = 0;
    int unanswered = 0;
};

WriteCounts countFailedWrites(const RunRecorder& recorder)
{
    WriteCounts counts;
    for (const RunRecorder::Span& span : recorder.spans()) {
        if (span.kind != RunRecorder::Span::Write)
            continue;
        if (span.endEvent < 0)
            ++counts.unanswered;
        if (!span.failed)
            continue;
        ++counts.failed;
        if (span.timedOut)
            ++counts.timedOut;
    }
    return counts;
}

// The final snapshot, the counts, what is left unanswered or unsent, and
// each request's duration.
void printSummary(const Scenario& scenario, const RunRecorder& recorder, const QByteArray& snapshot)
{
    const int requests = scenario.requestCount();
    std::cout << "\nFinal state of all nodes:\n" << snapshot.toStdString();
    const WriteCounts writes = countFailedWrites(recorder);
    std::cout << scenario.answered() << " of " << requests << " requests answered, " << scenario.succeeded()
              << " succeeded\n"
              << writes.failed << " set-data writes failed, " << writes.timedOut << " of them timed out" << std::endl;
    if (writes.unanswered > 0)
        std::cout << writes.unanswered << " set-data writes still unanswered at the end of the run" << std::endl;
    const QStringList unanswered = scenario.unanswered();
    if (!unanswered.isEmpty())
        std::cout << "not answered: " << unanswered.join(QStringLiteral("; ")).toStdString() << std::endl;
    const QStringList unsent = scenario.unsent();
    if (!unsent.isEmpty())
        std::cout << "not sent before the time-out: " << unsent.join(QStringLiteral("; ")).toStdString() << std::endl;
    printRequestDurations(recorder, requests);
    std::cout.flush();
}

// The files a run writes besides its text, each only when asked for.
struct OutputFiles {
    QString trace;
    QString events;
    QString snapshot;
    QString plot;
};

bool writeFile(const QString& fileName, const QByteArray& content)
{
    if (fileName.isEmpty())
        return true;
    QFile file(fileName);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size() && file.flush())
        return true;
    std::cerr << "vela-power run: cannot write " << fileName.toStdString() << ": " << file.errorString().toStdString()
              << std::endl;
    return false;
}

bool writeOutputs(const OutputFiles& files, const RunRecorder& recorder, const QByteArray& snapshot,
                  const QString& runName)
{
    bool written = writeFile(files.snapshot, snapshot);
    if (!files.events.isEmpty())
        written = writeFile(files.events, EventsWriter::write(recorder)) && written;
    if (!files.trace.isEmpty())
        written = writeFile(files.trace, TraceWriter::write(recorder, runName)) && written;
    if (!files.plot.isEmpty())
        written = writeFile(files.plot, ChartWriter::write(recorder, runName)) && written;
    return written;
}

} // namespace

int verbRun(const QStringList& arguments)
{
    CommandLine line(QStringLiteral("run"), QStringLiteral("GRAPH"),
                     QStringLiteral("Runs a power graph and its requests against a simulated platform and shows "
                                    "what happened. A graph in which verify finds errors is refused unless --force "
                                    "is given."));
    const QCommandLineOption timeoutOption(
        QStringLiteral("timeout-ms"),
        QStringLiteral("Give up waiting for answers after <ms> (default %1).").arg(defaultTimeoutMs),
        QStringLiteral("ms"), QString::number(defaultTimeoutMs));
    const QCommandLineOption verboseOption(QStringLiteral("verbose"),
                                           QStringLiteral("Also show the library's own log records."));
    const QCommandLineOption forceOption(QStringLiteral("force"),
                                         QStringLiteral("Run a graph with errors, to watch the library refuse them."));
    const QCommandLineOption realTimeOption(
        QStringLiteral("real-time"),
        QStringLiteral("Follow the wall clock instead of the simulated one (on which time jumps to the next due "
                       "timer whenever nothing else is ready)."));
    const QCommandLineOption traceOption(
        QStringLiteral("trace"),
        QStringLiteral("Also write the run as a Chrome trace-event file (opens in Perfetto) to <file>."),
        QStringLiteral("file"));
    const QCommandLineOption eventsOption(
        QStringLiteral("events"),
        QStringLiteral("Also write the timeline as JSON lines (time in microseconds, kind, "
                       "subject, detail) to <file>."),
        QStringLiteral("file"));
    const QCommandLineOption snapshotOption(
        QStringLiteral("snapshot"), QStringLiteral("Also write the final state of all nodes as JSON to <file>."),
        QStringLiteral("file"));
    const QCommandLineOption plotOption(QStringLiteral("plot"),
                                        QStringLiteral("Also write an SVG chart of the run to <file>."),
                                        QStringLiteral("file"));
    const QCommandLineOption interactiveOption(
        QStringLiteral("interactive"),
        QStringLiteral("Take commands from standard input instead of the file's requests ('help' lists them)."));
    line.parser().addOptions({timeoutOption, verboseOption, forceOption, interactiveOption, realTimeOption, traceOption,
                              eventsOption, snapshotOption, plotOption});
    line.parser().addPositionalArgument(QStringLiteral("GRAPH"), QStringLiteral("The graph and scenario file (JSON)."));
    int exitCode = ExitCodes::Success;
    QString fileName;
    if (!line.parseWithOneGraph(arguments, &exitCode, &fileName))
        return exitCode;
    QCommandLineParser& parser = line.parser();
    bool timeoutValid = false;
    const int timeoutMs = parser.value(timeoutOption).toInt(&timeoutValid);
    if (!timeoutValid || timeoutMs <= 0)
        return line.usageError(QStringLiteral("--timeout-ms needs a positive number of milliseconds"));
    GraphFile file;
    if (!line.loadGraph(fileName, &file, &exitCode))
        return exitCode;
    if (!gate(file, fileName, parser.isSet(forceOption)))
        return ExitCodes::Problems;
    if (parser.isSet(interactiveOption))
        return InteractiveSession(file, fileName, parser.isSet(verboseOption)).exec();

    StopSignals stop;
    QObject::connect(&stop, &StopSignals::stopRequested, []() { QCoreApplication::quit(); });
    OutputFiles outputs{parser.value(traceOption), parser.value(eventsOption), parser.value(snapshotOption),
                        parser.value(plotOption)};

    Timeline timeline(std::cout);
    ProgressLine progress;
    RunRecorder* recording = nullptr;
    const auto showProgress = [&progress, &recording, &file]() {
        if (recording)
            progress.update(recording->requestsAnswered(), recording->requestsSent(), file.requests.size(),
                            recording->nowUs() / 1000);
    };
    RunRecorder recorder(file, RunRecorder::eventLoopClock(), [&](const RunRecorder::Event& event) {
        progress.erase();
        timeline.print(event);
        showProgress();
    });
    recording = &recorder;
    if (parser.isSet(verboseOption))
        recorder.showLibraryLog(log4cplus::TRACE_LOG_LEVEL);
    SimulatedPlatform platform(
        file, SimulatedPlatform::Answering::AsTheFileSays,
        [&recorder](const char* event, const QString& text, const SimulatedPlatform::Call& call) {
            recorder.platformCall(event, text, call);
        });
    PowerGraph graph(file);
    for (const GraphFile::Reference& edge : graph.skippedSelfEdges())
        recorder.add(QStringLiteral("skipped"), edge.name,
                     QStringLiteral("requires itself (line %1, column %2): not given to the library")
                         .arg(edge.place.line)
                         .arg(edge.place.column));
    PowerHandler handler;
    graph.registerWith(handler);
    recorder.watchStates(graph);

    Scenario scenario(graph, handler, recorder);
    scenario.start();
    bool timedOut = false;
    QTimer::singleShot(timeoutMs, [&timedOut]() {
        timedOut = true;
        QCoreApplication::quit();
    });
    // On the wall clock nothing may happen for a while: keep the progress
    // line moving. (On simulated time every event redraws it.)
    QTimer progressTimer;
    QObject::connect(&progressTimer, &QTimer::timeout, showProgress);
    if (progress.isShown() && parser.isSet(realTimeOption))
        progressTimer.start(200);
    if (!scenario.allAnswered())
        QCoreApplication::exec();
    progressTimer.stop();
    progress.erase();
    recorder.finish();
    if (stop.caught())
        std::cerr << "vela-power run: stopped by " << StopSignals::name(stop.caught()) << std::endl;

    const QByteArray snapshot =
        QJsonDocument(QJsonObject::fromVariantHash(handler.listNodes())).toJson(QJsonDocument::Indented);
    printSummary(scenario, recorder, snapshot);
    const bool written = writeOutputs(outputs, recorder, snapshot, QFileInfo(fileName).fileName());
    if (stop.caught())
        return stop.caught() == SIGINT ? ExitCodes::Interrupted : ExitCodes::Terminated;
    if (timedOut && !scenario.allAnswered()) {
        std::cerr << "vela-power run: gave up after " << timeoutMs << " ms with requests still unanswered"
                  << std::endl;
        return ExitCodes::Problems;
    }
    return written ? ExitCodes::Success : ExitCodes::Problems;
}
