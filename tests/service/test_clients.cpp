// vela-power's client commands (status, request, claim) against a running
// vela-powerd on a private bus, through their JSON output and exit codes.

#include "powerdtest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <signal.h>

using namespace powerdtest;

namespace {

ClientRun velaPower(const QStringList& arguments)
{
    return runClient(QStringLiteral(VELA_POWER_PROGRAM), arguments);
}

QJsonObject jsonOf(const ClientRun& run)
{
    return QJsonDocument::fromJson(run.output.toUtf8()).object();
}

class Clients : public Powerd
{
protected:
    // `arguments` (the command first) with the test's bus.
    QStringList onTheBus(QStringList arguments) const
    {
        arguments.insert(1, QStringLiteral("--bus"));
        arguments.insert(2, m_bus.address());
        return arguments;
    }
};

TEST_F(Clients, StatusShowsWhatListNodesSaysAndTheTargets)
{
    QDBusConnection client = m_bus.connect(QStringLiteral("client"));
    ASSERT_EQ(errorOf(call(client, QStringLiteral("RequestTarget"), {QStringLiteral("on")})), "no error");
    const QDBusMessage nodes = call(client, QStringLiteral("ListNodes"), {});

    const ClientRun status =
        velaPower(onTheBus({QStringLiteral("status"), QStringLiteral("--format"), QStringLiteral("json")}));

    ASSERT_EQ(status.exitCode, 0) << status.errors.toStdString();
    QJsonObject json = jsonOf(status);
    EXPECT_EQ(json.take(QStringLiteral("currentTarget")).toString(), QStringLiteral("on"));
    EXPECT_EQ(json.take(QStringLiteral("nextTarget")).toString(), QStringLiteral("on"));
    const QVariantMap listed = qdbus_cast<QVariantMap>(nodes.arguments().value(0));
    const QJsonObject targets = json.value(QStringLiteral("targets")).toObject();
    const QJsonObject resources = json.value(QStringLiteral("resources")).toObject();
    EXPECT_EQ(targets.keys(), qdbus_cast<QVariantMap>(listed.value(QStringLiteral("targets"))).keys());
    EXPECT_EQ(resources.keys(), qdbus_cast<QVariantMap>(listed.value(QStringLiteral("resources"))).keys());
    const QJsonObject on = targets.value(QStringLiteral("on")).toObject();
    EXPECT_EQ(on.value(QStringLiteral("isEnabled")), QJsonValue(true));
    EXPECT_EQ(on.value(QStringLiteral("actions")).toObject().value(QStringLiteral("PowerManager")),
              QJsonValue(QStringLiteral("hold")));
    EXPECT_EQ(targets.value(QStringLiteral("off")).toObject().value(QStringLiteral("isEnabled")), QJsonValue(false));
    EXPECT_EQ(resources.value(QStringLiteral("lamp")).toObject().value(QStringLiteral("isEnabled")), QJsonValue(true));
    EXPECT_EQ(resources.value(QStringLiteral("fan")).toObject().value(QStringLiteral("isEnabled")), QJsonValue(false));
}

TEST_F(Clients, StatusTextMarksTheEnabledNodesAndTheirClaims)
{
    QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
    ASSERT_TRUE(registersAndUsesTheLamp(reader, QStringLiteral("reader")));

    const ClientRun status = velaPower(onTheBus({QStringLiteral("status")}));

    ASSERT_EQ(status.exitCode, 0) << status.errors.toStdString();
    const QStringList lines = status.output.split(QLatin1Char('\n'));
    EXPECT_TRUE(lines.contains(QStringLiteral("* lamp      enabled   reader (use)"))) << status.output.toStdString();
    EXPECT_TRUE(lines.contains(QStringLiteral("  fan       disabled"))) << status.output.toStdString();
    EXPECT_TRUE(lines.contains(QStringLiteral("Current target: (none)"))) << status.output.toStdString();
}

TEST_F(Clients, RequestExitsZeroWhenDoneAndOneWithTheReasonWhenRefused)
{
    const ClientRun on =
        velaPower(onTheBus({QStringLiteral("request"), QStringLiteral("--target"), QStringLiteral("on"),
                            QStringLiteral("--format"), QStringLiteral("json")}));
    const ClientRun off =
        velaPower(onTheBus({QStringLiteral("request"), QStringLiteral("--target"), QStringLiteral("off"),
                            QStringLiteral("--format"), QStringLiteral("json")}));
    const ClientRun back =
        velaPower(onTheBus({QStringLiteral("request"), QStringLiteral("--target"), QStringLiteral("on"),
                            QStringLiteral("--format"), QStringLiteral("json")}));
    const ClientRun fan =
        velaPower(onTheBus({QStringLiteral("request"), QStringLiteral("--resource"), QStringLiteral("fan"),
                            QStringLiteral("--action"), QStringLiteral("hold"), QStringLiteral("--module"),
                            QStringLiteral("keeper"), QStringLiteral("--format"), QStringLiteral("json")}));

    EXPECT_EQ(on.exitCode, 0) << on.errors.toStdString();
    EXPECT_EQ(jsonOf(on).value(QStringLiteral("done")), QJsonValue(true));
    EXPECT_EQ(off.exitCode, 0) << off.errors.toStdString();
    EXPECT_EQ(back.exitCode, 1);
    EXPECT_EQ(jsonOf(back).value(QStringLiteral("done")), QJsonValue(false));
    EXPECT_EQ(jsonOf(back).value(QStringLiteral("error")).toString(), QStringLiteral("org.vela.Power1.Error.Refused"));
    EXPECT_EQ(jsonOf(back).value(QStringLiteral("message")).toString(),
              QStringLiteral("Failed to resolve dependencies: off is enabled and its reachable list (empty) leaves "
                             "out on"));
    EXPECT_EQ(fan.exitCode, 0) << fan.errors.toStdString();
    EXPECT_EQ(jsonOf(fan).value(QStringLiteral("request")).toString(), QStringLiteral("resource fan hold by keeper"));
}

TEST_F(Clients, RequestWithAMissingOrContradictoryOptionIsACommandLineError)
{
    const ClientRun nothing = velaPower(onTheBus({QStringLiteral("request")}));
    const ClientRun both =
        velaPower(onTheBus({QStringLiteral("request"), QStringLiteral("--target"), QStringLiteral("on"),
                            QStringLiteral("--resource"), QStringLiteral("lamp")}));
    const ClientRun badAction = velaPower(onTheBus(
        {QStringLiteral("request"), QStringLiteral("--resource"), QStringLiteral("lamp"), QStringLiteral("--action"),
         QStringLiteral("borrow"), QStringLiteral("--module"), QStringLiteral("m")}));

    EXPECT_EQ(nothing.exitCode, 2);
    EXPECT_TRUE(nothing.errors.startsWith(
        QStringLiteral("vela-power request: give --target, or --resource with --action and --module")))
        << nothing.errors.toStdString();
    EXPECT_EQ(both.exitCode, 2);
    EXPECT_EQ(badAction.exitCode, 2);
    EXPECT_TRUE(badAction.errors.startsWith(
        QStringLiteral("vela-power request: --action: expected hold, use or release, not borrow")))
        << badAction.errors.toStdString();
}

TEST_F(Clients, ClaimHoldsForTheCommandPassesOnItsExitCodeAndReleasesAfterIt)
{
    // The command sees the lamp on, and ends with 3.
    const QString script = QStringLiteral("test \"$(cat '%1')\" = 80 && exit 3; exit 4").arg(m_attribute);

    const ClientRun claim = velaPower(onTheBus(
        {QStringLiteral("claim"), QStringLiteral("--module"), QStringLiteral("reader"), QStringLiteral("--use"),
         QStringLiteral("lamp"), QStringLiteral("--"), QStringLiteral("sh"), QStringLiteral("-c"), script}));

    EXPECT_EQ(claim.exitCode, 3) << claim.errors.toStdString();
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    EXPECT_TRUE(lampUnclaimed(observer));
    EXPECT_EQ(fileText(m_attribute), QStringLiteral("0"));
}

TEST_F(Clients, ClaimOfACommandThatCannotRunExitsWith127AndLeavesNoClaim)
{
    const ClientRun claim = velaPower(onTheBus(
        {QStringLiteral("claim"), QStringLiteral("--module"), QStringLiteral("reader"), QStringLiteral("--use"),
         QStringLiteral("lamp"), QStringLiteral("--"), m_folder.filePath(QStringLiteral("no-such-program"))}));

    EXPECT_EQ(claim.exitCode, 127);
    EXPECT_TRUE(claim.errors.contains(QStringLiteral("vela-power claim: cannot run "))) << claim.errors.toStdString();
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    EXPECT_TRUE(lampUnclaimed(observer));
}

TEST_F(Clients, ClaimKilledWithSigkillLeavesNoClaim)
{
    const QString pidFile = m_folder.filePath(QStringLiteral("command.pid"));
    QProcess claim;
    claim.start(QStringLiteral(VELA_POWER_PROGRAM),
                onTheBus({QStringLiteral("claim"), QStringLiteral("--module"), QStringLiteral("reader"),
                          QStringLiteral("--use"), QStringLiteral("lamp"), QStringLiteral("--"), QStringLiteral("sh"),
                          QStringLiteral("-c"), QStringLiteral("echo $$ > '%1'; exec sleep 60").arg(pidFile)}));
    ASSERT_TRUE(claim.waitForStarted(callTimeoutMs));
    ASSERT_TRUE(waitUntil([&pidFile]() { return QFile::exists(pidFile) && QFile(pidFile).size() > 0; }, callTimeoutMs));
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    ASSERT_FALSE(lampUnclaimed(observer));

    claim.kill();
    ASSERT_TRUE(claim.waitForFinished(callTimeoutMs));

    EXPECT_TRUE(waitUntil([&observer]() { return lampUnclaimed(observer); }, callTimeoutMs));
    ::kill(static_cast<pid_t>(fileText(pidFile).trimmed().toLongLong()), SIGKILL);
}

// A service that also writes its events file: what the monitor hears is
// what the service recorded.
class ClientsOfARecordingService : public Clients
{
protected:
    QStringList serviceOptions() const override
    {
        return {QStringLiteral("--events"), m_folder.filePath(QStringLiteral("events.jsonl"))};
    }
};

QStringList linesOf(const QString& text)
{
    return text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// The (kind, subject, detail) of each JSON line, without the time.
QStringList withoutTimes(const QStringList& lines)
{
    QStringList events;
    for (const QString& line : lines) {
        const QJsonObject event = QJsonDocument::fromJson(line.toUtf8()).object();
        events.append(QStringLiteral("%1 %2 %3")
                          .arg(event.value(QStringLiteral("kind")).toString(),
                               event.value(QStringLiteral("subject")).toString(),
                               event.value(QStringLiteral("detail")).toString()));
    }
    return events;
}

TEST_F(ClientsOfARecordingService, MonitorHearsATargetSwitchAsTheServiceRecordsItAndAsRunPrintsIt)
{
    QProcess monitor;
    monitor.start(QStringLiteral(VELA_POWER_PROGRAM),
                  onTheBus({QStringLiteral("monitor"), QStringLiteral("--format"), QStringLiteral("json")}));
    monitor.setReadChannel(QProcess::StandardError);
    ASSERT_TRUE(waitUntil([&monitor]() { return monitor.canReadLine() || monitor.state() == QProcess::NotRunning; },
                          callTimeoutMs));
    ASSERT_TRUE(QString::fromUtf8(monitor.readLine()).startsWith(QStringLiteral("vela-power monitor: watching")));
    monitor.setReadChannel(QProcess::StandardOutput);
    QDBusConnection client = m_bus.connect(QStringLiteral("client"));
    ASSERT_EQ(errorOf(call(client, QStringLiteral("RequestTarget"), {QStringLiteral("on")})), "no error");
    ASSERT_TRUE(waitUntil(
        [&monitor]() {
            return QString::fromUtf8(monitor.peek(1 << 20)).contains(QStringLiteral("\"kind\":\"answer\""));
        },
        callTimeoutMs));

    m_service.terminate();
    ASSERT_TRUE(m_service.waitForFinished(callTimeoutMs));
    ASSERT_TRUE(monitor.state() == QProcess::NotRunning || monitor.waitForFinished(callTimeoutMs));
    const QStringList heard = linesOf(QString::fromUtf8(monitor.readAllStandardOutput()));
    const QStringList recorded = linesOf(fileText(m_folder.filePath(QStringLiteral("events.jsonl"))));

    EXPECT_EQ(monitor.exitCode(), 1) << "the service left";
    EXPECT_EQ(heard, recorded);
    // vela-power run of the same graph and request, on a platform that
    // answers as the service's did (the lamp's attribute file a moment
    // later, the fan's log control at once), records the same events in
    // the same order.
    const QString scenario = m_folder.filePath(QStringLiteral("switch.json"));
    QJsonObject graph =
        QJsonDocument::fromJson(fileText(m_folder.filePath(QStringLiteral("device.json"))).toUtf8()).object();
    graph.insert(QStringLiteral("requests"), QJsonArray{QJsonObject{{QStringLiteral("target"), QStringLiteral("on")}}});
    graph.insert(QStringLiteral("platform"),
                 QJsonObject{{QStringLiteral("/hw/lamp"), QJsonObject{{QStringLiteral("delayMs"), 1}}}});
    ASSERT_TRUE(writeFile(scenario, QJsonDocument(graph).toJson()));
    const QString runEvents = m_folder.filePath(QStringLiteral("run.jsonl"));
    const ClientRun run = velaPower({QStringLiteral("run"), scenario, QStringLiteral("--events"), runEvents});
    ASSERT_EQ(run.exitCode, 0) << run.errors.toStdString();
    EXPECT_EQ(withoutTimes(heard).join(QLatin1Char('\n')).toStdString(),
              withoutTimes(linesOf(fileText(runEvents))).join(QLatin1Char('\n')).toStdString());
}

TEST_F(Clients, ServiceThatIsNotRunningIsOneLineNamingTheBus)
{
    m_service.terminate();
    ASSERT_TRUE(m_service.waitForFinished(callTimeoutMs));
    ASSERT_TRUE(m_bus.waitForNoOwner(service, callTimeoutMs));

    const ClientRun status = velaPower(onTheBus({QStringLiteral("status")}));

    EXPECT_EQ(status.exitCode, 1);
    EXPECT_EQ(
        status.errors,
        QStringLiteral("vela-power status: org.vela.Power1 is not running on the bus at %1").arg(m_bus.address()));
}

} // namespace
