#ifndef VELA_POWERNODE_H
#define VELA_POWERNODE_H

#include "vela_powerhandler_export.h"

#include "cmreply.h"
#include "cmrequest.h"
#include "velapowerenums.h"

#include <QHash>
#include <QList>
#include <QPair>
#include <QSet>
#include <QString>

/// The kind of a node. Targets are 1 and resources 2: the queries and the
/// handler compare these values.
enum class PowerNodeType : int { PowerNode = 0, PowerTarget = 1, PowerResource = 2 };

class PowerNodeGraph;

/**
 * A vertex of the power dependency graph.
 *
 * A node has a name, a state, the nodes it requires and the nodes that
 * require it, the actions that modules want of it, the dependants that hold
 * it on, and the replies of its latest enable and disable transitions.
 * Nodes are created and wired by the service, which owns them: nodes never
 * own one another, edges are plain pointers, and a node must outlive every
 * node that holds an edge to it and the handler it is registered with.
 *
 * The field order and the order of the virtual operations are the library's
 * binary interface: do not reorder them.
 *
 * Everything here runs on the thread of the service's event loop; nothing
 * locks. Transitions never fail towards their caller: failures below them
 * are logged at FATAL and the node still advances.
 */
class VELA_POWERHANDLER_EXPORT PowerNode
{
public:
    /// A node state.
    using State = VelaPowerNodeStates::Enum;
    /// A module action.
    using Action = VelaPowerModuleActions::Enum;
    /// Nodes and the state each must take, in handling order.
    using DependencyList = QList<QPair<PowerNode*, VelaPowerNodeStates::Enum>>;

    /// A node named `name`, in state initial, without edges or modules.
    explicit PowerNode(const QString& name);
    virtual ~PowerNode();
    PowerNode(const PowerNode&) = delete;
    PowerNode& operator=(const PowerNode&) = delete;

    /// The node's own switching step of an enable transition, run in the
    /// middle of it; its reply finishes when that part is done.
    virtual CMReply<void> onEnableAction() = 0;
    /// The node's own switching step of a disable transition; its reply
    /// finishes when that part is done.
    virtual CMReply<void> onDisableAction() = 0;

    /// Nodes that must take a state for this node to reach `state`.
    virtual QHash<PowerNode*, VelaPowerNodeStates::Enum> dependencies(const VelaPowerNodeStates::Enum& state,
                                                                      const bool& recursive) const;
    /// The same in the order in which they are to be handled.
    virtual DependencyList orderedDependencies(const VelaPowerNodeStates::Enum& state, const bool& recursive) const;

    /// Edges: this node requires `node` / is required by `node`. A refused
    /// edge is logged at ERROR and changes nothing. Asking for an edge from a
    /// node to itself is a programming error and stops the process.
    virtual void requiresNode(PowerNode* node);
    /// The other direction of requiresNode(): `node` requires this node.
    virtual void requiredByNode(PowerNode* node);

    /// May this node be brought to `state` on behalf of `module`?
    virtual bool isStateReachable(const VelaPowerNodeStates::Enum& state, const QString& module,
                                  const bool& recursive) const;

    /// The node's kind: PowerNode for a plain node, else resource or target.
    virtual PowerNodeType type() const;

    /// The node's name, as logs and snapshots show it.
    QString name() const;
    /// The node's current state.
    VelaPowerNodeStates::Enum state() const;
    /// True in state enabled only.
    bool isEnabled() const;

    /// Every declared module and its current action.
    QHash<QString, VelaPowerModuleActions::Enum> moduleActions() const;
    /// The module's action; release (no claim) for a module without entry.
    VelaPowerModuleActions::Enum moduleAction(const QString& module) const;
    /// Declares a module and its starting action (set-up only: no transition).
    void addModule(const QString& module, const VelaPowerModuleActions::Enum& action);

    /// One side of an edge, without checks; a self-edge is ignored.
    void addRequiredNode(PowerNode* node);
    /// The other side of an edge: `node` requires this node, without checks.
    void addRequiredByNode(PowerNode* node);

    /// Graph queries. The recursive forms follow the edges transitively but
    /// do not look past a target. Each query costs time linear in the part of
    /// the graph it reaches.
    QSet<PowerNode*> requiredNodes(const bool& recursive) const;
    /// The nodes that require this one (transitively when `recursive`).
    QSet<PowerNode*> requiredByNodes(const bool& recursive) const;
    /// The required nodes in handling order.
    QList<PowerNode*> orderedRequiredNodes(const bool& recursive) const;
    /// The requiring nodes in handling order.
    QList<PowerNode*> orderedRequiredByNodes(const bool& recursive) const;

    /// The state machine. Every reply returned finishes with success.
    /// Its reply finishes once the required nodes are locked, the node's own
    /// enable step has run and the node is enabled.
    CMReply<void> enable();
    /// Takes the node to disabled unless a module claims it or a dependant
    /// holds it on; then the nodes it required are unlocked.
    CMReply<void> disable();
    /// Sets `module`'s action and enables the node (any action but release)
    /// or disables it when nothing claims it any more.
    CMReply<void> setModuleAction(const QString& module, const VelaPowerModuleActions::Enum& action);
    /// Dependant `node` holds this node on: it is enabled.
    CMReply<void> nodeLock(PowerNode* node);
    /// Dependant `node` lets go: the node is disabled unless still wanted.
    CMReply<void> nodeUnlock(PowerNode* node);

