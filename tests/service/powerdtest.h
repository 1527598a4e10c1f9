#ifndef VELA_TESTS_POWERDTEST_H
#define VELA_TESTS_POWERDTEST_H

// What the end-to-end tests of vela-powerd share: the device graph, calls
// and clients of the service, and the fixture that runs the service on a
// private bus of the test's own.

#include "eventloop.h"
#include "privatebus.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>

namespace powerdtest {

const QString service = QStringLiteral("org.vela.Power1");
const QString path = QStringLiteral("/org/vela/Power1");
const QString manager = QStringLiteral("org.vela.Power1.Manager");
constexpr int callTimeoutMs = 30000;

// A lamp written through sysfs and a fan through a log control; "on"
// enables the lamp, "off" disables both and lets no target follow it.
inline QByteArray deviceGraph(const QString& lampDirectory)
{
    return QStringLiteral(R"({"modules": [{"name": "reader"}],
  "resources": [
    {"name": "lamp", "enable": {"path": "/hw/lamp", "key": "brightness", "value": 80},
                     "disable": {"path": "/hw/lamp", "key": "brightness", "value": 0}},
    {"name": "fan", "enable": {"path": "/hw/fan", "key": "on", "value": true},
                    "disable": {"path": "/hw/fan", "key": "on", "value": false}}],
  "targets": [
    {"name": "on", "enables": ["lamp"], "reachable": ["off"]},
    {"name": "off", "disables": ["lamp", "fan"], "reachable": []}],
  "controls": {"/hw/lamp": {"sysfs": "%1"}, "/hw/fan": {"log": true}}})")
        .arg(lampDirectory)
        .toUtf8();
}

inline bool writeFile(const QString& fileName, const QByteArray& bytes)
{
    QFile file(fileName);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

inline QString fileText(const QString& fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QStringLiteral("(unreadable)");
}

inline QDBusMessage call(QDBusConnection& connection, const QString& method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, manager, method);
    message.setArguments(arguments);
    return connection.call(message, QDBus::Block, callTimeoutMs);
}

