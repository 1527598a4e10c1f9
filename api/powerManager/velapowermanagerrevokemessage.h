#ifndef VELA_VELAPOWERMANAGERREVOKEMESSAGE_H
#define VELA_VELAPOWERMANAGERREVOKEMESSAGE_H

#include "vela_api_export.h"
#include "velahash.h"
#include "velalist.h"
#include "velapowerenums.h"

/// The message sent to a module whose resources a change takes away. The
/// revoked resources are stored as the enumeration's integer values.
class VELA_API_EXPORT VelaPowerManagerRevokeMessage : public VelaHash
{
public:
    VelaPowerManagerRevokeMessage() = default;
    /// A message holding exactly `entries`.
    VelaPowerManagerRevokeMessage(const QHash<QString, QVariant>& entries) : VelaHash(entries) {}

    /// The module the message is sent to.
    QString moduleName() const;
    /// Before the change (revoke) or after it (postRevoke).
    VelaPowerManagerMessageTypes::Enum messageType() const;
    /// The resources taken away from the module.
    VelaList<VelaPowerManagerResources::Enum> revokeResources() const;

    /// Sets the module; returns this message.
    VelaPowerManagerRevokeMessage& setModuleName(const QString& moduleName);
    /// Sets the message type; returns this message.
    VelaPowerManagerRevokeMessage& setMessageType(VelaPowerManagerMessageTypes::Enum type);
    /// Sets the revoked resources; returns this message.
    VelaPowerManagerRevokeMessage& setRevokeResources(const VelaList<VelaPowerManagerResources::Enum>& resources);
};

#endif
