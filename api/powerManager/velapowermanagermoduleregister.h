#ifndef VELA_VELAPOWERMANAGERMODULEREGISTER_H
#define VELA_VELAPOWERMANAGERMODULEREGISTER_H

#include "cmpath.h"
#include "vela_api_export.h"
#include "velahash.h"

/// A module's registration: its name and the two paths at which it takes
/// revoke messages before and after its resources are taken away.
class VELA_API_EXPORT VelaPowerManagerModuleRegister : public VelaHash
{
public:
    VelaPowerManagerModuleRegister() = default;
    /// A registration holding exactly `entries`.
    VelaPowerManagerModuleRegister(const QHash<QString, QVariant>& entries) : VelaHash(entries) {}
    /// A registration of `moduleName` with its two revoke paths.
    VelaPowerManagerModuleRegister(const QString& moduleName, const CMPath& revokeResourcesPath,
                                   const CMPath& postRevokeResourcesPath);

    /// The module's name.
    QString moduleName() const;
    /// Where the module takes the revoke message sent before a change.
    CMPath revokeResourcesPath() const;
    /// Where the module takes the revoke message sent after a change.
    CMPath postRevokeResourcesPath() const;

    /// Sets the name; returns this record.
    VelaPowerManagerModuleRegister& setModuleName(const QString& moduleName);
    /// Sets the path of the message before a change; returns this record.
    VelaPowerManagerModuleRegister& setRevokeResourcesPath(const CMPath& path);
    /// Sets the path of the message after a change; returns this record.
    VelaPowerManagerModuleRegister& setPostRevokeResourcesPath(const CMPath& path);
};

#endif
