// Replies finished, watched and waited for across threads, and delivery
// through the event loop.

#include "cmerror.h"
#include "cmreply.h"
#include "dbglog.h"
#include "eventloop.h"
#include "velahash.h"

#include <QCoreApplication>
#include <QObject>
#include <QThread>
#include <QVariant>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

QThread* mainThread()
{
    return QCoreApplication::instance()->thread();
}

// A QThread (without event loop of its own) running one function.
class WorkerThread
{
public:
    explicit WorkerThread(std::function<void()> work)
        : m_thread(QThread::create([this, work = std::move(work)] {
            work();
            // Published last, so that join() sees everything the work did.
            m_done.store(true, std::memory_order_release);
        }))
    {
        m_thread->start();
    }
    ~WorkerThread() { join(); }

    void join()
    {
        while (!m_done.load(std::memory_order_acquire))
            QThread::yieldCurrentThread();
        m_thread->wait();
    }

private:
    std::atomic<bool> m_done{false};
    std::unique_ptr<QThread> m_thread;
};

// Releases all waiting threads at once, so that they race.
class StartGate
{
public:
    void wait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_condition.wait(lock, [this] { return m_open; });
    }
    void open()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_open = true;
        }
        m_condition.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_open = false;
};

// Runs `work` with the indices 0 to count - 1 on that many threads, released
// together so that they race, and joins them. Each thread runs its own copy
// of `work`.
void raceOnThreads(int count, const std::function<void(int)>& work)
{
    StartGate gate;
    std::vector<std::thread> racers;
    for (int i = 0; i < count; ++i) {
        racers.emplace_back([&gate, work, i] {
            gate.wait();
            work(i);
        });
    }
    gate.open();
    for (std::thread& racer : racers)
        racer.join();
}

// Whether the thread with this id is asleep in the kernel (blocked on a wait
// condition, for instance). Reads /proc; when that cannot be read the answer
// is yes, which only lets the caller go ahead.
bool threadIsAsleep(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line))
        return true;
    // "tid (name) S ...": the state follows the last parenthesis.
    const std::size_t close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size())
        return true;
    const char state = line[close + 2];
    return state == 'S' || state == 'D';
}

enum class FinisherThread { Std, Qt };

/*
 * Calls `block` on this thread while another thread calls `finish`. The other
 * thread holds back until this one is asleep inside `block` or `block` has
 * returned, so a call that returns without waiting returns before the finish
 * and is caught by the caller's assertions about what it returned. Returns
 * whether `finish` had begun when `block` returned.
 */
bool blockWhileAnotherThreadFinishes(FinisherThread kind, const std::function<void()>& block,
                                     const std::function<void()>& finish)
{
    const pid_t owner = static_cast<pid_t>(syscall(SYS_gettid));
    std::atomic<bool> ownerAboutToBlock{false};
    std::atomic<bool> blockReturned{false};
    std::atomic<bool> finishBegun{false};
    auto finisher = [&] {
        while (!ownerAboutToBlock.load())
            std::this_thread::yield();
        while (!blockReturned.load() && !threadIsAsleep(owner))
            std::this_thread::yield();
        finishBegun = true;
        finish();
    };

    std::unique_ptr<std::thread> stdThread;
    std::unique_ptr<WorkerThread> qtThread;
    if (kind == FinisherThread::Std)
        stdThread = std::make_unique<std::thread>(finisher);
    else
        qtThread = std::make_unique<WorkerThread>(finisher);

    ownerAboutToBlock = true;
    block();
    const bool begunWhenReturned = finishBegun.load();
    blockReturned = true;

    if (stdThread)
        stdThread->join();
    else
        qtThread->join();
    return begunWhenReturned;
}

// A continuation bound to a context object that the test destroys, and one
// without context that must still run. The dropped one holds a token, so that
// its release can be checked.
class DroppedAndKeptWatchers
{
public:
    explicit DroppedAndKeptWatchers(const CMReply<QVariant>& reply)
        : m_context(new QObject)
    {
        reply.onFinished(m_context, [this, token = m_token](const CMReply<QVariant>&) { droppedRan = true; });
        reply.onFinished([this](const CMReply<QVariant>&) { keptRan = true; });
    }

    void destroyContext() { delete m_context; }
    // Whether anything still holds the dropped continuation.
    bool droppedWatcherReleased() const { return m_token.use_count() == 1; }

