#include "powermanagerservice.h"

#include "connectionwatch.h"
#include "dbusnames.h"
#include "graphfile.h"
#include "platformcall.h"
#include "powergraph.h"
#include "refusalreasons.h"
#include "requestdriver.h"
#include "runrecorder.h"
#include "safetext.h"
#include "snapshot.h"

#include "PowerHandler.h"
#include "PowerNode.h"
#include "cmrootworker.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerrevokemessage.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QPointer>

#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <iostream>
#include <utility>

const char* const PowerManagerService::busName = "org.vela.Power1";
const char* const PowerManagerService::objectPath = "/org/vela/Power1";
const char* const PowerManagerService::defaultTargetGroup = "vela-power";
const QDBusConnection::RegisterOptions PowerManagerService::exported = QDBusConnection::ExportScriptableSlots |
                                                                       QDBusConnection::ExportScriptableSignals |
                                                                       QDBusConnection::ExportAllProperties;

namespace {

const char* const interfaceName = "org.vela.Power1.Manager";

// "Stopping" is the service's own error; a name given in full is kept.
QString fullErrorName(const char* name)
{
    if (QLatin1String(name).startsWith(QLatin1String("org.")))
        return QLatin1String(name);
    return QStringLiteral("org.vela.Power1.Error.") + QLatin1String(name);
}

} // namespace

PowerManagerService::PowerManagerService(PowerHandler& handler, const PowerGraph& graph, const QDBusConnection& bus,
                                         const QString& targetGroup)
    : m_handler(handler)
    , m_graph(graph)
    , m_bus(bus)
    , m_callers(QString(), bus, QDBusServiceWatcher::WatchForUnregistration)
    , m_targetGroup(targetGroup)
    , m_credentials(bus, targetGroup)
{
    connect(&m_callers, &QDBusServiceWatcher::serviceUnregistered, this, &PowerManagerService::callerGone);
    connect(&handler, &PowerHandler::nextTargetChanged, this, [this](const VelaPowerManagerTarget& target) {
        targetSignal("NextTarget", "NextTargetChanged", &m_nextTarget,
                     VelaPowerManagerTargets::toString(target.target()));
        if (m_recorder)
            m_recorder->add(RunEvent::Kind::Signal, QStringLiteral("nextTargetChanged"), m_nextTarget);
        emit NextTargetChanged(m_nextTarget);
    });
    connect(&handler, &PowerHandler::targetChanged, this, [this](const VelaPowerManagerTarget& target) {
        targetSignal("CurrentTarget", "TargetChanged", &m_currentTarget,
                     VelaPowerManagerTargets::toString(target.target()));
        if (m_recorder)
            m_recorder->add(RunEvent::Kind::Signal, QStringLiteral("targetChanged"), m_currentTarget);
        emit TargetChanged(m_currentTarget);
    });
}

// Keeps a target property and tells the bus it changed.
void PowerManagerService::targetSignal(const char* property, const char*, QString* value, const QString& target)
{
    *value = target;
    QDBusMessage changed =
        QDBusMessage::createSignal(QLatin1String(objectPath), QStringLiteral("org.freedesktop.DBus.Properties"),
                                   QStringLiteral("PropertiesChanged"));
    changed << QLatin1String(interfaceName) << QVariantMap{{QLatin1String(property), target}} << QStringList();
    m_bus.send(changed);
}

void PowerManagerService::sendError(const char* name, const QString& message)
{
    sendErrorReply(fullErrorName(name), message);
}

void PowerManagerService::RegisterModule(const QString& name, const QVariantMap& options)
{
    if (refuseWhileStopping())
        return;
    const QString problem = SafeText::problem(name, SafeText::maximumNameLength);
    if (!problem.isEmpty())
        return sendError("org.freedesktop.DBus.Error.InvalidArgs",
                         QStringLiteral("module name %1: %2").arg(SafeText::quoted(name), problem));
    RevokePaths paths;
    if (!revokePaths(options, &paths))
        return;
    const QString caller = message().service();
    const QString owner =
        name == VelaPowerManagerName() ? QStringLiteral("(the power manager)") : m_moduleOwners.value(name, caller);
    if (owner != caller)
        return sendError("NotOwner", QStringLiteral("module %1 is registered by another connection").arg(name));
    if (!m_moduleOwners.contains(name) && m_moduleOwners.keys(caller).size() >= mostModulesPerConnection)
        return sendError("org.freedesktop.DBus.Error.LimitsExceeded",
                         QStringLiteral("a connection registers at most %1 modules").arg(mostModulesPerConnection));
    m_moduleOwners.insert(name, caller);
    // Known before a revoke message of the module can fail, for the log.
    m_credentials.whenKnown(caller, [](const CallerCredentials::Caller&) {});
    m_handler.registerModule(VelaPowerManagerModuleRegister(
        name, paths.before.isEmpty() ? CMPath() : forwardRevokes(name, paths.before, "revoke"),
        paths.after.isEmpty() ? CMPath() : forwardRevokes(name, paths.after, "postRevoke")));
    watchCaller(caller);
}

