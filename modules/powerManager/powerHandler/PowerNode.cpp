#include "PowerNode.h"
#include "PowerNodeGraph_p.h"

#include "cmabstractworker.h"
#include "dbglog.h"
#include "velaassert.h"

#include <QSharedPointer>
#include <QTimer>

#include <algorithm>
#include <vector>

/*
 * Source lines of the node records and assertions that log consumers key on
 * (file and line). They are part of the log contract: fixed numbers that must
 * not follow edits of this file. The records keep naming this file.
 */
namespace recordLine {
constexpr int enableAlreadyRequested = 38;
constexpr int enableWhileDisabling = 42;
constexpr int lockFailed = 56;
constexpr int enableActionFailed = 63;
constexpr int enabledState = 67;
constexpr int disableAlreadyRequested = 78;
constexpr int disableWhileEnabling = 92;
constexpr int disableActionFailed = 101;
constexpr int disabledState = 105;
constexpr int unlockFailed = 116;
constexpr int moduleActionUpdated = 324;
constexpr int isEnabledEntry = 348;
constexpr int actionFailed = 432;
constexpr int actionSucceeded = 436;
} // namespace recordLine

namespace {

using Direction = PowerNodeGraph::Direction;

PowerNode::DependencyList pairedWith(const QList<PowerNode*>& nodes, VelaPowerNodeStates::Enum state,
                                     PowerNode::DependencyList list = {})
{
    list.reserve(list.size() + nodes.size());
    for (PowerNode* node : nodes)
        list.append(qMakePair(node, state));
    return list;
}

QList<PowerNode*> listOf(const QSet<PowerNode*>& nodes)
{
    return QList<PowerNode*>(nodes.cbegin(), nodes.cend());
}

void mapAllTo(QHash<PowerNode*, VelaPowerNodeStates::Enum>& result, const QSet<PowerNode*>& nodes,
              VelaPowerNodeStates::Enum state)
{
    for (PowerNode* node : nodes)
        result.insert(node, state);
}

CMReply<void> finishedReply()
{
    CMReply<void> done;
    done.setValue();
    return done;
}

// Finishes a transition whose node goes away; a finished one is left as it is.
void abandon(const CMReply<void>& transition, const QString& nodeName)
{
    if (transition.isFinished())
        return;
    transition.setError(
        CMError(TrString(QStringLiteral("Power node %1 was destroyed before its transition finished").arg(nodeName))));
}

std::string selfEdgeText(const char* relation, const QString& name)
{
    return "node != this (power node " + name.toStdString() + " cannot " + relation + " itself)";
}

} // namespace

// --- PowerNode: construction, accessors, module map -----------------------

PowerNode::PowerNode(const QString& name)
    : m_name(name)
    , m_state(VelaPowerNodeStates::initial)
{
}

/*
 * A transition still under way ends with its node. Its reply is finished
 * with an error, which is how the continuations of the transition learn that
 * the node is gone (they hold the reply, not the node's lifetime), and how a
 * write of the transition that is still pending stops its time-out and lets
 * go of the platform's call. Whoever else waits on the transition (a
 * dependant's locking, a request) is answered rather than left waiting.
 */
PowerNode::~PowerNode()
{
    if (m_state == VelaPowerNodeStates::enabling)
        abandon(m_enableReply, m_name);
    // A disabled node may still be waiting for its dependencies to unlock.
    if (m_state == VelaPowerNodeStates::disabling || m_state == VelaPowerNodeStates::disabled)
        abandon(m_disableReply, m_name);
}

QString PowerNode::name() const
{
    return m_name;
}

VelaPowerNodeStates::Enum PowerNode::state() const
{
    return m_state;
}

bool PowerNode::isEnabled() const
{
    const bool enabled = m_state == VelaPowerNodeStates::enabled;
    VELA_TRACE_ENTER_AT(recordLine::isEnabledEntry, "bool PowerNode::isEnabled() const", m_name << (enabled ? " enabled" : " disabled"));
    return enabled;
}

PowerNodeType PowerNode::type() const
{
    return PowerNodeType::PowerNode;
}

QHash<QString, VelaPowerModuleActions::Enum> PowerNode::moduleActions() const
{
    return m_moduleActions;
}

VelaPowerModuleActions::Enum PowerNode::moduleAction(const QString& module) const
{
    return m_moduleActions.value(module, VelaPowerModuleActions::release);
}

