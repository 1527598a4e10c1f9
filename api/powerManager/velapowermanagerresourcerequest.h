#ifndef VELA_VELAPOWERMANAGERRESOURCEREQUEST_H
#define VELA_VELAPOWERMANAGERRESOURCEREQUEST_H

#include "vela_api_export.h"
#include "velahash.h"
#include "velapowerenums.h"

/// A module's wish about one resource: hold it, use it or release it.
class VELA_API_EXPORT VelaPowerManagerResourceRequest : public VelaHash
{
public:
    VelaPowerManagerResourceRequest() = default;
    /// A request holding exactly `entries`.
    VelaPowerManagerResourceRequest(const QHash<QString, QVariant>& entries) : VelaHash(entries) {}
    /// A wish of `moduleName` to apply `action` to `resource`.
    VelaPowerManagerResourceRequest(VelaPowerManagerResources::Enum resource, const QString& moduleName,
                                    VelaPowerModuleActions::Enum action);

    /// The resource wished for.
    VelaPowerManagerResources::Enum resource() const;
    /// The module that wishes.
    QString moduleName() const;
    /// What the module wants of the resource.
    VelaPowerModuleActions::Enum action() const;

    /// Sets the resource; returns this request.
    VelaPowerManagerResourceRequest& setResource(VelaPowerManagerResources::Enum resource);
    /// Sets the module; returns this request.
    VelaPowerManagerResourceRequest& setModuleName(const QString& moduleName);
    /// Sets the action; returns this request.
    VelaPowerManagerResourceRequest& setAction(VelaPowerModuleActions::Enum action);
};

#endif