    bool droppedRan = false;
    bool keptRan = false;

private:
    std::shared_ptr<int> m_token = std::make_shared<int>(0);
    QObject* m_context;
};

} // namespace

TEST(ReplyThreads, ContinuationOfReplyFinishedOnAnotherThreadRunsOnOwnerThread)
{
    ASSERT_EQ(QThread::currentThread(), mainThread());
    CMReply<QVariant> reply;
    std::atomic<int> runs{0};
    QThread* ranOn = nullptr;
    QVariant seen;
    reply.onFinished([&](const CMReply<QVariant>& finished) {
        ranOn = QThread::currentThread();
        seen = finished.value();
        ++runs;
    });

    std::atomic<QThread*> finisher{nullptr};
    WorkerThread thread([&] {
        finisher = QThread::currentThread();
        reply.setValue(QStringLiteral("from worker"));
    });

    ASSERT_TRUE(waitUntil([&] { return runs.load() > 0; }));
    thread.join();
    drainEvents();

    EXPECT_EQ(runs.load(), 1);
    EXPECT_EQ(ranOn, mainThread());
    EXPECT_NE(ranOn, finisher.load());
    EXPECT_EQ(seen.toString(), QStringLiteral("from worker"));
}

TEST(ReplyThreads, ContinuationWithContextRunsOnTheContextThread)
{
    QThread contextThread;
    QObject* context = new QObject;
    context->moveToThread(&contextThread);
    QObject::connect(&contextThread, &QThread::finished, context, &QObject::deleteLater);
    // The thread's event dispatcher is woken through a descriptor that the
    // thread creates when it starts and closes when it ends. The two flags
    // order this thread's wake-ups between those points in a way that the
    // race detector can see (Qt's own ordering is invisible to it).
    std::atomic<bool> loopReady{false};
    std::atomic<bool> quitRequested{false};
    QObject::connect(&contextThread, &QThread::started, [&] { loopReady.store(true, std::memory_order_release); });
    QObject::connect(&contextThread, &QThread::finished, [&] {
        while (!quitRequested.load(std::memory_order_acquire))
            QThread::yieldCurrentThread();
    });
    contextThread.start();
    while (!loopReady.load(std::memory_order_acquire))
        QThread::yieldCurrentThread();

    CMReply<void> reply;
    std::atomic<QThread*> ranOn{nullptr};
    reply.onFinished(context, [&](const CMReply<void>&) { ranOn = QThread::currentThread(); });

    // Finished on the main thread; the context lives on the other one.
    reply.setValue();
    // No early return before the thread has been told to quit.
    EXPECT_TRUE(waitUntil([&] { return ranOn.load() != nullptr; }));
    EXPECT_EQ(ranOn.load(), &contextThread);

    contextThread.quit();
    quitRequested.store(true, std::memory_order_release);
    ASSERT_TRUE(contextThread.wait());
    drainEvents();
}

TEST(ReplyThreads, DirectConnectionRunsOnTheFinishingThread)
{
    CMReply<QVariant> reply;
    std::atomic<QThread*> ranOn{nullptr};
    reply.onFinished([&](const CMReply<QVariant>&) { ranOn = QThread::currentThread(); }, Qt::DirectConnection);

    std::atomic<QThread*> finisher{nullptr};
    WorkerThread thread([&] {
        finisher = QThread::currentThread();
        reply.setValue(1);
    });
    thread.join();

    ASSERT_NE(ranOn.load(), nullptr);
    EXPECT_EQ(ranOn.load(), finisher.load());
    EXPECT_NE(ranOn.load(), mainThread());
}

TEST(ReplyThreads, EightThreadsRacingToFinishOneReplyOneValueWins)
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 50;
    for (int round = 0; round < kRounds; ++round) {
        CMReply<QVariant> reply;
        std::atomic<int> ownerRuns{0};
        std::atomic<int> directRuns{0};
        std::atomic<int> secondOwnerRuns{0};
        QVariant ownerSaw;
        QVariant directSaw;
        reply.onFinished([&](const CMReply<QVariant>& finished) {
            ownerSaw = finished.value();
            ++ownerRuns;
        });
        reply.onFinished(
            [&](const CMReply<QVariant>& finished) {
                directSaw = finished.value();
                ++directRuns;
            },
            Qt::DirectConnection);
        reply.onFinished([&](const CMReply<QVariant>&) { ++secondOwnerRuns; });

        raceOnThreads(kThreads, [reply](int i) { reply.setValue(i); });

        ASSERT_TRUE(waitUntil([&] { return ownerRuns.load() > 0 && secondOwnerRuns.load() > 0; }));
        drainEvents();

        ASSERT_TRUE(reply.isFinished());
        const int winner = reply.value().toInt();
        EXPECT_GE(winner, 0);
        EXPECT_LT(winner, kThreads);
        EXPECT_EQ(ownerRuns.load(), 1) << "round " << round;
        EXPECT_EQ(secondOwnerRuns.load(), 1) << "round " << round;
        EXPECT_EQ(directRuns.load(), 1) << "round " << round;
        EXPECT_EQ(ownerSaw.toInt(), winner);
        EXPECT_EQ(directSaw.toInt(), winner);
        // Later answers leave the winning one untouched.
        reply.setValue(kThreads + 1);
        EXPECT_EQ(reply.value().toInt(), winner);
    }
}

