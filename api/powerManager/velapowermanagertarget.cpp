#include "velapowermanagertarget.h"

namespace {
const QString targetKey = QStringLiteral("target");

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
    return static_cast<VelaPowerManagerTargets::Enum>(value(targetKey).toInt());
}

VelaPowerManagerTarget& VelaPowerManagerTarget::setTarget(VelaPowerManagerTargets::Enum target)
{
    insert(targetKey, static_cast<int>(target));
    return *this;
}
