#include "interactive.h"

#include "safetext.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTimer>

#include <unistd.h>

#include <iostream>

namespace {

// A `wait` longer than an hour is a typing mistake, not a plan.
constexpr int longestWaitMs = 3600000;
constexpr int readChunk = 4096;

} // namespace

struct InteractiveSession::Command {
    const char* name;
    const char* usage;
    const char* summary;
    void (InteractiveSession::*run)(const QStringList& words);
};

const InteractiveSession::Command InteractiveSession::commands[] = {
    {"target", "target NAME", "switch to a target", &InteractiveSession::target},
    {"hold", "hold RESOURCE MODULE", "the module holds the resource (it cannot be taken away)",
     &InteractiveSession::resourceAction},
    {"use", "use RESOURCE MODULE", "the module uses the resource (a target may take it, with a revoke message)",
     &InteractiveSession::resourceAction},
    {"release", "release RESOURCE MODULE", "the module releases the resource", &InteractiveSession::resourceAction},
    {"wait", "wait MS", "let MS milliseconds pass before the next command", &InteractiveSession::wait},
    {"snapshot", "snapshot", "show the state of all nodes (one line of JSON)", &InteractiveSession::snapshot},
    {"explain", "explain OPTIONS", "as 'vela-power explain GRAPH OPTIONS', on the same graph file",
     &InteractiveSession::explain},
    {"help", "help", "show these commands", &InteractiveSession::showHelp},
    {"quit", "quit", "end the session", &InteractiveSession::quit},
};

InteractiveSession::InteractiveSession(const GraphFile& file, const QString& fileName, bool showLibraryLog)
    : m_file(file)
    , m_fileName(fileName)
    , m_notifier(STDIN_FILENO, QSocketNotifier::Read)
    , m_timeline(std::cout)
    , m_recorder(file, RunRecorder::wallClock(), [this](const RunRecorder::Event& event) { m_timeline.print(event); })
    , m_run(file, m_recorder)
{
    if (showLibraryLog)
        m_recorder.showLibraryLog(log4cplus::TRACE_LOG_LEVEL);
    QObject::connect(&m_notifier, &QSocketNotifier::activated, [this]() { readInput(); });
}

InteractiveSession::~InteractiveSession()
{
    // Requests still queued are failed while the handler goes; nobody is
    // left to read about them.
    m_quitting = true;
    m_run.driver().ignoreLaterAnswers();
}

QString InteractiveSession::help()
{
    QString text = QStringLiteral("Commands, one per line (names with spaces in quotes):\n");
    for (const Command& command : commands)
        text += QStringLiteral("  %1  %2\n").arg(QLatin1String(command.usage), -24).arg(QLatin1String(command.summary));
    return text + QStringLiteral("The file's own requests are not made: the commands are the scenario. At the end "
                                 "of the input the session ends once every request is answered.\n");
}

int InteractiveSession::exec()
{
    if (isatty(STDIN_FILENO))
        std::cerr << "vela-power run: interactive session on " << m_fileName.toStdString()
                  << "; 'help' lists the commands" << std::endl;
    QCoreApplication::exec();
    std::cout << m_recorder.requestsAnswered() << " of " << m_recorder.requestsSent() << " requests answered"
              << std::endl;
    return 0;
}

void InteractiveSession::readInput()
{
    // The notifier says there is something to read, so this read does not
    // block; it returns what is there now.
    char chunk[readChunk];
    const ssize_t count = ::read(STDIN_FILENO, chunk, sizeof chunk);
    if (count <= 0) {
        m_notifier.setEnabled(false);
        m_inputEnded = true;
        if (!m_input.isEmpty())
            m_pending.append(QString::fromUtf8(m_input));
        m_input.clear();
    } else {
        m_input.append(chunk, int(count));
        for (int end = m_input.indexOf('\n'); end >= 0; end = m_input.indexOf('\n')) {
            m_pending.append(QString::fromUtf8(m_input.left(end)));
            m_input.remove(0, end + 1);
        }
    }
    runPending();
}

void InteractiveSession::runPending()
{
    while (!m_busy && !m_quitting && !m_pending.isEmpty())
        execute(m_pending.takeFirst());
    finishIfDone();
}

void InteractiveSession::finishIfDone()
{
    if (m_quitting ||
        (m_inputEnded && m_pending.isEmpty() && !m_busy && m_recorder.requestsAnswered() == m_recorder.requestsSent()))
        QCoreApplication::quit();
}