// The options "revokePath" and "postRevokePath": object paths on the
// caller's connection. Anything else is refused.
bool PowerManagerService::revokePaths(const QVariantMap& options, RevokePaths* paths)
{
    for (auto option = options.constBegin(); option != options.constEnd(); ++option) {
        QString* path = option.key() == QLatin1String("revokePath")       ? &paths->before
                        : option.key() == QLatin1String("postRevokePath") ? &paths->after
                                                                          : nullptr;
        if (!path) {
            sendError("org.freedesktop.DBus.Error.InvalidArgs",
                      QStringLiteral("unknown option %1 (expected revokePath, postRevokePath)")
                          .arg(SafeText::quoted(option.key())));
            return false;
        }
        const QVariant value = option.value();
        *path = value.userType() == qMetaTypeId<QDBusObjectPath>() ? value.value<QDBusObjectPath>().path()
                                                                   : value.toString();
        const QString problem = DBusNames::objectPathProblem(*path);
        if (!problem.isEmpty()) {
            sendError("org.freedesktop.DBus.Error.InvalidArgs",
                      QStringLiteral("%1 %2: %3").arg(option.key(), SafeText::quoted(*path), problem));
            return false;
        }
    }
    return true;
}

// A path of the root worker, private to the service, at which the handler's
// revoke messages for `module` arrive and are sent on to `modulePath` on the
// module's connection.
CMPath PowerManagerService::forwardRevokes(const QString& module, const QString& modulePath, const char* kind)
{
    const CMPath path(QStringLiteral("/vela-powerd/modules/%1/%2").arg(module, QLatin1String(kind)));
    m_revokePaths.insert(path);
    CMRootWorker::instance()->registerInvokeHandler(
        path, [this, module, modulePath](const CMPath&, const VelaHash& message, CMReply<QVariant> reply) {
            forward(module, modulePath, message, reply);
        });
    return path;
}

// Calls org.vela.Power1.Module.Revoke(u messageType, as resources) on the
// module's connection, and answers the handler with the outcome: an error,
// or no answer within the time-out, fails the message and the request goes
// on.
void PowerManagerService::forward(const QString& module, const QString& modulePath, const VelaHash& message,
                                  const CMReply<QVariant>& reply)
{
    const QString owner = m_moduleOwners.value(module);
    if (owner.isEmpty()) {
        // Its connection went: the message fails, with nobody to blame.
        reply.setError(CMError(QStringLiteral("org.vela.Power1.Error.RevokeFailed"),
                               TrString(QStringLiteral("module %1 has no connection").arg(module))));
        return;
    }
    const VelaPowerManagerRevokeMessage revoke(message);
    QDBusMessage call = QDBusMessage::createMethodCall(owner, modulePath, QStringLiteral("org.vela.Power1.Module"),
                                                       QStringLiteral("Revoke"));
    call << static_cast<uint>(revoke.messageType()) << PlatformCall::revokedResources(message);
    auto* answer = new QDBusPendingCallWatcher(m_bus.asyncCall(call, m_revokeTimeoutMs), this);
    connect(answer, &QDBusPendingCallWatcher::finished, this,
            [this, module, owner, reply](QDBusPendingCallWatcher* watcher) {
                const QDBusPendingReply<> answered = *watcher;
                watcher->deleteLater();
                if (!answered.isError()) {
                    reply.setValue(QVariant());
                    return;
                }
                const QString offence =
                    QStringLiteral("module %1 (connection %2, %3) did not take its revoke message: %4")
                        .arg(module, owner, m_credentials.known(owner).describe(), answered.error().message());
                std::cerr << "vela-powerd: " << offence.toStdString() << std::endl;
                reply.setError(CMError(QStringLiteral("org.vela.Power1.Error.RevokeFailed"), TrString(offence)));
            });
}

PowerManagerService::~PowerManagerService()
{
    for (const CMPath& path : qAsConst(m_revokePaths))
        CMRootWorker::instance()->unregisterInvokeHandler(path);
}

// Watched once; see ifAlreadyGone() for the caller that went before.
void PowerManagerService::watchCaller(const QString& caller)
{
    if (m_callers.watchedServices().contains(caller))
        return;
    m_callers.addWatchedService(caller);
    ifAlreadyGone(m_bus, caller, this, [this, caller]() { callerGone(caller); });
}

