#include "cmrootworker.h"

#include <QMutexLocker>

CMRootWorker::CMRootWorker() = default;
CMRootWorker::~CMRootWorker() = default;

CMRootWorker* CMRootWorker::instance()
{
    static CMRootWorker root;
    return &root;
}

CMAbstractWorker* CMRoot()
{
    return CMRootWorker::instance();
}

QString CMRootWorker::NoHandlerError()
{
    return QStringLiteral("org.vela.Error.NoSuchPath");
}

void CMRootWorker::registerSetDataHandler(const CMPath& path, SetDataHandler handler)
{
    QMutexLocker locker(&m_mutex);
    m_setDataHandlers.insert(path, std::move(handler));
}

void CMRootWorker::unregisterSetDataHandler(const CMPath& path)
{
    QMutexLocker locker(&m_mutex);
    m_setDataHandlers.remove(path);
}

void CMRootWorker::registerInvokeHandler(const CMPath& path, InvokeHandler handler)
{
    QMutexLocker locker(&m_mutex);
    m_invokeHandlers.insert(path, std::move(handler));
}

void CMRootWorker::unregisterInvokeHandler(const CMPath& path)
{
    QMutexLocker locker(&m_mutex);
    m_invokeHandlers.remove(path);
}

void CMRootWorker::clearHandlers()
{
    QMutexLocker locker(&m_mutex);
    m_setDataHandlers.clear();
    m_invokeHandlers.clear();
}

namespace {
void answerNoHandler(const CMReply<QVariant>& reply, const char* what, const CMPath& path)
{
    reply.setError(CMError(CMRootWorker::NoHandlerError(),
                           TrString(QStringLiteral("No %1 handler registered for path: %2")
                                        .arg(QLatin1String(what), path.toString()))));
}
} // namespace

CMReply<QVariant> CMRootWorker::setData(const CMPath& path, const QString& key, const QVariant& value,
                                        const CMReply<QVariant>& reply)
{
    SetDataHandler handler;
    {
        QMutexLocker locker(&m_mutex);
        handler = m_setDataHandlers.value(path);
    }
    if (handler)
        handler(path, key, value, reply);
    else
        answerNoHandler(reply, "set-data", path);
    return reply;
}

CMReply<QVariant> CMRootWorker::invoke(const CMPath& path, const VelaHash& arguments, const CMReply<QVariant>& reply)
{
    InvokeHandler handler;
    {
        QMutexLocker locker(&m_mutex);
        handler = m_invokeHandlers.value(path);
    }
    if (handler)
        handler(path, arguments, reply);
    else
        answerNoHandler(reply, "invoke", path);
    return reply;
}
