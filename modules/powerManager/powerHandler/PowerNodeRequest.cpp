#include "PowerNodeRequest.h"

#include "PowerNodeRequestSelfShare.h"

#include "cmabstractworker.h"
#include "dbglog.h"
#include "velaassert.h"

#include <limits>

namespace {

/*
 * Source lines of the constructor's records. They are part of the log
 * contract: log consumers key records on file and line, so these numbers are
 * fixed here and must not follow edits of this file.
 */
constexpr int kConstructorEntryLine = 34;
constexpr int kNullNodeLine = 36;

using ResourceActions = QHash<VelaPowerManagerResources::Enum, VelaPowerModuleActions::Enum>;

/*
 * The resources whose module action a request changes, by module: which
 * modules are told, and what each of them loses. Nearly every request
 * changes one resource for one module. That change is kept in place, and the
 * table of tables (five allocations, built twice per request) is made only
 * from a second change on, by the same insertions in the same order as if it
 * had been made from the first: it is then iterated in the same order, and so
 * are the messages and the resources in them.
 */
class ChangedResources
{
public:
    void record(const QString& module, VelaPowerManagerResources::Enum resource, VelaPowerModuleActions::Enum action)
    {
        if (m_changes == 0) {
            m_module = module;
            m_resource = resource;
            m_action = action;
            m_changes = 1;
            return;
        }
        if (m_changes == 1) {
            if (resource == m_resource && module == m_module) {
                m_action = action;
                return;
            }
            m_table[m_module][m_resource] = m_action;
            m_changes = 2;
        }
        m_table[module][resource] = action;
    }

    // Calls visit(module, forEachResource) for each changed module, where
    // forEachResource(f) calls f(resource, action) for each of its resources.
    template <typename Visit>
    void forEachModule(Visit visit) const
    {
        if (m_changes == 1) {
            visit(m_module, [this](auto f) { f(m_resource, m_action); });
            return;
        }
        for (auto it = m_table.cbegin(); it != m_table.cend(); ++it) {
            const ResourceActions& resources = it.value();
            visit(it.key(), [&resources](auto f) {
                for (auto resource = resources.cbegin(); resource != resources.cend(); ++resource)
                    f(resource.key(), resource.value());
            });
        }
    }

private:
    int m_changes = 0;
    QString m_module;
    VelaPowerManagerResources::Enum m_resource = VelaPowerManagerResources::Enum();
    VelaPowerModuleActions::Enum m_action = VelaPowerModuleActions::Enum();
    QHash<QString, ResourceActions> m_table;
};

void recordChange(ChangedResources& table, PowerNode* node, const QString& module,
                  VelaPowerModuleActions::Enum action)
{
    if (auto* resource = dynamic_cast<PowerResource*>(node))
        table.record(module, resource->resource(), action);
}

/*
 * Walks the resolved nodes and calls `change` for every module whose new
 * action differs from the node's current one. The comparison is made as the
 * walk reaches each pair, so a walk that applies the changes sees the effect
 * of the earlier ones on a node that stands twice in the list.
 */
template <typename Change>
void forEachChange(const QList<PowerNodeRequest::NodeInfo>& nodes, Change change)
{
    for (const PowerNodeRequest::NodeInfo& info : nodes) {
        for (auto it = info.moduleActions.cbegin(); it != info.moduleActions.cend(); ++it) {
            if (it.value() != info.node->moduleAction(it.key()))
                change(info.node, it.key(), it.value());
        }
    }
}

// Only released resources are revoked; the list holds the resources'
// integer values.
template <typename ForEachResource>
VelaPowerManagerRevokeMessage revokeMessage(const QString& module, VelaPowerManagerMessageTypes::Enum type,
                                            ForEachResource forEachResource)
{
    VelaPowerManagerRevokeMessage message{QHash<QString, QVariant>()};
    message.setModuleName(module).setMessageType(type);
    // Collected first and stored once: the message holds the same list as
    // when each resource is appended to it in turn, and a message that
    // revokes nothing has no list at all.
    VelaList<VelaPowerManagerResources::Enum> revoked;
    forEachResource([&revoked](VelaPowerManagerResources::Enum resource, VelaPowerModuleActions::Enum action) {
        if (action == VelaPowerModuleActions::release)
            revoked.append(resource);
    });
    if (!revoked.isEmpty())
        message.setRevokeResources(revoked);
    return message;
}

/*
 * Builds each changed module's message of the given type and hands it, with
 * the module's path for that type, to `send`. Modules missing from the
 * request's copy of the registrations are told nothing. A module without a
 * path for the type is sent nothing either: its message is only read by the
 * entry line of notifyModule(), so it is built only when that line is logged.
 */
template <typename Send>
void forEachRegisteredModule(const ChangedResources& changed,
                             const QHash<QString, VelaPowerManagerModuleRegister>& modules,
                             VelaPowerManagerMessageTypes::Enum type, Send send)
{
    changed.forEachModule([&](const QString& module, auto forEachResource) {
        const auto registration = modules.constFind(module);
        if (registration == modules.cend())
            return;
        const CMPath path = type == VelaPowerManagerMessageTypes::revoke ? registration->revokeResourcesPath()
                                                                         : registration->postRevokeResourcesPath();
        if (path.isEmpty() && !vela::powerManagerLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL))
            send(path, VelaPowerManagerRevokeMessage{QHash<QString, QVariant>()});
        else
            send(path, revokeMessage(module, type, forEachResource));
    });
}

} // namespace

