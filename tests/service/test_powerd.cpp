// vela-powerd end to end: the program on a private bus of the test's own,
// with real client connections, and a folder of attribute files standing in
// for sysfs.

#include "powerdtest.h"
#include "privatebus.h"

#include "eventloop.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QDBusReply>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QXmlStreamReader>

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace powerdtest;

namespace {
} // namespace

TEST_F(Powerd, RegisteredModuleUsesItsResourceAndTheAttributeFileHoldsTheValue)
{
    QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
    EXPECT_EQ(errorOf(call(reader, QStringLiteral("RegisterModule"), {QStringLiteral("reader"), QVariantMap()})),
              "no error");

    const QDBusMessage used =
        call(reader, QStringLiteral("RequestResource"), {QStringLiteral("lamp"), QStringLiteral("use"), QVariantMap()});
    EXPECT_EQ(errorOf(used), "no error") << used.errorMessage().toStdString();
    EXPECT_EQ(fileText(m_attribute), QStringLiteral("80"));

    const QDBusMessage info = call(reader, QStringLiteral("GetNodeInfo"), {QStringLiteral("lamp")});
    ASSERT_EQ(errorOf(info), "no error");
    const QVariantMap lamp = qdbus_cast<QVariantMap>(info.arguments().constFirst());
    EXPECT_TRUE(lamp.value(QStringLiteral("isEnabled")).toBool());
    EXPECT_EQ(qdbus_cast<QVariantMap>(lamp.value(QStringLiteral("actions"))).value(QStringLiteral("reader")).toString(),
              QStringLiteral("use"));

    EXPECT_EQ(errorOf(call(reader, QStringLiteral("RequestResource"),
                           {QStringLiteral("lamp"), QStringLiteral("release"), QVariantMap()})),
              "no error");
    EXPECT_EQ(fileText(m_attribute), QStringLiteral("0"));
}

TEST_F(Powerd, AConnectionActsOnlyForTheModulesItRegistered)
{
    QDBusConnection first = m_bus.connect(QStringLiteral("first"));
    QDBusConnection second = m_bus.connect(QStringLiteral("second"));
    ASSERT_EQ(errorOf(call(first, QStringLiteral("RegisterModule"), {QStringLiteral("reader"), QVariantMap()})),
              "no error");

    EXPECT_EQ(errorOf(call(second, QStringLiteral("RegisterModule"), {QStringLiteral("reader"), QVariantMap()})),
              "org.vela.Power1.Error.NotOwner");
    EXPECT_EQ(errorOf(call(second, QStringLiteral("RequestResource"),
                           {QStringLiteral("lamp"), QStringLiteral("use"),
                            QVariantMap{{QStringLiteral("module"), QStringLiteral("reader")}}})),
              "org.vela.Power1.Error.NotOwner");
    EXPECT_EQ(errorOf(call(second, QStringLiteral("RequestResource"),
                           {QStringLiteral("lamp"), QStringLiteral("use"), QVariantMap()})),
              "org.vela.Power1.Error.NotRegistered");
    EXPECT_EQ(errorOf(call(second, QStringLiteral("RequestResource"),
                           {QStringLiteral("lamp"), QStringLiteral("use"),
                            QVariantMap{{QStringLiteral("module"), QStringLiteral("writer")}}})),
              "org.vela.Power1.Error.UnknownModule");
    EXPECT_EQ(errorOf(call(second, QStringLiteral("RegisterModule"), {QStringLiteral("PowerManager"), QVariantMap()})),
              "org.vela.Power1.Error.NotOwner")
        << "the power manager's own module is the service's";
}

TEST_F(Powerd, BadInputGetsItsErrorNameAndTheServiceGoesOn)
{
    QDBusConnection client = m_bus.connect(QStringLiteral("client"));
    ASSERT_EQ(errorOf(call(client, QStringLiteral("RegisterModule"), {QStringLiteral("reader"), QVariantMap()})),
              "no error");
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RequestTarget"), {QStringLiteral("nowhere")})),
              "org.vela.Power1.Error.UnknownTarget");
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RequestResource"),
                           {QStringLiteral("heater"), QStringLiteral("use"), QVariantMap()})),
              "org.vela.Power1.Error.UnknownResource");
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RequestResource"),
                           {QStringLiteral("lamp"), QStringLiteral("borrow"), QVariantMap()})),
              "org.vela.Power1.Error.InvalidAction");
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RegisterModule"), {QString(), QVariantMap()})),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RegisterModule"), {QString(65, QLatin1Char('m')), QVariantMap()})),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(errorOf(call(client, QStringLiteral("GetNodeInfo"), {QStringLiteral("heater")})),
              "org.vela.Power1.Error.UnknownResource");
    // Arguments of the wrong types never reach the service's methods: its
    // bus library answers that no method takes them.
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RequestTarget"), {42})), "org.freedesktop.DBus.Error.UnknownMethod");
    const ClientRun number =
        busctl(m_bus.address(), {QStringLiteral("RequestTarget"), QStringLiteral("i"), QStringLiteral("42")});
    EXPECT_NE(number.exitCode, 0);
    EXPECT_TRUE(number.errors.contains(QStringLiteral("No such method 'RequestTarget'")))
        << number.errors.toStdString();
    const ClientRun missing = busctl(m_bus.address(), {QStringLiteral("RequestResource"), QStringLiteral("ss"),
                                                       QStringLiteral("lamp"), QStringLiteral("use")});
    EXPECT_NE(missing.exitCode, 0);
    EXPECT_TRUE(missing.errors.contains(QStringLiteral("No such method 'RequestResource'")))
        << missing.errors.toStdString();

    EXPECT_EQ(errorOf(call(client, QStringLiteral("RequestResource"),
                           {QStringLiteral("lamp"), QStringLiteral("use"), QVariantMap()})),
              "no error");
}

TEST_F(Powerd, TargetSwitchSetsThePropertiesAndARefusalCarriesItsReason)
{
    QDBusConnection client = m_bus.connect(QStringLiteral("client"));
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RequestTarget"), {QStringLiteral("on")})), "no error");
    EXPECT_EQ(property(client, QStringLiteral("CurrentTarget")), QStringLiteral("on"));
    EXPECT_EQ(fileText(m_attribute), QStringLiteral("80"));
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RequestTarget"), {QStringLiteral("off")})), "no error");
    EXPECT_EQ(property(client, QStringLiteral("CurrentTarget")), QStringLiteral("off"));
    EXPECT_EQ(fileText(m_attribute), QStringLiteral("0"));

    const QDBusMessage refused = call(client, QStringLiteral("RequestTarget"), {QStringLiteral("on")});
    EXPECT_EQ(errorOf(refused), "org.vela.Power1.Error.Refused");
    EXPECT_EQ(refused.errorMessage().toStdString(),
              "Failed to resolve dependencies: off is enabled and its reachable list (empty) leaves out on");
    EXPECT_EQ(property(client, QStringLiteral("CurrentTarget")), QStringLiteral("off"));

    const QDBusMessage nodes = call(client, QStringLiteral("ListNodes"), {});
    ASSERT_EQ(errorOf(nodes), "no error");
    const QVariantMap all = qdbus_cast<QVariantMap>(nodes.arguments().constFirst());
    EXPECT_EQ(qdbus_cast<QVariantMap>(all.value(QStringLiteral("targets"))).keys(),
              (QStringList{QStringLiteral("off"), QStringLiteral("on")}));
    EXPECT_EQ(qdbus_cast<QVariantMap>(all.value(QStringLiteral("resources"))).keys(),
              (QStringList{QStringLiteral("fan"), QStringLiteral("lamp")}));
}

