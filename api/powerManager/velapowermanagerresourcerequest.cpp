#include "velapowermanagerresourcerequest.h"

namespace {
const QString resourceKey = QStringLiteral("resource");
const QString moduleNameKey = QStringLiteral("moduleName");
const QString actionKey = QStringLiteral("action");
} // namespace

VelaPowerManagerResourceRequest::VelaPowerManagerResourceRequest(VelaPowerManagerResources::Enum resource,
                                                                 const QString& moduleName,
                                                                 VelaPowerModuleActions::Enum action)
{
    setResource(resource).setModuleName(moduleName).setAction(action);
}

VelaPowerManagerResources::Enum VelaPowerManagerResourceRequest::resource() const
{
    return static_cast<VelaPowerManagerResources::Enum>(value(resourceKey).toInt());
}

QString VelaPowerManagerResourceRequest::moduleName() const
{
    return value(moduleNameKey).toString();
}

VelaPowerModuleActions::Enum VelaPowerManagerResourceRequest::action() const
{
    return static_cast<VelaPowerModuleActions::Enum>(value(actionKey).toInt());
}

VelaPowerManagerResourceRequest& VelaPowerManagerResourceRequest::setResource(VelaPowerManagerResources::Enum resource)
{
    insert(resourceKey, static_cast<int>(resource));
    return *this;
}

VelaPowerManagerResourceRequest& VelaPowerManagerResourceRequest::setModuleName(const QString& moduleName)
{
    insert(moduleNameKey, moduleName);
    return *this;
}

VelaPowerManagerResourceRequest& VelaPowerManagerResourceRequest::setAction(VelaPowerModuleActions::Enum action)
{
    insert(actionKey, static_cast<int>(action));
    return *this;
}
