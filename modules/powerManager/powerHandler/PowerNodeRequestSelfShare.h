#ifndef VELA_POWERNODEREQUESTSELFSHARE_H
#define VELA_POWERNODEREQUESTSELFSHARE_H

#include <QObject>
#include <QSharedPointer>
#include <QWeakPointer>

class PowerNodeRequest;

/*
 * The way back from a request to the shared pointer that owns it.
 *
 * A running request keeps itself alive in its own continuations through a
 * share of itself. create() gives each request one of these as a child
 * object holding a weak reference to the owning pointer: it lives and dies
 * with the request, leaves the request's own fields as they are, and is
 * found again without a lookup by name. Internal to the library.
 */
class PowerNodeRequestSelfShare : public QObject
{
    Q_OBJECT

public:
    explicit PowerNodeRequestSelfShare(const QSharedPointer<PowerNodeRequest>& request);
    ~PowerNodeRequestSelfShare() override;

    // A share of `request`; null for a request that create() did not make.
    static QSharedPointer<PowerNodeRequest> of(const PowerNodeRequest* request);

private:
    const QWeakPointer<PowerNodeRequest> m_request;
};

#endif
