#ifndef VELA_VELAPOWERMANAGERTARGET_H
#define VELA_VELAPOWERMANAGERTARGET_H

#include "vela_api_export.h"
#include "velahash.h"
#include "velapowerenums.h"

#include <QMetaType>

// A wish for a system target; the argument of the handler's target signals,
// hence a registered meta-type ("VelaPowerManagerTarget").
class VELA_API_EXPORT VelaPowerManagerTarget : public VelaHash
{
public:
    VelaPowerManagerTarget() = default;
    VelaPowerManagerTarget(const QHash<QString, QVariant>& entries) : VelaHash(entries) {}
    explicit VelaPowerManagerTarget(VelaPowerManagerTargets::Enum target);

    VelaPowerManagerTargets::Enum target() const;
    VelaPowerManagerTarget& setTarget(VelaPowerManagerTargets::Enum target);
};

Q_DECLARE_METATYPE(VelaPowerManagerTarget)

#endif