TEST_F(Powerd, ClosedConnectionReleasesItsModulesClaimsAndFreesTheName)
{
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    {
        QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
        ASSERT_TRUE(registersAndUsesTheLamp(reader, QStringLiteral("reader")));
        ASSERT_EQ(fileText(m_attribute), QStringLiteral("80"));
    }
    QDBusConnection::disconnectFromBus(QStringLiteral("reader"));

    // Unclaimed, and switched off: the disabling write is done once the
    // attribute holds its value (a node is not enabled while it disables).
    EXPECT_TRUE(waitUntil(
        [this, &observer]() { return lampUnclaimed(observer) && fileText(m_attribute) == QLatin1String("0"); }, 30000))
        << "the vanished module still claims the lamp: " << fileText(m_attribute).toStdString();
    QDBusConnection successor = m_bus.connect(QStringLiteral("successor"));
    EXPECT_EQ(errorOf(call(successor, QStringLiteral("RegisterModule"), {QStringLiteral("reader"), QVariantMap()})),
              "no error")
        << "the name of a vanished module is free again";
}

TEST_F(Powerd, ClientsThatCallAndGoAtOnceLeaveNoClaim)
{
    // Each client registers and asks without waiting, and closes its
    // connection at once: the service may hear of the registration only
    // after the client has gone.
    constexpr int clients = 20;
    for (int index = 0; index < clients; ++index) {
        const QString name = QStringLiteral("hasty%1").arg(index);
        QDBusConnection hasty = m_bus.connect(name);
        QDBusMessage registration =
            QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RegisterModule"));
        registration.setArguments({name, QVariantMap()});
        QDBusMessage use = QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestResource"));
        use.setArguments({QStringLiteral("lamp"), QStringLiteral("use"), QVariantMap()});
        ASSERT_TRUE(hasty.send(registration));
        ASSERT_TRUE(hasty.send(use));
        QDBusConnection::disconnectFromBus(name);
    }
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    EXPECT_TRUE(waitUntil(
        [this, &observer]() { return lampUnclaimed(observer) && fileText(m_attribute) == QLatin1String("0"); }, 30000))
        << "claims of vanished clients remain: " << fileText(m_attribute).toStdString();
}

TEST_F(Powerd, TerminateEndsTheServiceWithExitZeroAndFreesTheName)
{
    m_service.terminate();
    ASSERT_TRUE(m_service.waitForFinished(30000));
    EXPECT_EQ(m_service.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(m_service.exitCode(), 0);
    // The bus frees the name once it has seen the connection close.
    EXPECT_TRUE(m_bus.waitForNoOwner(service, 30000));
}

// A service whose door lock is written through a FIFO: its write, and with
// it the running request, waits until the test reads the FIFO.
class PowerdWithADoor : public Powerd
{
protected:
    void SetUp() override
    {
        Powerd::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        // A second service on the same bus cannot take the name: this one
        // runs once the fixture's is gone.
        m_service.terminate();
        ASSERT_TRUE(m_service.waitForFinished(30000));
        ASSERT_TRUE(m_bus.waitForNoOwner(service, 30000));
        const QString doorDirectory = m_folder.filePath(QStringLiteral("door"));
        ASSERT_TRUE(QDir().mkpath(doorDirectory));
        m_lock = doorDirectory + QStringLiteral("/lock");
        ASSERT_EQ(::mkfifo(QFile::encodeName(m_lock).constData(), 0600), 0);
        const QString graph = m_folder.filePath(QStringLiteral("door.json"));
        ASSERT_TRUE(writeFile(graph, QStringLiteral(R"({"modules": [{"name": "keeper"}],
  "resources": [
    {"name": "door", "timeoutMs": 60000, "enable": {"path": "/hw/door", "key": "lock", "value": 1}},
    {"name": "lamp", "enable": {"path": "/hw/lamp", "key": "brightness", "value": 80},
                     "disable": {"path": "/hw/lamp", "key": "brightness", "value": 0}}],
  "targets": [{"name": "dark", "disables": ["lamp"], "reachable": []}],
  "controls": {"/hw/door": {"sysfs": "%1"}, "/hw/lamp": {"log": true}}})")
                                         .arg(doorDirectory)
                                         .toUtf8()));
        m_door.start(QStringLiteral(VELA_POWERD_PROGRAM), {QStringLiteral("--bus"), m_bus.address(), graph});
        ASSERT_TRUE(m_door.waitForStarted(30000));
        ASSERT_TRUE(m_bus.waitForOwner(service, 30000));
    }

    void TearDown() override
    {
        if (m_door.state() != QProcess::NotRunning) {
            m_door.kill();
            m_door.waitForFinished(30000);
        }
        Powerd::TearDown();
    }

    // Takes the door's write, as a driver would.
    int openTheLock() const { return ::open(QFile::encodeName(m_lock).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }

    // What the service wrote to standard error so far.
    QString serviceErrors()
    {
        m_errors += QString::fromUtf8(m_door.readAllStandardError());
        return m_errors;
    }

    // Whether the service ended with 0; it may have ended while the event
    // loop ran, which waitForFinished() no longer reports.
    bool endedWithZero()
    {
        if (m_door.state() != QProcess::NotRunning && !m_door.waitForFinished(30000))
            return false;
        return m_door.exitStatus() == QProcess::NormalExit && m_door.exitCode() == 0;
    }

    QString m_lock;
    QProcess m_door;
    QString m_errors;
};

TEST_F(PowerdWithADoor, TerminateLetsTheRunningRequestFinishAndTellsTheQueuedCallersStopping)
{
    QDBusConnection keeper = m_bus.connect(QStringLiteral("keeper"));
    ASSERT_EQ(errorOf(call(keeper, QStringLiteral("RegisterModule"), {QStringLiteral("keeper"), QVariantMap()})),
              "no error");
    QList<QDBusPendingCall> answers;
    for (const char* resource : {"door", "lamp", "lamp", "lamp"}) {
        QDBusMessage request =
            QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestResource"));
        request.setArguments({QLatin1String(resource), QStringLiteral("use"), QVariantMap()});
        answers.append(keeper.asyncCall(request, callTimeoutMs));
    }
    // Calls of one connection are taken in order: once this is answered,
    // the four requests are in the queue.
    ASSERT_EQ(errorOf(call(keeper, QStringLiteral("ListNodes"), {})), "no error");
    m_door.terminate();

    // The callers queued behind the door are told at once...
    ASSERT_TRUE(waitUntil(
        [&answers]() {
            for (int index = 1; index < answers.size(); ++index) {
                if (!answers.at(index).isFinished())
                    return false;
            }
            return true;
        },
        30000));
    EXPECT_FALSE(answers.at(0).isFinished()) << "the running request waits for its write";
    for (int index = 1; index < answers.size(); ++index)
        EXPECT_EQ(answers.at(index).error().name().toStdString(), "org.vela.Power1.Error.Stopping") << index;
    // ...and the door's caller once the driver takes the write.
    const int reader = openTheLock();
    ASSERT_GE(reader, 0);
    const QDBusPendingCall running = answers.at(0);
    ASSERT_TRUE(waitUntil([&running]() { return running.isFinished(); }, 30000));
    ::close(reader);
    EXPECT_FALSE(answers.at(0).isError())
        << "the running request keeps its own answer: " << answers.at(0).error().message().toStdString();
    EXPECT_TRUE(endedWithZero());
}

TEST_F(PowerdWithADoor, TerminateWithAThousandRequestsQueuedTellsEachCallerStoppingAndEndsWithZero)
{
    QDBusConnection keeper = m_bus.connect(QStringLiteral("keeper"));
    ASSERT_EQ(errorOf(call(keeper, QStringLiteral("RegisterModule"), {QStringLiteral("keeper"), QVariantMap()})),
              "no error");
    QDBusMessage door = QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestResource"));
    door.setArguments({QStringLiteral("door"), QStringLiteral("use"), QVariantMap()});
    const QDBusPendingCall running = keeper.asyncCall(door, callTimeoutMs);
    // A connection has at most 64 requests waiting: 20 of them, 50 each.
    constexpr int connections = 20;
    constexpr int perConnection = 50;
    QList<QDBusPendingCall> queued;
    for (int client = 0; client < connections; ++client) {
        const QString module = QStringLiteral("client%1").arg(client);
        QDBusConnection connection = m_bus.connect(module);
        ASSERT_EQ(errorOf(call(connection, QStringLiteral("RegisterModule"), {module, QVariantMap()})), "no error");
        for (int index = 0; index < perConnection; ++index) {
            QDBusMessage request =
                QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestResource"));
            request.setArguments(
                {QStringLiteral("lamp"), index % 2 ? QStringLiteral("release") : QStringLiteral("use"), QVariantMap()});
            queued.append(connection.asyncCall(request, callTimeoutMs));
        }
        // Taken in order: once this is answered, its requests are queued.
        ASSERT_EQ(errorOf(call(connection, QStringLiteral("ListNodes"), {})), "no error");
    }
    ASSERT_FALSE(running.isFinished());

    m_door.terminate();

    ASSERT_TRUE(waitUntil(
        [&queued]() {
            return std::all_of(queued.cbegin(), queued.cend(),
                               [](const QDBusPendingCall& answer) { return answer.isFinished(); });
        },
        callTimeoutMs));
    int stopping = 0;
    for (const QDBusPendingCall& answer : qAsConst(queued))
        stopping += answer.error().name() == QLatin1String("org.vela.Power1.Error.Stopping") ? 1 : 0;
    EXPECT_EQ(stopping, connections * perConnection);
    const int reader = openTheLock();
    ASSERT_GE(reader, 0);
    ASSERT_TRUE(waitUntil([&running]() { return running.isFinished(); }, callTimeoutMs));
    ::close(reader);
    EXPECT_FALSE(running.isError()) << running.error().message().toStdString();
    EXPECT_TRUE(endedWithZero());
}

// A module's object that takes revoke messages on its connection: it notes
// each (with what the lamp's attribute holds at that moment) and answers it,
// or holds it until told.
class RevokeTaker : public QDBusVirtualObject
{
public:
    RevokeTaker(QString attribute, bool answers)
        : m_attribute(std::move(attribute))
        , m_answers(answers)
    {
    }

    QString introspect(const QString&) const override { return QString(); }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        if (message.interface() != QLatin1String("org.vela.Power1.Module") ||
            message.member() != QLatin1String("Revoke"))
            return false;
        const QVariantList arguments = message.arguments();
        taken.append(QStringLiteral("%1 %2 %3 (lamp at %4)")
                         .arg(message.path())
                         .arg(arguments.value(0).toUInt())
                         .arg(arguments.value(1).toStringList().join(QLatin1Char(',')), fileText(m_attribute)));
        if (m_answers)
            connection.send(message.createReply());
        else
            held.append(message);
        return true;
    }

    void answerHeld(const QDBusConnection& connection)
    {
        for (const QDBusMessage& message : qAsConst(held))
            connection.send(message.createReply());
        held.clear();
    }

    QStringList taken;
    QList<QDBusMessage> held;

private:
    QString m_attribute;
    bool m_answers;
};