TEST(ReplyThreads, ValuesAndErrorsRacingLeaveOneConsistentOutcome)
{
    constexpr int kThreads = 8;
    for (int round = 0; round < 50; ++round) {
        CMReply<QVariant> reply;
        std::atomic<int> runs{0};
        reply.onFinished([&](const CMReply<QVariant>&) { ++runs; }, Qt::DirectConnection);

        raceOnThreads(kThreads, [reply](int i) {
            if (i % 2 == 0)
                reply.setValue(i);
            else
                reply.setError(CMError(QStringLiteral("org.test.Racer%1").arg(i), TrString("lost")));
        });

        ASSERT_TRUE(reply.isFinished());
        EXPECT_EQ(runs.load(), 1);
        const CMError error = reply.error();
        if (error.isError()) {
            EXPECT_FALSE(reply.value().isValid()) << "an error and a value were both kept";
            EXPECT_TRUE(error.name().startsWith(QStringLiteral("org.test.Racer")));
        } else {
            ASSERT_TRUE(reply.value().isValid());
            EXPECT_EQ(reply.value().toInt() % 2, 0);
        }
    }
}

TEST(ReplyThreads, BlockingValueGetterWaitsForAFinishFromAStdThread)
{
    CMReply<QVariant> reply;
    QVariant value;
    const bool finishBegun = blockWhileAnotherThreadFinishes(
        FinisherThread::Std, [&] { value = reply.value(); },
        [reply] { reply.setValue(QStringLiteral("late value")); });

    // The getter cannot have returned before the other thread finished.
    EXPECT_TRUE(finishBegun);
    EXPECT_EQ(value.toString(), QStringLiteral("late value"));
}

TEST(ReplyThreads, BlockingValueGetterWaitsForAFinishFromAQThread)
{
    CMReply<QVariant> reply;
    bool ownerContinuationRan = false;
    reply.onFinished([&](const CMReply<QVariant>&) { ownerContinuationRan = true; });
    CMReplyData<QVariant>* data = static_cast<CMReplyData<QVariant>*>(reply.data());
    QVariant value;
    const bool finishBegun = blockWhileAnotherThreadFinishes(
        FinisherThread::Qt, [&] { value = data->value(); }, [reply] { reply.setValue(QVariantList{1, 2, 3}); });

    EXPECT_TRUE(finishBegun);
    EXPECT_EQ(value, QVariant(QVariantList{1, 2, 3}));
    // The owner's continuation still comes through the owner's event loop.
    EXPECT_TRUE(waitUntil([&] { return ownerContinuationRan; }));
}

TEST(ReplyThreads, WaitForFinishedWithoutLimitReturnsOnceAnotherThreadFinishes)
{
    CMReply<void> reply;
    bool waited = false;
    const bool finishBegun = blockWhileAnotherThreadFinishes(
        FinisherThread::Std, [&] { waited = reply.waitForFinished(); },
        [reply] { reply.setError(CMError(TrString("failed elsewhere"))); });
    EXPECT_TRUE(finishBegun);
    EXPECT_TRUE(waited);
    EXPECT_TRUE(reply.isFinished());
    EXPECT_EQ(reply.error().message().toString(), QStringLiteral("failed elsewhere"));
}

TEST(ReplyThreads, WatcherWhoseContextIsDestroyedBeforeFinishIsDropped)
{
    CMReply<QVariant> reply;
    DroppedAndKeptWatchers watchers(reply);
    watchers.destroyContext();

    reply.setValue(1);
    drainEvents();

    EXPECT_FALSE(watchers.droppedRan);
    EXPECT_TRUE(watchers.keptRan);
    EXPECT_TRUE(watchers.droppedWatcherReleased()) << "the dropped watcher was not released";
}

