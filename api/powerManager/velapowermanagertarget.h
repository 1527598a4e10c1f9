#ifndef VELA_VELAPOWERMANAGERTARGET_H
#define VELA_VELAPOWERMANAGERTARGET_H

#include "vela_api_export.h"
#include "velahash.h"
#include "velapowerenums.h"

#include <QMetaType>

/// A wish for a system target; the argument of the handler's target signals,
/// hence a registered meta-type ("VelaPowerManagerTarget").
class VELA_API_EXPORT VelaPowerManagerTarget : public VelaHash
{
public:
    VelaPowerManagerTarget() = default;
    /// A record holding exactly `entries`.
    VelaPowerManagerTarget(const QHash<QString, QVariant>& entries) : VelaHash(entries) {}
    /// A wish for `target`.
    explicit VelaPowerManagerTarget(VelaPowerManagerTargets::Enum target);

    /// The target wished for.
    VelaPowerManagerTargets::Enum target() const;
    /// Sets the target; returns this record.
    VelaPowerManagerTarget& setTarget(VelaPowerManagerTargets::Enum target);
};

Q_DECLARE_METATYPE(VelaPowerManagerTarget)

#endif