void PowerNode::addModule(const QString& module, const VelaPowerModuleActions::Enum& action)
{
    m_moduleActions.insert(module, action);
}

QSet<PowerNode*> PowerNode::lockedBy() const
{
    return m_lockedBy;
}

void PowerNode::appendMissing(const QList<PowerNode*>& source, QList<PowerNode*>& destination)
{
    for (PowerNode* node : source) {
        if (!destination.contains(node))
            destination.append(node);
    }
}

void PowerNode::removeAction(QList<VelaPowerModuleActions::Enum>& actions, const VelaPowerModuleActions::Enum& action)
{
    const auto first = std::find(actions.cbegin(), actions.cend(), action);
    if (first == actions.cend())
        return;
    const int index = static_cast<int>(first - actions.cbegin());
    const auto kept = std::remove(actions.begin() + index, actions.end(), action);
    actions.erase(kept, actions.end());
}

// Whether any module's action is other than a release: what is left of the
// actions once the releases are removed, found without copying them.
bool PowerNode::hasClaim() const
{
    for (auto it = m_moduleActions.cbegin(); it != m_moduleActions.cend(); ++it) {
        if (it.value() != VelaPowerModuleActions::release)
            return true;
    }
    return false;
}

// --- PowerNode: edges ------------------------------------------------------

void PowerNode::addRequiredNode(PowerNode* node)
{
    if (node != this && PowerNodeGraph::insertEdge(m_requiredNodes, node) && node)
        PowerNodeGraph::countHolder(this, node->m_requiredHolders);
}

void PowerNode::addRequiredByNode(PowerNode* node)
{
    if (node != this && PowerNodeGraph::insertEdge(m_requiredByNodes, node) && node)
        PowerNodeGraph::countHolder(this, node->m_requiredByHolders);
}

// A self-edge would make this pair call each other without end: it is a
// programming error of the wiring code, stopped before any recursion.
void PowerNode::requiresNode(PowerNode* node)
{
    if (node == this)
        vela::assertFailed(selfEdgeText("require", m_name), __FILE__, __LINE__);
    if (m_requiredNodes.contains(node))
        return;
    if (!PowerNodeGraph::closureContains(this, Direction::RequiredBy, node)) {
        addRequiredNode(node);
        node->requiredByNode(this);
        return;
    }
    VELA_ERROR("Tried to make power node " << m_name << " require node " << node->name()
                                           << ", but that would have caused a cyclic dependency.");
}

void PowerNode::requiredByNode(PowerNode* node)
{
    if (node == this)
        vela::assertFailed(selfEdgeText("be required by", m_name), __FILE__, __LINE__);
    if (m_requiredByNodes.contains(node))
        return;
    if (!PowerNodeGraph::closureContains(this, Direction::Required, node)) {
        addRequiredByNode(node);
        node->requiresNode(this);
        return;
    }
    VELA_ERROR("Tried to make power node " << m_name << " be required by node " << node->name()
                                           << ", but that would have caused a cyclic dependency.");
}

// --- PowerNode: queries ----------------------------------------------------

QSet<PowerNode*> PowerNode::requiredNodes(const bool& recursive) const
{
    return recursive ? PowerNodeGraph::closure(this, Direction::Required) : m_requiredNodes;
}

QSet<PowerNode*> PowerNode::requiredByNodes(const bool& recursive) const
{
    return recursive ? PowerNodeGraph::closure(this, Direction::RequiredBy) : m_requiredByNodes;
}

QList<PowerNode*> PowerNode::orderedRequiredNodes(const bool& recursive) const
{
    return recursive ? PowerNodeGraph::orderedClosure(this, Direction::Required) : listOf(m_requiredNodes);
}

QList<PowerNode*> PowerNode::orderedRequiredByNodes(const bool& recursive) const
{
    return recursive ? PowerNodeGraph::orderedClosure(this, Direction::RequiredBy) : listOf(m_requiredByNodes);
}

QHash<PowerNode*, VelaPowerNodeStates::Enum> PowerNode::dependencies(const VelaPowerNodeStates::Enum& state,
                                                                     const bool& recursive) const
{
    QHash<PowerNode*, VelaPowerNodeStates::Enum> result;
    if (state == VelaPowerNodeStates::enabled)
        mapAllTo(result, requiredNodes(recursive), VelaPowerNodeStates::enabled);
    else if (state == VelaPowerNodeStates::disabled)
        mapAllTo(result, requiredByNodes(recursive), VelaPowerNodeStates::disabled);
    return result;
}