// Releases every hold and use of the modules `caller` registered, through
// the queue like any request (their answers go to no one), and frees their
// names.
void PowerManagerService::callerGone(const QString& caller)
{
    m_callers.removeWatchedService(caller);
    m_credentials.forget(caller);
    for (const QString& module : m_moduleOwners.keys(caller)) {
        m_moduleOwners.remove(module);
        const QSet<QString> askedFor = m_askedFor.take(module);
        for (const GraphSpec::Resource& resource : m_graph.description().resources) {
            const bool claimed =
                m_graph.resource(resource.name)->moduleAction(module) != VelaPowerModuleActions::release;
            if (!claimed && !askedFor.contains(resource.name))
                continue;
            Scenario::Request release;
            release.kind = Scenario::Request::Resource;
            release.name = resource.name;
            release.module = module;
            release.action = VelaPowerModuleActions::release;
            RequestDriver::sendTo(m_handler, m_graph, release);
        }
    }
}

/*
 * Allowed to root and to the target group, as the bus says who the caller
 * is: asked once per connection, and meanwhile the connection's later calls
 * wait their turn behind this one.
 */
void PowerManagerService::RequestTarget(const QString& name)
{
    if (refuseWhileStopping())
        return;
    if (!m_graph.target(name))
        return sendError("UnknownTarget", QStringLiteral("no target named %1").arg(SafeText::quoted(name)));
    if (!mayQueue())
        return;
    Scenario::Request request;
    request.kind = Scenario::Request::Target;
    request.name = name;
    const std::shared_ptr<PendingCall> pending = holdCall();
    const QString caller = pending->call.service();
    watchCaller(caller);
    m_credentials.whenKnown(caller, [this, pending, request](const CallerCredentials::Caller& who) {
        if (pending->answered)
            return;
        if (!who.mayRequestTargets)
            return refuse(pending, "org.freedesktop.DBus.Error.AccessDenied",
                          QStringLiteral("only root and the group %1 may request targets (the caller: %2)")
                              .arg(m_targetGroup, who.describe()));
        queue(pending, request);
    });
}

void PowerManagerService::RequestResource(const QString& resource, const QString& action, const QVariantMap& options)
{
    if (refuseWhileStopping())
        return;
    if (!m_graph.resource(resource))
        return sendError("UnknownResource", QStringLiteral("no resource named %1").arg(SafeText::quoted(resource)));
    Scenario::Request request;
    request.kind = Scenario::Request::Resource;
    request.name = resource;
    if (!VelaPowerModuleActions::fromString(action, &request.action))
        return sendError("InvalidAction",
                         QStringLiteral("action %1: expected hold, use or release").arg(SafeText::quoted(action)));
    request.module = moduleOfCaller(options);
    if (request.module.isEmpty())
        return;
    if (!mayQueue())
        return;
    const std::shared_ptr<PendingCall> pending = holdCall();
    const QString caller = pending->call.service();
    m_credentials.inTurn(caller, [this, pending, request, caller]() {
        if (pending->answered)
            return;
        // A connection that went while its call waited had its claims
        // released already; this one is not sent after them.
        if (m_moduleOwners.value(request.module) != caller)
            return answer(pending, QDBusMessage());
        m_askedFor[request.module].insert(request.name);
        queue(pending, request);
    });
}

QString PowerManagerService::moduleOfCaller(const QVariantMap& options)
{
    const QString caller = message().service();
    if (options.contains(QStringLiteral("module"))) {
        const QString module = options.value(QStringLiteral("module")).toString();
        if (!m_moduleOwners.contains(module))
            sendError("UnknownModule",
                      QStringLiteral("no module named %1 is registered").arg(SafeText::quoted(module)));
        else if (m_moduleOwners.value(module) != caller)
            sendError("NotOwner", QStringLiteral("module %1 is registered by another connection").arg(module));
        else
            return module;
        return QString();
    }
    const QStringList modules = m_moduleOwners.keys(caller);
    if (modules.size() == 1)
        return modules.constFirst();
    if (modules.isEmpty())
        sendError("NotRegistered", QStringLiteral("this connection registered no module (RegisterModule)"));
    else
        sendError("org.freedesktop.DBus.Error.InvalidArgs",
                  QStringLiteral("this connection registered %1 modules: name one in the option \"module\"")
                      .arg(modules.size()));
    return QString();
}

int PowerManagerService::recordRequest(const QString& description)
{
    const int number = ++m_requestsSent;
    if (m_recorder)
        m_recorder->requestSent(number, description);
    return number;
}

