// vela-powerd: the power manager as a D-Bus service. It loads one graph file,
// writes its resources' values to the hardware controls the file names, and
// takes modules' registrations and requests on the bus as org.vela.Power1.

#include "commandline.h"
#include "eventswriter.h"
#include "graphfile.h"
#include "graphverifier.h"
#include "hardwareplatform.h"
#include "monitorservice.h"
#include "powergraph.h"
#include "powermanagerservice.h"
#include "requestdriver.h"
#include "runrecorder.h"
#include "stopsignals.h"
#include "tracewriter.h"
#include "wholefile.h"

#include "PowerHandler.h"
#include "dbglog.h"

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDir>
#include <QFileInfo>
#include <QPointer>

#include <iostream>
#include <memory>

namespace {

const char* const program = "vela-powerd";

QString exitCodes()
{
    return QStringLiteral("Exit codes:\n"
                          "  0  stopped by SIGINT or SIGTERM\n"
                          "  1  the graph has errors (verify's, unless --force), names a written path without a "
                          "control this service drives, or the bus or the name org.vela.Power1 cannot be had\n"
                          "  2  invalid input: a bad command line, or a file that cannot be read or is not a valid "
                          "graph file\n");
}

int fail(const QString& message, int exitCode)
{
    std::cerr << program << ": " << message.toStdString() << std::endl;
    return exitCode;
}

// Errors of verify stop the start unless forced; warnings are not shown.
bool verified(const GraphFile& file, const QString& fileName, bool force)
{
    const QStringList lines = GraphVerifier(file).errorLines(fileName);
    for (const QString& line : lines)
        std::cerr << line.toStdString() << '\n';
    return lines.isEmpty() || force;
}

// The library's log: as a log4cplus properties file says, else to standard
// error at INFO (a unit's standard error goes to the journal).
void setUpLog(const QString& configFile)
{
    if (!configFile.isEmpty()) {
        log4cplus::PropertyConfigurator::doConfigure(configFile.toStdString());
        return;
    }
    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true));
    // The recorder lowers the logger to DEBUG to see state changes; they
    // are not for the journal.
    console->setThreshold(log4cplus::INFO_LOG_LEVEL);
    console->setLayout(std::unique_ptr<log4cplus::Layout>(new log4cplus::PatternLayout("%-5p %c: %m%n")));
    vela::powerManagerLogger().addAppender(console);
    vela::powerManagerLogger().setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

// Writes the files asked for; says why one could not be written.
bool writeRecord(RunRecorder& recorder, const QString& traceFile, const QString& eventsFile, const QString& runName)
{
    recorder.finish();
    bool written = true;
    const QList<QPair<QString, QByteArray>> files{
        {traceFile, traceFile.isEmpty() ? QByteArray() : TraceWriter::write(recorder, runName)},
        {eventsFile, eventsFile.isEmpty() ? QByteArray() : EventsWriter::write(recorder)}};
    for (const auto& output : files) {
        QString reason;
        if (output.first.isEmpty() || writeWholeFile(output.first, output.second, &reason))
            continue;
        fail(QStringLiteral("cannot write %1: %2").arg(output.first, reason), 1);
        written = false;
    }
    return written;
}

QDBusConnection connectTo(const QString& bus)
{
    if (bus == QLatin1String("system"))
        return QDBusConnection::systemBus();
    if (bus == QLatin1String("session"))
        return QDBusConnection::sessionBus();
    return QDBusConnection::connectToBus(bus, QStringLiteral("vela-powerd"));
}

} // namespace

