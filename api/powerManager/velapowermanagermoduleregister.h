#ifndef VELA_VELAPOWERMANAGERMODULEREGISTER_H
#define VELA_VELAPOWERMANAGERMODULEREGISTER_H

#include "cmpath.h"
#include "vela_api_export.h"
#include "velahash.h"

// A module's registration: its name and the two paths at which it takes
// revoke messages before and after its resources are taken away.
class VELA_API_EXPORT VelaPowerManagerModuleRegister : public VelaHash
{
public:
    VelaPowerManagerModuleRegister() = default;
    VelaPowerManagerModuleRegister(const QHash<QString, QVariant>& entries) : VelaHash(entries) {}
    VelaPowerManagerModuleRegister(const QString& moduleName, const CMPath& revokeResourcesPath,
                                   const CMPath& postRevokeResourcesPath);

    QString moduleName() const;
    CMPath revokeResourcesPath() const;
    CMPath postRevokeResourcesPath() const;

    VelaPowerManagerModuleRegister& setModuleName(const QString& moduleName);
    VelaPowerManagerModuleRegister& setRevokeResourcesPath(const CMPath& path);
    VelaPowerManagerModuleRegister& setPostRevokeResourcesPath(const CMPath& path);
};

#endif
