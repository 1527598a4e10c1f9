#include "velapowermanagerrevokemessage.h"

namespace {
const QString moduleNameKey = QStringLiteral("moduleName");
const QString messageTypeKey = QStringLiteral("messageType");
const QString revokeResourcesKey = QStringLiteral("revokeResources");
} // namespace

QString VelaPowerManagerRevokeMessage::moduleName() const
{
    return value(moduleNameKey).toString();
}

VelaPowerManagerMessageTypes::Enum VelaPowerManagerRevokeMessage::messageType() const
{
    return static_cast<VelaPowerManagerMessageTypes::Enum>(value(messageTypeKey).toInt());
}

VelaList<VelaPowerManagerResources::Enum> VelaPowerManagerRevokeMessage::revokeResources() const
{
    return VelaList<VelaPowerManagerResources::Enum>::fromVariantList(value(revokeResourcesKey).toList());
}

VelaPowerManagerRevokeMessage& VelaPowerManagerRevokeMessage::setModuleName(const QString& moduleName)
{
    insert(moduleNameKey, moduleName);
    return *this;
}

VelaPowerManagerRevokeMessage& VelaPowerManagerRevokeMessage::setMessageType(VelaPowerManagerMessageTypes::Enum type)
{
    insert(messageTypeKey, static_cast<int>(type));
    return *this;
}

VelaPowerManagerRevokeMessage&
VelaPowerManagerRevokeMessage::setRevokeResources(const VelaList<VelaPowerManagerResources::Enum>& resources)
{
    insert(revokeResourcesKey, resources.toVariantList());
    return *this;
}
