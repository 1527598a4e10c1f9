#include "cmreply.h"

#include <QCoreApplication>
#include <QThread>

#include <deque>
#include <memory>

namespace {

/*
 * The object that stands for a thread when a watcher has no context: queued
 * deliveries are posted to it so that they run on the thread that added the
 * watcher. One per thread, created on that thread on first use and destroyed
 * when the thread ends (pending deliveries to it are then dropped).
 */
QObject* threadAnchor()
{
    thread_local std::unique_ptr<QObject> anchor;
    if (!anchor)
        anchor.reset(new QObject);
    return anchor.get();
}

struct DueWatcher {
    CMReplyWatcher* watcher;
    CMVoidReply reply;
};

/*
 * The per-thread drain loop. Only the outermost completion on a thread runs
 * watchers; completions that happen while it runs append to its queue. This
 * is what keeps long synchronous chains from growing the stack.
 */
struct DrainLoop {
    bool running = false;
    std::deque<DueWatcher> due;
};

DrainLoop& drainLoop()
{
    thread_local DrainLoop loop;
    return loop;
}

void runWatcher(CMReplyWatcher* watcher, const CMVoidReply& reply)
{
    // A watcher bound to a context object is dropped once the context is gone.
    if (!watcher->hasReceiver() || watcher->receiver())
        watcher->finished(reply);
    delete watcher;
}

void runOnThisThread(CMReplyWatcher* watcher, const CMVoidReply& reply)
{
    DrainLoop& loop = drainLoop();
    if (loop.running) {
        loop.due.push_back(DueWatcher{watcher, reply});
        return;
    }
    // The outermost completion runs its own watcher straight away (nothing
    // can be due before it), then whatever that watcher caused.
    loop.running = true;
    runWatcher(watcher, reply);
    while (!loop.due.empty()) {
        DueWatcher next = std::move(loop.due.front());
        loop.due.pop_front();
        runWatcher(next.watcher, next.reply);
    }
    loop.running = false;
}

void postToReceiverThread(CMReplyWatcher* watcher, QObject* receiver, const CMVoidReply& reply)
{
    // Owned by the posted call until it runs: if the receiver dies before the
    // event is delivered, Qt destroys the call and with it the watcher.
    auto owned = std::make_shared<std::unique_ptr<CMReplyWatcher>>(watcher);
    QMetaObject::invokeMethod(
        receiver, [owned, reply]() { runOnThisThread(owned->release(), reply); }, Qt::QueuedConnection);
}

void deliverOne(CMReplyWatcher* watcher, const CMVoidReply& reply)
{
    QObject* receiver = watcher->receiver();
    if (watcher->hasReceiver() && !receiver) {
        delete watcher;
        return;
    }
    switch (watcher->connectionType() & 0x0f) {
    case Qt::DirectConnection:
        runOnThisThread(watcher, reply);
        return;
    case Qt::QueuedConnection:
    case Qt::BlockingQueuedConnection:
        postToReceiverThread(watcher, receiver, reply);
        return;
    default:
        if (receiver->thread() == QThread::currentThread())
            runOnThisThread(watcher, reply);
        else
            postToReceiverThread(watcher, receiver, reply);
        return;
    }
}

} // namespace

// --- CMReplyWatcher --------------------------------------------------------

CMReplyWatcher::CMReplyWatcher(QObject* context, Qt::ConnectionType type)
    : m_needsReceiver(context != nullptr || (type & 0x0f) != Qt::DirectConnection)
    , m_type(type)
{
    if (context)
        m_receiver = context;
    else if (m_needsReceiver)
        m_receiver = threadAnchor();
}

CMReplyWatcher::~CMReplyWatcher() = default;

CMFunctionWatcher::CMFunctionWatcher(QObject* context, std::function<void(const CMVoidReply&)> function,
                                     Qt::ConnectionType type)
    : CMReplyWatcher(context, type)
    , m_function(std::move(function))
{
}

void CMFunctionWatcher::finished(const CMVoidReply& reply)
{
    if (m_function)
        m_function(reply);
}

// --- CMReplyAbstractData ---------------------------------------------------

