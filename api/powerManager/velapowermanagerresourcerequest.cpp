#include "velapowermanagerresourcerequest.h"

// Keys built on use: records may be filled from other libraries' static
// initialisers, before this file's own globals would exist.
namespace {
QString resourceKey() { return QStringLiteral("resource"); }
QString moduleNameKey() { return QStringLiteral("moduleName"); }
QString actionKey() { return QStringLiteral("action"); }
} // namespace

VelaPowerManagerResourceRequest::VelaPowerManagerResourceRequest(VelaPowerManagerResources::Enum resource,
                                                                 const QString& moduleName,
                                                                 VelaPowerModuleActions::Enum action)
{
    setResource(resource).setModuleName(moduleName).setAction(action);
}

VelaPowerManagerResources::Enum VelaPowerManagerResourceRequest::resource() const
{
    return static_cast<VelaPowerManagerResources::Enum>(value(resourceKey()).toInt());
}

QString VelaPowerManagerResourceRequest::moduleName() const
{
    return value(moduleNameKey()).toString();
}

VelaPowerModuleActions::Enum VelaPowerManagerResourceRequest::action() const
{
    return static_cast<VelaPowerModuleActions::Enum>(value(actionKey()).toInt());
}

VelaPowerManagerResourceRequest& VelaPowerManagerResourceRequest::setResource(VelaPowerManagerResources::Enum resource)
{
    insert(resourceKey(), static_cast<int>(resource));
    return *this;
}

VelaPowerManagerResourceRequest& VelaPowerManagerResourceRequest::setModuleName(const QString& moduleName)
{
    insert(moduleNameKey(), moduleName);
    return *this;
}

VelaPowerManagerResourceRequest& VelaPowerManagerResourceRequest::setAction(VelaPowerModuleActions::Enum action)
{
    insert(actionKey(), static_cast<int>(action));
    return *this;
}
