#ifndef VELA_CLIENT_SERVICECLIENT_H
#define VELA_CLIENT_SERVICECLIENT_H

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

/*
 * vela-powerd (org.vela.Power1) as the client commands reach it: a
 * connection to the bus a command names, and calls that never block the
 * event loop, each with its own time-out. Errors are one line, for people:
 * a service that is not running names the bus it was looked for on.
 *
 *   ServiceClient client("system");
 *   QString problem;
 *   if (!client.connect(&problem))
 *       return fail(problem);          // "cannot connect to the system bus: ..."
 *   const QDBusMessage nodes = client.call("ListNodes", {});
 *   if (nodes.type() == QDBusMessage::ErrorMessage)
 *       return fail(client.failure(nodes));   // "org.vela.Power1 is not running on the system bus"
 */
class ServiceClient
{
public:
    // A question (ListNodes, a property) and a request, which waits for the
    // handler's queue and its writes and revoke messages.
    static constexpr int questionTimeoutMs = 10000;
    static constexpr int requestTimeoutMs = 120000;

    // `bus`: "system", "session" or a bus address.
    explicit ServiceClient(QString bus);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    bool connect(QString* problem);
    QDBusConnection connection() const { return m_connection; }
    // "the system bus", "the session bus", "the bus at unix:path=/run/x".
    QString busDescription() const;

    // Calls a method of org.vela.Power1.Manager.
    QDBusPendingCall callAsync(const QString& method, const QVariantList& arguments, int timeoutMs) const;
    // The same, waiting for the answer with the event loop running.
    QDBusMessage call(const QString& method, const QVariantList& arguments, int timeoutMs = questionTimeoutMs) const;
    // The Manager's properties (CurrentTarget, NextTarget).
    QDBusMessage properties() const;
    // Why a call failed, in one line.
    QString failure(const QDBusMessage& reply) const;

    // Waits, with the event loop running, until `call` is answered.
    static QDBusMessage waitFor(const QDBusPendingCall& call);
    // A reply's value with every D-Bus container made a plain QVariantMap,
    // QVariantList or value, as JSON takes it.
    static QVariant plain(const QVariant& value);

private:
    QString m_bus;
    QString m_ownConnection;
    QDBusConnection m_connection{QString()};
};

#endif