// The module "reader" on `reader`: its revoke messages go to `taker` at
// /reader (as `paths` say), and it uses the lamp.
void readerUsesTheLamp(QDBusConnection& reader, RevokeTaker* taker, const QVariantMap& paths)
{
    ASSERT_TRUE(reader.registerVirtualObject(QStringLiteral("/reader"), taker, QDBusConnection::SubPath));
    ASSERT_EQ(errorOf(callAndWait(reader, QStringLiteral("RegisterModule"), {QStringLiteral("reader"), paths})),
              "no error");
    ASSERT_EQ(errorOf(callAndWait(reader, QStringLiteral("RequestResource"),
                                  {QStringLiteral("lamp"), QStringLiteral("use"), QVariantMap()})),
              "no error");
}

// The module's connection goes while a switch that takes its resource waits
// in the queue: the switch's revoke message for it has nobody to go to, and
// fails at once, without a call sent and without blaming anyone.
TEST_F(PowerdWithADoor, RevokeMessageForAModuleWhoseConnectionWentFailsWithoutACall)
{
    QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
    RevokeTaker taker(QString(), true);
    readerUsesTheLamp(reader, &taker, QVariantMap{{QStringLiteral("revokePath"), QStringLiteral("/reader/revoke")}});
    ASSERT_FALSE(HasFatalFailure());
    const QString readerName = reader.baseService();
    QDBusConnection keeper = m_bus.connect(QStringLiteral("keeper"));
    ASSERT_EQ(errorOf(callAndWait(keeper, QStringLiteral("RegisterModule"), {QStringLiteral("keeper"), QVariantMap()})),
              "no error");
    const QDBusPendingCall door =
        keeper.asyncCall(QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestResource"))
                             << QStringLiteral("door") << QStringLiteral("use") << QVariantMap(),
                         callTimeoutMs);
    QDBusConnection switcher = m_bus.connect(QStringLiteral("switcher"));
    const QDBusPendingCall dark =
        switcher.asyncCall(QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestTarget"))
                               << QStringLiteral("dark"),
                           callTimeoutMs);
    // Both are queued once the switcher's next call is answered.
    ASSERT_EQ(errorOf(callAndWait(switcher, QStringLiteral("ListNodes"), {})), "no error");
    reader.unregisterObject(QStringLiteral("/reader"));
    reader = QDBusConnection(QString());
    QDBusConnection::disconnectFromBus(QStringLiteral("reader"));
    ASSERT_TRUE(m_bus.waitForNoOwner(readerName, callTimeoutMs));

    const int lock = openTheLock();
    ASSERT_GE(lock, 0);
    ASSERT_TRUE(waitUntil([&dark]() { return dark.isFinished(); }, callTimeoutMs));
    ::close(lock);

    EXPECT_FALSE(door.isError()) << door.error().message().toStdString();
    EXPECT_FALSE(dark.isError()) << dark.error().message().toStdString();
    EXPECT_TRUE(taker.taken.isEmpty());
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    EXPECT_TRUE(waitUntil([&observer]() { return lampUnclaimed(observer); }, callTimeoutMs));
    m_door.terminate();
    EXPECT_TRUE(endedWithZero());
    EXPECT_FALSE(serviceErrors().contains(QStringLiteral("did not take its revoke message")))
        << serviceErrors().toStdString();
}