    /// The dependants that currently hold this node on.
    QSet<PowerNode*> lockedBy() const;

    /// Appends each element of `source`, in order, that `destination` does
    /// not hold yet.
    static void appendMissing(const QList<PowerNode*>& source, QList<PowerNode*>& destination);
    /// Removes every occurrence of `action`; a list without it is left
    /// untouched (not detached).
    static void removeAction(QList<VelaPowerModuleActions::Enum>& actions, const VelaPowerModuleActions::Enum& action);

protected:
    /// Whether some module places a claim (any action but release) on the node.
    bool hasClaim() const;

    QString m_name;
    VelaPowerNodeStates::Enum m_state;

private:
    // How many nodes, targets left out, hold this node in their required set
    // and in their required-by set. The wiring checks use them to know when a
    // node's own sets list every edge into it. They live in the alignment gap
    // after m_state: the size of the class and the offset of every field
    // above and below are what they were without them.
    quint16 m_requiredHolders = 0;
    quint16 m_requiredByHolders = 0;

protected:
    QSet<PowerNode*> m_requiredNodes;
    QSet<PowerNode*> m_requiredByNodes;
    QHash<QString, VelaPowerModuleActions::Enum> m_moduleActions;
    QSet<PowerNode*> m_lockedBy;
    CMReply<void> m_enableReply;
    CMReply<void> m_disableReply;

private:
    friend class PowerNodeGraph;
};

/**
 * A resource: switched on and off by writing one value to a data path of
 * some module, through the root worker, under a time limit.
 */
class VELA_POWERHANDLER_EXPORT PowerResource : public PowerNode
{
public:
    /// A resource node named after `resource`, with actions limited to 5000 ms.
    explicit PowerResource(VelaPowerManagerResources::Enum resource);
    /// The same with actions limited to `timeout` milliseconds.
    PowerResource(VelaPowerManagerResources::Enum resource, int timeout);
    ~PowerResource() override;

    /// Writes the enable request through the root worker, under the time limit.
    CMReply<void> onEnableAction() override;
    /// Writes the disable request through the root worker, under the time limit.
    CMReply<void> onDisableAction() override;
    /// PowerNodeType::PowerResource.
    PowerNodeType type() const override;

    /// The resource this node switches.
    VelaPowerManagerResources::Enum resource() const;
    /// The time limit of each action, in milliseconds.
    int actionTimeout() const;
    /// The write that switches the resource on; null when none is set.
    CMSetDataRequest onEnableActionRequest() const;
    /// The write that switches the resource off; null when none is set.
    CMSetDataRequest onDisableActionRequest() const;

    /// This resource requires `other` (an edge, checked like requiresNode()).
    void requiresResource(PowerResource* other);
    /// `other` requires this resource.
    void requiredBy(PowerResource* other);

    /// Sets the write that switches the resource on.
    void setOnEnableActionRequest(const CMSetDataRequest& request);
    /// Sets the write that switches the resource off.
    void setOnDisableActionRequest(const CMSetDataRequest& request);

    /// Performs the write; `action` names it in the log. A null request
    /// succeeds at once without writing.
    CMReply<void> executeAction(const QString& action, const CMSetDataRequest& request);

protected:
    VelaPowerManagerResources::Enum m_resource;
    CMSetDataRequest m_onEnableActionRequest;
    CMSetDataRequest m_onDisableActionRequest;
    int m_actionTimeout;
};

/**
 * A system power state. What it enables is the base's required set, what it
 * disables the base's required-by set; a target's edges are stored on its
 * own side only. Its own switching step succeeds at once.
 */
class VELA_POWERHANDLER_EXPORT PowerTarget : public PowerNode
{
public:
    /// A target node named after `target`.
    explicit PowerTarget(VelaPowerManagerTargets::Enum target);
    ~PowerTarget() override;

    CMReply<void> onEnableAction() override;
    CMReply<void> onDisableAction() override;
    QHash<PowerNode*, VelaPowerNodeStates::Enum> dependencies(const VelaPowerNodeStates::Enum& state,
                                                              const bool& recursive) const override;
    DependencyList orderedDependencies(const VelaPowerNodeStates::Enum& state, const bool& recursive) const override;
    void requiresNode(PowerNode* node) override;
    void requiredByNode(PowerNode* node) override;
    bool isStateReachable(const VelaPowerNodeStates::Enum& state, const QString& module,
                          const bool& recursive) const override;
    /// PowerNodeType::PowerTarget.
    PowerNodeType type() const override;

    /// The target this node stands for.
    VelaPowerManagerTargets::Enum target() const;

    /// Enabling this target enables `resource`.
    void enables(PowerResource* resource);
    /// Enabling this target disables `resource`.
    void disables(PowerResource* resource);
    /// Enabling this target disables `target`.
    void disables(PowerTarget* target);

    /// The targets that may be requested while this one is enabled.
    void setReachableTargets(QList<const PowerTarget*> targets);
    /// Whether `target` is among the targets set by setReachableTargets().
    bool isReachable(const PowerTarget* target);

protected:
    VelaPowerManagerTargets::Enum m_target;
    QSet<const PowerTarget*> m_reachableTargets;
};

#endif
