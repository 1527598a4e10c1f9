#include "toolrun.h"

#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>

namespace {

constexpr int watchdogMs = 60000;

} // namespace

QJsonObject ToolRun::json() const
{
    return QJsonDocument::fromJson(out).object();
}

static ToolRun runIn(const QStringList& arguments, const QProcessEnvironment& environment)
{
    ToolRun run;
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(VELA_POWER_PROGRAM), arguments);
    if (!process.waitForFinished(watchdogMs)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.finishedNormally = process.exitStatus() == QProcess::NormalExit;
    run.exitCode = process.exitCode();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

ToolRun runTool(const QStringList& arguments)
{
    return runIn(arguments, QProcessEnvironment::systemEnvironment());
}

QString dataFile(const QString& name)
{
    return QStringLiteral(VELA_TOOLS_DATA_DIR "/") + name;
}

QString shippedExample()
{
    return QStringLiteral(VELA_EXAMPLE_GRAPH);
}

bool programInstalled(const char* program)
{
    return !QStandardPaths::findExecutable(QString::fromLatin1(program)).isEmpty();
}
