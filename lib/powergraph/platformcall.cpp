#include "platformcall.h"

#include "velapowerenums.h"

#include <sstream>

namespace {

QString writeKey(const QString& path, const QString& key)
{
    return path + QLatin1Char('\n') + key;
}

} // namespace

PlatformCall PlatformCall::write(const QString& path, const QString& key, const QVariant& value)
{
    PlatformCall call;
    call.kind = Write;
    call.path = path;
    call.key = key;
    call.value = value;
    return call;
}

PlatformCall PlatformCall::revokeMessage(const QString& path, const VelaHash& message)
{
    PlatformCall call;
    call.kind = Message;
    call.path = path;
    call.message = message;
    return call;
}

QString PlatformCall::text() const
{
    if (kind == Write)
        return key + QStringLiteral(" = ") + value.toString();
    return describe(message);
}

QString PlatformCall::messageName() const
{
    return (afterRevoke ? QStringLiteral("postRevoke ") : QStringLiteral("revoke ")) +
           revokedResources(message).join(QStringLiteral(", "));
}

QStringList PlatformCall::revokedResources(const VelaHash& message)
{
    QStringList names;
    for (const QVariant& value : message.value(QStringLiteral("revokeResources")).toList())
        names << VelaPowerManagerResources::toString(static_cast<VelaPowerManagerResources::Enum>(value.toInt()));
    return names;
}

QString PlatformCall::describe(const VelaHash& message)
{
    VelaHash readable = message;
    const QString revoked = QStringLiteral("revokeResources");
    if (readable.contains(revoked))
        readable.insert(revoked, revokedResources(message));
    std::ostringstream text;
    text << readable;
    return QString::fromStdString(text.str());
}

CallOwners::CallOwners(const GraphSpec& graph)
{
    for (const GraphSpec::Resource& resource : graph.resources) {
        for (const GraphSpec::Write* write : {&resource.enable, &resource.disable}) {
            if (write->present)
                m_writers[writeKey(write->path, write->key)].append(Writer{write->value, resource.name});
        }
    }
    // The first module to declare a path receives its messages; a message is
    // the one after the change only on a path declared as such and not as
    // the module's revoke path.
    for (const GraphSpec::Module& module : graph.modules) {
        for (const QString& path : {module.revokePath, module.postRevokePath}) {
            if (!path.isEmpty() && !m_recipients.contains(path))
                m_recipients.insert(path, Recipient{module.name, module.revokePath != path});
        }
    }
}

void CallOwners::name(PlatformCall* call) const
{
    if (call->kind == PlatformCall::Write) {
        const auto writers = m_writers.constFind(writeKey(call->path, call->key));
        if (writers == m_writers.constEnd())
            return;
        for (const Writer& writer : writers.value()) {
            if (writer.value == call->value) {
                call->resource = writer.resource;
                return;
            }
        }
        return;
    }
    const Recipient recipient = m_recipients.value(call->path);
    call->module = recipient.module;
    call->afterRevoke = recipient.afterRevoke;
}
