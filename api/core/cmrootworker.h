#ifndef VELA_CMROOTWORKER_H
#define VELA_CMROOTWORKER_H

#include "cmabstractworker.h"
#include "vela_api_export.h"

#include <QHash>
#include <QMutex>

#include <functional>

/**
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
    /// Answers a write at its path: receives the call and the reply to finish.
    using SetDataHandler =
        std::function<void(const CMPath& path, const QString& key, const QVariant& value, CMReply<QVariant> reply)>;
    /// Answers an invocation at its path: receives the call and the reply to finish.
    using InvokeHandler = std::function<void(const CMPath& path, const VelaHash& arguments, CMReply<QVariant> reply)>;

    CMRootWorker();
    ~CMRootWorker() override;

    /// The process-wide instance returned by CMRoot().
    static CMRootWorker* instance();

    /// Routes writes at `path` to `handler`; registering again replaces the earlier handler.
    void registerSetDataHandler(const CMPath& path, SetDataHandler handler);
    /// Removes the write handler of `path`; later writes there are refused.
    void unregisterSetDataHandler(const CMPath& path);
    /// Routes invocations at `path` to `handler`; registering again replaces it.
    void registerInvokeHandler(const CMPath& path, InvokeHandler handler);
    /// Removes the invocation handler of `path`; later invocations there are refused.
    void unregisterInvokeHandler(const CMPath& path);
    /// Forgets every handler (a test's clean slate).
    void clearHandlers();

    /// Hands the write to the handler of `path`, on the calling thread; without one,
    /// finishes `reply` at once with a NoHandlerError() error. Returns `reply`.
    CMReply<QVariant> setData(const CMPath& path, const QString& key, const QVariant& value,
                              const CMReply<QVariant>& reply) override;
    /// Hands the invocation to the handler of `path`, on the calling thread; without one,
    /// finishes `reply` at once with a NoHandlerError() error. Returns `reply`.
    CMReply<QVariant> invoke(const CMPath& path, const VelaHash& arguments, const CMReply<QVariant>& reply) override;

    /// The error name of a call to a path without a handler.
    static QString NoHandlerError();

private:
    mutable QMutex m_mutex;
    QHash<CMPath, SetDataHandler> m_setDataHandlers;
    QHash<CMPath, InvokeHandler> m_invokeHandlers;
};

#endif
