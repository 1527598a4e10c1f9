#ifndef VELA_SERVICE_HARDWAREPLATFORM_H
#define VELA_SERVICE_HARDWAREPLATFORM_H

#include "graphfile.h"
#include "platformcall.h"

#include "cmpath.h"
#include "cmreply.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QStringList>

#include <functional>
#include <memory>

/*
 * The platform of a device: for every data path a graph's resources write, a
 * root-worker set-data handler that carries the write to the path's control
 * and answers the library with the control's outcome.
 *
 *  - sysfs: the value's text is written to the attribute file <directory>/<key>
 *    (opened, written once, closed), off the event loop's thread: a driver
 *    that is slow to take a write must not stall the service. The answer
 *    comes back on the event loop's thread; a failure's message names the
 *    file and the system's own reason ("/sys/.../brightness: No such file or
 *    directory").
 *  - dbus: the property named by the write's key is set on the control's
 *    object (org.freedesktop.DBus.Properties.Set), without waiting for the
 *    answer, which must come within propertyTimeoutMs; a failure's message
 *    names the object, the property and the bus's own error.
 *  - log: the write is only reported, and answered at once.
 *
 * Each call and its outcome are reported to a listener (a run recorder, say)
 * as a PlatformCall, on the event loop's thread.
 *
 *   QString problem;
 *   if (!HardwarePlatform::canServe(graph, &problem))
 *       return fail(problem);   // "resource backlight writes /hw/backlight, which has no control"
 *   HardwarePlatform platform(graph, [&](PlatformCall::Step step, const PlatformCall& call) { ... });
 *
 * Only one may exist at a time in a process: it registers its handlers with
 * the process's one root worker, by path.
 */
class HardwarePlatform
{
public:
    using Listener = std::function<void(PlatformCall::Step step, const PlatformCall& call)>;

    // How long the owner of a D-Bus control may take to set a property.
    static constexpr int propertyTimeoutMs = 5000;

    // Whether every path the graph's resources write has a control; else
    // says which path, and which resource writes it.
    static bool canServe(const GraphSpec& graph, QString* problem);

    HardwarePlatform(const GraphSpec& graph, Listener listener);
    // Does not wait for writes in flight (a driver may hold one for good);
    // their answers are dropped, as the library's time-outs expect of a
    // platform that went away.
    ~HardwarePlatform();
    HardwarePlatform(const HardwarePlatform&) = delete;
    // Writes sysfs attributes under `root` instead of / (a copy of a
    // board's attribute files, for tests and bring-up); empty for /.
    void setControlsRoot(const QString& root) { m_controlsRoot = root; }
    HardwarePlatform& operator=(const HardwarePlatform&) = delete;

private:
    void take(const GraphSpec::Control& control, PlatformCall call, const CMReply<QVariant>& reply);
    void writeAttribute(const QString& directory, PlatformCall call, const CMReply<QVariant>& reply);
    void setProperty(const GraphSpec::Control& control, PlatformCall call, const CMReply<QVariant>& reply);
    // The connection to a D-Bus control's bus ("system", "session" or an
    // address), made when the platform is.
    QDBusConnection bus(const QString& name) const;
    void finish(PlatformCall call, const CMReply<QVariant>& reply, const QString& error);

    // Where the writing threads hand their outcomes back: it may outlive the
    // platform (a thread held by a driver), and then takes nothing more.
    struct Desk {
        HardwarePlatform* platform = nullptr;
    };

    Listener m_listener;
    QString m_controlsRoot;
    CallOwners m_owners;
    QSet<CMPath> m_paths;
    std::shared_ptr<Desk> m_desk;
    // The names of the connections to the D-Bus controls' buses, by bus; and
    // those the platform opened itself, closed with it.
    QHash<QString, QString> m_buses;
    QStringList m_opened;
    // The parent of the property calls awaiting their answers: gone with the
    // platform, so that an answer after it is dropped.
    QObject m_propertyCalls;
};

#endif
