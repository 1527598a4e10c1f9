#ifndef VELA_SERVICE_POWERMANAGERSERVICE_H
#define VELA_SERVICE_POWERMANAGERSERVICE_H

#include "callercredentials.h"
#include "graphfile.h"

#include "cmpath.h"
#include "cmreply.h"
#include "velahash.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>

class PowerGraph;
class PowerHandler;
class RunRecorder;

/*
 * The power handler on D-Bus: the object /org/vela/Power1 with the interface
 * org.vela.Power1.Manager (service/org.vela.Power1.Manager.xml). Modules
 * register under a name bound to their connection; requests are answered
 * with a delayed reply once the handler answers them, exactly once. When a
 * connection goes (a crash, a kill, a closed connection), every hold or use
 * of its modules is released through the handler's queue.
 *
 *   PowerManagerService service(handler, graph, bus);
 *   bus.registerObject(PowerManagerService::objectPath, &service, PowerManagerService::exported);
 *   bus.registerService(PowerManagerService::busName);
 */
class PowerManagerService : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.vela.Power1.Manager")
    Q_PROPERTY(QString CurrentTarget READ currentTarget)
    Q_PROPERTY(QString NextTarget READ nextTarget)

public:
    static const char* const busName;
    static const char* const objectPath;
    // The group whose members may request targets, besides root.
    static const char* const defaultTargetGroup;
    static const QDBusConnection::RegisterOptions exported;
    // What one connection may have at a time (dbus-daemon keeps 128 replies
    // pending per connection).
    static constexpr int mostQueuedPerConnection = 64;
    static constexpr int mostModulesPerConnection = 16;

    PowerManagerService(PowerHandler& handler, const PowerGraph& graph, const QDBusConnection& bus,
                        const QString& targetGroup = QLatin1String(defaultTargetGroup));
    ~PowerManagerService() override;

    // How long a module may take to answer a revoke message before the
    // message counts as failed and the request goes on.
    void setRevokeTimeout(int ms) { m_revokeTimeoutMs = ms; }
    // Also tell `recorder` (may be null) of every request, its answer and
    // the handler's signals.
    void setRecorder(RunRecorder* recorder) { m_recorder = recorder; }
    // Also tell `listener` of each call answered later than it came (a
    // request), by its number among them (from 1), with its answer (an
    // invalid message when its caller went first and nothing was sent).
    using AnswerListener = std::function<void(quint64 number, const QDBusMessage& answer)>;
    void setAnswerListener(AnswerListener listener) { m_answerListener = std::move(listener); }

    // Stops taking calls: from now on every call gets Stopping, and so do
    // the callers still queued; `stopped` runs once the request that is
    // running (the oldest unanswered) has its answer, or at once when none.
    void stop(std::function<void()> stopped);

    // Whether the group that may request targets exists (else only root may).
    bool targetGroupExists() const { return m_credentials.groupExists(); }

    // The calls that wait for their answer, and how many calls were to be
    // answered later in all.
    int waitingCalls() const { return m_pending.size(); }
    quint64 callsHeld() const { return m_callsHeld; }

    QString currentTarget() const { return m_currentTarget; }
    QString nextTarget() const { return m_nextTarget; }

public slots:
    Q_SCRIPTABLE void RegisterModule(const QString& name, const QVariantMap& options);
    Q_SCRIPTABLE void RequestTarget(const QString& target);
    Q_SCRIPTABLE void RequestResource(const QString& resource, const QString& action, const QVariantMap& options);
    Q_SCRIPTABLE QVariantMap ListNodes();
    Q_SCRIPTABLE QVariantMap GetNodeInfo(const QString& node);

signals:
    Q_SCRIPTABLE void TargetChanged(const QString& target);
    Q_SCRIPTABLE void NextTargetChanged(const QString& target);

private:
    // The module a resource request of the calling connection acts for;
    // empty after an error was sent.
    QString moduleOfCaller(const QVariantMap& options);
    // Tells the recorder of a request about to be sent; its number.
    int recordRequest(const QString& description);
    void sendError(const char* name, const QString& message);
    void targetSignal(const char* property, const char* signal, QString* value, const QString& target);
    void watchCaller(const QString& caller);
    void callerGone(const QString& caller);
    // The paths where a module takes its revoke messages, on its connection.
    struct RevokePaths {
        QString before;
        QString after;
    };
    bool revokePaths(const QVariantMap& options, RevokePaths* paths);
    CMPath forwardRevokes(const QString& module, const QString& modulePath, const char* kind);
    void forward(const QString& module, const QString& modulePath, const VelaHash& message,
                 const CMReply<QVariant>& reply);

    // A call answered with a delayed reply, until it is answered.
    struct PendingCall {
        QDBusMessage call;
        quint64 number = 0;
        // Whether its request went to the handler.
        bool sent = false;
        bool answered = false;
    };
    std::shared_ptr<PendingCall> holdCall();
    void queue(const std::shared_ptr<PendingCall>& pending, const Scenario::Request& request);
    void answerWhenDone(const std::shared_ptr<PendingCall>& pending, const CMReply<QVariant>& reply,
                        const std::function<QString()>& reason, int number);
    void refuse(const std::shared_ptr<PendingCall>& pending, const char* name, const QString& text);
    // Whether the calling connection may queue another request; else the
    // error is sent.
    bool mayQueue();
    void forgetPending(const QString& caller);
    bool refuseWhileStopping();
    // Sends `reply` (none when it is an invalid message: the caller went
    // before its request was queued) and forgets the call.
    void answer(const std::shared_ptr<PendingCall>& pending, const QDBusMessage& reply);

    PowerHandler& m_handler;
    const PowerGraph& m_graph;
    QDBusConnection m_bus;
    // Module name -> the unique name of the connection that registered it.
    QHash<QString, QString> m_moduleOwners;
    // The connections that registered modules: when one goes, its modules'
    // claims are released and their names are free again.
    QDBusServiceWatcher m_callers;
    QString m_targetGroup;
    CallerCredentials m_credentials;
    // The resources each module has asked for: a request still queued when
    // its connection goes runs after all, and is released after it.
    QHash<QString, QSet<QString>> m_askedFor;
    QString m_currentTarget;
    QString m_nextTarget;
    // Oldest first, and how many of them each connection has.
    QList<std::shared_ptr<PendingCall>> m_pending;
    QHash<QString, int> m_pendingByCaller;
    quint64 m_callsHeld = 0;
    bool m_stopping = false;
    std::function<void()> m_stopped;
    int m_revokeTimeoutMs = 5000;
    RunRecorder* m_recorder = nullptr;
    AnswerListener m_answerListener;
    int m_requestsSent = 0;
    // The root worker's paths at which the handler invokes revoke messages;
    // each forwards them to its module's connection.
    QSet<CMPath> m_revokePaths;
};

#endif