int64_t PowerNodeRequest::s_idCounter = 0;

PowerNodeRequestPtr PowerNodeRequest::create(PowerNode* node, const QString& module,
                                             const VelaPowerModuleActions::Enum& action,
                                             const QHash<QString, VelaPowerManagerModuleRegister>& modules)
{
    PowerNodeRequestPtr request(new PowerNodeRequest(node, module, action, modules));
    new PowerNodeRequestSelfShare(request);
    return request;
}

PowerNodeRequest::PowerNodeRequest(PowerNode* node, const QString& module, const VelaPowerModuleActions::Enum& action,
                                   const QHash<QString, VelaPowerManagerModuleRegister>& modules)
    : QObject(nullptr)
    , m_id(nextId())
    , m_node(node)
    , m_module(module)
    , m_action(action)
    , m_modules(modules)
    , m_processing(false)
{
    VELA_TRACE_ENTER_AT(kConstructorEntryLine,
                        "PowerNodeRequest::PowerNodeRequest(PowerNode*, const QString&, const "
                        "VelaPowerModuleActions::Enum&, const QHash<QString, VelaPowerManagerModuleRegister>&)",
                        "id: " << m_id << " module: " << m_module
                               << " action: " << VelaPowerModuleActions::toString(m_action));
    if (!node) {
        VELA_ERROR_AT(kNullNodeLine, "Null node pointer.");
        m_reply.setError(CMError(TrString("Invalid power node pointer")));
    }
}

PowerNodeRequest::~PowerNodeRequest() = default;

PowerNodeRequestPtr PowerNodeRequest::sharedFromThis() const
{
    return PowerNodeRequestSelfShare::of(this);
}

int64_t PowerNodeRequest::nextId()
{
    if (s_idCounter == std::numeric_limits<int64_t>::max())
        s_idCounter = 1;
    else
        ++s_idCounter;
    return s_idCounter;
}

int64_t PowerNodeRequest::id() const
{
    return m_id;
}

QString PowerNodeRequest::module() const
{
    return m_module;
}

PowerNode* PowerNodeRequest::node() const
{
    return m_node;
}

VelaPowerModuleActions::Enum PowerNodeRequest::action() const
{
    return m_action;
}

bool PowerNodeRequest::isProcessing() const
{
    return m_processing;
}

// A reply's error is stored only as it finishes: an unfinished reply has
// none, and is told so without reading the error under the reply's lock.
bool PowerNodeRequest::isValid() const
{
    return !m_reply.isFinished() || !m_reply.error().isError();
}

CMReply<void> PowerNodeRequest::reply() const
{
    return m_reply;
}

QList<PowerNodeRequest::NodeInfo> PowerNodeRequest::nodes() const
{
    return m_nodes;
}

void PowerNodeRequest::onExecuteFinished()
{
    m_reply.setValue();
}

bool PowerNodeRequest::resolve()
{
    VELA_TRACE_ENTER("bool PowerNodeRequest::resolve()", "nodeRequest id: " << m_id);
    VELA_ASSERT(m_node);

    // The requested node always comes first, carrying the module's new wish.
    QHash<QString, VelaPowerModuleActions::Enum> actions = m_node->moduleActions();
    actions.insert(m_module, m_action);
    m_nodes.append(NodeInfo{m_node, actions});

    if (m_node->type() != PowerNodeType::PowerTarget) {
        VELA_TRACE("nodeRequest id: " << m_id << " resolved ok");
        return true;
    }
    if (!m_node->isStateReachable(VelaPowerNodeStates::enabled, m_module, true)) {
        VELA_INFO("node unreachable: " << m_node->name());
        VELA_TRACE_LEAVE("bool PowerNodeRequest::resolve()", "nodeRequest id: " << m_id);
        return false;
    }
    // What the target disables loses every module's claim.
    for (const auto& dependency : m_node->orderedDependencies(VelaPowerNodeStates::enabled, true)) {
        if (dependency.second == VelaPowerNodeStates::enabled)
            continue;
        QHash<QString, VelaPowerModuleActions::Enum> released = dependency.first->moduleActions();
        for (auto it = released.begin(); it != released.end(); ++it)
            it.value() = VelaPowerModuleActions::release;
        m_nodes.append(NodeInfo{dependency.first, released});
    }
    VELA_TRACE_LEAVE("bool PowerNodeRequest::resolve()", "nodeRequest id: " << m_id);
    return true;
}

