#include "monitorservice.h"

#include "connectionwatch.h"

#include <QDBusMessage>

const char* const MonitorService::objectPath = "/org/vela/Power1/Monitor";
const QDBusConnection::RegisterOptions MonitorService::exported =
    QDBusConnection::ExportScriptableSlots | QDBusConnection::ExportScriptableSignals;

namespace {

const char* const interfaceName = "org.vela.Power1.Monitor";

} // namespace

MonitorService::MonitorService(const QDBusConnection& bus)
    : m_bus(bus)
    , m_watcher(QString(), bus, QDBusServiceWatcher::WatchForUnregistration)
{
    connect(&m_watcher, &QDBusServiceWatcher::serviceUnregistered, this, &MonitorService::forget);
}

void MonitorService::Subscribe()
{
    const QString subscriber = message().service();
    if (m_subscribers.contains(subscriber))
        return;
    if (m_subscribers.size() >= mostSubscribers) {
        sendErrorReply(QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded"),
                       QStringLiteral("at most %1 connections watch the service").arg(mostSubscribers));
        return;
    }
    m_subscribers.insert(subscriber);
    m_watcher.addWatchedService(subscriber);
    ifAlreadyGone(m_bus, subscriber, this, [this, subscriber]() { forget(subscriber); });
}

void MonitorService::Unsubscribe()
{
    forget(message().service());
}

void MonitorService::forget(const QString& subscriber)
{
    m_subscribers.remove(subscriber);
    m_watcher.removeWatchedService(subscriber);
}

void MonitorService::publish(const RunEvent& event)
{
    for (const QString& subscriber : qAsConst(m_subscribers)) {
        QDBusMessage signal = QDBusMessage::createTargetedSignal(subscriber, QLatin1String(objectPath),
                                                                 QLatin1String(interfaceName), QStringLiteral("Event"));
        signal << event.timeUs << RunEvent::kindName(event.kind) << event.subject << event.detail;
        m_bus.send(signal);
    }
}
