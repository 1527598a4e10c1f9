#include "serviceclient.h"

#include <QDBusArgument>
#include <QDBusError>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QEventLoop>

namespace {

const char* const serviceName = "org.vela.Power1";
const char* const objectPath = "/org/vela/Power1";
const char* const managerInterface = "org.vela.Power1.Manager";

QVariantMap plainMap(const QDBusArgument& argument)
{
    QVariantMap map;
    argument.beginMap();
    while (!argument.atEnd()) {
        QString key;
        QVariant value;
        argument.beginMapEntry();
        argument >> key >> value;
        argument.endMapEntry();
        map.insert(key, ServiceClient::plain(value));
    }
    argument.endMap();
    return map;
}

QVariantList plainList(const QDBusArgument& argument)
{
    QVariantList list;
    argument.beginArray();
    while (!argument.atEnd()) {
        QVariant value;
        argument >> value;
        list.append(ServiceClient::plain(value));
    }
    argument.endArray();
    return list;
}

} // namespace

ServiceClient::ServiceClient(QString bus)
    : m_bus(std::move(bus))
{
}

ServiceClient::~ServiceClient()
{
    if (m_ownConnection.isEmpty())
        return;
    m_connection = QDBusConnection(QString());
    QDBusConnection::disconnectFromBus(m_ownConnection);
}

bool ServiceClient::connect(QString* problem)
{
    if (m_bus == QLatin1String("system")) {
        m_connection = QDBusConnection::systemBus();
    } else if (m_bus == QLatin1String("session")) {
        m_connection = QDBusConnection::sessionBus();
    } else {
        m_ownConnection = QStringLiteral("vela-power");
        m_connection = QDBusConnection::connectToBus(m_bus, m_ownConnection);
    }
    if (m_connection.isConnected())
        return true;
    *problem = QStringLiteral("cannot connect to %1: %2").arg(busDescription(), m_connection.lastError().message());
    return false;
}

QString ServiceClient::busDescription() const
{
    if (m_bus == QLatin1String("system") || m_bus == QLatin1String("session"))
        return QStringLiteral("the %1 bus").arg(m_bus);
    return QStringLiteral("the bus at %1").arg(m_bus);
}

QDBusPendingCall ServiceClient::callAsync(const QString& method, const QVariantList& arguments, int timeoutMs) const
{
    QDBusMessage message = QDBusMessage::createMethodCall(QLatin1String(serviceName), QLatin1String(objectPath),
                                                          QLatin1String(managerInterface), method);
    message.setArguments(arguments);
    return m_connection.asyncCall(message, timeoutMs);
}

QDBusMessage ServiceClient::call(const QString& method, const QVariantList& arguments, int timeoutMs) const
{
    return waitFor(callAsync(method, arguments, timeoutMs));
}

QDBusMessage ServiceClient::properties() const
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(QLatin1String(serviceName), QLatin1String(objectPath),
                                       QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("GetAll"));
    message << QLatin1String(managerInterface);
    return waitFor(m_connection.asyncCall(message, questionTimeoutMs));
}

QString ServiceClient::failure(const QDBusMessage& reply) const
{
    const QString name = reply.errorName();
    if (name == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
        name == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner"))
        return QStringLiteral("%1 is not running on %2").arg(QLatin1String(serviceName), busDescription());
    if (name == QLatin1String("org.freedesktop.DBus.Error.NoReply") ||
        name == QLatin1String("org.freedesktop.DBus.Error.Timeout"))
        return QStringLiteral("%1 on %2 did not answer in time").arg(QLatin1String(serviceName), busDescription());
    return QStringLiteral("%1 (%2)").arg(reply.errorMessage(), name);
}

QDBusMessage ServiceClient::waitFor(const QDBusPendingCall& call)
{
    if (!call.isFinished()) {
        QEventLoop loop;
        QDBusPendingCallWatcher watcher(call);
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
        if (!watcher.isFinished())
            loop.exec();
    }
    return call.reply();
}

QVariant ServiceClient::plain(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return plain(value.value<QDBusVariant>().variant());
    if (value.userType() != qMetaTypeId<QDBusArgument>())
        return value;
    const QDBusArgument argument = value.value<QDBusArgument>();
    switch (argument.currentType()) {
    case QDBusArgument::MapType:
        return plainMap(argument);
    case QDBusArgument::ArrayType:
        return plainList(argument);
    default:
        return argument.asVariant();
    }
}
