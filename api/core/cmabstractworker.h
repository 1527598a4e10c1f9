#ifndef VELA_CMABSTRACTWORKER_H
#define VELA_CMABSTRACTWORKER_H

#include "cmpath.h"
#include "cmreply.h"
#include "vela_api_export.h"
#include "velahash.h"

#include <QString>
#include <QVariant>

/**
 * A worker of the platform object tree: writes values to paths and invokes
 * operations at paths. Both operations are asynchronous: they return the
 * given reply, which finishes when the owner of the path has answered (with
 * an error on failure). Neither throws.
 */
class VELA_API_EXPORT CMAbstractWorker
{
public:
    virtual ~CMAbstractWorker();

    /// Writes `value` under `key` at `path`; returns `reply`, finished by the path's owner
    /// (with an error when the write failed). May be called from any thread.
    virtual CMReply<QVariant> setData(const CMPath& path, const QString& key, const QVariant& value,
                                      const CMReply<QVariant>& reply) = 0;
    /// Invokes the operation at `path` with `arguments`; returns `reply`, finished with the
    /// operation's answer or an error. May be called from any thread.
    virtual CMReply<QVariant> invoke(const CMPath& path, const VelaHash& arguments,
                                     const CMReply<QVariant>& reply) = 0;
};

/// The root worker of the process's object tree.
VELA_API_EXPORT CMAbstractWorker* CMRoot();

#endif