// The lazily made wait condition is told apart by its one pointer.
static_assert(sizeof(QWaitCondition) == sizeof(void*), "QWaitCondition is one private pointer");

CMReplyAbstractData::CMReplyAbstractData()
    : m_ref(0)
    , m_finished(false)
{
}

CMReplyAbstractData::~CMReplyAbstractData()
{
    // Watchers of a reply that never finished are released unrun.
    qDeleteAll(m_watchers);
    if (m_conditionMade)
        m_condition.~QWaitCondition();
}

bool CMReplyAbstractData::waitForFinished(unsigned long time)
{
    if (finishedFlag())
        return true;
    QMutexLocker locker(&m_mutex);
    if (m_finished)
        return true;
    if (!m_conditionMade)
        new (&m_condition) QWaitCondition;
    while (!m_finished) {
        if (!m_condition.wait(&m_mutex, time))
            return m_finished;
    }
    return true;
}

bool CMReplyAbstractData::isFinished() const
{
    return finishedFlag();
}

CMError CMReplyAbstractData::error() const
{
    if (finishedFlag())
        return m_error;
    QMutexLocker locker(&m_mutex);
    return m_error;
}

void CMReplyAbstractData::finishWithError(const CMError& error)
{
    QList<CMReplyWatcher*> watchers;
    {
        QMutexLocker locker(&m_mutex);
        if (m_finished)
            return;
        m_error = error;
        watchers = finishLocked();
    }
    deliver(watchers);
}

void CMReplyAbstractData::finishWithoutValue()
{
    QList<CMReplyWatcher*> watchers;
    {
        QMutexLocker locker(&m_mutex);
        if (m_finished)
            return;
        watchers = finishLocked();
    }
    deliver(watchers);
}

void CMReplyAbstractData::addWatcher(CMReplyWatcher* watcher)
{
    if (!finishedFlag()) {
        QMutexLocker locker(&m_mutex);
        if (!m_finished) {
            m_watchers.append(watcher);
            return;
        }
    }
    deliverOne(watcher, CMVoidReply(this));
}

QList<CMReplyWatcher*> CMReplyAbstractData::finishLocked()
{
    // Released after the value and the error: see finishedFlag().
    __atomic_store_n(&m_finished, true, __ATOMIC_RELEASE);
    if (m_conditionMade)
        m_condition.wakeAll();
    QList<CMReplyWatcher*> watchers;
    watchers.swap(m_watchers);
    return watchers;
}

void CMReplyAbstractData::deliver(const QList<CMReplyWatcher*>& watchers)
{
    if (watchers.isEmpty())
        return;
    // The handle keeps the data alive while its watchers run, even when the
    // last outside handle is dropped by one of them.
    const CMVoidReply self(this);
    for (CMReplyWatcher* watcher : watchers)
        deliverOne(watcher, self);
}

// --- CMVoidReply -----------------------------------------------------------

CMVoidReply::CMVoidReply(CMReplyAbstractData* data)
    : m_d(data)
{
    if (m_d)
        m_d->m_ref.ref();
}

CMVoidReply::CMVoidReply(const CMVoidReply& other)
    : m_d(other.m_d)
{
    if (m_d)
        m_d->m_ref.ref();
}

CMVoidReply& CMVoidReply::operator=(const CMVoidReply& other)
{
    CMVoidReply copy(other);
    std::swap(m_d, copy.m_d);
    return *this;
}

CMVoidReply& CMVoidReply::operator=(CMVoidReply&& other) noexcept
{
    std::swap(m_d, other.m_d);
    return *this;
}

CMVoidReply::~CMVoidReply()
{
    if (m_d && !m_d->m_ref.deref())
        delete m_d;
}

bool CMVoidReply::isFinished() const
{
    VELA_ASSERT_TEXT(m_d, "m_d");
    return m_d->isFinished();
}

CMError CMVoidReply::error() const
{
    VELA_ASSERT_TEXT(m_d, "m_d");
    return m_d->error();
}

void CMVoidReply::setError(const CMError& error) const
{
    VELA_ASSERT_TEXT(m_d, "m_d");
    m_d->finishWithError(error);
}