void InteractiveSession::error(const QString& message) const
{
    std::cerr << "vela-power run: input line " << m_lineNumber << ": " << message.toStdString() << std::endl;
}

void InteractiveSession::execute(const QString& line)
{
    ++m_lineNumber;
    const QString trimmed = line.trimmed();
    if (trimmed.isEmpty() || trimmed.startsWith(QLatin1Char('#')))
        return;
    const QStringList words = QProcess::splitCommand(trimmed);
    if (words.isEmpty())
        return;
    for (const Command& command : commands) {
        if (words.constFirst() == QLatin1String(command.name)) {
            (this->*command.run)(words);
            return;
        }
    }
    error(QStringLiteral("unknown command %1; 'help' lists the commands").arg(SafeText::quoted(words.constFirst())));
}

void InteractiveSession::target(const QStringList& words)
{
    if (words.size() != 2)
        return error(QStringLiteral("usage: target NAME"));
    if (!m_file.target(words.at(1)))
        return error(QStringLiteral("the graph has no target %1").arg(SafeText::quoted(words.at(1))));
    GraphFile::Request request;
    request.name = words.at(1);
    send(request);
}

void InteractiveSession::resourceAction(const QStringList& words)
{
    if (words.size() != 3)
        return error(QStringLiteral("usage: %1 RESOURCE MODULE").arg(words.constFirst()));
    if (!m_file.resource(words.at(1)))
        return error(QStringLiteral("the graph has no resource %1").arg(SafeText::quoted(words.at(1))));
    if (!m_file.module(words.at(2)))
        return error(QStringLiteral("the graph has no module %1").arg(SafeText::quoted(words.at(2))));
    GraphFile::Request request;
    request.kind = GraphFile::Request::Resource;
    request.name = words.at(1);
    request.module = words.at(2);
    VelaPowerModuleActions::fromString(words.constFirst(), &request.action);
    send(request);
}

void InteractiveSession::send(const Scenario::Request& request)
{
    m_run.driver().send(request, [this](const RequestDriver::Answer&) { finishIfDone(); });
}

void InteractiveSession::wait(const QStringList& words)
{
    bool valid = false;
    const int ms = words.size() == 2 ? words.at(1).toInt(&valid) : -1;
    if (!valid || ms < 0 || ms > longestWaitMs)
        return error(QStringLiteral("usage: wait MS (0 to %1 milliseconds)").arg(longestWaitMs));
    m_busy = true;
    QTimer::singleShot(ms, &m_notifier, [this]() { resume(); });
}

void InteractiveSession::resume()
{
    m_busy = false;
    runPending();
}

void InteractiveSession::snapshot(const QStringList& words)
{
    if (words.size() != 1)
        return error(QStringLiteral("usage: snapshot"));
    const QJsonDocument nodes(QJsonObject::fromVariantHash(m_run.handler().listNodes()));
    m_recorder.add(RunEvent::Kind::Snapshot, QString(), QString::fromUtf8(nodes.toJson(QJsonDocument::Compact)));
}

void InteractiveSession::explain(const QStringList& words)
{
    // The explain command itself, in a process of its own: it asks a handler
    // and platform of its own, which must not share this session's platform
    // paths, log and node names.
    m_explain.reset(new QProcess);
    m_explain->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    QObject::connect(m_explain.get(), QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), [this]() {
        std::cout << m_explain->readAllStandardOutput().toStdString() << std::flush;
        // Later, not from inside the process's own signal: the next line may
        // be another explain, which replaces this process.
        QMetaObject::invokeMethod(
            &m_notifier, [this]() { resume(); }, Qt::QueuedConnection);
    });
    QObject::connect(m_explain.get(), &QProcess::errorOccurred, [this](QProcess::ProcessError failure) {
        if (failure != QProcess::FailedToStart)
            return;
        error(QStringLiteral("cannot start explain: %1").arg(m_explain->errorString()));
        QMetaObject::invokeMethod(
            &m_notifier, [this]() { resume(); }, Qt::QueuedConnection);
    });
    m_busy = true;
    m_explain->start(QCoreApplication::applicationFilePath(),
                     QStringList{QStringLiteral("explain"), m_fileName} + words.mid(1));
}

void InteractiveSession::showHelp(const QStringList&)
{
    std::cout << help().toStdString() << std::flush;
}

void InteractiveSession::quit(const QStringList&)
{
    m_quitting = true;
    m_run.driver().ignoreLaterAnswers();
}
