#ifndef VELA_SERVICE_MONITORSERVICE_H
#define VELA_SERVICE_MONITORSERVICE_H

#include "runevent.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusServiceWatcher>
#include <QObject>
#include <QSet>

/*
 * The object /org/vela/Power1/Monitor with the interface
 * org.vela.Power1.Monitor: a connection that calls Subscribe() gets every
 * event the service records from then on (a request and its answer, a
 * hardware write and its outcome, a revoke message, a node's state, a
 * signal of the handler) as the signal
 * Event(x timeUs, s kind, s subject, s detail), sent to it alone, with the
 * time in microseconds since the service started and the kind as the events
 * file names it, until it calls Unsubscribe() or goes. Nothing is sent while
 * nobody listens. The bus policy lets only root and the group vela-power
 * subscribe. `vela-power monitor` prints the events as `vela-power run`
 * prints a run.
 *
 *   MonitorService monitor(bus);
 *   bus.registerObject(MonitorService::objectPath, &monitor, MonitorService::exported);
 *   recorder listener: monitor.publish(event);
 */
class MonitorService : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.vela.Power1.Monitor")

public:
    static const char* const objectPath;
    static const QDBusConnection::RegisterOptions exported;
    // Like the modules a connection registers.
    static constexpr int mostSubscribers = 64;

    explicit MonitorService(const QDBusConnection& bus);

    void publish(const RunEvent& event);
    int subscribers() const { return m_subscribers.size(); }

public slots:
    Q_SCRIPTABLE void Subscribe();
    Q_SCRIPTABLE void Unsubscribe();

signals:
    // For the interface's introspection: publish() sends it to each
    // subscriber alone, never to the whole bus.
    Q_SCRIPTABLE void Event(qlonglong timeUs, const QString& kind, const QString& subject, const QString& detail);

private:
    void forget(const QString& subscriber);

    QDBusConnection m_bus;
    QSet<QString> m_subscribers;
    QDBusServiceWatcher m_watcher;
};

#endif
