#include "explainer.h"

#include "libraryrecords.h"
#include "refusalreasons.h"
#include "requestdriver.h"

#include "PowerNode.h"
#include "velapowermanagerrevokemessage.h"

#include <QEventLoop>
#include <QTimer>

namespace {

// Far beyond what a platform that answers at once needs: only a library that
// lost a request would reach it.
constexpr int watchdogMs = 10000;

QMap<QString, QString> actionNames(const PowerNode* node)
{
    QMap<QString, QString> names;
    const QHash<QString, VelaPowerModuleActions::Enum> actions = node->moduleActions();
    for (auto it = actions.constBegin(); it != actions.constEnd(); ++it)
        names.insert(it.key(), VelaPowerModuleActions::toString(it.value()));
    return names;
}

QString describeRequest(const Scenario::Request& request)
{
    if (request.kind == Scenario::Request::Target)
        return QStringLiteral("switch to %1").arg(request.name);
    return QStringLiteral("%1 %2 %3")
        .arg(request.module, VelaPowerModuleActions::toString(request.action), request.name);
}

} // namespace

Explainer::Explainer(const GraphFile& file)
    : m_file(file)
    , m_log(new LibraryLogWatcher([this](const LibraryRecord& record) {
        if (record.kind == LibraryRecord::Kind::StateChanged)
            m_transitions.append(qMakePair(record.node, record.state));
    }))
    , m_platform(file, SimulatedPlatform::Answering::AtOnce,
                 [this](PlatformCall::Step step, const PlatformCall& call) {
                     if (step == PlatformCall::Arrived)
                         m_calls.append(call);
                 })
    , m_graph(file)
{
    m_graph.registerWith(m_handler);
}

Explainer::~Explainer() = default;

Explainer::Change Explainer::startFrom(const QString& target)
{
    return switchTo(target);
}

void Explainer::startAfterScenario()
{
    for (const Scenario::Request& request : m_file.requests)
        sendAndWait(request);
}

Explainer::Change Explainer::switchTo(const QString& target)
{
    Scenario::Request request;
    request.name = target;
    return ask(describeRequest(request), request);
}

Explainer::Change Explainer::request(const QString& resource, const QString& module,
                                     VelaPowerModuleActions::Enum action)
{
    Scenario::Request request;
    request.kind = Scenario::Request::Resource;
    request.name = resource;
    request.module = module;
    request.action = action;
    return ask(describeRequest(request), request);
}

QString Explainer::sendAndWait(const Scenario::Request& request)
{
    QEventLoop loop;
    bool answered = false;
    QString error;
    CMReply<QVariant> reply;
    reply = RequestDriver::sendTo(m_handler, m_graph, request);
    reply.onFinished([&](const CMReply<QVariant>& answer) {
        answered = true;
        if (answer.error().isError())
            error = answer.error().message().toString();
        loop.quit();
    });
    if (!answered) {
        QTimer::singleShot(watchdogMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    if (!answered)
        return QStringLiteral("no answer within %1 ms").arg(watchdogMs);
    return error;
}

Explainer::NodeState Explainer::stateOf(const QString& name) const
{
    const PowerNode* node = m_graph.node(name);
    return NodeState{name, VelaPowerNodeStates::toString(node->state()), actionNames(node)};
}

QMap<QString, Explainer::NodeState> Explainer::snapshot() const
{
    QMap<QString, NodeState> states;
    for (const GraphFile::Resource& resource : m_file.resources)
        states.insert(resource.name, stateOf(resource.name));
    for (const GraphFile::Target& target : m_file.targets)
        states.insert(target.name, stateOf(target.name));
    return states;
}

Explainer::Change Explainer::ask(const QString& question, const Scenario::Request& request)
{
    Change change;
    change.question = question;
    const QMap<QString, NodeState> before = snapshot();
    m_calls.clear();
    m_transitions.clear();

    const QString error = sendAndWait(request);
    change.allowed = error.isEmpty();
    change.answer = error.isEmpty() ? QStringLiteral("done") : error;
    if (!change.allowed)
        change.reason = RefusalReasons::whyFailed(m_graph, request);
    change.transitions = m_transitions;

    const QMap<QString, NodeState> after = snapshot();
    QStringList changed;
    for (const auto& transition : qAsConst(m_transitions)) {
        if (!changed.contains(transition.first))
            changed.append(transition.first);
    }
    QStringList fileOrder;
    for (const GraphFile::Resource& resource : m_file.resources)
        fileOrder.append(resource.name);
    for (const GraphFile::Target& target : m_file.targets)
        fileOrder.append(target.name);
    for (const QString& name : qAsConst(fileOrder)) {
        const NodeState& was = before[name];
        const NodeState& is = after[name];
        if (!changed.contains(name) && (was.state != is.state || was.actions != is.actions))
            changed.append(name);
    }
    for (const QString& name : qAsConst(changed))
        change.nodes.append(after.value(name));

    for (const PlatformCall& call : qAsConst(m_calls)) {
        if (call.kind == PlatformCall::Write) {
            change.writes.append(Write{call.path, call.key, call.value.toString()});
            continue;
        }
        const VelaPowerManagerRevokeMessage message(call.message);
        Revoke revoke{message.moduleName(), call.path, QStringList()};
        for (VelaPowerManagerResources::Enum resource : message.revokeResources())
            revoke.resources.append(VelaPowerManagerResources::toString(resource));
        (message.messageType() == VelaPowerManagerMessageTypes::revoke ? change.revokedBefore : change.revokedAfter)
            .append(revoke);
    }
    return change;
}

Explainer::NodeReport Explainer::node(const QString& name) const
{
    NodeReport report;
    PowerNode* node = m_graph.node(name);
    report.node = name;
    report.kind = node->type() == PowerNodeType::PowerTarget ? QStringLiteral("target") : QStringLiteral("resource");
    report.state = VelaPowerNodeStates::toString(node->state());
    report.claims = actionNames(node);
    for (const GraphFile::Resource& resource : m_file.resources) {
        PowerNode* other = m_graph.resource(resource.name);
        if (node->lockedBy().contains(other))
            report.lockedBy.append(resource.name);
        if (other->requiredNodes(false).contains(node))
            report.requiredBy.append(qMakePair(resource.name, VelaPowerNodeStates::toString(other->state())));
    }
    for (const GraphFile::Target& entry : m_file.targets) {
        PowerTarget* target = m_graph.target(entry.name);
        if (target == node)
            continue;
        if (target->requiredNodes(false).contains(node))
            report.enabledBy.append(entry.name);
        else if (target->requiredNodes(true).contains(node))
            report.enabledThrough.append(entry.name);
        if (target->requiredByNodes(false).contains(node))
            report.disabledBy.append(entry.name);
        else if (target->requiredByNodes(true).contains(node))
            report.disabledThrough.append(entry.name);
    }
    return report;
}
