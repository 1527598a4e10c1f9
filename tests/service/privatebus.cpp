#include "privatebus.h"

#include "eventloop.h"

#include <QDBusConnectionInterface>

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

bool PrivateBus::start()
{
    if (!m_folder.isValid())
        return false;
    m_address = QStringLiteral("unix:path=") + m_folder.filePath(QStringLiteral("bus"));
    m_daemon.start(QStringLiteral("dbus-daemon"),
                   {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                    QStringLiteral("--address=") + m_address, QStringLiteral("--print-address=1")});
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