TEST_F(Powerd, RevokeMessagesGoToTheModuleBeforeAndAfterTheWriteThatTakesItsResource)
{
    QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
    RevokeTaker taker(m_attribute, true);
    const QVariantMap paths{{QStringLiteral("revokePath"), QVariant::fromValue(QDBusObjectPath("/reader/revoke"))},
                            {QStringLiteral("postRevokePath"), QStringLiteral("/reader/after")}};
    readerUsesTheLamp(reader, &taker, paths);
    ASSERT_FALSE(HasFatalFailure());
    QDBusConnection other = m_bus.connect(QStringLiteral("other"));

    const QDBusMessage off = callAndWait(other, QStringLiteral("RequestTarget"), {QStringLiteral("off")});

    EXPECT_EQ(errorOf(off), "no error") << off.errorMessage().toStdString();
    // The message after the change and the answer to the switch go to two
    // connections: either may arrive first.
    EXPECT_TRUE(waitUntil([&taker]() { return taker.taken.size() >= 2; }, callTimeoutMs));
    EXPECT_EQ(taker.taken, (QStringList{QStringLiteral("/reader/revoke 0 lamp (lamp at 80)"),
                                        QStringLiteral("/reader/after 1 lamp (lamp at 0)")}));
}

TEST_F(Powerd, ModuleThatNeverAnswersItsRevokeMessageHoldsTheRequestOnlyUntilTheTimeOut)
{
    // The fixture's service waits 5 s for an answer; this one 300 ms.
    m_service.terminate();
    ASSERT_TRUE(m_service.waitForFinished(30000));
    ASSERT_TRUE(m_bus.waitForNoOwner(service, 30000));
    QProcess impatient;
    impatient.start(QStringLiteral(VELA_POWERD_PROGRAM),
                    {QStringLiteral("--bus"), m_bus.address(), QStringLiteral("--revoke-timeout-ms"),
                     QStringLiteral("300"), m_folder.filePath(QStringLiteral("device.json"))});
    ASSERT_TRUE(impatient.waitForStarted(30000));
    ASSERT_TRUE(m_bus.waitForOwner(service, 30000));
    QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
    RevokeTaker taker(m_attribute, false);
    readerUsesTheLamp(reader, &taker, QVariantMap{{QStringLiteral("revokePath"), QStringLiteral("/reader/revoke")}});
    ASSERT_FALSE(HasFatalFailure());
    QDBusConnection other = m_bus.connect(QStringLiteral("other"));

    const QDBusMessage off = callAndWait(other, QStringLiteral("RequestTarget"), {QStringLiteral("off")});

    EXPECT_EQ(errorOf(off), "no error") << "the request goes on without the module's answer";
    EXPECT_EQ(taker.taken, QStringList{QStringLiteral("/reader/revoke 0 lamp (lamp at 80)")});
    EXPECT_EQ(fileText(m_attribute), QStringLiteral("0"));
    impatient.terminate();
    ASSERT_TRUE(impatient.waitForFinished(30000));
    const QString err = QString::fromUtf8(impatient.readAllStandardError());
    EXPECT_TRUE(
        err.contains(QStringLiteral("vela-powerd: module reader (connection ")) &&
        err.contains(
            QStringLiteral(", uid %1, pid %2) did not take its revoke message: ").arg(::getuid()).arg(::getpid())))
        << err.toStdString();
}

TEST_F(Powerd, RevokePathsMustBeObjectPathsAndNoOtherOptionIsTaken)
{
    QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
    EXPECT_EQ(errorOf(call(reader, QStringLiteral("RegisterModule"),
                           {QStringLiteral("reader"),
                            QVariantMap{{QStringLiteral("revokePath"), QStringLiteral("reader/revoke")}}})),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(errorOf(call(reader, QStringLiteral("RegisterModule"),
                           {QStringLiteral("reader"), QVariantMap{{QStringLiteral("colour"), 1}}})),
              "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(Powerd, AConnectionRegistersAtMostSixteenModules)
{
    QDBusConnection client = m_bus.connect(QStringLiteral("client"));
    for (int index = 0; index < 16; ++index)
        ASSERT_EQ(errorOf(call(client, QStringLiteral("RegisterModule"),
                               {QStringLiteral("module%1").arg(index), QVariantMap()})),
                  "no error")
            << index;
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RegisterModule"), {QStringLiteral("module16"), QVariantMap()})),
              "org.freedesktop.DBus.Error.LimitsExceeded");
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RegisterModule"), {QStringLiteral("module3"), QVariantMap()})),
              "no error")
        << "registering a module again is no new module";
}

TEST_F(Powerd, AConnectionHasAtMostSixtyFourRequestsWaiting)
{
    // The reader never answers its revoke message: the switch to "off"
    // holds the queue for the service's time-out, and the busy client's
    // other requests wait behind it.
    QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
    RevokeTaker taker(m_attribute, false);
    readerUsesTheLamp(reader, &taker, QVariantMap{{QStringLiteral("revokePath"), QStringLiteral("/reader/revoke")}});
    ASSERT_FALSE(HasFatalFailure());
    QDBusConnection busy = m_bus.connect(QStringLiteral("busy"));
    QList<QDBusPendingCall> answers;
    for (int index = 0; index < 70; ++index) {
        QDBusMessage request = QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestTarget"));
        request.setArguments({QStringLiteral("off")});
        answers.append(busy.asyncCall(request, callTimeoutMs));
    }
    ASSERT_TRUE(waitUntil(
        [&answers]() {
            for (const QDBusPendingCall& answer : answers) {
                if (!answer.isFinished())
                    return false;
            }
            return true;
        },
        callTimeoutMs));
    int limited = 0;
    for (const QDBusPendingCall& answer : answers)
        limited += answer.error().name() == QLatin1String("org.freedesktop.DBus.Error.LimitsExceeded") ? 1 : 0;
    EXPECT_EQ(limited, 6);
    EXPECT_FALSE(answers.at(0).isError()) << answers.at(0).error().message().toStdString();
}

// The service's resident memory in kB, from /proc.
qint64 residentKb(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').constFirst().toLongLong();
    }
    return -1;
}

// `clients` connections each register a module and send `perClient`
// requests at once, using and releasing the fan in turn; returns whether
// every call was answered once, without error, and each connection's in the
// order it sent them.
::testing::AssertionResult manyClientsAsk(PrivateBus& bus, const QString& prefix, int clients, int perClient)
{
    QVector<QDBusConnection> connections;
    QVector<QVector<int>> answered(clients);
    QList<QDBusPendingCallWatcher*> watchers;
    int errors = 0;
    for (int client = 0; client < clients; ++client) {
        const QString name = prefix + QString::number(client);
        connections.append(bus.connect(name));
        if (errorOf(call(connections.last(), QStringLiteral("RegisterModule"), {name, QVariantMap()})) != "no error")
            return ::testing::AssertionFailure() << "registering " << name.toStdString();
    }
    for (int index = 0; index < perClient; ++index) {
        for (int client = 0; client < clients; ++client) {
            QDBusMessage request =
                QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestResource"));
            request.setArguments(
                {QStringLiteral("fan"), index % 2 ? QStringLiteral("release") : QStringLiteral("use"), QVariantMap()});
            auto* watcher = new QDBusPendingCallWatcher(connections[client].asyncCall(request, callTimeoutMs));
            watchers.append(watcher);
            QObject::connect(watcher, &QDBusPendingCallWatcher::finished,
                             [&answered, &errors, client, index](QDBusPendingCallWatcher* finished) {
                                 answered[client].append(index);
                                 errors += finished->isError() ? 1 : 0;
                             });
        }
    }
    const int total = clients * perClient;
    const bool done = waitUntil(
        [&answered, total]() {
            int count = 0;
            for (const QVector<int>& answers : answered)
                count += answers.size();
            return count >= total;
        },
        120000);
    qDeleteAll(watchers);
    if (!done)
        return ::testing::AssertionFailure() << "not every call was answered";
    if (errors != 0)
        return ::testing::AssertionFailure() << errors << " calls failed";
    for (int client = 0; client < clients; ++client) {
        QVector<int> inOrder(perClient);
        std::iota(inOrder.begin(), inOrder.end(), 0);
        if (answered[client] != inOrder)
            return ::testing::AssertionFailure() << "client " << client << " was answered out of order or twice";
    }
    return ::testing::AssertionSuccess();
}