PowerNode::DependencyList PowerNode::orderedDependencies(const VelaPowerNodeStates::Enum& state,
                                                         const bool& recursive) const
{
    if (state == VelaPowerNodeStates::enabled)
        return pairedWith(orderedRequiredNodes(recursive), VelaPowerNodeStates::enabled);
    if (state == VelaPowerNodeStates::disabled)
        return pairedWith(orderedRequiredByNodes(recursive), VelaPowerNodeStates::disabled);
    return {};
}

bool PowerNode::isStateReachable(const VelaPowerNodeStates::Enum& state, const QString& module,
                                 const bool& recursive) const
{
    return PowerNodeGraph::isStateReachable(this, state, module, recursive, PowerNodeGraph::ReachabilityRule::Node);
}

// --- PowerNode: state machine ----------------------------------------------

/*
 * Enabling a node locks every node it requires, and each of those enables
 * (and locks its own) before its lock returns: the whole required sub-graph
 * is started depth-first before this call goes on. That descent runs here on
 * an explicit stack of the nodes whose required nodes are being locked, so a
 * chain of any length costs heap rather than call stack; each node still does
 * what nodeLock() and its own enable() would do, in the same order. What
 * follows the locks runs in continuations, carried by the reply model's drain
 * loop at constant depth.
 */
CMReply<void> PowerNode::enable()
{
    struct Locking {
        PowerNode* node;
        // A copy: a continuation run while locking may not rehash what we walk.
        QSet<PowerNode*> required;
        QSet<PowerNode*>::const_iterator next;
        QList<CMVoidReply> locks;
    };
    std::vector<Locking> descent;
    PowerNode* starting = this;
    for (;;) {
        CMVoidReply returned;
        if (starting->m_state == VelaPowerNodeStates::enabling || starting->m_state == VelaPowerNodeStates::enabled) {
            VELA_TRACE_LEAVE_AT(recordLine::enableAlreadyRequested, "CMReply<void> PowerNode::enable()",
                                "powerNode: " << starting->m_name
                                              << " already enabled or enable was already requested...");
            returned = starting->m_enableReply;
        } else {
            VELA_ASSERT_TEXT_AT(starting->m_state != VelaPowerNodeStates::disabling,
                                "m_state != VelaPowerNodeStates::disabling", recordLine::enableWhileDisabling);
            starting->m_state = VelaPowerNodeStates::enabling;
            starting->m_enableReply = CMReply<void>();
            descent.push_back(Locking{starting, starting->m_requiredNodes, {}, {}});
            descent.back().next = descent.back().required.cbegin();
            descent.back().locks.reserve(descent.back().required.size());
        }
        // Goes on with the innermost node that has required nodes left to
        // lock; every node done on the way joins its locks.
        for (;;) {
            if (!!returned) {
                if (descent.empty())
                    return CMReply<void>(returned);
                descent.back().locks.append(std::move(returned));
                returned = CMVoidReply();
            }
            Locking& innermost = descent.back();
            if (innermost.next != innermost.required.cend()) {
                starting = *innermost.next;
                ++innermost.next;
                starting->m_lockedBy.insert(innermost.node);
                break;
            }
            PowerNode* node = innermost.node;
            const QList<CMVoidReply> locks = std::move(innermost.locks);
            descent.pop_back();
            // The reply is captured so that this transition finishes its own
            // reply, whatever transition runs by the time the continuation is
            // called.
            CMVoidReply::whenAllFinished(locks).onFinished(
                [node, transition = node->m_enableReply](const CMReply<QList<CMVoidReply>>& locked) mutable {
                    // A transition finished before its end: the node is gone.
                    if (transition.isFinished())
                        return;
                    const CMError lockError = locked.error();
                    if (lockError.isError())
                        VELA_FATAL_AT(recordLine::lockFailed, "Failed to lock dependencies for "
                                                                  << node->m_name << ", error: " << lockError.message());
                    // The node's own action runs even when a dependency failed.
                    node->onEnableAction().onFinished([node, transition](const CMReply<void>& action) mutable {
                        if (transition.isFinished())
                            return;
                        const CMError actionError = action.error();
                        if (actionError.isError())
                            VELA_FATAL_AT(recordLine::enableActionFailed,
                                          "Failed to enable resource " << node->m_name
                                                                       << ", error: " << actionError.message());
                        node->m_state = VelaPowerNodeStates::enabled;
                        VELA_DEBUG_AT(recordLine::enabledState,
                                      "Node: " << node->m_name << " enters state: "
                                               << VelaPowerNodeStates::toString(node->m_state));
                        transition.setValue();
                    });
                },
                Qt::AutoConnection);
            returned = node->m_enableReply;
        }
    }
}

