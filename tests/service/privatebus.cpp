#include "privatebus.h"

#include "eventloop.h"

#include <QDBusConnectionInterface>
#include <QFile>

PrivateBus::PrivateBus() = default;

PrivateBus::~PrivateBus()
{
    for (const QString& name : qAsConst(m_connections))
        QDBusConnection::disconnectFromBus(name);
    if (m_daemon.state() != QProcess::NotRunning) {
        m_daemon.terminate();
        if (!m_daemon.waitForFinished(10000))
            m_daemon.kill();
        m_daemon.waitForFinished(10000);
    }
}

namespace {

// The default rules of Debian's system bus: no one owns a name or calls a
// method unless a policy allows it; signals, and replies to calls made, go.
const char systemBusConfiguration[] =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>%1</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Properties"/>
  </policy>
  %2
</busconfig>
)";

} // namespace

bool PrivateBus::start(const QString& systemPolicy)
{
    if (!m_folder.isValid())
        return false;
    m_address = QStringLiteral("unix:path=") + m_folder.filePath(QStringLiteral("bus"));
    QStringList arguments{QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                          QStringLiteral("--print-address=1")};
    if (systemPolicy.isEmpty()) {
        arguments << QStringLiteral("--session") << QStringLiteral("--address=") + m_address;
    } else {
        // Other users reach the socket through the folder.
        QFile::setPermissions(m_folder.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                   QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                                   QFile::ExeOther);
        QFile configuration(m_folder.filePath(QStringLiteral("bus.conf")));
        if (!configuration.open(QIODevice::WriteOnly) ||
            configuration.write(QString::fromUtf8(systemBusConfiguration).arg(m_address, systemPolicy).toUtf8()) < 0)
            return false;
        configuration.close();
        arguments << QStringLiteral("--config-file=") + configuration.fileName();
    }
    m_daemon.start(QStringLiteral("dbus-daemon"), arguments);
    if (!m_daemon.waitForStarted(10000))
        return false;
    // The daemon prints its address once it listens.
    return waitUntil([this]() { return m_daemon.canReadLine() || m_daemon.state() == QProcess::NotRunning; }, 30000) &&
           m_daemon.state() == QProcess::Running;
}

QDBusConnection PrivateBus::connect(const QString& name)
{
    m_connections.append(name);
    return QDBusConnection::connectToBus(m_address, name);
}

bool PrivateBus::waitForOwner(const QString& name, int ms)
{
    QDBusConnection watcher = connect(QStringLiteral("owner-watcher-") + name);
    return waitUntil(
        [&watcher, &name]() { return watcher.isConnected() && watcher.interface()->isServiceRegistered(name).value(); },
        ms);
}

bool PrivateBus::waitForNoOwner(const QString& name, int ms)
{
    QDBusConnection watcher = connect(QStringLiteral("no-owner-watcher-") + name);
    return waitUntil(
        [&watcher, &name]() {
            return watcher.isConnected() && !watcher.interface()->isServiceRegistered(name).value();
        },
        ms);
}
