#include "PowerHandlerQueueState.h"

#include "velaassert.h"

PowerHandlerQueueState::PowerHandlerQueueState(QObject* handler)
    : QObject(handler)
    , m_busy(false)
    , m_startedHead(nullptr)
{
}

PowerHandlerQueueState::~PowerHandlerQueueState() = default;

PowerHandlerQueueState* PowerHandlerQueueState::of(const QObject* handler)
{
    // Made first in the handler's constructor, so it is normally the first
    // child; children the service gives the handler later come after it.
    for (QObject* child : handler->children()) {
        if (auto* state = qobject_cast<PowerHandlerQueueState*>(child))
            return state;
    }
    VELA_ASSERT_TEXT(false, "PowerHandler without its queue state");
    return nullptr;
}

bool PowerHandlerQueueState::isBusy() const
{
    return m_busy;
}

void PowerHandlerQueueState::startDroppingInvalidHeads()
{
    m_busy = true;
    m_startedHead = nullptr;
}

void PowerHandlerQueueState::startHead(const PowerNodeRequest* head)
{
    m_busy = true;
    m_startedHead = head;
}

void PowerHandlerQueueState::headResolving(const PowerNodeRequest* head)
{
    if (m_busy && m_startedHead == head)
        stop();
}

void PowerHandlerQueueState::stop()
{
    m_busy = false;
    m_startedHead = nullptr;
}
