// StopSignals: the first SIGINT or SIGTERM becomes an event of the event
// loop; a second one ends the process at once, killed by that signal, even
// while the event loop is busy and has not seen the first.

#include "stopsignals.h"

#include "eventloop.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace {

// The signals a StopSignals object asked to stop for, in order.
struct Requests {
    explicit Requests(StopSignals* stop)
    {
        QObject::connect(stop, &StopSignals::stopRequested, [this](int signal) { signals_.append(signal); });
    }

    // Drives the event loop until `count` requests to stop have come.
    bool heard(int count)
    {
        return waitUntil([this, count]() { return signals_.size() == count; }, 10000);
    }

    QList<int> signals_;
};

/*
 * For the death tests, in the process they fork: raises `signal` `times`
 * times while a StopSignals object lives, with no event loop running between
 * them, as in a program busy inside one switch of a large graph. Exits with
 * 3 when the process is still alive and the object has caught nothing yet
 * (the event loop never read the signal), else with 4.
 */
[[noreturn]] void raiseWithNoEventLoop(int signal, int times)
{
    StopSignals stop;
    for (int i = 0; i < times; ++i)
        raise(signal);
    std::exit(stop.caught() == 0 ? 3 : 4);
}

} // namespace

TEST(StopSignals, FirstSignalAsksTheEventLoopToStop)
{
    StopSignals stop;
    Requests requested(&stop);
    ASSERT_EQ(raise(SIGTERM), 0);
    ASSERT_TRUE(requested.heard(1));
    EXPECT_EQ(requested.signals_, QList<int>{SIGTERM});
    EXPECT_EQ(stop.caught(), SIGTERM);
}

TEST(StopSignalsDeathTest, SecondInterruptEndsTheProcessAtOnce)
{
    EXPECT_EXIT(raiseWithNoEventLoop(SIGINT, 2), ::testing::KilledBySignal(SIGINT), "");
}

TEST(StopSignalsDeathTest, SecondTerminateEndsTheProcessAtOnce)
{
    EXPECT_EXIT(raiseWithNoEventLoop(SIGTERM, 2), ::testing::KilledBySignal(SIGTERM), "");
}

TEST(StopSignalsDeathTest, OneSignalLeavesTheProcessRunning)
{
    EXPECT_EXIT(raiseWithNoEventLoop(SIGINT, 1), ::testing::ExitedWithCode(3), "");
}

TEST(StopSignals, PreviousHandlersComeBackAndTheCountStartsAgain)
{
    {
        StopSignals first;
        Requests requested(&first);
        ASSERT_EQ(raise(SIGINT), 0);
        ASSERT_TRUE(requested.heard(1));
    }
    // A new object counts from zero: its first signal is again only a
    // request to stop.
    StopSignals second;
    Requests requested(&second);
    ASSERT_EQ(raise(SIGINT), 0);
    ASSERT_TRUE(requested.heard(1));
    EXPECT_EQ(second.caught(), SIGINT);
}
