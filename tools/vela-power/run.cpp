// vela-power run: runs a power graph and its scenario against a simulated
// platform and shows what happened: a timeline of requests, signals, revoke
// messages, writes and node states, then the final snapshot of all nodes.

#include "chartwriter.h"
#include "commandline.h"
#include "eventswriter.h"
#include "exitcodes.h"
#include "graphfile.h"
#include "graphinput.h"
#include "graphverifier.h"
#include "interactive.h"
#include "progressline.h"
#include "runrecorder.h"
#include "runsummary.h"
#include "scenariorunner.h"
#include "simulatedrun.h"
#include "simulatedtimedispatcher.h"
#include "snapshot.h"
#include "stopsignals.h"
#include "timeline.h"
#include "tracewriter.h"
#include "verbs.h"
#include "wholefile.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace {

constexpr int defaultTimeoutMs = 60000;

// Findings with errors stop the run unless forced; either way they are
// shown. Returns whether the run may go on.
bool gate(const GraphFile& file, const QString& fileName, bool force)
{
    const QStringList lines = GraphVerifier(file).errorLines(fileName);
    for (const QString& line : lines)
        std::cerr << line.toStdString() << '\n';
    const int errors = lines.size();
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

// The final snapshot, the counts, what is left unanswered or unsent, and
// each request's duration.
void printSummary(const ScenarioRunner& scenario, const RequestDriver& driver, const RunRecorder& recorder,
                  const QByteArray& snapshot)
{
    const int requests = scenario.requestCount();
    std::cout << "\nFinal state of all nodes:\n" << snapshot.toStdString();
    const RunSummary summary(recorder);
    const RunSummary::WriteCounts writes = summary.writes();
    std::cout << driver.answered() << " of " << requests << " requests answered, " << driver.succeeded()
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
    std::cout << "\nRequests:\n";
    for (const QString& line : summary.requestLines(requests))
        std::cout << "  " << line.toStdString() << "\n";
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
    QString reason;
    if (fileName.isEmpty() || writeWholeFile(fileName, content, &reason))
        return true;
    std::cerr << "vela-power run: cannot write " << fileName.toStdString() << ": " << reason.toStdString() << std::endl;
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

bool runIsOnSimulatedTime(const QStringList& arguments)
{
    return !arguments.contains(QStringLiteral("--real-time")) && !arguments.contains(QStringLiteral("--interactive"));
}

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
    if (!loadGraphFile(line, fileName, &file, &exitCode))
        return exitCode;
    if (!gate(file, fileName, parser.isSet(forceOption)))
        return ExitCodes::Problems;
    if (parser.isSet(interactiveOption))
        return InteractiveSession(file, fileName, parser.isSet(verboseOption)).exec();

    StopSignals stop;
    QObject::connect(&stop, &StopSignals::stopRequested, []() { QCoreApplication::quit(); });
    OutputFiles outputs{parser.value(traceOption), parser.value(eventsOption), parser.value(snapshotOption),
                        parser.value(plotOption)};

    // Live on a terminal or on the wall clock; else at the end of each buffer.
    const bool watched = parser.isSet(realTimeOption) || isatty(STDOUT_FILENO);
    Timeline timeline(std::cout, watched ? Timeline::Flushing::EachLine : Timeline::Flushing::WhenFull);
    ProgressLine progress;
    RunRecorder* recording = nullptr;
    const auto showProgress = [&progress, &recording, &file]() {
        if (recording)
            progress.update(recording->requestsAnswered(), recording->requestsSent(), file.requests.size(),
                            recording->nowUs() / 1000);
    };
    RunRecorder recorder(file, SimulatedTimeDispatcher::runClock(), [&](const RunEvent& event) {
        progress.erase();
        timeline.print(event);
        showProgress();
    });
    recording = &recorder;
    if (parser.isSet(verboseOption))
        recorder.showLibraryLog(log4cplus::TRACE_LOG_LEVEL);
    SimulatedRun run(file, recorder);
    ScenarioRunner scenario(file.requests, run.driver(), recorder);
    scenario.start([]() { QCoreApplication::quit(); });
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

    const QByteArray snapshot = GraphSnapshot::json(run.handler().listNodes());
    printSummary(scenario, run.driver(), recorder, snapshot);
    const bool written = writeOutputs(outputs, recorder, snapshot, QFileInfo(fileName).fileName());
    if (stop.caught())
        return stop.caught() == SIGINT ? ExitCodes::Interrupted : ExitCodes::Terminated;
    if (timedOut && !scenario.allAnswered()) {
        std::cerr << "vela-power run: gave up after " << timeoutMs << " ms with requests still unanswered" << std::endl;
        return ExitCodes::Problems;
    }
    return written ? ExitCodes::Success : ExitCodes::Problems;
}