bool CMVoidReply::waitForFinished(unsigned long time) const
{
    VELA_ASSERT_TEXT(m_d, "m_d");
    return m_d->waitForFinished(time);
}

void CMVoidReply::addWatcher(QObject* context, std::function<void(const CMVoidReply&)> function,
                             Qt::ConnectionType type) const
{
    VELA_ASSERT_TEXT(m_d, "m_d");
    m_d->addWatcher(new CMFunctionWatcher(context, std::move(function), type));
}

QString CMVoidReply::ErrorTimeout()
{
    return QStringLiteral("The operation timed out");
}

namespace {

/*
 * The join's own reply data. It counts the joined replies down, and the last
 * one to finish completes the join. Each joined reply is written into its
 * slot of the value only once it has finished (possibly on different
 * threads, each writing its own slot), so that a join never keeps an
 * unfinished reply, and the watcher that points back here, alive. Being the
 * reply data itself, the count costs no allocation of its own.
 */
class JoinData : public CMReplyData<QList<CMVoidReply>>
{
public:
    explicit JoinData(int count)
        : m_remaining(count)
    {
        m_value.reserve(count);
        for (int slot = 0; slot < count; ++slot)
            m_value.append(CMVoidReply());
    }

    void replyFinished(int index, const CMVoidReply& reply)
    {
        m_value[index] = reply;
        if (!m_remaining.deref())
            complete();
    }

private:
    // The value is in place already: only the error is formed, from the
    // first failed reply in list order.
    void complete()
    {
        CMError firstError;
        for (const CMVoidReply& reply : qAsConst(m_value)) {
            if (!!reply) {
                firstError = reply.error();
                if (firstError.isError())
                    break;
            }
        }
        QList<CMReplyWatcher*> watchers;
        {
            QMutexLocker locker(&m_mutex);
            if (m_finished)
                return;
            if (firstError.isError())
                m_error = firstError;
            watchers = finishLocked();
        }
        deliver(watchers);
    }

    QAtomicInt m_remaining;
};

// Reports one joined reply to the join, on whatever thread finishes it.
class JoinWatcher : public CMReplyWatcher
{
public:
    JoinWatcher(const CMVoidReply& join, int index)
        : CMReplyWatcher(nullptr, Qt::DirectConnection)
        , m_join(join)
        , m_index(index)
    {
    }
    void finished(const CMVoidReply& reply) override
    {
        static_cast<JoinData*>(m_join.data())->replyFinished(m_index, reply);
    }

private:
    const CMVoidReply m_join;
    const int m_index;
};

} // namespace

CMReply<QList<CMVoidReply>> CMVoidReply::whenAllFinished(const QList<CMVoidReply>& replies)
{
    if (replies.isEmpty()) {
        CMReply<QList<CMVoidReply>> result;
        result.setValue(replies);
        return result;
    }
    auto* join = new JoinData(replies.size());
    const CMReply<QList<CMVoidReply>> result(join);
    // A watcher added to a finished reply outside the drain loop runs before
    // addWatcher() returns, and nothing else runs with it: a finished reply is
    // then counted in at once, without making that watcher. Inside the loop
    // it would wait its turn, so the watcher is made as for a running reply.
    const bool deliveredAtOnce = !drainLoop().running;
    for (int index = 0; index < replies.size(); ++index) {
        const CMVoidReply& reply = replies.at(index);
        if (!reply || (deliveredAtOnce && reply.data()->finishedFlag()))
            join->replyFinished(index, reply);
        else
            reply.data()->addWatcher(new JoinWatcher(result, index));
    }
    return result;
}

// --- CMReply<void> ---------------------------------------------------------

CMReply<void>::CMReply()
    : CMVoidReply(new CMReplyAbstractData)
{
}

void CMReply<void>::setValue() const
{
    VELA_ASSERT_TEXT(m_d, "m_d");
    m_d->finishWithoutValue();
}

void CMReply<void>::onFinished(Function function, Qt::ConnectionType type) const
{
    onFinished(nullptr, std::move(function), type);
}

void CMReply<void>::onFinished(QObject* context, Function function, Qt::ConnectionType type) const
{
    attach<VoidCall>(context, std::move(function), type);
}