inline QString property(QDBusConnection& connection, const QString& name)
{
    QDBusMessage get = QDBusMessage::createMethodCall(service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get << manager << name;
    const QDBusMessage reply = connection.call(get, QDBus::Block, callTimeoutMs);
    return reply.arguments().isEmpty() ? QString()
                                       : reply.arguments().constFirst().value<QDBusVariant>().variant().toString();
}

inline std::string errorOf(const QDBusMessage& reply)
{
    return reply.type() == QDBusMessage::ErrorMessage ? reply.errorName().toStdString() : "no error";
}

// `connection` registers `module` and uses the lamp, waiting for each answer.
inline ::testing::AssertionResult registersAndUsesTheLamp(QDBusConnection& connection, const QString& module)
{
    const std::string registered = errorOf(call(connection, QStringLiteral("RegisterModule"), {module, QVariantMap()}));
    if (registered != "no error")
        return ::testing::AssertionFailure() << "RegisterModule: " << registered;
    const std::string used = errorOf(call(connection, QStringLiteral("RequestResource"),
                                          {QStringLiteral("lamp"), QStringLiteral("use"), QVariantMap()}));
    if (used != "no error")
        return ::testing::AssertionFailure() << "RequestResource: " << used;
    return ::testing::AssertionSuccess();
}

// What a gdbus client got: its exit code and its output.
struct ClientRun {
    int exitCode = -1;
    QString output;
    QString errors;
};

inline ClientRun runClient(const QString& program, const QStringList& arguments)
{
    QProcess client;
    client.start(program, arguments);
    ClientRun run;
    if (!client.waitForFinished(callTimeoutMs))
        return run;
    run.exitCode = client.exitStatus() == QProcess::NormalExit ? client.exitCode() : -1;
    run.output = QString::fromUtf8(client.readAllStandardOutput()).trimmed();
    run.errors = QString::fromUtf8(client.readAllStandardError()).trimmed();
    return run;
}

// Calls `method` on the service with `gdbus`; as `nobody` with no groups
// when asked to.
inline ClientRun gdbus(const QString& address, const QString& method, const QStringList& arguments,
                       bool asNobody = false)
{
    QStringList command;
    if (asNobody)
        command << QStringLiteral("setpriv") << QStringLiteral("--reuid=nobody") << QStringLiteral("--regid=nogroup")
                << QStringLiteral("--clear-groups");
    command << QStringLiteral("gdbus") << QStringLiteral("call") << QStringLiteral("--address") << address
            << QStringLiteral("--dest") << service << QStringLiteral("--object-path") << path
            << QStringLiteral("--method") << method << arguments;
    const QString program = command.takeFirst();
    return runClient(program, command);
}

// Calls a method of the manager with `busctl`, which sends the arguments
// with the signature it is given, right or wrong.
inline ClientRun busctl(const QString& address, const QStringList& methodAndArguments)
{
    return runClient(QStringLiteral("busctl"), QStringList{QStringLiteral("--address=") + address,
                                                           QStringLiteral("call"), service, path, manager} +
                                                   methodAndArguments);
}

inline ClientRun gdbusAsNobody(const QString& address, const QString& method, const QStringList& arguments)
{
    return gdbus(address, method, arguments, true);
}

class Powerd : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_folder.isValid());
        ASSERT_TRUE(m_bus.start(systemPolicy())) << "dbus-daemon (Debian's dbus-daemon package) is needed";
        const QString lampDirectory = m_folder.filePath(QStringLiteral("lamp"));
        ASSERT_TRUE(QDir().mkpath(lampDirectory));
        m_attribute = lampDirectory + QStringLiteral("/brightness");
        ASSERT_TRUE(writeFile(m_attribute, "0"));
        const QString graph = m_folder.filePath(QStringLiteral("device.json"));
        ASSERT_TRUE(writeFile(graph, deviceGraph(lampDirectory)));
        m_service.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_service.start(QStringLiteral(VELA_POWERD_PROGRAM),
                        QStringList{QStringLiteral("--bus"), m_bus.address()} + serviceOptions() << graph);
        ASSERT_TRUE(m_service.waitForStarted(30000));
        ASSERT_TRUE(m_bus.waitForOwner(service, 30000)) << "vela-powerd never took its name";
    }

    void TearDown() override
    {
        if (m_service.state() == QProcess::NotRunning)
            return;
        m_service.terminate();
        if (!m_service.waitForFinished(30000))
            m_service.kill();
    }

    // The bus's policy when it is to be of the system's kind.
    virtual QString systemPolicy() const { return QString(); }
    virtual QStringList serviceOptions() const { return QStringList(); }

    QTemporaryDir m_folder;
    PrivateBus m_bus;
    QProcess m_service;
    QString m_attribute;
};

// The lamp's state and its modules' actions, as the service reports them.
inline QVariantMap lampInfo(QDBusConnection& connection)
{
    const QDBusMessage info = call(connection, QStringLiteral("GetNodeInfo"), {QStringLiteral("lamp")});
    return info.arguments().isEmpty() ? QVariantMap() : qdbus_cast<QVariantMap>(info.arguments().constFirst());
}

// Whether no module holds or uses the lamp, and it is off.
inline bool lampUnclaimed(QDBusConnection& connection)
{
    const QVariantMap info = lampInfo(connection);
    const QVariantMap actions = qdbus_cast<QVariantMap>(info.value(QStringLiteral("actions")));
    for (auto action = actions.constBegin(); action != actions.constEnd(); ++action) {
        if (action.value().toString() != QLatin1String("release"))
            return false;
    }
    return !info.isEmpty() && !info.value(QStringLiteral("isEnabled")).toBool();
}

// Calls without blocking the event loop, which the test's own objects on the
// bus need to answer the service meanwhile.
inline QDBusMessage callAndWait(QDBusConnection& connection, const QString& method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, manager, method);
    message.setArguments(arguments);
    QDBusPendingCall pending = connection.asyncCall(message, callTimeoutMs);
    waitUntil([&pending]() { return pending.isFinished(); }, callTimeoutMs);
    return pending.reply();
}

} // namespace powerdtest

#endif