CMReply<void> PowerNode::disable()
{
    if (m_state == VelaPowerNodeStates::disabling || m_state == VelaPowerNodeStates::disabled) {
        VELA_TRACE_LEAVE_AT(recordLine::disableAlreadyRequested, "CMReply<void> PowerNode::disable()",
                            "powerNode: " << m_name << " already disabled or disable was already requested...");
        return m_disableReply;
    }
    // A node that is still wanted stays as it is; its caller is told that
    // all is done.
    if (hasClaim() || !m_lockedBy.isEmpty()) {
        CMReply<void> stays;
        stays.setValue();
        return stays;
    }
    VELA_ASSERT_TEXT_AT(m_state != VelaPowerNodeStates::enabling, "m_state != VelaPowerNodeStates::enabling",
                        recordLine::disableWhileEnabling);
    m_state = VelaPowerNodeStates::disabling;
    m_disableReply = CMReply<void>();

    onDisableAction().onFinished([this, transition = m_disableReply](const CMReply<void>& action) mutable {
        // A transition finished before its end: the node is gone.
        if (transition.isFinished())
            return;
        const CMError actionError = action.error();
        if (actionError.isError())
            VELA_FATAL_AT(recordLine::disableActionFailed, "Failed to disable resource " << m_name << ", error: " << actionError.message());
        m_state = VelaPowerNodeStates::disabled;
        VELA_DEBUG_AT(recordLine::disabledState,
                      "Node: " << m_name << " enters state: " << VelaPowerNodeStates::toString(m_state));

        // Released only now: the dependencies stay on until this node is off.
        QList<CMVoidReply> unlocks;
        unlocks.reserve(m_requiredNodes.size());
        for (PowerNode* node : qAsConst(m_requiredNodes))
            unlocks.append(node->nodeUnlock(this));
        CMVoidReply::whenAllFinished(unlocks).onFinished(
            [this, transition](const CMReply<QList<CMVoidReply>>& unlocked) mutable {
                if (transition.isFinished())
                    return;
                const CMError unlockError = unlocked.error();
                if (unlockError.isError())
                    VELA_FATAL_AT(recordLine::unlockFailed, "Failed to unlock all dependencies for " << m_name
                                                                       << ", error: " << unlockError.message());
                transition.setValue();
            });
    });
    return m_disableReply;
}

CMReply<void> PowerNode::setModuleAction(const QString& module, const VelaPowerModuleActions::Enum& action)
{
    CMReply<void> provisional;
    m_moduleActions.insert(module, action);
    VELA_DEBUG_AT(recordLine::moduleActionUpdated, "Node: " << m_name << " updated by: " << module
                        << " with action type: " << VelaPowerModuleActions::toString(action));
    if (action != VelaPowerModuleActions::release)
        return enable();
    if (!hasClaim())
        return disable();
    provisional.setValue();
    return provisional;
}

CMReply<void> PowerNode::nodeLock(PowerNode* node)
{
    m_lockedBy.insert(node);
    return enable();
}

CMReply<void> PowerNode::nodeUnlock(PowerNode* node)
{
    m_lockedBy.remove(node);
    return disable();
}

// --- PowerResource ---------------------------------------------------------

