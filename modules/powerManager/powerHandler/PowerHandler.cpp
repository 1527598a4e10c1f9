#include "PowerHandler.h"

#include "dbglog.h"
#include "velaassert.h"

#include <QPointer>

PowerHandler::PowerHandler()
    : QObject(nullptr)
{
}

// The containers go in reverse order of declaration. The nodes stay alive
// (they are the service's) and callers still waiting are released unanswered.
PowerHandler::~PowerHandler() = default;

// --- Registration and introspection ----------------------------------------

bool PowerHandler::registerModule(const VelaPowerManagerModuleRegister& module)
{
    VELA_TRACE_ENTER("bool PowerHandler::registerModule(const VelaPowerManagerModuleRegister&)", module);
    if (module.isEmpty()) {
        VELA_ERROR("Cannot register module: " << module);
        return false;
    }
    m_modules.insert(module.moduleName(), module);
    return true;
}

void PowerHandler::registerResource(PowerResource* resource)
{
    VELA_TRACE_ENTER("void PowerHandler::registerResource(PowerResource*)", resource->name());
    VELA_ASSERT(resource->type() == PowerNodeType::PowerResource);
    VELA_ASSERT(!m_resources.contains(resource->resource()));
    m_resources.insert(resource->resource(), resource);
}

void PowerHandler::registerTarget(PowerTarget* target)
{
    VELA_TRACE_ENTER("void PowerHandler::registerTarget(PowerTarget*)", target->name());
    VELA_ASSERT(target->type() == PowerNodeType::PowerTarget);
    VELA_ASSERT(!m_targets.contains(target->target()));
    // Targets exclude one another: this pairing is the only place where
    // target-to-target edges are made.
    for (PowerTarget* registered : qAsConst(m_targets)) {
        registered->disables(target);
        target->disables(registered);
    }
    m_targets.insert(target->target(), target);
}

QVariantHash PowerHandler::getNodeInfo(PowerNode* node) const
{
    QVariantHash actions;
    const QHash<QString, VelaPowerModuleActions::Enum> moduleActions = node->moduleActions();
    for (auto it = moduleActions.cbegin(); it != moduleActions.cend(); ++it)
        actions.insert(it.key(), VelaPowerModuleActions::toString(it.value()));
    return QVariantHash{{QStringLiteral("isEnabled"), node->isEnabled()}, {QStringLiteral("actions"), actions}};
}

QVariantHash PowerHandler::listNodes() const
{
    VELA_TRACE_ENTER("QVariantHash PowerHandler::listNodes() const", "");
    QVariantHash targets;
    for (auto it = m_targets.cbegin(); it != m_targets.cend(); ++it)
        targets.insert(VelaPowerManagerTargets::toString(it.key()), getNodeInfo(it.value()));
    QVariantHash resources;
    for (auto it = m_resources.cbegin(); it != m_resources.cend(); ++it)
        resources.insert(VelaPowerManagerResources::toString(it.key()), getNodeInfo(it.value()));
    return QVariantHash{{QStringLiteral("targets"), targets}, {QStringLiteral("resources"), resources}};
}

int PowerHandler::pendingRequests() const
{
    return m_requests.size();
}

// --- The queue ---------------------------------------------------------------

PowerNodeRequestPtr PowerHandler::makeRequest(PowerNode* node, const QString& module,
                                              VelaPowerModuleActions::Enum action)
{
    VELA_TRACE_ENTER("PowerNodeRequestPtr PowerHandler::makeRequest(PowerNode*, const QString&, "
                     "VelaPowerModuleActions::Enum)",
                     "");
    if (!node) {
        VELA_ERROR("invalid power node requested");
        return {};
    }
    if (!m_modules.contains(module)) {
        VELA_ERROR("unknown power module requested: " << module);
        return {};
    }
    return PowerNodeRequest::create(node, module, action, m_modules);
}

bool PowerHandler::addRequest(const PowerNodeRequestPtr& request)
{
    VELA_TRACE_ENTER("bool PowerHandler::addRequest(const PowerNodeRequestPtr&)", "");
    if (!request || !request->isValid())
        return false;
    m_requests.append(request);
    return true;
}

void PowerHandler::tryProcessNextRequest()
{
    VELA_TRACE_ENTER("void PowerHandler::tryProcessNextRequest()", "");
    // A running head starts the next request itself when it is resolved.
    if (m_requests.isEmpty() || m_requests.first()->isProcessing())
        return;
    processNextRequest();
}

