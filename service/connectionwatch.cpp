#include "connectionwatch.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

void ifAlreadyGone(const QDBusConnection& bus, const QString& name, QObject* context, std::function<void()> gone)
{
    QDBusMessage question =
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                                       QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
    question << name;
    auto* answer = new QDBusPendingCallWatcher(bus.asyncCall(question), context);
    QObject::connect(answer, &QDBusPendingCallWatcher::finished, context,
                     [gone = std::move(gone)](QDBusPendingCallWatcher* watcher) {
                         const QDBusPendingReply<bool> reply = *watcher;
                         watcher->deleteLater();
                         if (reply.isValid() && !reply.value())
                             gone();
                     });
}
