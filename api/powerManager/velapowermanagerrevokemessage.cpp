#include "velapowermanagerrevokemessage.h"

// Keys built on use: records may be filled from other libraries' static
// initialisers, before this file's own globals would exist.
namespace {
QString moduleNameKey() { return QStringLiteral("moduleName"); }
QString messageTypeKey() { return QStringLiteral("messageType"); }
QString revokeResourcesKey() { return QStringLiteral("revokeResources"); }
} // namespace

QString VelaPowerManagerRevokeMessage::moduleName() const
{
    return value(moduleNameKey()).toString();
}

VelaPowerManagerMessageTypes::Enum VelaPowerManagerRevokeMessage::messageType() const
{
    return static_cast<VelaPowerManagerMessageTypes::Enum>(value(messageTypeKey()).toInt());
}

VelaList<VelaPowerManagerResources::Enum> VelaPowerManagerRevokeMessage::revokeResources() const
{
    return VelaList<VelaPowerManagerResources::Enum>::fromVariantList(value(revokeResourcesKey()).toList());
}

VelaPowerManagerRevokeMessage& VelaPowerManagerRevokeMessage::setModuleName(const QString& moduleName)
{
    insert(moduleNameKey(), moduleName);
    return *this;
}

VelaPowerManagerRevokeMessage& VelaPowerManagerRevokeMessage::setMessageType(VelaPowerManagerMessageTypes::Enum type)
{
    insert(messageTypeKey(), static_cast<int>(type));
    return *this;
}

VelaPowerManagerRevokeMessage&
VelaPowerManagerRevokeMessage::setRevokeResources(const VelaList<VelaPowerManagerResources::Enum>& resources)
{
    insert(revokeResourcesKey(), resources.toVariantList());
    return *this;
}
