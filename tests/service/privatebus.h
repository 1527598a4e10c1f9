#ifndef VELA_TESTS_PRIVATEBUS_H
#define VELA_TESTS_PRIVATEBUS_H

#include <QDBusConnection>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <memory>

/*
 * A D-Bus daemon of the test's own, never the machine's buses: started on a
 * socket in a temporary folder, and stopped with the object. By default it
 * is a session bus; given a policy, it is a bus of the system's kind, which
 * every user may reach and whose rules are those of Debian's system bus
 * followed by the policy (a file's <include>, say).
 *
 *   PrivateBus bus;
 *   ASSERT_TRUE(bus.start());
 *   QDBusConnection client = bus.connect("client");
 */
class PrivateBus
{
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool start(const QString& systemPolicy = QString());
    QString address() const { return m_address; }
    // A connection of its own, named `name` within the test.
    QDBusConnection connect(const QString& name);
    // Whether someone owns `name` on the bus, waiting for it up to `ms`.
    bool waitForOwner(const QString& name, int ms);
    // Whether nobody owns `name` any more, waiting for it up to `ms`.
    bool waitForNoOwner(const QString& name, int ms);

private:
    QTemporaryDir m_folder;
    QProcess m_daemon;
    QString m_address;
    QStringList m_connections;
};

#endif
