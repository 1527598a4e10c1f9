#ifndef VELA_CMROOTWORKER_H
#define VELA_CMROOTWORKER_H

#include "cmabstractworker.h"
#include "vela_api_export.h"

#include <QHash>
#include <QMutex>

#include <functional>

/*
 * The stand-alone root worker: the object tree of a process that has no
 * platform transport. Modules (or tests, or the host program's simulated
 * platform) register one handler per path; setData and invoke are routed to
 * the handler of their path, which receives the call and the reply and may
 * answer it at once, later, with an error, or never.
 *
 * A call to a path without a handler is answered at once with an error named
 * NoHandlerError() whose message names the path, so no caller is left
 * waiting for an object that does not exist.
 *
 * Handlers are called on the calling thread, outside the worker's lock, so a
 * handler may register or unregister handlers itself.
 */
class VELA_API_EXPORT CMRootWorker : public CMAbstractWorker
{
public:
    using SetDataHandler =
        std::function<void(const CMPath& path, const QString& key, const QVariant& value, CMReply<QVariant> reply)>;
    using InvokeHandler = std::function<void(const CMPath& path, const VelaHash& arguments, CMReply<QVariant> reply)>;

    CMRootWorker();
    ~CMRootWorker() override;

    // The process-wide instance returned by CMRoot().
    static CMRootWorker* instance();

    // Registering again for a path replaces the earlier handler.
    void registerSetDataHandler(const CMPath& path, SetDataHandler handler);
    void unregisterSetDataHandler(const CMPath& path);
    void registerInvokeHandler(const CMPath& path, InvokeHandler handler);
    void unregisterInvokeHandler(const CMPath& path);
    // Forgets every handler (a test's clean slate).
    void clearHandlers();

    CMReply<QVariant> setData(const CMPath& path, const QString& key, const QVariant& value,
                              const CMReply<QVariant>& reply) override;
    CMReply<QVariant> invoke(const CMPath& path, const VelaHash& arguments, const CMReply<QVariant>& reply) override;

    static QString NoHandlerError();

private:
    mutable QMutex m_mutex;
    QHash<CMPath, SetDataHandler> m_setDataHandlers;
    QHash<CMPath, InvokeHandler> m_invokeHandlers;
};

#endif
