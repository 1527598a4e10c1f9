// The simulated clock: timers fire at their exact simulated time without the
// wall clock waiting for them, in a stable order, after the posted events of
// the same instant; sockets and wake-ups from other threads still work.

#include "simulatedtimedispatcher.h"

#include "simulatedclockthread.h"

#include <QEventLoop>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include <unistd.h>

namespace {

using Body = std::function<void(SimulatedTimeDispatcher& clock, QEventLoop& loop)>;

// Runs `body` on a thread of its own whose event loop is driven by the
// simulated dispatcher, until the body's loop quits. A broken dispatcher that
// really waits for its timers, or never wakes, trips the watchdog.
bool runOnSimulatedClock(const Body& body)
{
    return onSimulatedClock([&body](SimulatedTimeDispatcher& clock) {
        QEventLoop loop;
        body(clock, loop);
        loop.exec();
    });
}

} // namespace

TEST(SimulatedTimeDispatcher, AnHourLongTimerFiresAtExactlyItsTimeWithoutWaiting)
{
    qint64 firedAt = -1;
    ASSERT_TRUE(runOnSimulatedClock([&](SimulatedTimeDispatcher& clock, QEventLoop& loop) {
        QTimer::singleShot(3600 * 1000, &loop, [&] {
            firedAt = clock.elapsedMs();
            loop.quit();
        });
    }));
    EXPECT_EQ(firedAt, 3600 * 1000);
}

TEST(SimulatedTimeDispatcher, TimersFireByDueTimeThenInTheOrderTheyWereStarted)
{
    QStringList fired;
    ASSERT_TRUE(runOnSimulatedClock([&](SimulatedTimeDispatcher& clock, QEventLoop& loop) {
        const auto start = [&](const QString& name, int ms) {
            QTimer::singleShot(ms, Qt::PreciseTimer, &loop,
                               [&, name] { fired << QStringLiteral("%1@%2").arg(name).arg(clock.elapsedMs()); });
        };
        start("a", 100);
        start("b", 50);
        start("c", 100);
        start("d", 50);
        QTimer::singleShot(200, &loop, &QEventLoop::quit);
    }));
    EXPECT_EQ(fired, QStringList({"b@50", "d@50", "a@100", "c@100"}));
}

TEST(SimulatedTimeDispatcher, RepeatingTimerFiresOncePerInterval)
{
    QList<qint64> ticks;
    ASSERT_TRUE(runOnSimulatedClock([&](SimulatedTimeDispatcher& clock, QEventLoop& loop) {
        auto* timer = new QTimer(&loop);
        timer->setInterval(30);
        QObject::connect(timer, &QTimer::timeout, &loop, [&, timer] {
            ticks << clock.elapsedMs();
            if (ticks.size() == 3) {
                timer->stop();
                loop.quit();
            }
        });
        timer->start();
    }));
    EXPECT_EQ(ticks, QList<qint64>({30, 60, 90}));
}

TEST(SimulatedTimeDispatcher, PostedEventsRunBeforeTheClockMoves)
{
    QStringList events;
    ASSERT_TRUE(runOnSimulatedClock([&](SimulatedTimeDispatcher& clock, QEventLoop& loop) {
        // Captured by value below: the timers outlive this function's locals.
        const auto note = [&events, &clock](const char* what) {
            events << QStringLiteral("%1@%2").arg(what).arg(clock.elapsedMs());
        };
        QTimer::singleShot(20, &loop, [&loop, note] {
            note("timer20");
            loop.quit();
        });
        QTimer::singleShot(10, &loop, [&loop, note] {
            note("timer10");
            QMetaObject::invokeMethod(
                &loop, [note] { note("posted-at-10"); }, Qt::QueuedConnection);
        });
        QMetaObject::invokeMethod(
            &loop, [note] { note("posted-at-0"); }, Qt::QueuedConnection);
    }));
    EXPECT_EQ(events, QStringList({"posted-at-0@0", "timer10@10", "posted-at-10@10", "timer20@20"}));
}

TEST(SimulatedTimeDispatcher, StoppedTimerNeverFiresAndRemainingTimeIsSimulated)
{
    int remainingAt400 = -2;
    bool stoppedTimerFired = false;
    qint64 endedAt = -1;
    ASSERT_TRUE(runOnSimulatedClock([&](SimulatedTimeDispatcher& clock, QEventLoop& loop) {
        auto* stopped = new QTimer(&loop);
        stopped->setSingleShot(true);
        QObject::connect(stopped, &QTimer::timeout, &loop, [&] { stoppedTimerFired = true; });
        stopped->start(1000);
        QTimer::singleShot(400, &loop, [&, stopped] {
            remainingAt400 = stopped->remainingTime();
            stopped->stop();
        });
        QTimer::singleShot(2000, &loop, [&] {
            endedAt = clock.elapsedMs();
            loop.quit();
        });
    }));
    EXPECT_EQ(remainingAt400, 600);
    EXPECT_FALSE(stoppedTimerFired);
    EXPECT_EQ(endedAt, 2000);
}

TEST(SimulatedTimeDispatcher, ReadableSocketIsServedBeforeTheClockJumps)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    qint64 readAt = -1;
    ASSERT_TRUE(runOnSimulatedClock([&](SimulatedTimeDispatcher& clock, QEventLoop& loop) {
        auto* notifier = new QSocketNotifier(fds[0], QSocketNotifier::Read, &loop);
        QObject::connect(notifier, &QSocketNotifier::activated, &loop, [&, notifier] {
            char byte;
            EXPECT_EQ(read(fds[0], &byte, 1), 1);
            readAt = clock.elapsedMs();
            notifier->setEnabled(false);
        });
        QTimer::singleShot(1000, &loop, &QEventLoop::quit);
    }));
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(readAt, 0);
}

TEST(SimulatedTimeDispatcher, WithoutTimersItWaitsForWorkPostedFromAnotherThread)
{
    QObject* anchor = nullptr;
    QAtomicInt ready;
    qint64 quitAt = -1;
    std::unique_ptr<QThread> thread(QThread::create([&] {
        SimulatedTimeDispatcher* clock = &simulatedClock();
        QEventLoop loop;
        anchor = &loop;
        QObject::connect(&loop, &QObject::objectNameChanged, &loop, [&] {
            quitAt = clock->elapsedMs();
            loop.quit();
        });
        // Direct: raised on this thread just before it waits with nothing to do.
        QObject::connect(clock, &QAbstractEventDispatcher::aboutToBlock, [&] { ready.storeRelease(1); });
        loop.exec();
    }));
    startOnSimulatedClock(*thread);
    while (!ready.loadAcquire())
        QThread::yieldCurrentThread();
    // Nothing is registered on that thread: only the wake-up can end its wait.
    QMetaObject::invokeMethod(
        anchor, [&] { anchor->setObjectName("quit"); }, Qt::QueuedConnection);
    ASSERT_TRUE(endedInTime(*thread));
    EXPECT_EQ(quitAt, 0);
}