TEST_F(Powerd, FiftyClientsSendingTenThousandRequestsAreEachAnsweredOnceInTheirOrder)
{
    // A first round of the same size brings the service's memory to what
    // 10,000 waiting requests take (the allocator keeps it afterwards); the
    // second must not add to it, which a leak would.
    ASSERT_TRUE(manyClientsAsk(m_bus, QStringLiteral("warm"), 50, 200));
    const qint64 before = residentKb(m_service.processId());
    ASSERT_GT(before, 0);

    EXPECT_TRUE(manyClientsAsk(m_bus, QStringLiteral("load"), 50, 200));

    const qint64 after = residentKb(m_service.processId());
#ifndef VELA_SANITIZED_BUILD
    // (A sanitizer's quarantine keeps freed memory on purpose.)
    EXPECT_LE(after, before + before / 10) << "resident memory went from " << before << " kB to " << after << " kB";
#endif
    RecordProperty("residentKbBefore", static_cast<int>(before));
    RecordProperty("residentKbAfter", static_cast<int>(after));
}

TEST_F(Powerd, TraceAndEventsFilesTellWhatTheServiceDid)
{
    m_service.terminate();
    ASSERT_TRUE(m_service.waitForFinished(30000));
    ASSERT_TRUE(m_bus.waitForNoOwner(service, 30000));
    const QString events = m_folder.filePath(QStringLiteral("events.jsonl"));
    const QString trace = m_folder.filePath(QStringLiteral("trace.json"));
    QProcess recorded;
    recorded.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    recorded.start(QStringLiteral(VELA_POWERD_PROGRAM),
                   {QStringLiteral("--bus"), m_bus.address(), QStringLiteral("--events"), events,
                    QStringLiteral("--trace"), trace, m_folder.filePath(QStringLiteral("device.json"))});
    ASSERT_TRUE(recorded.waitForStarted(30000));
    ASSERT_TRUE(m_bus.waitForOwner(service, 30000));
    {
        QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
        ASSERT_EQ(errorOf(call(reader, QStringLiteral("RegisterModule"), {QStringLiteral("reader"), QVariantMap()})),
                  "no error");
        ASSERT_EQ(errorOf(call(reader, QStringLiteral("RequestResource"),
                               {QStringLiteral("lamp"), QStringLiteral("use"), QVariantMap()})),
                  "no error");
        ASSERT_EQ(errorOf(call(reader, QStringLiteral("RequestTarget"), {QStringLiteral("off")})), "no error");
    }
    recorded.terminate();
    ASSERT_TRUE(recorded.waitForFinished(30000));
    EXPECT_EQ(recorded.exitCode(), 0);

    QStringList lines;
    for (const QString& line : fileText(events).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QJsonObject event = QJsonDocument::fromJson(line.toUtf8()).object();
        lines.append(event.value(QStringLiteral("kind")).toString() + QLatin1Char(' ') +
                     event.value(QStringLiteral("subject")).toString() + QLatin1Char(' ') +
                     event.value(QStringLiteral("detail")).toString());
    }
    const QStringList expected{
        QStringLiteral("request #1 resource lamp use by reader"),
        QStringLiteral("write /hw/lamp brightness = 80"),
        QStringLiteral("answered /hw/lamp brightness = 80"),
        QStringLiteral("state lamp enabled"),
        QStringLiteral("answer #1 done"),
        QStringLiteral("request #2 target off"),
        QStringLiteral("signal nextTargetChanged off"),
    };
    ASSERT_GE(lines.size(), expected.size()) << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_EQ(lines.mid(0, expected.size()), expected) << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_TRUE(lines.contains(QStringLiteral("state lamp disabled"))) << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_TRUE(lines.contains(QStringLiteral("signal targetChanged off")));
    EXPECT_TRUE(lines.contains(QStringLiteral("answer #2 done")));
    const QJsonArray traceEvents =
        QJsonDocument::fromJson(fileText(trace).toUtf8()).object().value(QStringLiteral("traceEvents")).toArray();
    EXPECT_FALSE(traceEvents.isEmpty());
}

TEST(PowerdStart, GraphWithAWrittenPathWithoutControlIsRefused)
{
    QTemporaryDir folder;
    const QString graph = folder.filePath(QStringLiteral("bare.json"));
    ASSERT_TRUE(writeFile(graph, R"({"resources": [{"name": "fan",
      "enable": {"path": "/hw/fan", "key": "on", "value": 1}}], "controls": {}})"));
    QProcess process;
    process.start(QStringLiteral(VELA_POWERD_PROGRAM),
                  {QStringLiteral("--bus"), QStringLiteral("unix:path=/nonexistent"), graph});
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(process.exitCode(), 1);
    const QString err = QString::fromUtf8(process.readAllStandardError());
    EXPECT_TRUE(err.contains(QStringLiteral("missing-control: fan writes /hw/fan, which has no control")))
        << err.toStdString();
}

TEST(PowerdStart, BusThatCannotBeReachedIsAClearErrorNamingIt)
{
    QTemporaryDir folder;
    const QString graph = folder.filePath(QStringLiteral("lamp.json"));
    ASSERT_TRUE(writeFile(graph, R"({"resources": [{"name": "lamp",
      "enable": {"path": "/hw/lamp", "key": "on", "value": 1}}], "controls": {"/hw/lamp": {"log": true}}})"));
    QProcess process;
    const QString address = QStringLiteral("unix:path=") + folder.filePath(QStringLiteral("no-bus"));
    process.start(QStringLiteral(VELA_POWERD_PROGRAM), {QStringLiteral("--bus"), address, graph});
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 1);
    const QString err = QString::fromUtf8(process.readAllStandardError());
    EXPECT_TRUE(
        err.startsWith(QStringLiteral("vela-powerd: cannot connect to the ") + address + QStringLiteral(" bus: ")))
        << err.toStdString();
}

TEST(PowerdStart, FileThatIsNoGraphIsInvalidInputWithItsPlace)
{
    QTemporaryDir folder;
    const QString graph = folder.filePath(QStringLiteral("broken.json"));
    ASSERT_TRUE(writeFile(graph, R"({"resources": [{"name": "fan", "speed": 3}]})"));
    QProcess process;
    // Never the machine's bus, should the file be taken after all.
    process.start(QStringLiteral(VELA_POWERD_PROGRAM),
                  {QStringLiteral("--bus"), QStringLiteral("unix:path=/nonexistent"), graph});
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(process.exitCode(), 2);
    EXPECT_EQ(QString::fromUtf8(process.readAllStandardError()).toStdString(),
              "vela-powerd: " + graph.toStdString() +
                  ":1:32: resources[0]: unknown key \"speed\" (expected one of: name, value, timeoutMs, enable, "
                  "disable, requires, modules)\n");
}

