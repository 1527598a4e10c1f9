#include "hardwareplatform.h"

#include "cmerror.h"
#include "cmrootworker.h"

#include <QCoreApplication>
#include <QFile>

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
            if (control->kind == GraphSpec::Control::DBus) {
                *problem = QStringLiteral("resource %1 writes %2, whose control is a D-Bus property, which this "
                                          "platform does not drive")
                               .arg(resource.name, write->path);
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
    finish(call, reply, QStringLiteral("%1: a D-Bus property, which this platform does not drive").arg(call.path));
}

// On a thread of its own, which the platform does not wait for: a driver may
// hold the write for good. The outcome comes back to the event loop's thread
// through the desk, which drops it once the platform is gone (the desk and
// the platform are only read and written on that thread).
void HardwarePlatform::writeAttribute(const QString& directory, PlatformCall call, const CMReply<QVariant>& reply)
{
    const QString fileName = directory + QLatin1Char('/') + call.key;
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
