#include "velapowermanagertarget.h"

// Keys built on use: records may be filled from other libraries' static
// initialisers, before this file's own globals would exist.
namespace {
QString targetKey() { return QStringLiteral("target"); }

// The record crosses queued signal connections, so its meta-type is
// registered as soon as the library is loaded.
const struct TargetMetaType {
    TargetMetaType() { qRegisterMetaType<VelaPowerManagerTarget>("VelaPowerManagerTarget"); }
} targetMetaType;
} // namespace

VelaPowerManagerTarget::VelaPowerManagerTarget(VelaPowerManagerTargets::Enum target)
{
    setTarget(target);
}

VelaPowerManagerTargets::Enum VelaPowerManagerTarget::target() const
{
    return static_cast<VelaPowerManagerTargets::Enum>(value(targetKey()).toInt());
}

VelaPowerManagerTarget& VelaPowerManagerTarget::setTarget(VelaPowerManagerTargets::Enum target)
{
    insert(targetKey(), static_cast<int>(target));
    return *this;
}