CMReply<void> PowerNodeRequest::notify()
{
    VELA_TRACE_ENTER("CMReply<void> PowerNodeRequest::notify()", "nodeRequest id: " << m_id);
    ChangedResources changed;
    forEachChange(m_nodes, [&changed](PowerNode* node, const QString& module, VelaPowerModuleActions::Enum action) {
        recordChange(changed, node, module, action);
    });

    QList<CMVoidReply> notifications;
    forEachRegisteredModule(changed, m_modules, VelaPowerManagerMessageTypes::revoke,
                            [this, &notifications](const CMPath& path, const VelaPowerManagerRevokeMessage& message) {
                                notifications.append(notifyModule(path, message));
                            });

    // The modules' answers are waited for but not judged: a module that
    // fails to take the message does not stop the request.
    CMReply<void> result;
    CMVoidReply::whenAllFinished(notifications)
        .onFinished(
            [this, keepAlive = sharedFromThis(), result](const CMReply<QList<CMVoidReply>>&) {
                VELA_TRACE("nodeRequest id: " << m_id << " all pre notifications finished");
                result.setValue();
            },
            Qt::AutoConnection);
    VELA_TRACE_LEAVE("CMReply<void> PowerNodeRequest::notify()", "nodeRequest id: " << m_id);
    return result;
}

CMReply<QVariant> PowerNodeRequest::notifyModule(const CMPath& path, const VelaPowerManagerRevokeMessage& message)
{
    VELA_TRACE_ENTER("CMReply<QVariant> PowerNodeRequest::notifyModule(const CMPath&, const "
                     "VelaPowerManagerRevokeMessage&)",
                     "path: " << path << " message: " << static_cast<const VelaHash&>(message));
    if (!path.isEmpty() && !message.revokeResources().isEmpty())
        return CMRoot()->invoke(path, message, CMReply<QVariant>());
    CMReply<QVariant> nothingSent;
    nothingSent.setValue(QVariant());
    return nothingSent;
}

void PowerNodeRequest::onNotifyFinished()
{
    execute().onFinished([this, keepAlive = sharedFromThis()](const CMReply<void>&) { onExecuteFinished(); },
                         Qt::AutoConnection);
}

CMReply<void> PowerNodeRequest::execute()
{
    VELA_TRACE_ENTER("CMReply<void> PowerNodeRequest::execute()", "nodeRequest id: " << m_id);
    ChangedResources changed;
    QList<CMVoidReply> changes;
    // Every change starts in this one pass; the graph orders their completion.
    forEachChange(m_nodes, [&changed, &changes](PowerNode* node, const QString& module,
                                                VelaPowerModuleActions::Enum action) {
        changes.append(node->setModuleAction(module, action));
        recordChange(changed, node, module, action);
    });

    CMReply<void> result;
    CMVoidReply::whenAllFinished(changes).onFinished(
        [this, keepAlive = sharedFromThis(), result, changed](const CMReply<QList<CMVoidReply>>& finished) {
            VELA_TRACE("nodeRequest id: " << m_id << " all actions finished");
            // Told after the fact; nobody waits for these answers.
            forEachRegisteredModule(changed, m_modules, VelaPowerManagerMessageTypes::postRevoke,
                                    [this](const CMPath& path, const VelaPowerManagerRevokeMessage& message) {
                                        notifyModule(path, message);
                                    });
            const CMError error = finished.error();
            if (error.isError())
                result.setError(error);
            else
                result.setValue();
        },
        Qt::AutoConnection);
    VELA_TRACE_LEAVE("CMReply<void> PowerNodeRequest::execute()", "nodeRequest id: " << m_id);
    return result;
}

CMReply<void> PowerNodeRequest::process()
{
    VELA_TRACE_ENTER("CMReply<void> PowerNodeRequest::process()", "nodeRequest id: " << m_id);
    if (m_reply.isFinished())
        return m_reply;
    if (!resolve()) {
        m_reply.setError(CMError(TrString("Failed to resolve dependencies")));
        return m_reply;
    }
    m_processing = true;
    notify().onFinished([this, keepAlive = sharedFromThis()](const CMReply<void>&) { onNotifyFinished(); },
                        Qt::AutoConnection);
    return m_reply;
}