// The call being handled is answered later, by `answerWhenDone` or
// `refuse`; until then it counts among its connection's waiting calls.
std::shared_ptr<PowerManagerService::PendingCall> PowerManagerService::holdCall()
{
    setDelayedReply(true);
    auto pending = std::make_shared<PendingCall>();
    pending->call = message();
    pending->number = ++m_callsHeld;
    m_pending.append(pending);
    ++m_pendingByCaller[pending->call.service()];
    return pending;
}

void PowerManagerService::refuse(const std::shared_ptr<PendingCall>& pending, const char* name, const QString& text)
{
    answer(pending, pending->call.createErrorReply(fullErrorName(name), text));
}

void PowerManagerService::queue(const std::shared_ptr<PendingCall>& pending, const Scenario::Request& request)
{
    if (m_stopping)
        return refuse(pending, "Stopping", QStringLiteral("the service is stopping"));
    // Recorded before it is sent: the handler may act on it at once.
    const int number = recordRequest(request.describe());
    pending->sent = true;
    answerWhenDone(
        pending, RequestDriver::sendTo(m_handler, m_graph, request),
        [this, request]() { return RefusalReasons::whyFailed(m_graph, request); }, number);
}

// Answers the call once the handler answers `reply`: with nothing, or with
// the error org.vela.Power1.Error.Refused carrying the handler's message and,
// when one is known, the reason in plain words.
void PowerManagerService::answerWhenDone(const std::shared_ptr<PendingCall>& pending, const CMReply<QVariant>& reply,
                                         const std::function<QString()>& reason, int number)
{
    QPointer<PowerManagerService> service(this);
    reply.onFinished([service, pending, reason, number](const CMReply<QVariant>& answer) {
        if (!service)
            return;
        if (service->m_recorder)
            service->m_recorder->requestAnswered(number,
                                                 answer.error().isError()
                                                     ? QStringLiteral("failed: ") + answer.error().message().toString()
                                                     : QStringLiteral("done"),
                                                 answer.error().isError());
        if (pending->answered)
            return;
        if (!answer.error().isError()) {
            service->answer(pending, pending->call.createReply());
            return;
        }
        QString text = answer.error().message().toString();
        const QString why = reason();
        if (!why.isEmpty())
            text += QStringLiteral(": ") + why;
        service->refuse(pending, "Refused", text);
    });
}

void PowerManagerService::answer(const std::shared_ptr<PendingCall>& pending, const QDBusMessage& reply)
{
    if (reply.type() != QDBusMessage::InvalidMessage)
        m_bus.send(reply);
    if (m_answerListener)
        m_answerListener(pending->number, reply);
    pending->answered = true;
    m_pending.removeOne(pending);
    forgetPending(pending->call.service());
    if (m_stopping && m_pending.isEmpty() && m_stopped)
        std::exchange(m_stopped, nullptr)();
}

void PowerManagerService::stop(std::function<void()> stopped)
{
    m_stopping = true;
    m_stopped = std::move(stopped);
    // The oldest call sent to the handler is the one running (or the first
    // to run): it keeps its answer; every other caller is told now.
    bool running = false;
    const QList<std::shared_ptr<PendingCall>> waiting = m_pending;
    for (const std::shared_ptr<PendingCall>& call : waiting) {
        if (call->sent && !running) {
            running = true;
            continue;
        }
        refuse(call, "Stopping", QStringLiteral("the service is stopping"));
    }
    if (m_pending.isEmpty() && m_stopped)
        std::exchange(m_stopped, nullptr)();
}

void PowerManagerService::forgetPending(const QString& caller)
{
    if (--m_pendingByCaller[caller] <= 0)
        m_pendingByCaller.remove(caller);
}

bool PowerManagerService::mayQueue()
{
    if (m_pendingByCaller.value(message().service()) < mostQueuedPerConnection)
        return true;
    sendError("org.freedesktop.DBus.Error.LimitsExceeded",
              QStringLiteral("a connection has at most %1 requests waiting").arg(mostQueuedPerConnection));
    return false;
}

bool PowerManagerService::refuseWhileStopping()
{
    if (!m_stopping)
        return false;
    sendError("Stopping", QStringLiteral("the service is stopping"));
    return true;
}

QVariantMap PowerManagerService::ListNodes()
{
    if (refuseWhileStopping())
        return QVariantMap();
    return GraphSnapshot::toMap(m_handler.listNodes());
}

QVariantMap PowerManagerService::GetNodeInfo(const QString& name)
{
    if (refuseWhileStopping())
        return QVariantMap();
    PowerNode* node = m_graph.node(name);
    if (!node) {
        sendError("UnknownResource", QStringLiteral("no resource or target named %1").arg(SafeText::quoted(name)));
        return QVariantMap();
    }
    return GraphSnapshot::toMap(m_handler.getNodeInfo(node));
}
