// vela-power run stopped by a signal, and its progress line, which only a
// terminal sees.

#include "eventloop.h"
#include "toolrun.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <signal.h>

TEST(RunSignals, InterruptStopsARealTimeRunCleanly)
{
    // The lamp's write is never answered and its time-out is ten minutes:
    // the run waits until the signal comes.
    QTemporaryDir directory;
    const QString snapshot = directory.filePath("snapshot.json");
    QProcess process;
    QByteArray out;
    QObject::connect(&process, &QProcess::readyReadStandardOutput,
                     [&process, &out]() { out += process.readAllStandardOutput(); });
    // Stopped with a write pending: the handler and the nodes go with a
    // request still waiting, and leave nothing behind (the leak check of a
    // sanitizer build would turn the exit status into 1).
    process.start(QStringLiteral(VELA_POWER_PROGRAM),
                  {"run", "--real-time", "--snapshot", snapshot, dataFile("run/never_answered_long.json")});
    ASSERT_TRUE(waitUntil([&out]() { return out.contains("ignored   /hw/lamp on = true\n"); }, 60000))
        << out.toStdString();

    ASSERT_EQ(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    ASSERT_TRUE(waitUntil([&process]() { return process.state() == QProcess::NotRunning; }, 60000));
    out += process.readAllStandardOutput();
    const QByteArray err = process.readAllStandardError();

    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 130) << err.toStdString();
    EXPECT_TRUE(err.contains("vela-power run: stopped by SIGINT\n")) << err.toStdString();
    EXPECT_TRUE(out.contains("0 of 1 requests answered, 0 succeeded\n")) << out.toStdString();
    EXPECT_TRUE(out.contains("not answered: #1 target on (sent at ")) << out.toStdString();
    EXPECT_TRUE(out.contains("1 set-data writes still unanswered at the end of the run\n")) << out.toStdString();
    QFile file(snapshot);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << "the snapshot was not written";
    const QJsonObject nodes = QJsonDocument::fromJson(file.readAll()).object();
    EXPECT_TRUE(nodes.value("resources").toObject().contains("lamp"));
    EXPECT_TRUE(nodes.value("targets").toObject().contains("on"));
}

TEST(RunSignals, NoProgressLineWhenStandardErrorIsNotATerminal)
{
    // Five seconds of simulated time: long enough for the line on a terminal.
    const ToolRun run = runTool({"run", dataFile("run/never_answered_write.json")});
    ASSERT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.err.isEmpty()) << run.err.toStdString();
}

TEST(RunSignals, ProgressLineOnATerminalIsErasedAtTheEnd)
{
    // script(1) gives the program a terminal; its standard output goes
    // elsewhere, so what the terminal shows is the progress line alone.
    const QString script = QStandardPaths::findExecutable("script");
    if (script.isEmpty())
        GTEST_SKIP() << "script (util-linux) is not installed";
    const QString command = QStringLiteral("'%1' run '%2' > /dev/null")
                                .arg(QStringLiteral(VELA_POWER_PROGRAM), dataFile("run/never_answered_write.json"));
    QProcess process;
    process.start(script, {"-qec", command, "/dev/null"});
    ASSERT_TRUE(process.waitForFinished(60000));
    const QByteArray screen = process.readAllStandardOutput();
    EXPECT_EQ(process.exitCode(), 0) << screen.toStdString();
    EXPECT_TRUE(screen.contains("vela-power run: 0 of 1 requests answered, 1 sent, at 5000 ms"))
        << screen.toStdString();
    EXPECT_TRUE(screen.endsWith("\r\033[K")) << "the line is erased at the end: " << screen.toStdString();
}
