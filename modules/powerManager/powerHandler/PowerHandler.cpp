#include "PowerHandler.h"

#include "PowerHandlerQueueState.h"

#include "dbglog.h"
#include "velaassert.h"

#include <QPointer>

// A refusal is the caller's answer: the error is set on the reply, logged
// from the entry point that refused, and nothing is queued.
#define VELA_REFUSE(reply, text, record)                                                                     \
    do {                                                                                                      \
        (reply).setError(CMError(QStringLiteral("Error"), TrString(text)));                                  \
        VELA_ERROR((reply).error().message() << ": " << (record));                                           \
        return;                                                                                               \
    } while (false)

PowerHandler::PowerHandler()
    : QObject(nullptr)
{
    new PowerHandlerQueueState(this);
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
    if (m_requests.isEmpty() || m_requests.first()->isProcessing()
        || PowerHandlerQueueState::of(this)->isBusy())
        return;
    processNextRequest();
}

void PowerHandler::processNextRequest()
{
    PowerHandlerQueueState* const queue = PowerHandlerQueueState::of(this);
    queue->startDroppingInvalidHeads();
    // Invalid heads are answered and dropped one after another in this loop
    // rather than by recursion, so a long run of them costs no stack.
    for (;;) {
        VELA_TRACE_ENTER("void PowerHandler::processNextRequest()", "requests: " << m_requests.size());
        if (m_requests.isEmpty()) {
            queue->stop();
            return;
        }
        const PowerNodeRequestPtr request = m_requests.first();
        VELA_ASSERT(!request->isProcessing());
        if (request->isValid())
            break;
        VELA_INFO("remove invalid request id: " << request->id());
        resolveNodeRequest(request->id(), CMError(TrString("Cannot request node")));
    }

    const PowerNodeRequestPtr request = m_requests.first();
    queue->startHead(request.data());
    const auto target = m_targetRequests.constFind(request->id());
    if (target != m_targetRequests.cend()) {
        // A copy: a listener that queues another target may rehash the table.
        const VelaPowerManagerTarget next = target->first;
        emit nextTargetChanged(next);
    }

    // The continuations find out whether the handler still exists: one
    // destroyed while its request ran leaves the rest of the work undone
    // instead of calling into freed memory.
    // The finish continuation holds its share of the request weakly: it is
    // stored in the request's own reply, so a strong share would keep a
    // request whose reply never finishes (a revoke message nobody answers)
    // alive for ever, even after the handler is gone. While the handler
    // lives, its queue holds the head, so the share is always there.
    request->process().onFinished(
        [this, handler = QPointer<PowerHandler>(this), weakRequest = request.toWeakRef()](
            const CMReply<void>& processed) {
            const PowerNodeRequestPtr request = weakRequest.toStrongRef();
            if (!handler || !request)
                return;
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
                [handler, request, processed](const CMVoidReply&) {
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
    // The caller's reply; a request nobody waits for is answered all the
    // same, into a reply of its own.
    // Entries are removed by key: erasing through an iterator would also
    // look for the next entry, a walk over empty buckets that grows with the
    // table while a long queue drains.
    CMVoidReply caller;
    const auto target = m_targetRequests.constFind(id);
    if (target != m_targetRequests.cend()) {
        const QPair<VelaPowerManagerTarget, CMReply<QVariant>> entry = target.value();
        m_targetRequests.remove(id);
        caller = entry.second;
        if (success)
            emit targetChanged(entry.first);
    }
    const auto resource = m_resourceRequests.constFind(id);
    if (resource != m_resourceRequests.cend()) {
        caller = resource.value();
        m_resourceRequests.remove(id);
    }
    const CMReply<QVariant> reply = !caller ? CMReply<QVariant>() : CMReply<QVariant>(caller);
    VELA_ASSERT_TEXT(!m_requests.isEmpty(), "!isEmpty()");
    PowerHandlerQueueState::of(this)->headResolving(m_requests.first().data());
    m_requests.removeFirst();
    if (success)
        reply.setValue(QVariant());
    else
        reply.setError(error);
}

// --- Entry points ------------------------------------------------------------

void PowerHandler::requestTarget(const VelaPowerManagerTarget& target, CMReply<QVariant> reply)
{
    VELA_TRACE_ENTER("void PowerHandler::requestTarget(const VelaPowerManagerTarget&, CMReply<QVariant>)",
                     target);
    if (target.isEmpty())
        VELA_REFUSE(reply, "Incorrect request", target);
    PowerTarget* node = m_targets.value(target.target());
    if (!node)
        VELA_REFUSE(reply, "Unknown target", target);
    if (!addRequest(makeRequest(node, VelaPowerManagerName(), VelaPowerModuleActions::hold)))
        VELA_REFUSE(reply, "Cannot add request for requested target", target);
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
        VELA_REFUSE(reply, "Incorrect request", request);
    PowerResource* node = m_resources.value(request.resource());
    if (!node)
        VELA_REFUSE(reply, "Unknown resource", request);
    if (!addRequest(makeRequest(node, request.moduleName(), request.action())))
        VELA_REFUSE(reply, "Cannot add request for requested resource", request);
    VELA_ASSERT_TEXT(!m_requests.isEmpty(), "!isEmpty()");
    m_resourceRequests.insert(m_requests.last()->id(), reply);
    tryProcessNextRequest();
}