int main(int argc, char** argv)
{
    qSetGlobalQHashSeed(0);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QLatin1String(program));
    CommandLine line(CommandLine::Invocation{QLatin1String(program)}, QStringLiteral("GRAPH"),
                     QStringLiteral("Runs the power manager for the graph in GRAPH as the D-Bus service "
                                    "org.vela.Power1, writing to the hardware controls the file names."));
    line.setExitCodes(exitCodes());
    const QCommandLineOption busOption(QStringLiteral("bus"),
                                       QStringLiteral("The bus: system (the default), session or an address."),
                                       QStringLiteral("bus"), QStringLiteral("system"));
    const QCommandLineOption startOption(QStringLiteral("start-target"),
                                         QStringLiteral("Ask for <target> once the name is owned."),
                                         QStringLiteral("target"));
    const QCommandLineOption forceOption(QStringLiteral("force"),
                                         QStringLiteral("Start even when verify finds errors in the graph."));
    const QCommandLineOption logOption(QStringLiteral("log-config"),
                                       QStringLiteral("Configure the library's log from the log4cplus properties "
                                                      "<file> (default: standard error, INFO and above)."),
                                       QStringLiteral("file"));
    const QCommandLineOption revokeOption(
        QStringLiteral("revoke-timeout-ms"),
        QStringLiteral("How long a module may take to answer a revoke message (default 5000)."), QStringLiteral("ms"),
        QStringLiteral("5000"));
    const QCommandLineOption groupOption(
        QStringLiteral("target-group"),
        QStringLiteral("The group whose members may request targets, besides root (default vela-power)."),
        QStringLiteral("group"), QLatin1String(PowerManagerService::defaultTargetGroup));
    const QCommandLineOption rootOption(
        QStringLiteral("controls-root"),
        QStringLiteral("Write sysfs attributes under <dir> instead of / (a copy of a board's attribute files, for "
                       "tests and bring-up)."),
        QStringLiteral("dir"));
    const QCommandLineOption traceOption(
        QStringLiteral("trace"),
        QStringLiteral("When stopped, write what the service did as a Chrome trace-event file (opens in Perfetto)."),
        QStringLiteral("file"));
    const QCommandLineOption eventsOption(
        QStringLiteral("events"),
        QStringLiteral("When stopped, write what the service did as JSON lines (time in microseconds, kind, "
                       "subject, detail)."),
        QStringLiteral("file"));
    line.parser().addOptions({busOption, startOption, forceOption, logOption, revokeOption, groupOption, rootOption,
                              traceOption, eventsOption});
    line.parser().addPositionalArgument(QStringLiteral("GRAPH"), QStringLiteral("The graph file (JSON)."));
    int exitCode = 0;
    QString fileName;
    if (!line.parseWithOneGraph(app.arguments(), &exitCode, &fileName))
        return exitCode;

    bool revokeTimeoutValid = false;
    const int revokeTimeoutMs = line.parser().value(revokeOption).toInt(&revokeTimeoutValid);
    if (!revokeTimeoutValid || revokeTimeoutMs <= 0)
        return line.usageError(QStringLiteral("--revoke-timeout-ms needs a positive number of milliseconds"));
    const QString logConfig = line.parser().value(logOption);
    if (!logConfig.isEmpty() && !QFileInfo(logConfig).isReadable())
        return fail(QStringLiteral("--log-config: cannot read %1").arg(logConfig), 2);
    setUpLog(logConfig);

    GraphFile file;
    GraphFile::Failure failure;
    if (!GraphFile::load(fileName, &file, &failure))
        return fail(failure.message(), 2);
    if (!file.requests.isEmpty() || !file.platform.isEmpty())
        std::cerr << program << ": " << fileName.toStdString()
                  << ": \"platform\" and \"requests\" are for simulation; ignored" << std::endl;
    if (!verified(file, fileName, line.parser().isSet(forceOption)))
        return fail(QStringLiteral("errors in the graph; --force starts anyway"), 1);
    QString problem;
    if (!HardwarePlatform::canServe(file, &problem))
        return fail(problem, 1);
    QString controlsRoot;
    if (line.parser().isSet(rootOption)) {
        if (!QFileInfo(line.parser().value(rootOption)).isDir())
            return fail(QStringLiteral("--controls-root: %1 is not a directory").arg(line.parser().value(rootOption)),
                        2);
        controlsRoot = QDir::cleanPath(QFileInfo(line.parser().value(rootOption)).absoluteFilePath());
        if (controlsRoot == QLatin1String("/"))
            controlsRoot.clear();
    }
    const QString startTarget = line.parser().value(startOption);
    if (!startTarget.isEmpty() && !file.target(startTarget))
        return fail(QStringLiteral("--start-target: the graph has no target %1").arg(startTarget), 2);

    QDBusConnection bus = connectTo(line.parser().value(busOption));
    if (!bus.isConnected()) {
        const QString reason = bus.lastError().message();
        // A connection of our own is closed before it goes, as libdbus asks.
        bus = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus(QStringLiteral("vela-powerd"));
        return fail(QStringLiteral("cannot connect to the %1 bus: %2").arg(line.parser().value(busOption), reason), 1);
    }

    StopSignals stop;
    // Recording what the service does, as vela-power run records a run, for
    // the monitor interface and the files asked for: first made, last gone,
    // since everything below reports to it. Without files it keeps only
    // what is still open.
    const QString traceFile = line.parser().value(traceOption);
    const QString eventsFile = line.parser().value(eventsOption);
    QPointer<MonitorService> monitor;
    RunRecorder recorder(file, RunRecorder::wallClock(), [&monitor](const RunEvent& event) {
        if (monitor)
            monitor->publish(event);
    });
    if (traceFile.isEmpty() && eventsFile.isEmpty())
        recorder.keepOnlyWhatIsOpen();
    HardwarePlatform platform(
        file, [&recorder](PlatformCall::Step step, const PlatformCall& call) { recorder.platformCall(step, call); });
    platform.setControlsRoot(controlsRoot);
    PowerGraph graph(file);
    PowerHandler handler;
    graph.registerWith(handler);
    recorder.watchStates(graph);
    const QString targetGroup = line.parser().value(groupOption);
    PowerManagerService service(handler, graph, bus, targetGroup);
    if (!service.targetGroupExists())
        std::cerr << program << ": the group " << targetGroup.toStdString()
                  << " does not exist: only root may request targets" << std::endl;
    service.setRevokeTimeout(revokeTimeoutMs);
    service.setRecorder(&recorder);
    MonitorService monitorService(bus);
    monitor = &monitorService;
    // The running request finishes (within its own time-outs); the callers
    // queued behind it and every new call get Stopping.
    QObject::connect(&stop, &StopSignals::stopRequested, &service,
                     [&service]() { service.stop([]() { QCoreApplication::quit(); }); });
    if (!bus.registerObject(QLatin1String(PowerManagerService::objectPath), &service, PowerManagerService::exported))
        return fail(QStringLiteral("cannot export %1: %2")
                        .arg(QLatin1String(PowerManagerService::objectPath), bus.lastError().message()),
                    1);
    if (!bus.registerObject(QLatin1String(MonitorService::objectPath), &monitorService, MonitorService::exported))
        return fail(QStringLiteral("cannot export %1: %2")
                        .arg(QLatin1String(MonitorService::objectPath), bus.lastError().message()),
                    1);
    if (!bus.registerService(QLatin1String(PowerManagerService::busName)))
        return fail(QStringLiteral("cannot own the name %1: %2")
                        .arg(QLatin1String(PowerManagerService::busName), bus.lastError().message()),
                    1);
    if (!startTarget.isEmpty()) {
        Scenario::Request request;
        request.name = startTarget;
        RequestDriver::sendTo(handler, graph, request);
    }
    QCoreApplication::exec();
    if ((!traceFile.isEmpty() || !eventsFile.isEmpty()) &&
        !writeRecord(recorder, traceFile, eventsFile, QFileInfo(fileName).fileName()))
        return 1;
    bus.unregisterService(QLatin1String(PowerManagerService::busName));
    return 0;
}
