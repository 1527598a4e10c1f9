#include "velapowermanagermoduleregister.h"

// Keys built on use: records may be filled from other libraries' static
// initialisers, before this file's own globals would exist.
namespace {
QString moduleNameKey() { return QStringLiteral("moduleName"); }
QString revokeKey() { return QStringLiteral("revokeResourcesPath"); }
QString postRevokeKey() { return QStringLiteral("postRevokeResourcesPath"); }
} // namespace

VelaPowerManagerModuleRegister::VelaPowerManagerModuleRegister(const QString& moduleName,
                                                               const CMPath& revokeResourcesPath,
                                                               const CMPath& postRevokeResourcesPath)
{
    setModuleName(moduleName).setRevokeResourcesPath(revokeResourcesPath).setPostRevokeResourcesPath(
        postRevokeResourcesPath);
}

QString VelaPowerManagerModuleRegister::moduleName() const
{
    return value(moduleNameKey()).toString();
}

CMPath VelaPowerManagerModuleRegister::revokeResourcesPath() const
{
    return CMPath(value(revokeKey()).toString());
}

CMPath VelaPowerManagerModuleRegister::postRevokeResourcesPath() const
{
    return CMPath(value(postRevokeKey()).toString());
}

VelaPowerManagerModuleRegister& VelaPowerManagerModuleRegister::setModuleName(const QString& moduleName)
{
    insert(moduleNameKey(), moduleName);
    return *this;
}

VelaPowerManagerModuleRegister& VelaPowerManagerModuleRegister::setRevokeResourcesPath(const CMPath& path)
{
    insert(revokeKey(), path.toString());
    return *this;
}

VelaPowerManagerModuleRegister& VelaPowerManagerModuleRegister::setPostRevokeResourcesPath(const CMPath& path)
{
    insert(postRevokeKey(), path.toString());
    return *this;
}