TEST(ReplyThreads, WatcherWhoseContextIsDestroyedBeforeQueuedDeliveryIsDropped)
{
    CMReply<QVariant> reply;
    DroppedAndKeptWatchers watchers(reply);

    // Finished elsewhere: both deliveries are posted to this thread.
    std::thread finisher([reply] { reply.setValue(2); });
    finisher.join();
    ASSERT_TRUE(reply.isFinished());
    watchers.destroyContext();

    ASSERT_TRUE(waitUntil([&] { return watchers.keptRan; }));
    drainEvents();
    EXPECT_FALSE(watchers.droppedRan);
    EXPECT_TRUE(watchers.droppedWatcherReleased()) << "the dropped watcher was not released";
}

TEST(ReplyThreads, QueuedWatcherWithDestroyedContextIsDropped)
{
    CMReply<void> reply;
    bool ran = false;
    QObject* context = new QObject;
    reply.onFinished(context, [&](const CMReply<void>&) { ran = true; }, Qt::QueuedConnection);
    reply.setValue();
    delete context;
    drainEvents();
    EXPECT_FALSE(ran);
}

TEST(ReplyThreads, QueuedConnectionRunsFromTheEventLoopNotSynchronously)
{
    CMReply<QVariant> reply;
    int runs = 0;
    reply.onFinished([&](const CMReply<QVariant>&) { ++runs; }, Qt::QueuedConnection);
    reply.setValue(1);
    EXPECT_EQ(runs, 0) << "a queued watcher ran inside setValue()";
    ASSERT_TRUE(waitUntil([&] { return runs > 0; }));
    drainEvents();
    EXPECT_EQ(runs, 1);
}

TEST(ReplyThreads, QueuedWatcherAddedAfterFinishRunsFromTheEventLoop)
{
    CMReply<void> reply;
    reply.setValue();
    int runs = 0;
    QObject context;
    reply.onFinished(&context, [&](const CMReply<void>&) { ++runs; }, Qt::QueuedConnection);
    EXPECT_EQ(runs, 0);
    ASSERT_TRUE(waitUntil([&] { return runs > 0; }));
    drainEvents();
    EXPECT_EQ(runs, 1);
}

TEST(ReplyThreads, QueuedWatchersKeepTheirOrder)
{
    CMReply<QVariant> reply;
    QList<int> order;
    for (int i = 0; i < 5; ++i)
        reply.onFinished([&order, i](const CMReply<QVariant>&) { order << i; }, Qt::QueuedConnection);
    reply.setValue(0);
    ASSERT_TRUE(waitUntil([&] { return order.size() == 5; }));
    EXPECT_EQ(order, (QList<int>{0, 1, 2, 3, 4}));
}

TEST(ReplyThreads, WatcherOfAThreadThatEndedIsDroppedAndReleased)
{
    CMReply<QVariant> reply;
    auto token = std::make_shared<int>(0);
    std::atomic<bool> ran{false};
    std::thread watcherThread([&] {
        // No context: the watcher belongs to this short-lived thread.
        reply.onFinished([&ran, token](const CMReply<QVariant>&) { ran = true; });
    });
    watcherThread.join();

    reply.setValue(1);
    drainEvents();

    EXPECT_FALSE(ran.load());
    EXPECT_EQ(token.use_count(), 1);
}

TEST(ReplyThreads, WhenAllFinishedJoinsRepliesFinishedOnSeveralThreads)
{
    constexpr int kReplies = 16;
    QList<CMVoidReply> replies;
    for (int i = 0; i < kReplies; ++i)
        replies << CMReply<QVariant>();
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished(replies);
    QThread* joinedOn = nullptr;
    all.onFinished([&](const CMReply<QList<CMVoidReply>>&) { joinedOn = QThread::currentThread(); });

    raceOnThreads(kReplies, [replies](int i) {
        const CMReply<QVariant> reply(replies.at(i));
        if (i == 5)
            reply.setError(CMError(QStringLiteral("org.test.Five"), TrString("five failed")));
        else
            reply.setValue(i);
    });

    ASSERT_TRUE(waitUntil([&] { return joinedOn != nullptr; }));
    EXPECT_EQ(joinedOn, mainThread());
    EXPECT_EQ(all.error().name(), QStringLiteral("org.test.Five"));
    EXPECT_EQ(all.value().size(), kReplies);
}
