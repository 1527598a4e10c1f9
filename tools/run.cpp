// vela-power run: runs a power graph and its scenario against a simulated
// platform and shows what happened: a timeline of requests, signals, revoke
// messages, writes and node states, then the final snapshot of all nodes.

#include "commandline.h"
#include "exitcodes.h"
#include "explainer.h"
#include "graphfile.h"
#include "graphverifier.h"
#include "interactive.h"
#include "librarylog.h"
#include "powergraph.h"
#include "simulatedplatform.h"
#include "timeline.h"
#include "verbs.h"

#include "PowerHandler.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <iostream>

namespace {

constexpr int defaultTimeoutMs = 60000;

// Issues the file's requests at their times and counts the answers.
class Scenario
{
public:
    Scenario(const PowerGraph& graph, PowerHandler& handler, Timeline& timeline)
        : m_graph(graph)
        , m_requests(graph.file().requests)
        , m_handler(handler)
        , m_timeline(timeline)
        , m_sent(m_requests.size(), false)
    {
        QObject::connect(&handler, &PowerHandler::nextTargetChanged, [&timeline](const VelaPowerManagerTarget& t) {
            timeline.add("signal", "nextTargetChanged " + VelaPowerManagerTargets::toString(t.target()));
        });
        QObject::connect(&handler, &PowerHandler::targetChanged, [&timeline](const VelaPowerManagerTarget& t) {
            timeline.add("signal", "targetChanged " + VelaPowerManagerTargets::toString(t.target()));
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
        m_timeline.add("request", QStringLiteral("#%1 %2").arg(number).arg(request.describe()));
        CMReply<QVariant> reply = Explainer::send(m_handler, m_graph, request);
        reply.onFinished([this, number, request](const CMReply<QVariant>& answer) {
            const CMError error = answer.error();
            if (error.isError()) {
                m_timeline.add("answer", QStringLiteral("#%1 failed: %2").arg(number).arg(error.message().toString()));
                const QString reason = Explainer::whyFailed(m_graph, request);
                if (!reason.isEmpty())
                    m_timeline.add("reason", QStringLiteral("#%1 %2").arg(number).arg(reason));
            } else {
                ++m_succeeded;
                m_timeline.add("answer", QStringLiteral("#%1 done").arg(number));
            }
            if (++m_answered == m_requests.size())
                QCoreApplication::quit();
        });
    }

    const PowerGraph& m_graph;
    const QList<GraphFile::Request>& m_requests;
    PowerHandler& m_handler;
    Timeline& m_timeline;
    QVector<bool> m_sent;
    int m_answered = 0;
    int m_succeeded = 0;
};

// Counts the resource actions the library reports as failed, and among them
// those that ran out of time.
class WriteFailures
{
public:
    WriteFailures()
        : m_log([this](const LibraryLog::Record& record) { take(record); })
    {
    }

    int failed() const { return m_failed; }
    int timedOut() const { return m_timedOut; }

private:
    void take(const LibraryLog::Record& record)
    {
        static const QString marker = QStringLiteral(" Message: ");
        const int at = record.message.indexOf(marker);
        if (record.level < log4cplus::ERROR_LOG_LEVEL || !record.message.contains(QLatin1String(" failed to "))
            || at < 0)
            return;
        ++m_failed;
        if (record.message.mid(at + marker.size()) == CMVoidReply::ErrorTimeout())
            ++m_timedOut;
    }

    int m_failed = 0;
    int m_timedOut = 0;
    LibraryLog m_log;
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
    const QCommandLineOption interactiveOption(
        QStringLiteral("interactive"),
        QStringLiteral("Take commands from standard input instead of the file's requests ('help' lists them)."));
    line.parser().addOptions({timeoutOption, verboseOption, forceOption, interactiveOption});
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

    Timeline timeline(std::cout);
    if (parser.isSet(verboseOption))
        timeline.showLibraryLog(log4cplus::TRACE_LOG_LEVEL);
    WriteFailures writeFailures;
    SimulatedPlatform platform(file, SimulatedPlatform::Answering::AsTheFileSays,
                               [&timeline](const char* event, const QString& text, const SimulatedPlatform::Call&) {
                                   timeline.add(event, text);
                               });
    PowerGraph graph(file);
    for (const GraphFile::Reference& edge : graph.skippedSelfEdges())
        timeline.add("skipped", QStringLiteral("%1 requires itself (line %2, column %3): not given to the library")
                                    .arg(edge.name)
                                    .arg(edge.place.line)
                                    .arg(edge.place.column));
    PowerHandler handler;
    graph.registerWith(handler);

    Scenario scenario(graph, handler, timeline);
    scenario.start();
    bool timedOut = false;
    QTimer::singleShot(timeoutMs, [&timedOut]() {
        timedOut = true;
        QCoreApplication::quit();
    });
    if (!scenario.allAnswered())
        QCoreApplication::exec();

    std::cout << "\nFinal state of all nodes:\n"
              << QJsonDocument(QJsonObject::fromVariantHash(handler.listNodes()))
                     .toJson(QJsonDocument::Indented)
                     .toStdString();
    std::cout << scenario.answered() << " of " << file.requests.size() << " requests answered, "
              << scenario.succeeded() << " succeeded\n"
              << writeFailures.failed() << " set-data writes failed, " << writeFailures.timedOut()
              << " of them timed out" << std::endl;
    const QStringList unsent = scenario.unsent();
    if (!unsent.isEmpty())
        std::cout << "not sent before the time-out: " << unsent.join(QStringLiteral("; ")).toStdString() << std::endl;
    if (timedOut && !scenario.allAnswered()) {
        std::cerr << "vela-power run: gave up after " << timeoutMs << " ms with requests still unanswered"
                  << std::endl;
        return ExitCodes::Problems;
    }
    return ExitCodes::Success;
}
