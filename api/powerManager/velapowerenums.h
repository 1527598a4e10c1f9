#ifndef VELA_VELAPOWERENUMS_H
#define VELA_VELAPOWERENUMS_H

#include "vela_api_export.h"

#include <QList>
#include <QString>

#include <cstdint>

/*
 * The power manager's enumerations. Each is an Enum inside a holder named
 * after the set, with toString() giving the display text used for node names
 * and log lines. The handler compares numeric values only.
 */

/// The state of a power node.
struct VELA_API_EXPORT VelaPowerNodeStates {
    /// The states, in the order a transition passes them.
    enum Enum : int32_t { initial = 0, enabling = 1, enabled = 2, disabling = 3, disabled = 4 };
    /// The display text of `state`, such as "enabled".
    static QString toString(Enum state);
};

/// What a module wants of a node: hold it on, use it while no target takes it
/// away, or release it (no claim at all).
struct VELA_API_EXPORT VelaPowerModuleActions {
    /// The actions; release is no claim at all.
    enum Enum : int32_t { hold = 0, use = 1, release = 2 };
    /// The display text of `action`, such as "use".
    static QString toString(Enum action);
    /// Parses a display text; false when it names no action.
    static bool fromString(const QString& text, Enum* action);
};

/// The kind of a revoke message: before the change, or after it.
struct VELA_API_EXPORT VelaPowerManagerMessageTypes {
    /// The message types.
    enum Enum : int32_t { revoke = 0, postRevoke = 1 };
    /// The display text of `type`.
    static QString toString(Enum type);
};

/**
 * Targets and resources are opaque keys. The platform's own values are listed
 * below with their names; a service can use any other value and give it (or
 * a listed value) a name of its own at run time with registerName(), without
 * rebuilding the API: a power graph loaded from a file names its targets and
 * resources this way. toString() returns the registered name, else the
 * platform's name, else "target\<N\>" / "resource\<N\>". Names are unique per
 * enumeration. The registry is process-wide and thread-safe.
 */
struct VELA_API_EXPORT VelaPowerManagerTargets {
    /// The platform's targets; other values are allowed.
    enum Enum : int32_t { off = 0, suspend = 1, standby = 2, active = 3, performance = 4 };
    /// The registered name of `target`, else its platform name, else "target\<N\>".
    static QString toString(Enum target);
    /// False (and nothing changed) when another value already has that name
    /// or the name is empty.
    static bool registerName(Enum target, const QString& name);
    /// The value named `name` (registered or built in); false when none.
    static bool fromString(const QString& name, Enum* target);
};

/// The resources of the platform: opaque keys, named the same way as the targets.
struct VELA_API_EXPORT VelaPowerManagerResources {
    /// The platform's resources; other values are allowed.
    enum Enum : int32_t {
        display = 0,
        backlight = 1,
        audio = 2,
        network = 3,
        wifi = 4,
        bluetooth = 5,
        storage = 6,
        usb = 7,
        camera = 8,
        gpu = 9,
        cpuPerformance = 10,
        sensors = 11
    };
    /// The registered name of `resource`, else its platform name, else "resource\<N\>".
    static QString toString(Enum resource);
    /// Names `resource`; false (and nothing changed) when another value already has
    /// that name or the name is empty. Thread-safe.
    static bool registerName(Enum resource, const QString& name);
    /// The value named `name` (registered or built in); false when none.
    static bool fromString(const QString& name, Enum* resource);
};

/// The module name under which the power manager itself acts: the module of
/// every target request.
VELA_API_EXPORT QString VelaPowerManagerName();

#endif
