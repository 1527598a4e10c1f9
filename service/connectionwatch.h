#ifndef VELA_SERVICE_CONNECTIONWATCH_H
#define VELA_SERVICE_CONNECTIONWATCH_H

#include <QDBusConnection>
#include <QObject>
#include <QString>

#include <functional>

/*
 * A QDBusServiceWatcher sees a connection go only from when it watches it:
 * one that went between its call and the watch would be thought still
 * there. So each new watch is followed by this question to the bus, and "no
 * owner" counts as gone.
 *
 *   watcher.addWatchedService(caller);
 *   ifAlreadyGone(bus, caller, this, [this, caller] { callerGone(caller); });
 */
void ifAlreadyGone(const QDBusConnection& bus, const QString& name, QObject* context, std::function<void()> gone);

#endif
