#include "hardwareplatform.h"

#include "cmerror.h"
#include "cmrootworker.h"

#include <QCoreApplication>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QFile>

#include <cmath>
#include <limits>

#include <thread>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

CMError controlError(const QString& message)
{
    return CMError(QStringLiteral("org.vela.Power1.Error.ControlFailed"), TrString(message));
}

// Writes `text` to `fileName` as a sysfs attribute expects it: one write of
// the whole text, then close; truncated on opening, as a shell's `>` does, so
// that a plain file standing in for the attribute holds the value alone.
// Returns the system's reason on failure.
QString writeAttributeFile(const QString& fileName, const QByteArray& text)
{
    const QByteArray name = QFile::encodeName(fileName);
    const int fd = ::open(name.constData(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    const ssize_t written = ::write(fd, text.constData(), static_cast<size_t>(text.size()));
    const int writeErrno = errno;
    const bool closed = ::close(fd) == 0;
    if (written < 0)
        return QString::fromLocal8Bit(std::strerror(writeErrno));
    if (written != text.size())
        return QStringLiteral("the driver took %1 of %2 bytes").arg(written).arg(text.size());
    if (!closed)
        return QString::fromLocal8Bit(std::strerror(errno));
    return QString();
}

// A graph's value as a property takes it: a whole number as an int32 ("i"),
// another number as a double, true and false as a boolean, text as text.
QVariant propertyValue(const QVariant& value)
{
    if (value.userType() != QMetaType::Double)
        return value;
    const double number = value.toDouble();
    if (std::floor(number) == number && number >= std::numeric_limits<qint32>::min() &&
        number <= std::numeric_limits<qint32>::max())
        return static_cast<qint32>(number);
    return value;
}

// "system", "session" or an address; a connection that fails stays in the
// table, unconnected, and each write to it says why.
QString openBus(const QString& bus, QStringList* opened)
{
    if (bus == QLatin1String("system"))
        return QDBusConnection::systemBus().name();
    if (bus == QLatin1String("session"))
        return QDBusConnection::sessionBus().name();
    const QString name = QStringLiteral("vela-powerd control bus ") + bus;
    opened->append(name);
    return QDBusConnection::connectToBus(bus, name).name();
}

} // namespace

bool HardwarePlatform::canServe(const GraphSpec& graph, QString* problem)
{
    for (const GraphSpec::Resource& resource : graph.resources) {
        for (const GraphSpec::Write* write : {&resource.enable, &resource.disable}) {
            if (!write->present)
                continue;
            const auto control = graph.controls.constFind(write->path);
            if (control == graph.controls.constEnd()) {
                *problem =
                    QStringLiteral("resource %1 writes %2, which has no control").arg(resource.name, write->path);
                return false;
            }
        }
    }
    return true;
}

HardwarePlatform::HardwarePlatform(const GraphSpec& graph, Listener listener)
    : m_listener(std::move(listener))
    , m_owners(graph)
    , m_desk(std::make_shared<Desk>())
{
    m_desk->platform = this;
    for (auto control = graph.controls.constBegin(); control != graph.controls.constEnd(); ++control) {
        const CMPath path(control.key());
        m_paths.insert(path);
        const GraphSpec::Control target = control.value();
        if (target.kind == GraphSpec::Control::DBus && !m_buses.contains(target.bus))
            m_buses.insert(target.bus, openBus(target.bus, &m_opened));
        CMRootWorker::instance()->registerSetDataHandler(
            path,
            [this, target](const CMPath& written, const QString& key, const QVariant& value, CMReply<QVariant> reply) {
                take(target, PlatformCall::write(written.toString(), key, value), reply);
            });
    }
}

HardwarePlatform::~HardwarePlatform()
{
    CMRootWorker* root = CMRootWorker::instance();
    for (const CMPath& path : qAsConst(m_paths))
        root->unregisterSetDataHandler(path);
    m_desk->platform = nullptr;
    // The property calls still waiting go first: they hold the connections.
    qDeleteAll(m_propertyCalls.children());
    for (const QString& name : qAsConst(m_opened))
        QDBusConnection::disconnectFromBus(name);
}

QDBusConnection HardwarePlatform::bus(const QString& name) const
{
    return QDBusConnection(m_buses.value(name));
}

void HardwarePlatform::take(const GraphSpec::Control& control, PlatformCall call, const CMReply<QVariant>& reply)
{
    m_owners.name(&call);
    call.answeredAtOnce = control.kind == GraphSpec::Control::Log;
    m_listener(PlatformCall::Arrived, call);
    if (control.kind == GraphSpec::Control::Log) {
        reply.setValue(call.value);
        return;
    }
    if (control.kind == GraphSpec::Control::Sysfs) {
        writeAttribute(control.directory, call, reply);
        return;
    }
    setProperty(control, call, reply);
}

// The answer comes on the event loop's thread; none comes once the
// platform is gone.
void HardwarePlatform::setProperty(const GraphSpec::Control& control, PlatformCall call, const CMReply<QVariant>& reply)
{
    const QString property =
        QStringLiteral("%1 %2, property %3.%4").arg(control.service, control.objectPath, control.interface, call.key);
    QDBusConnection connection = bus(control.bus);
    if (!connection.isConnected())
        return finish(call, reply,
                      QStringLiteral("%1: cannot reach the bus %2: %3")
                          .arg(property, control.bus, connection.lastError().message()));
    QDBusMessage set = QDBusMessage::createMethodCall(
        control.service, control.objectPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Set"));
    set << control.interface << call.key << QVariant::fromValue(QDBusVariant(propertyValue(call.value)));
    auto* answer = new QDBusPendingCallWatcher(connection.asyncCall(set, propertyTimeoutMs), &m_propertyCalls);
    QObject::connect(
        answer, &QDBusPendingCallWatcher::finished, &m_propertyCalls,
        [this, call, reply, property](QDBusPendingCallWatcher* watcher) {
            const QDBusPendingReply<> answered = *watcher;
            watcher->deleteLater();
            finish(call, reply,
                   answered.isError()
                       ? QStringLiteral("%1: %2: %3").arg(property, answered.error().name(), answered.error().message())
                       : QString());
        });
}

// On a thread of its own, which the platform does not wait for: a driver may
// hold the write for good. The outcome comes back to the event loop's thread
// through the desk, which drops it once the platform is gone (the desk and
// the platform are only read and written on that thread).
void HardwarePlatform::writeAttribute(const QString& directory, PlatformCall call, const CMReply<QVariant>& reply)
{
    const QString fileName = m_controlsRoot + directory + QLatin1Char('/') + call.key;
    const QByteArray text = call.value.toString().toUtf8();
    const std::shared_ptr<Desk> desk = m_desk;
    std::thread([desk, fileName, text, call, reply]() {
        const QString reason = writeAttributeFile(fileName, text);
        const QString error = reason.isEmpty() ? QString() : fileName + QStringLiteral(": ") + reason;
        QCoreApplication* application = QCoreApplication::instance();
        if (!application)
            return;
        QMetaObject::invokeMethod(
            application,
            [desk, call, reply, error]() {
                if (desk->platform)
                    desk->platform->finish(call, reply, error);
            },
            Qt::QueuedConnection);
    }).detach();
}

// On the event loop's thread: reports the outcome, then answers the library.
void HardwarePlatform::finish(PlatformCall call, const CMReply<QVariant>& reply, const QString& error)
{
    if (error.isEmpty()) {
        m_listener(PlatformCall::Answered, call);
        reply.setValue(call.value);
        return;
    }
    call.error = error;
    m_listener(PlatformCall::Failed, call);
    reply.setError(controlError(error));
}