void PowerHandler::processNextRequest()
{
    // Invalid heads are answered and dropped one after another in this loop
    // rather than by recursion, so a long run of them costs no stack.
    for (;;) {
        VELA_TRACE_ENTER("void PowerHandler::processNextRequest()", "requests: " << m_requests.size());
        if (m_requests.isEmpty())
            return;
        const PowerNodeRequestPtr request = m_requests.first();
        VELA_ASSERT(!request->isProcessing());
        if (request->isValid())
            break;
        VELA_INFO("remove invalid request id: " << request->id());
        resolveNodeRequest(request->id(), CMError(TrString("Cannot request node")));
    }

    const PowerNodeRequestPtr request = m_requests.first();
    const auto target = m_targetRequests.constFind(request->id());
    if (target != m_targetRequests.cend())
        emit nextTargetChanged(target->first);

    // The handler is the context: a handler destroyed while the request runs
    // drops the continuation instead of calling into freed memory.
    request->process().onFinished(
        this,
        [this, request](const CMReply<void>& processed) {
            VELA_INFO("request id: " << request->id() << " finished");
            // After a target request, resources that no switching has touched
            // yet are brought to disabled; the caller waits for that.
            QList<CMVoidReply> cleanups;
            if (m_targetRequests.contains(request->id())) {
                for (PowerResource* resource : qAsConst(m_resources)) {
                    if (resource->state() == VelaPowerNodeStates::initial)
                        cleanups.append(resource->disable());
                }
            }
            CMVoidReply::whenAllFinished(cleanups).addWatcher(
                nullptr,
                [handler = QPointer<PowerHandler>(this), request, processed](const CMVoidReply&) {
                    if (!handler)
                        return;
                    handler->resolveNodeRequest(request->id(), processed.error());
                    handler->processNextRequest();
                },
                Qt::AutoConnection);
        },
        Qt::AutoConnection);
}

void PowerHandler::resolveNodeRequest(int64_t id, const CMError& error)
{
    const bool success = !error.isError();
    VELA_TRACE_ENTER("void PowerHandler::resolveNodeRequest(int64_t, const CMError&)",
                     "id: " << id << " success: " << success);
    CMReply<QVariant> reply;
    const auto target = m_targetRequests.find(id);
    if (target != m_targetRequests.end()) {
        const QPair<VelaPowerManagerTarget, CMReply<QVariant>> entry = target.value();
        m_targetRequests.erase(target);
        reply = entry.second;
        if (success)
            emit targetChanged(entry.first);
    }
    const auto resource = m_resourceRequests.find(id);
    if (resource != m_resourceRequests.end()) {
        reply = resource.value();
        m_resourceRequests.erase(resource);
    }
    VELA_ASSERT_TEXT(!m_requests.isEmpty(), "!isEmpty()");
    m_requests.removeFirst();
    if (success)
        reply.setValue(QVariant());
    else
        reply.setError(error);
}

// --- Entry points ------------------------------------------------------------

void PowerHandler::refuse(const CMReply<QVariant>& reply, const char* message, const VelaHash& record)
{
    reply.setError(CMError(QStringLiteral("Error"), TrString(message)));
    VELA_ERROR(reply.error().message() << ": " << record);
}

void PowerHandler::requestTarget(const VelaPowerManagerTarget& target, CMReply<QVariant> reply)
{
    VELA_TRACE_ENTER("void PowerHandler::requestTarget(const VelaPowerManagerTarget&, CMReply<QVariant>)",
                     target);
    if (target.isEmpty())
        return refuse(reply, "Incorrect request", target);
    PowerTarget* node = m_targets.value(target.target());
    if (!node)
        return refuse(reply, "Unknown target", target);
    if (!addRequest(makeRequest(node, VelaPowerManagerName(), VelaPowerModuleActions::hold)))
        return refuse(reply, "Cannot add request for requested target", target);
    // Stored before the queue is kicked: the request may finish inside it.
    VELA_ASSERT_TEXT(!m_requests.isEmpty(), "!isEmpty()");
    m_targetRequests.insert(m_requests.last()->id(), qMakePair(target, reply));
    tryProcessNextRequest();
}

void PowerHandler::requestResource(const VelaPowerManagerResourceRequest& request, CMReply<QVariant> reply)
{
    VELA_TRACE_ENTER(
        "void PowerHandler::requestResource(const VelaPowerManagerResourceRequest&, CMReply<QVariant>)", request);
    if (request.isEmpty())
        return refuse(reply, "Incorrect request", request);
    PowerResource* node = m_resources.value(request.resource());
    if (!node)
        return refuse(reply, "Unknown resource", request);
    if (!addRequest(makeRequest(node, request.moduleName(), request.action())))
        return refuse(reply, "Cannot add request for requested resource", request);
    VELA_ASSERT_TEXT(!m_requests.isEmpty(), "!isEmpty()");
    m_resourceRequests.insert(m_requests.last()->id(), reply);
    tryProcessNextRequest();
}
