// A very long queue drains by itself, in order, in constant stack depth: a
// million resource requests wait behind one whose write is still pending and
// all run once it is answered.

#include "handler_fixture.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

using namespace handlertest;

namespace {

#ifdef VELA_SANITIZED_BUILD
constexpr int kQueued = 100000;
#else
constexpr int kQueued = 1000000;
#endif

class PowerHandlerDrain : public HandlerTest
{
protected:
    // Quiet from here until the fixture is gone, its tear-down included.
    LoggerLevel m_quiet{log4cplus::OFF_LOG_LEVEL};
    // Touched by continuations that may run until the fixture's tear-down.
    std::vector<uint8_t> answers = std::vector<uint8_t>(static_cast<size_t>(kQueued), 0);
    int next = 0;
    int outOfTurn = 0;
    int failed = 0;
    int writesOn = 0;
    int writesOff = 0;
};

} // namespace

TEST_F(PowerHandlerDrain, RequestsQueuedBehindAPendingWriteDrainOnceItIsAnsweredEachAnsweredOnceInOrder)
{
    addModule(QStringLiteral("bulk"));
    ProbeResource* blocker = addResource(Answer::Held);
    ProbeResource* bulk = addResource();
    // Its writes are only counted, answered at once.
    for (const bool on : {true, false}) {
        CMRootWorker::instance()->registerSetDataHandler(
            CMPath(on ? onPath(bulk) : offPath(bulk)),
            [this, on](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) {
                ++(on ? writesOn : writesOff);
                reply.setValue(QVariant(true));
            });
    }

    CMReply<QVariant> first;
    handler.requestResource(wish(blocker, QStringLiteral("bulk"), VelaPowerModuleActions::use), first);
    ASSERT_EQ(heldAt(onPath(blocker)), 1);

    // Only the handler keeps the callers' replies; each reports its answer.
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < kQueued; ++i) {
        CMReply<QVariant> reply;
        reply.onFinished([this, i](const CMReply<QVariant>& answered) {
            ++answers[static_cast<size_t>(i)];
            if (i != next)
                ++outOfTurn;
            next = i + 1;
            if (answered.error().isError())
                ++failed;
        });
        handler.requestResource(wish(bulk, QStringLiteral("bulk"),
                                     i % 2 == 0 ? VelaPowerModuleActions::use : VelaPowerModuleActions::release),
                                reply);
    }
    const qint64 queuedAfter = clock.elapsed();
    ASSERT_EQ(handler.pendingRequests(), kQueued + 1);
    EXPECT_EQ(next, 0) << "a request ran while the head was still running";
    EXPECT_EQ(bulk->state(), VelaPowerNodeStates::initial);

    ASSERT_TRUE(answerHeld(onPath(blocker)));
    ASSERT_TRUE(waitUntil([&] { return next == kQueued && handler.pendingRequests() == 0; }, 600000))
        << next << " of " << kQueued << " answered";
    const qint64 drainedAfter = clock.elapsed();

    EXPECT_TRUE(first.isFinished());
    EXPECT_FALSE(first.error().isError());
    EXPECT_EQ(outOfTurn, 0);
    EXPECT_EQ(failed, 0);
    int notOnce = 0;
    for (const uint8_t count : answers)
        notOnce += count == 1 ? 0 : 1;
    EXPECT_EQ(notOnce, 0);
    // The last request released the resource.
    EXPECT_EQ(bulk->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(writesOn, kQueued / 2);
    EXPECT_EQ(writesOff, kQueued / 2);
    std::cout << "[ drain ] " << kQueued << " requests queued in " << queuedAfter << " ms, drained in "
              << drainedAfter - queuedAfter << " ms" << std::endl;
}
