#include "toolrun.h"

#include <QJsonDocument>
#include <QProcess>

namespace {

constexpr int watchdogMs = 60000;

} // namespace

QJsonObject ToolRun::json() const
{
    return QJsonDocument::fromJson(out).object();
}

ToolRun runTool(const QStringList& arguments)
{
    ToolRun run;
    QProcess process;
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

QString dataFile(const QString& name)
{
    return QStringLiteral(VELA_TOOLS_DATA_DIR "/") + name;
}

QString shippedExample()
{
    return QStringLiteral(VELA_EXAMPLE_GRAPH);
}
