#ifndef VELA_VELAPOWERMANAGERREVOKEMESSAGE_H
#define VELA_VELAPOWERMANAGERREVOKEMESSAGE_H

#include "vela_api_export.h"
#include "velahash.h"
#include "velalist.h"
#include "velapowerenums.h"

// The message sent to a module whose resources a change takes away. The
// revoked resources are stored as the enumeration's integer values.
class VELA_API_EXPORT VelaPowerManagerRevokeMessage : public VelaHash
{
public:
    VelaPowerManagerRevokeMessage() = default;
    VelaPowerManagerRevokeMessage(const QHash<QString, QVariant>& entries) : VelaHash(entries) {}

    QString moduleName() const;
    VelaPowerManagerMessageTypes::Enum messageType() const;
    VelaList<VelaPowerManagerResources::Enum> revokeResources() const;

    VelaPowerManagerRevokeMessage& setModuleName(const QString& moduleName);
    VelaPowerManagerRevokeMessage& setMessageType(VelaPowerManagerMessageTypes::Enum type);
    VelaPowerManagerRevokeMessage& setRevokeResources(const VelaList<VelaPowerManagerResources::Enum>& resources);
};

#endif
