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
using PowerNodeRequestPtr = QSharedPointer<PowerNodeRequest>;

/*
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
    struct NodeInfo {
        PowerNode* node;
        QHash<QString, VelaPowerModuleActions::Enum> moduleActions;
    };

    static PowerNodeRequestPtr create(PowerNode* node, const QString& module,
                                      const VelaPowerModuleActions::Enum& action,
                                      const QHash<QString, VelaPowerManagerModuleRegister>& modules);

    PowerNodeRequest(PowerNode* node, const QString& module, const VelaPowerModuleActions::Enum& action,
                     const QHash<QString, VelaPowerManagerModuleRegister>& modules);
    ~PowerNodeRequest() override;

    // Identities run from 1 upward and wrap from the largest value to 1.
    static int64_t nextId();

    int64_t id() const;
    QString module() const;
    PowerNode* node() const;
    VelaPowerModuleActions::Enum action() const;
    bool isProcessing() const;
    // Valid while no error has been set on the request's reply.
    bool isValid() const;
    // The request's own result.
    CMReply<void> reply() const;
    // The nodes to change, in order (filled by resolve()).
    QList<NodeInfo> nodes() const;

    void onExecuteFinished();

    bool resolve();
    CMReply<void> notify();
    CMReply<QVariant> notifyModule(const CMPath& path, const VelaPowerManagerRevokeMessage& message);
    void onNotifyFinished();
    CMReply<void> execute();
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