namespace {

// Running a client as another user takes root.
#define SKIP_UNLESS_ROOT() \
    if (::getuid() != 0)   \
    GTEST_SKIP() << "clients run as nobody through setpriv, which takes root"

// On a bus of the system's kind with the policy file the service installs.
class PowerdUnderTheShippedPolicy : public Powerd
{
protected:
    QString systemPolicy() const override
    {
        return QStringLiteral("<include>%1</include>").arg(QStringLiteral(VELA_POWERD_POLICY));
    }
};

TEST_F(PowerdUnderTheShippedPolicy, SomeoneOutsideTheGroupIsRefusedTargetsByTheBusAndStillReadsTheProperties)
{
    SKIP_UNLESS_ROOT();
    QDBusConnection root = m_bus.connect(QStringLiteral("root"));
    ASSERT_EQ(errorOf(callAndWait(root, QStringLiteral("RequestTarget"), {QStringLiteral("on")})), "no error");

    const ClientRun target = gdbusAsNobody(m_bus.address(), QStringLiteral("org.vela.Power1.Manager.RequestTarget"),
                                           {QStringLiteral("off")});
    const ClientRun current =
        gdbusAsNobody(m_bus.address(), QStringLiteral("org.freedesktop.DBus.Properties.Get"),
                      {QStringLiteral("org.vela.Power1.Manager"), QStringLiteral("CurrentTarget")});
    const ClientRun introspection =
        gdbusAsNobody(m_bus.address(), QStringLiteral("org.freedesktop.DBus.Introspectable.Introspect"), {});

    EXPECT_NE(target.exitCode, 0);
    EXPECT_TRUE(target.errors.contains(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied")))
        << target.errors.toStdString();
    EXPECT_EQ(current.exitCode, 0) << current.errors.toStdString();
    EXPECT_EQ(current.output, QStringLiteral("(<'on'>,)"));
    EXPECT_EQ(introspection.exitCode, 0) << introspection.errors.toStdString();
    EXPECT_TRUE(introspection.output.contains(QStringLiteral("org.vela.Power1.Manager")));
    EXPECT_EQ(property(root, QStringLiteral("CurrentTarget")), QStringLiteral("on")) << "nobody switched it";
}

// `vela-power monitor` on the bus at `address`; its first line on standard
// error (says it watches, or why it cannot).
QString startMonitor(QProcess* monitor, const QString& address)
{
    monitor->start(QStringLiteral(VELA_POWER_PROGRAM), {QStringLiteral("monitor"), QStringLiteral("--bus"), address,
                                                        QStringLiteral("--format"), QStringLiteral("json")});
    monitor->setReadChannel(QProcess::StandardError);
    waitUntil([monitor]() { return monitor->canReadLine() || monitor->state() == QProcess::NotRunning; },
              callTimeoutMs);
    const QString line = QString::fromUtf8(monitor->readLine()).trimmed();
    monitor->setReadChannel(QProcess::StandardOutput);
    return line;
}

// Root's monitor, and nobody's subscription made with gdbus (a program
// nobody can run from wherever the build is).
TEST_F(PowerdUnderTheShippedPolicy, OnlyRootAndTheGroupMayWatchTheServicesEvents)
{
    SKIP_UNLESS_ROOT();
    QProcess byRoot;
    ASSERT_TRUE(startMonitor(&byRoot, m_bus.address()).startsWith(QStringLiteral("vela-power monitor: watching")));
    const ClientRun byNobody = runClient(
        QStringLiteral("setpriv"),
        {QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"), QStringLiteral("--clear-groups"),
         QStringLiteral("gdbus"), QStringLiteral("call"), QStringLiteral("--address"), m_bus.address(),
         QStringLiteral("--dest"), service, QStringLiteral("--object-path"), QStringLiteral("/org/vela/Power1/Monitor"),
         QStringLiteral("--method"), QStringLiteral("org.vela.Power1.Monitor.Subscribe")});
    QDBusConnection root = m_bus.connect(QStringLiteral("root"));

    ASSERT_EQ(errorOf(callAndWait(root, QStringLiteral("RequestTarget"), {QStringLiteral("on")})), "no error");
    ASSERT_TRUE(waitUntil([&byRoot]() { return byRoot.peek(1 << 20).contains("\"kind\":\"answer\""); }, callTimeoutMs));
    byRoot.terminate();
    ASSERT_TRUE(byRoot.state() == QProcess::NotRunning || byRoot.waitForFinished(callTimeoutMs));

    EXPECT_TRUE(byRoot.readAllStandardOutput().contains("\"subject\":\"#1\""));
    EXPECT_EQ(byRoot.exitCode(), 0);
    EXPECT_NE(byNobody.exitCode, 0);
    EXPECT_TRUE(byNobody.errors.contains(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied")))
        << byNobody.errors.toStdString();
}

// The policy lets the service call its modules back: root's revoke messages
// are method calls to other connections, which the system bus denies unless
// a policy allows them.
TEST_F(PowerdUnderTheShippedPolicy, RevokeMessagesReachTheModule)
{
    QDBusConnection reader = m_bus.connect(QStringLiteral("reader"));
    RevokeTaker taker(m_attribute, true);
    readerUsesTheLamp(reader, &taker, QVariantMap{{QStringLiteral("revokePath"), QStringLiteral("/reader/revoke")}});
    ASSERT_FALSE(HasFatalFailure());
    QDBusConnection other = m_bus.connect(QStringLiteral("other"));

    const QDBusMessage off = callAndWait(other, QStringLiteral("RequestTarget"), {QStringLiteral("off")});

    EXPECT_EQ(errorOf(off), "no error") << off.errorMessage().toStdString();
    EXPECT_EQ(taker.taken, QStringList{QStringLiteral("/reader/revoke 0 lamp (lamp at 80)")});
}

// On a bus of the system's kind that lets everyone call the service: the
// service itself decides who may switch targets.
class PowerdOnAnOpenBus : public Powerd
{
protected:
    QString systemPolicy() const override
    {
        return QStringLiteral(R"(<policy context="default">
    <allow own="org.vela.Power1"/>
    <allow send_destination="org.vela.Power1"/>
    <allow send_type="method_call"/>
  </policy>)");
    }
};

TEST_F(PowerdOnAnOpenBus, ServiceRefusesTargetsToCallersNeitherRootNorInTheGroup)
{
    SKIP_UNLESS_ROOT();
    const ClientRun target =
        gdbusAsNobody(m_bus.address(), QStringLiteral("org.vela.Power1.Manager.RequestTarget"), {QStringLiteral("on")});
    QDBusConnection root = m_bus.connect(QStringLiteral("root"));
    const QDBusMessage byRoot = callAndWait(root, QStringLiteral("RequestTarget"), {QStringLiteral("on")});

    EXPECT_NE(target.exitCode, 0);
    EXPECT_TRUE(target.errors.contains(
        QStringLiteral("org.freedesktop.DBus.Error.AccessDenied: only root and the group vela-power may request "
                       "targets (the caller: uid 65534, pid ")))
        << target.errors.toStdString();
    EXPECT_EQ(errorOf(byRoot), "no error") << byRoot.errorMessage().toStdString();
}

class PowerdWithTheGroupOfNobody : public PowerdOnAnOpenBus
{
protected:
    QStringList serviceOptions() const override
    {
        return {QStringLiteral("--target-group"), QStringLiteral("nogroup")};
    }
};

TEST_F(PowerdWithTheGroupOfNobody, MemberOfTheTargetGroupMayRequestTargets)
{
    SKIP_UNLESS_ROOT();
    const ClientRun target =
        gdbusAsNobody(m_bus.address(), QStringLiteral("org.vela.Power1.Manager.RequestTarget"), {QStringLiteral("on")});

    EXPECT_EQ(target.exitCode, 0) << target.errors.toStdString();
    QDBusConnection root = m_bus.connect(QStringLiteral("root"));
    EXPECT_EQ(property(root, QStringLiteral("CurrentTarget")), QStringLiteral("on"));
}

} // namespace

namespace {

// A module in a process of its own (tests/service/client), which the test
// can kill; its first line is its unique name on the bus.
class ClientProcess
{
public:
    bool start(const QString& address, const QString& module, const QString& mode)
    {
        m_process.start(QStringLiteral(VELA_POWERD_CLIENT),
                        {address, module, QStringLiteral("lamp"), QStringLiteral("use"), mode});
        if (!m_process.waitForStarted(callTimeoutMs))
            return false;
        const QString name = nextLine();
        m_uniqueName = name.startsWith(QLatin1Char(':')) ? name : QString();
        return !m_uniqueName.isEmpty();
    }

    // The next line it prints, waiting for it; empty if none comes.
    QString nextLine()
    {
        waitUntil([this]() { return m_process.canReadLine() || m_process.state() == QProcess::NotRunning; },
                  callTimeoutMs);
        return QString::fromUtf8(m_process.readLine()).trimmed();
    }

    bool kill()
    {
        m_process.kill();
        return m_process.state() == QProcess::NotRunning || m_process.waitForFinished(callTimeoutMs);
    }

    bool waitForEnd()
    {
        return waitUntil([this]() { return m_process.state() == QProcess::NotRunning; }, callTimeoutMs);
    }

    QString uniqueName() const { return m_uniqueName; }

private:
    QProcess m_process;
    QString m_uniqueName;
};

// The modules that hold or use the lamp.
QStringList lampClaimants(QDBusConnection& connection)
{
    const QVariantMap actions = qdbus_cast<QVariantMap>(lampInfo(connection).value(QStringLiteral("actions")));
    QStringList claimants;
    for (auto action = actions.constBegin(); action != actions.constEnd(); ++action) {
        if (action.value().toString() != QLatin1String("release"))
            claimants.append(action.key());
    }
    return claimants;
}

// Waits until the service has run everything queued before now: a request
// of its own is answered after them.
void waitForTheQueue(QDBusConnection& observer)
{
    static int round = 0;
    const QString module = QStringLiteral("observer%1").arg(++round);
    ASSERT_EQ(errorOf(callAndWait(observer, QStringLiteral("RegisterModule"), {module, QVariantMap()})), "no error");
    ASSERT_EQ(errorOf(callAndWait(
                  observer, QStringLiteral("RequestResource"),
                  {QStringLiteral("fan"), QStringLiteral("release"), QVariantMap{{QStringLiteral("module"), module}}})),
              "no error");
}

// `count` client processes of modules `prefix`0, `prefix`1, ... that use
// the lamp in `mode`.
::testing::AssertionResult startClients(const QString& address, const QString& prefix, int count, const QString& mode,
                                        std::vector<std::unique_ptr<ClientProcess>>* processes)
{
    for (int index = 0; index < count; ++index) {
        processes->push_back(std::make_unique<ClientProcess>());
        if (!processes->back()->start(address, prefix + QString::number(index), mode))
            return ::testing::AssertionFailure() << "client " << index << " did not start";
    }
    return ::testing::AssertionSuccess();
}

TEST_F(Powerd, ClientProcessesKilledWhileTheyHoldClaimsLeaveNoClaim)
{
    constexpr int clients = 10;
    std::vector<std::unique_ptr<ClientProcess>> processes;
    ASSERT_TRUE(startClients(m_bus.address(), QStringLiteral("user"), clients, QStringLiteral("answered"), &processes));
    for (const auto& process : processes)
        ASSERT_EQ(process->nextLine(), QStringLiteral("answered"));
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    ASSERT_EQ(lampClaimants(observer).size(), clients);
    ASSERT_EQ(fileText(m_attribute), QStringLiteral("80"));

    for (const auto& process : processes)
        ASSERT_TRUE(process->kill());

    EXPECT_TRUE(waitUntil(
        [this, &observer]() { return lampUnclaimed(observer) && fileText(m_attribute) == QLatin1String("0"); }, 30000))
        << "claims of killed clients remain: " << lampClaimants(observer).join(QLatin1Char(' ')).toStdString();
}

// The service is kept busy by a switch whose revoke message the test holds:
// what the clients ask for meanwhile waits in the queue.
class PowerdBusyWithASwitch : public Powerd
{
protected:
    void SetUp() override
    {
        Powerd::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        m_reader = m_bus.connect(QStringLiteral("reader"));
        readerUsesTheLamp(m_reader, &m_taker,
                          QVariantMap{{QStringLiteral("revokePath"), QStringLiteral("/reader/revoke")}});
        ASSERT_FALSE(HasFatalFailure());
        m_switcher = m_bus.connect(QStringLiteral("switcher"));
        m_off =
            m_switcher.asyncCall(QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestTarget"))
                                     << QStringLiteral("off"),
                                 callTimeoutMs);
        ASSERT_TRUE(waitUntil([this]() { return !m_taker.held.isEmpty(); }, callTimeoutMs));
    }

    // Lets the switch go on, and waits for its end.
    void endTheSwitch()
    {
        m_taker.answerHeld(m_reader);
        ASSERT_TRUE(waitUntil([this]() { return m_off.isFinished(); }, callTimeoutMs));
        ASSERT_FALSE(m_off.isError()) << m_off.error().message().toStdString();
    }

    RevokeTaker m_taker{QString(), false};
    QDBusConnection m_reader{QString()};
    QDBusConnection m_switcher{QString()};
    QDBusPendingCall m_off{QDBusPendingCall::fromError(QDBusError())};
};

TEST_F(PowerdBusyWithASwitch, ClientProcessKilledWhileItsRequestIsQueuedLeavesNoClaim)
{
    ClientProcess latecomer;
    ASSERT_TRUE(latecomer.start(m_bus.address(), QStringLiteral("latecomer"), QStringLiteral("queued")));
    ASSERT_EQ(latecomer.nextLine(), QStringLiteral("queued"));
    ASSERT_TRUE(latecomer.kill());
    ASSERT_TRUE(m_bus.waitForNoOwner(latecomer.uniqueName(), callTimeoutMs));

    endTheSwitch();
    ASSERT_FALSE(HasFatalFailure());
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    waitForTheQueue(observer);
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_FALSE(lampClaimants(observer).contains(QStringLiteral("latecomer")))
        << "its request ran after it was gone, and its claim stayed";
}

TEST_F(PowerdBusyWithASwitch, ClientProcessesThatCallAndDieAtOnceLeaveNoClaim)
{
    std::vector<std::unique_ptr<ClientProcess>> processes;
    ASSERT_TRUE(startClients(m_bus.address(), QStringLiteral("hasty"), 20, QStringLiteral("vanish"), &processes));
    for (const auto& process : processes) {
        ASSERT_TRUE(process->waitForEnd());
        ASSERT_TRUE(m_bus.waitForNoOwner(process->uniqueName(), callTimeoutMs));
    }

    endTheSwitch();
    ASSERT_FALSE(HasFatalFailure());
    QDBusConnection observer = m_bus.connect(QStringLiteral("observer"));
    waitForTheQueue(observer);
    ASSERT_FALSE(HasFatalFailure());

    const QStringList claimants = lampClaimants(observer);
    EXPECT_TRUE(claimants.filter(QStringLiteral("hasty")).isEmpty())
        << "claims of clients that died: " << claimants.join(QLatin1Char(' ')).toStdString();
}

} // namespace

namespace {

// The attribute files the board example writes, as a folder tree under a
// scratch root, each holding its value at boot.
const QList<QPair<QString, QByteArray>> boardAttributes{
    {QStringLiteral("/sys/class/backlight/rpi_backlight/bl_power"), "4"},
    {QStringLiteral("/sys/class/leds/ACT/brightness"), "0"},
    {QStringLiteral("/sys/class/rfkill/rfkill0/soft"), "1"},
    {QStringLiteral("/sys/class/rfkill/rfkill1/soft"), "1"},
    {QStringLiteral("/sys/bus/usb/devices/usb1/power/control"), "auto"}};

QStringList boardValues(const QString& root)
{
    QStringList values;
    for (const auto& attribute : boardAttributes)
        values.append(fileText(root + attribute.first));
    return values;
}

TEST(PowerdOnABoard, ShippedBoardGraphSwitchesTheBoardsAttributesUnderTheControlsRoot)
{
    QTemporaryDir root;
    ASSERT_TRUE(root.isValid());
    for (const auto& attribute : boardAttributes) {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(root.path() + attribute.first).path()));
        ASSERT_TRUE(writeFile(root.path() + attribute.first, attribute.second));
    }
    PrivateBus bus;
    ASSERT_TRUE(bus.start());
    QProcess board;
    board.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    board.start(QStringLiteral(VELA_POWERD_PROGRAM),
                {QStringLiteral("--bus"), bus.address(), QStringLiteral("--controls-root"), root.path(),
                 QStringLiteral("--start-target"), QStringLiteral("active"), QStringLiteral(VELA_BOARD_GRAPH)});
    ASSERT_TRUE(board.waitForStarted(callTimeoutMs));
    ASSERT_TRUE(bus.waitForOwner(service, callTimeoutMs));

    const QStringList active{QStringLiteral("0"), QStringLiteral("1"), QStringLiteral("0"), QStringLiteral("1"),
                             QStringLiteral("on")};
    EXPECT_TRUE(waitUntil([&]() { return boardValues(root.path()) == active; }, callTimeoutMs))
        << boardValues(root.path()).join(QLatin1Char(' ')).toStdString();
    QDBusConnection client = bus.connect(QStringLiteral("client"));
    EXPECT_EQ(errorOf(call(client, QStringLiteral("RequestTarget"), {QStringLiteral("idle")})), "no error");
    EXPECT_EQ(boardValues(root.path()), (QStringList{QStringLiteral("4"), QStringLiteral("0"), QStringLiteral("0"),
                                                     QStringLiteral("1"), QStringLiteral("auto")}));

    board.terminate();
    ASSERT_TRUE(board.waitForFinished(callTimeoutMs));
    EXPECT_EQ(board.exitCode(), 0);
}

TEST(PowerdOnABoard, ControlsRootThatIsNoFolderIsInvalidInput)
{
    const ClientRun run =
        runClient(QStringLiteral(VELA_POWERD_PROGRAM),
                  {QStringLiteral("--bus"), QStringLiteral("session"), QStringLiteral("--controls-root"),
                   QStringLiteral("/nonexistent/root"), QStringLiteral(VELA_BOARD_GRAPH)});

    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.errors, QStringLiteral("vela-powerd: --controls-root: /nonexistent/root is not a directory"));
}

} // namespace

namespace {

// The members of `interface` in introspection XML, each with its arguments
// ("method GetNodeInfo(node s in, a{sv} out)"), sorted.
QStringList membersOf(const QString& xml, const QString& interface)
{
    QStringList members;
    QXmlStreamReader reader(xml);
    bool inside = false;
    QString member;
    QStringList arguments;
    QStringList results;
    while (!reader.atEnd()) {
        reader.readNext();
        const QString element = reader.name().toString();
        const QXmlStreamAttributes attributes = reader.attributes();
        if (reader.isStartElement() && element == QLatin1String("interface"))
            inside = attributes.value(QLatin1String("name")) == interface;
        if (!inside)
            continue;
        if (reader.isStartElement() && (element == QLatin1String("method") || element == QLatin1String("signal") ||
                                        element == QLatin1String("property"))) {
            member = element + QLatin1Char(' ') + attributes.value(QLatin1String("name")).toString();
            if (element == QLatin1String("property"))
                member += QLatin1Char(' ') + attributes.value(QLatin1String("type")).toString() + QLatin1Char(' ') +
                          attributes.value(QLatin1String("access")).toString();
            arguments.clear();
            results.clear();
        } else if (reader.isStartElement() && element == QLatin1String("arg")) {
            // A signal's arguments all go out, whether the file says so or
            // not; a method's results are told by type alone (Qt names none),
            // after its arguments.
            const QString type = attributes.value(QLatin1String("type")).toString();
            if (member.startsWith(QLatin1String("signal")))
                arguments.append(attributes.value(QLatin1String("name")).toString() + QLatin1Char(' ') + type);
            else if (attributes.value(QLatin1String("direction")) == QLatin1String("out"))
                results.append(type + QStringLiteral(" out"));
            else
                arguments.append(attributes.value(QLatin1String("name")).toString() + QLatin1Char(' ') + type +
                                 QStringLiteral(" in"));
        } else if (reader.isEndElement() && (element == QLatin1String("method") || element == QLatin1String("signal") ||
                                             element == QLatin1String("property"))) {
            members.append(member + QLatin1Char('(') + (arguments + results).join(QStringLiteral(", ")) +
                           QLatin1Char(')'));
        } else if (reader.isEndElement() && element == QLatin1String("interface")) {
            inside = false;
        }
    }
    members.sort();
    return members;
}

QString introspect(QDBusConnection& connection, const QString& objectPath)
{
    const QDBusMessage reply = connection.call(
        QDBusMessage::createMethodCall(service, objectPath, QStringLiteral("org.freedesktop.DBus.Introspectable"),
                                       QStringLiteral("Introspect")),
        QDBus::Block, callTimeoutMs);
    return reply.arguments().value(0).toString();
}

// The interfaces' XML files are the reference users read: the running
// service must offer exactly what they say.
TEST_F(Powerd, InterfaceReferencesAreWhatTheServiceOffers)
{
    QDBusConnection client = m_bus.connect(QStringLiteral("client"));
    const QString manager = introspect(client, path);
    const QString monitor = introspect(client, QStringLiteral("/org/vela/Power1/Monitor"));
    const QString managerReference = fileText(QStringLiteral(VELA_SOURCE_DIR "/service/org.vela.Power1.Manager.xml"));
    const QString monitorReference = fileText(QStringLiteral(VELA_SOURCE_DIR "/service/org.vela.Power1.Monitor.xml"));

    EXPECT_EQ(
        membersOf(manager, QStringLiteral("org.vela.Power1.Manager")).join(QLatin1Char('\n')).toStdString(),
        membersOf(managerReference, QStringLiteral("org.vela.Power1.Manager")).join(QLatin1Char('\n')).toStdString());
    EXPECT_EQ(
        membersOf(monitor, QStringLiteral("org.vela.Power1.Monitor")).join(QLatin1Char('\n')).toStdString(),
        membersOf(monitorReference, QStringLiteral("org.vela.Power1.Monitor")).join(QLatin1Char('\n')).toStdString());
    EXPECT_GE(membersOf(managerReference, QStringLiteral("org.vela.Power1.Manager")).size(), 9);
    EXPECT_EQ(membersOf(monitorReference, QStringLiteral("org.vela.Power1.Monitor")).size(), 3);
}

} // namespace
