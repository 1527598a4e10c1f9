#ifndef VELA_POWERHANDLERQUEUESTATE_H
#define VELA_POWERHANDLERQUEUESTATE_H

#include <QObject>

class PowerNodeRequest;

/*
 * Whether a handler's request queue is busy, and with which head.
 *
 * The queue is busy from the moment processNextRequest() starts looking at
 * the head until that head is resolved. A started head does not always
 * report processing: listeners of nextTargetChanged run before process() is
 * called, and a head whose resolution failed never processes. Callers
 * answered in between may queue new requests; tryProcessNextRequest() must
 * then leave the queue to the running loop instead of starting the same head
 * twice or dropping a head that is about to be resolved.
 *
 * The state is a child object of its handler: it is made with the handler
 * and destroyed with it, whatever the handler's storage duration, and the
 * handler's own fields stay as they are. Internal to the library.
 */
class PowerHandlerQueueState : public QObject
{
    Q_OBJECT

public:
    explicit PowerHandlerQueueState(QObject* handler);
    ~PowerHandlerQueueState() override;

    // The state made for `handler`; every handler has exactly one.
    static PowerHandlerQueueState* of(const QObject* handler);

    bool isBusy() const;
    // Busy without a started head: invalid heads are being answered.
    void startDroppingInvalidHeads();
    // Busy with `head` started.
    void startHead(const PowerNodeRequest* head);
    // Free again when `head` is the started one; otherwise the loop that
    // drops invalid heads keeps the queue.
    void headResolving(const PowerNodeRequest* head);
    // Free: the queue is empty.
    void stop();

private:
    bool m_busy;
    const PowerNodeRequest* m_startedHead;
};

#endif
