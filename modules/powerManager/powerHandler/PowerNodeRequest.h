#ifndef VELA_POWERNODEREQUEST_H
#define VELA_POWERNODEREQUEST_H

#include "vela_powerhandler_export.h"

#include "PowerNode.h"

#include "cmpath.h"
#include "cmreply.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerrevokemessage.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QSharedPointer>
#include <QString>

#include <cstdint>

class PowerNodeRequest;
/// How requests are held: the queue and the request's own continuations share it.
using PowerNodeRequestPtr = QSharedPointer<PowerNodeRequest>;

/**
 * One wish of one module: bring one node into the state that the module's
 * action implies.
 *
 * A request is resolved into the ordered list of nodes it changes (each with
 * the complete module-action map it is to carry), warns the modules that
 * lose resources, applies the changes, warns them again, and finishes its
 * reply. Once resolution succeeded the reply always finishes with success:
 * failures of notifications or node changes are for the log, not for the
 * request. Requests live on the handler's thread and are always held through
 * PowerNodeRequestPtr, made by create().
 */
class VELA_POWERHANDLER_EXPORT PowerNodeRequest : public QObject
{
    Q_OBJECT

public:
    /// One node change: a node and the complete module-action map it is to carry.
    struct NodeInfo {
        PowerNode* node; ///< The node to change.
        QHash<QString, VelaPowerModuleActions::Enum> moduleActions; ///< Every module's action after the change.
    };

    /// The one way to make a request: a new request, held by a shared
    /// pointer, with the next identity. A null node makes it invalid at once.
    static PowerNodeRequestPtr create(PowerNode* node, const QString& module,
                                      const VelaPowerModuleActions::Enum& action,
                                      const QHash<QString, VelaPowerManagerModuleRegister>& modules);

    /// Use create(): the request's continuations need the shared pointer.
    PowerNodeRequest(PowerNode* node, const QString& module, const VelaPowerModuleActions::Enum& action,
                     const QHash<QString, VelaPowerManagerModuleRegister>& modules);
    ~PowerNodeRequest() override;

    /// Identities run from 1 upward and wrap from the largest value to 1.
    static int64_t nextId();

    /// The request's identity, unique among the requests alive.
    int64_t id() const;
    /// The module that wishes.
    QString module() const;
    /// The node wished for.
    PowerNode* node() const;
    /// What the module wants of the node.
    VelaPowerModuleActions::Enum action() const;
    /// True from a successful resolution in process() on.
    bool isProcessing() const;
    /// Valid while no error has been set on the request's reply.
    bool isValid() const;
    /// The request's own result.
    CMReply<void> reply() const;
    /// The nodes to change, in order (filled by resolve()).
    QList<NodeInfo> nodes() const;

    /// Finishes the request's reply with success once the changes are done.
    void onExecuteFinished();

    /// Works out the node changes: the node itself first, then, for a target,
    /// its ordered dependencies. False when a target cannot be reached from
    /// the current one.
    bool resolve();
    /// Sends the revoke messages before the change to the modules that lose
    /// resources; the reply finishes with success once all are answered.
    CMReply<void> notify();
    /// Invokes `message` at `path`; a reply finished at once, without a call,
    /// for an empty path or a message that revokes nothing.
    CMReply<QVariant> notifyModule(const CMPath& path, const VelaPowerManagerRevokeMessage& message);
    /// Runs execute() once the revoke messages before the change are answered.
    void onNotifyFinished();
    /// Applies every node change, then sends the revoke messages after the
    /// change; the reply finishes once every node change has.
    CMReply<void> execute();
    /// Resolves, notifies and executes the request; answers the request's
    /// reply (an error when resolution failed). Runs on the handler's thread.
    CMReply<void> process();

private:
    // The tests' access to the identity counter; defined in the tests only.
    friend class PowerNodeRequestTestAccess;

    PowerNodeRequestPtr sharedFromThis() const;

    // The last identity handed out: one process-wide plain counter, zero at
    // load (requests are made on the handler's thread).
    static int64_t s_idCounter;

    int64_t m_id;
    PowerNode* m_node;
    QString m_module;
    VelaPowerModuleActions::Enum m_action;
    QHash<QString, VelaPowerManagerModuleRegister> m_modules;
    CMReply<void> m_reply;
    bool m_processing;
    QList<NodeInfo> m_nodes;
};

#endif
