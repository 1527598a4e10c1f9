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
    QList<int> signals_;
};

} // namespace

TEST(StopSignals, FirstSignalAsksTheEventLoopToStop)
{
    StopSignals stop;
    Requests requested(&stop);
    ASSERT_EQ(raise(SIGTERM), 0);
    ASSERT_TRUE(waitUntil([&requested]() { return requested.signals_.size() == 1; }, 10000));
    EXPECT_EQ(requested.signals_, QList<int>{SIGTERM});
    EXPECT_EQ(stop.caught(), SIGTERM);
}

TEST(StopSignalsDeathTest, SecondInterruptEndsTheProcessAtOnce)
{
    // No event loop runs between the two signals, as in a program busy
    // inside one switch of a large graph.
    EXPECT_EXIT(
        {
            StopSignals stop;
            raise(SIGINT);
            raise(SIGINT);
            std::exit(0);
        },
        ::testing::KilledBySignal(SIGINT), "");
}

TEST(StopSignalsDeathTest, SecondTerminateEndsTheProcessAtOnce)
{
    EXPECT_EXIT(
        {
            StopSignals stop;
            raise(SIGTERM);
            raise(SIGTERM);
            std::exit(0);
        },
        ::testing::KilledBySignal(SIGTERM), "");
}

TEST(StopSignalsDeathTest, OneSignalLeavesTheProcessRunning)
{
    EXPECT_EXIT(
        {
            StopSignals stop;
            raise(SIGINT);
            std::exit(stop.caught() == 0 ? 3 : 4);
        },
        ::testing::ExitedWithCode(3), "");
}

TEST(StopSignals, PreviousHandlersComeBackAndTheCountStartsAgain)
{
    {
        StopSignals first;
        Requests requested(&first);
        ASSERT_EQ(raise(SIGINT), 0);
        ASSERT_TRUE(waitUntil([&requested]() { return requested.signals_.size() == 1; }, 10000));
    }
    // A new object counts from zero: its first signal is again only a
    // request to stop.
    StopSignals second;
    Requests requested(&second);
    ASSERT_EQ(raise(SIGINT), 0);
    ASSERT_TRUE(waitUntil([&requested]() { return requested.signals_.size() == 1; }, 10000));
    EXPECT_EQ(second.caught(), SIGINT);
}
