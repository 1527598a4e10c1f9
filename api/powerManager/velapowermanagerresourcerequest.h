#ifndef VELA_VELAPOWERMANAGERRESOURCEREQUEST_H
#define VELA_VELAPOWERMANAGERRESOURCEREQUEST_H

#include "vela_api_export.h"
#include "velahash.h"
#include "velapowerenums.h"

// A module's wish about one resource: hold it, use it or release it.
class VELA_API_EXPORT VelaPowerManagerResourceRequest : public VelaHash
{
public:
    VelaPowerManagerResourceRequest() = default;
    VelaPowerManagerResourceRequest(const QHash<QString, QVariant>& entries) : VelaHash(entries) {}
    VelaPowerManagerResourceRequest(VelaPowerManagerResources::Enum resource, const QString& moduleName,
                                    VelaPowerModuleActions::Enum action);

    VelaPowerManagerResources::Enum resource() const;
    QString moduleName() const;
    VelaPowerModuleActions::Enum action() const;

    VelaPowerManagerResourceRequest& setResource(VelaPowerManagerResources::Enum resource);
    VelaPowerManagerResourceRequest& setModuleName(const QString& moduleName);
    VelaPowerManagerResourceRequest& setAction(VelaPowerModuleActions::Enum action);
};

#endif