namespace {

/*
 * The time limit of one write. The write's continuation owns it, and its
 * time-out holds the platform's call in turn, so that a call the platform
 * lets go of unanswered still times out. It may be released from inside its
 * own timeout signal (the time-out finished the call and the continuation
 * ran at once); deleting it there would pull the object from under its
 * running signal, so it is then handed to the event loop instead.
 */
class ActionTimer : public QTimer
{
public:
    bool firing = false;
};

void releaseActionTimer(ActionTimer* timer)
{
    if (timer->firing)
        timer->deleteLater();
    else
        delete timer;
}

QSharedPointer<ActionTimer> startActionTimer(const CMReply<QVariant>& watched, int timeout);

// The transition a write of the node belongs to: the one under way, if any.
CMVoidReply pendingTransition(VelaPowerNodeStates::Enum state, const CMVoidReply& enabling,
                              const CMVoidReply& disabling)
{
    if (state == VelaPowerNodeStates::enabling)
        return enabling;
    if (state == VelaPowerNodeStates::disabling)
        return disabling;
    return CMVoidReply();
}

/*
 * A transition that finishes while its write is still pending was finished
 * by its node going away: the write is abandoned. Its time-out stops and lets
 * go of the platform's call (whose answer, if it ever comes, is ignored), and
 * the write's reply fails, which the node's continuation reads as "gone". On
 * the ordinary path the write is over before its transition finishes and
 * this does nothing.
 */
void abandonWithTransition(const CMVoidReply& transition, const QSharedPointer<ActionTimer>& timer,
                           const CMReply<void>& result)
{
    if (!transition)
        return;
    transition.addWatcher(
        nullptr,
        [pending = timer.toWeakRef(), result](const CMVoidReply& finished) {
            // The write's continuation owns the timer until it has run.
            const QSharedPointer<ActionTimer> held = pending.toStrongRef();
            if (!held)
                return;
            held->stop();
            held->disconnect();
            result.setError(finished.error());
        },
        Qt::DirectConnection);
}

CMError actionTimeoutError()
{
    CMError error;
    error.insert(CMError::Name(), CMError::DefaultName());
    error.insert(CMError::Message(), QVariant::fromValue(TrString(CMVoidReply::ErrorTimeout())));
    error.insert(CMError::Title(), QVariant::fromValue(TrString(CMError::DefaultTitle())));
    return error;
}

QSharedPointer<ActionTimer> startActionTimer(const CMReply<QVariant>& watched, int timeout)
{
    QSharedPointer<ActionTimer> timer(new ActionTimer, &releaseActionTimer);
    // A coarse timer may fire up to 5% early; a write is given its full time.
    timer->setTimerType(Qt::PreciseTimer);
    timer->setSingleShot(true);
    timer->start(timeout);
    ActionTimer* firing = timer.data();
    QObject::connect(
        firing, &QTimer::timeout, firing,
        [watched, firing]() {
            firing->firing = true;
            watched.setError(actionTimeoutError());
            firing->firing = false;
        },
        Qt::DirectConnection);
    return timer;
}

} // namespace

PowerResource::PowerResource(VelaPowerManagerResources::Enum resource)
    : PowerNode(VelaPowerManagerResources::toString(resource))
    , m_resource(resource)
    , m_actionTimeout(5000)
{
}

PowerResource::PowerResource(VelaPowerManagerResources::Enum resource, int timeout)
    : PowerResource(resource)
{
    m_actionTimeout = timeout;
}

PowerResource::~PowerResource() = default;

PowerNodeType PowerResource::type() const
{
    return PowerNodeType::PowerResource;
}

VelaPowerManagerResources::Enum PowerResource::resource() const
{
    return m_resource;
}

int PowerResource::actionTimeout() const
{
    return m_actionTimeout;
}

CMSetDataRequest PowerResource::onEnableActionRequest() const
{
    return m_onEnableActionRequest;
}

CMSetDataRequest PowerResource::onDisableActionRequest() const
{
    return m_onDisableActionRequest;
}

void PowerResource::requiresResource(PowerResource* other)
{
    requiresNode(other);
}

void PowerResource::requiredBy(PowerResource* other)
{
    requiredByNode(other);
}

void PowerResource::setOnEnableActionRequest(const CMSetDataRequest& request)
{
    m_onEnableActionRequest = request;
}

void PowerResource::setOnDisableActionRequest(const CMSetDataRequest& request)
{
    m_onDisableActionRequest = request;
}

CMReply<void> PowerResource::onEnableAction()
{
    return executeAction(QStringLiteral("enable"), m_onEnableActionRequest);
}

CMReply<void> PowerResource::onDisableAction()
{
    return executeAction(QStringLiteral("disable"), m_onDisableActionRequest);
}

