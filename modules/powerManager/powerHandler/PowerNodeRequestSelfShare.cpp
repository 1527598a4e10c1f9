#include "PowerNodeRequestSelfShare.h"

#include "PowerNodeRequest.h"

PowerNodeRequestSelfShare::PowerNodeRequestSelfShare(const QSharedPointer<PowerNodeRequest>& request)
    : QObject(request.data())
    , m_request(request)
{
}

PowerNodeRequestSelfShare::~PowerNodeRequestSelfShare() = default;

QSharedPointer<PowerNodeRequest> PowerNodeRequestSelfShare::of(const PowerNodeRequest* request)
{
    for (QObject* child : request->children()) {
        if (auto* share = qobject_cast<PowerNodeRequestSelfShare*>(child))
            return share->m_request.toStrongRef();
    }
    return {};
}
