#ifndef VELA_POWERHANDLER_H
#define VELA_POWERHANDLER_H

#include "vela_powerhandler_export.h"

#include "PowerNode.h"
#include "PowerNodeRequest.h"

#include "cmerror.h"
#include "cmreply.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerresourcerequest.h"
#include "velapowermanagertarget.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QPair>
#include <QVariantHash>

#include <cstdint>

/**
 * The engine of the power manager.
 *
 * It knows the registered modules, resources and targets, keeps the queue of
 * node requests and runs them one at a time, first in first out, answering
 * each caller once its request is resolved. Running one request at a time is
 * what keeps node transitions from crossing: nothing here locks, and every
 * call and continuation runs on the thread of the service's event loop.
 *
 * The handler does not own the nodes: the service creates them, wires them,
 * registers them and keeps them alive as long as the handler. It does not
 * remember the current target either; it announces changes through
 * nextTargetChanged (a target request starts) and targetChanged (a target
 * request succeeded, before its caller is answered).
 */
class VELA_POWERHANDLER_EXPORT PowerHandler : public QObject
{
    Q_OBJECT

public:
    /// An empty handler: no modules, nodes or requests.
    PowerHandler();
    /// Releases the queue; callers still waiting are released unanswered and
    /// the nodes are left alive.
    ~PowerHandler() override;

    /// Registration (set-up, any time): modules by name (a second record of
    /// the same name replaces the first), each resource and target once.
    /// Every new target and each registered one disable one another.
    /// Answers false (and registers nothing) for a record without entries.
    bool registerModule(const VelaPowerManagerModuleRegister& module);
    /// Registers a resource, found by its resource value from then on. The
    /// node must be a resource and stays the service's.
    void registerResource(PowerResource* resource);
    /// Registers a target and pairs it with every target registered before,
    /// so that each disables the others. The node stays the service's.
    void registerTarget(PowerTarget* target);

    /// { "targets": { name: info }, "resources": { name: info } } with
    /// info = { "isEnabled": bool, "actions": { module: action name } }.
    QVariantHash listNodes() const;
    /// The info entry of one node, as listNodes() gives it.
    QVariantHash getNodeInfo(PowerNode* node) const;

    /// A request of `module` for `action` on `node`, carrying a copy of the
    /// module registrations; null (logged at ERROR) for a null node or an
    /// unregistered module.
    PowerNodeRequestPtr makeRequest(PowerNode* node, const QString& module, VelaPowerModuleActions::Enum action);
    /// Appends a valid request to the queue; false for a null or invalid one.
    bool addRequest(const PowerNodeRequestPtr& request);
    /// Starts the head of the queue unless the queue is empty or busy.
    void tryProcessNextRequest();
    /// Processes the head of the queue, answering and dropping invalid heads,
    /// and resolves it once its processing finishes.
    void processNextRequest();
    /// Answers the caller of request `id` (an empty value, or `error`), drops
    /// the head of the queue and starts the next request.
    void resolveNodeRequest(int64_t id, const CMError& error);

    /// Entry points. The outcome goes to `reply`: an invalid QVariant on
    /// success, a CMError otherwise; refusals are answered at once, and a
    /// request may even be answered before these calls return.
    /// A target request emits nextTargetChanged() when it starts and
    /// targetChanged() when it succeeds.
    void requestTarget(const VelaPowerManagerTarget& target, CMReply<QVariant> reply);
    /// Queues the resource wish of a registered module; answered like
    /// requestTarget().
    void requestResource(const VelaPowerManagerResourceRequest& request, CMReply<QVariant> reply);

    /// Introspection for the service and its tests: the number of queued
    /// requests, the running one included.
    int pendingRequests() const;

signals:
    /// A target request succeeded; emitted before its caller is answered.
    void targetChanged(const VelaPowerManagerTarget& target);
    /// A target request starts.
    void nextTargetChanged(const VelaPowerManagerTarget& target);

private:
    QHash<QString, VelaPowerManagerModuleRegister> m_modules;
    QHash<VelaPowerManagerResources::Enum, PowerResource*> m_resources;
    QHash<VelaPowerManagerTargets::Enum, PowerTarget*> m_targets;
    QList<PowerNodeRequestPtr> m_requests;
    QHash<int64_t, CMReply<QVariant>> m_resourceRequests;
    QHash<int64_t, QPair<VelaPowerManagerTarget, CMReply<QVariant>>> m_targetRequests;
};

#endif
