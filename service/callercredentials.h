#ifndef VELA_SERVICE_CALLERCREDENTIALS_H
#define VELA_SERVICE_CALLERCREDENTIALS_H

#include <QDBusConnection>
#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>

#include <functional>

#include <sys/types.h>

/*
 * Who is behind each connection that calls the service, as the bus tells it
 * (org.freedesktop.DBus.GetConnectionCredentials), asked once per unique name
 * and without blocking, and whether that user may switch targets: root, and
 * the members of one group (as the group database lists them; a group that
 * does not exist admits no one but root).
 *
 *   CallerCredentials credentials(bus, "vela-power");
 *   credentials.whenKnown(caller, [](const CallerCredentials::Caller& who) {
 *       if (!who.mayRequestTargets) ...
 *   });
 *   credentials.forget(caller);   // when the connection goes
 */
class CallerCredentials : public QObject
{
    Q_OBJECT

public:
    struct Caller {
        bool known = false;
        uid_t uid = 0;
        pid_t pid = 0;
        bool mayRequestTargets = false;
        // "uid 1000, pid 4242", or "uid and pid unknown".
        QString describe() const;
    };
    using Then = std::function<void(const Caller&)>;

    CallerCredentials(const QDBusConnection& bus, const QString& targetGroup);

    // Whether the group that may request targets exists.
    bool groupExists() const { return m_groupExists; }
    // Runs `then` with what the bus says of `caller`: at once when it is
    // known, else once the bus has answered (an answer that never comes, or
    // an error, leaves it unknown and without rights).
    void whenKnown(const QString& caller, Then then);
    // Runs `then` at once, unless the bus is still being asked about
    // `caller`: then after the calls that wait for the answer, so that a
    // connection's calls keep their order.
    void inTurn(const QString& caller, std::function<void()> then);
    // What is known of `caller` now.
    Caller known(const QString& caller) const { return m_known.value(caller); }
    void forget(const QString& caller);

private:
    void ask(const QString& caller);
    void answered(const QString& caller, const QVariantMap& credentials, bool valid);
    bool inGroup(uid_t uid) const;

    QDBusConnection m_bus;
    bool m_groupExists = false;
    gid_t m_targetGroup = 0;
    QHash<QString, Caller> m_known;
    // The callers the bus is being asked about, and what waits for its answer.
    QHash<QString, QList<Then>> m_waiting;
    // Callers that went while the bus was being asked about them.
    QSet<QString> m_forgotten;
};

#endif