CMReply<void> PowerResource::executeAction(const QString& action, const CMSetDataRequest& request)
{
    CMReply<void> result;
    if (request.isNull()) {
        result.setValue();
        return result;
    }
    const CMReply<QVariant> watched =
        CMRoot()->setData(request.path(), request.key(), request.value(), CMReply<QVariant>());

    // A platform that answered within setData() leaves nothing to time out:
    // the timer would be stopped before it could ever fire, so none is made.
    QSharedPointer<ActionTimer> timer;
    if (!watched.isFinished()) {
        timer = startActionTimer(watched, m_actionTimeout);
        abandonWithTransition(pendingTransition(m_state, m_enableReply, m_disableReply), timer, result);
    }

    // The node's name is copied: the node may be gone when the platform
    // answers a call that was abandoned with it.
    watched.onFinished(
        nullptr,
        [name = m_name, action, result, timer](const CMReply<QVariant>& reply) mutable {
            if (timer)
                timer->stop();
            // Abandoned with its node: there is no one left to tell.
            if (result.isFinished())
                return;
            const CMError error = reply.error();
            if (!error.isError()) {
                VELA_DEBUG_AT(recordLine::actionSucceeded, name << " is now " << action);
                result.setValue();
            } else {
                VELA_ERROR_AT(recordLine::actionFailed,
                              name << " failed to " << action << " Message: " << error.message());
                result.setError(error);
            }
        },
        Qt::AutoConnection);
    return result;
}

// --- PowerTarget -----------------------------------------------------------

PowerTarget::PowerTarget(VelaPowerManagerTargets::Enum target)
    : PowerNode(VelaPowerManagerTargets::toString(target))
    , m_target(target)
{
}

PowerTarget::~PowerTarget() = default;

PowerNodeType PowerTarget::type() const
{
    return PowerNodeType::PowerTarget;
}

VelaPowerManagerTargets::Enum PowerTarget::target() const
{
    return m_target;
}

// A target has no switching step of its own. The two directions share the
// body, not the virtual: a subclass that overrides one of them must not
// change the other.
CMReply<void> PowerTarget::onEnableAction()
{
    return finishedReply();
}

CMReply<void> PowerTarget::onDisableAction()
{
    return finishedReply();
}

void PowerTarget::enables(PowerResource* resource)
{
    requiresNode(resource);
}

void PowerTarget::disables(PowerResource* resource)
{
    requiredByNode(resource);
}

void PowerTarget::disables(PowerTarget* target)
{
    requiredByNode(target);
}

void PowerTarget::requiresNode(PowerNode* node)
{
    // A target's edges are one-sided: a self-edge cannot recurse here and is
    // dropped by addRequiredNode().
    if (m_requiredNodes.contains(node))
        return;
    if (!PowerNodeGraph::closureContains(this, Direction::RequiredBy, node)) {
        addRequiredNode(node);
        return;
    }
    VELA_ERROR("Tried to make power target " << m_name << " enable node " << node->name()
                                             << ", but it already disables that node.");
}

void PowerTarget::requiredByNode(PowerNode* node)
{
    if (m_requiredByNodes.contains(node))
        return;
    if (!PowerNodeGraph::closureContains(this, Direction::Required, node)) {
        addRequiredByNode(node);
        return;
    }
    VELA_ERROR("Tried to make power target " << m_name << " disable node " << node->name()
                                             << ", but it already enables that node.");
}

QHash<PowerNode*, VelaPowerNodeStates::Enum> PowerTarget::dependencies(const VelaPowerNodeStates::Enum& state,
                                                                       const bool& recursive) const
{
    QHash<PowerNode*, VelaPowerNodeStates::Enum> result;
    if (state == VelaPowerNodeStates::disabled)
        return result;
    mapAllTo(result, requiredNodes(recursive), VelaPowerNodeStates::enabled);
    // Inserted over the first pass: a node in both halves ends up disabled.
    mapAllTo(result, requiredByNodes(recursive), VelaPowerNodeStates::disabled);
    return result;
}

PowerNode::DependencyList PowerTarget::orderedDependencies(const VelaPowerNodeStates::Enum& state,
                                                           const bool& recursive) const
{
    if (state == VelaPowerNodeStates::disabled)
        return {};
    // Enabling comes first; a node in both halves stands there twice.
    return pairedWith(orderedRequiredByNodes(recursive), VelaPowerNodeStates::disabled,
                      pairedWith(orderedRequiredNodes(recursive), VelaPowerNodeStates::enabled));
}

bool PowerTarget::isStateReachable(const VelaPowerNodeStates::Enum& state, const QString& module,
                                   const bool& recursive) const
{
    return PowerNodeGraph::isStateReachable(this, state, module, recursive, PowerNodeGraph::ReachabilityRule::Target);
}

void PowerTarget::setReachableTargets(QList<const PowerTarget*> targets)
{
    m_reachableTargets = QSet<const PowerTarget*>(targets.cbegin(), targets.cend());
}

bool PowerTarget::isReachable(const PowerTarget* target)
{
    return m_reachableTargets.contains(target);
}
