// Requests that arrive while the queue's head has been started but does not
// report processing: from a listener of nextTargetChanged (the head's
// process() has not been called yet), from a caller answered while invalid
// heads are dropped, and while a target request that failed its resolution
// still waits for its clean-up disables. The new request waits its turn; the
// head is neither started twice nor mistaken for an invalid one.

#include "handler_fixture.h"

#include <gtest/gtest.h>

using namespace handlertest;

namespace {

class PowerHandlerReentrancy : public HandlerTest
{
protected:
    void SetUp() override
    {
        addPowerManagerModule();
        addModule(QStringLiteral("media"));
    }
};

} // namespace

TEST_F(PowerHandlerReentrancy, RequestFromANextTargetChangedListenerWaitsForTheTarget)
{
    PowerTarget* target = addTarget();
    ProbeResource* enabledByTarget = addResource();
    target->enables(enabledByTarget);
    ProbeResource* wanted = addResource();
    CMReply<QVariant> fromListener = caller("from listener");
    int announcements = 0;
    const QMetaObject::Connection listener =
        QObject::connect(&handler, &PowerHandler::nextTargetChanged, [&](const VelaPowerManagerTarget&) {
            if (++announcements == 1)
                handler.requestResource(wish(wanted, QStringLiteral("media"), VelaPowerModuleActions::use),
                                        fromListener);
        });
    CMReply<QVariant> reply = askTarget("target", target);
    const bool answered = waitUntil([&] { return reply.isFinished() && fromListener.isFinished(); });
    QObject::disconnect(listener);
    ASSERT_TRUE(answered) << eventDump();

    EXPECT_EQ(announcements, 1);
    EXPECT_FALSE(reply.error().isError()) << errorText(reply);
    EXPECT_FALSE(fromListener.error().isError()) << errorText(fromListener);
    EXPECT_LT(indexOf("answer target ok"), indexOf(writeOn(wanted))) << eventDump();
    EXPECT_EQ(countOf(writeOn(enabledByTarget)), 1) << eventDump();
    EXPECT_EQ(wanted->state(), VelaPowerNodeStates::enabled);
}

TEST_F(PowerHandlerReentrancy, RequestFromTheAnswerToAnInvalidHeadWaitsItsTurn)
{
    ProbeResource* skipped = addResource();
    ProbeResource* first = addResource();
    ProbeResource* second = addResource();
    // An invalid request of our own heads the idle queue; the caller's wish
    // is stored under its identity.
    const PowerNodeRequestPtr invalid = queueOwn(skipped, QStringLiteral("media"));
    invalidate(invalid);
    reuseIdentityOf(invalid);

    CMReply<QVariant> dropped = caller("dropped");
    CMReply<QVariant> followUp = caller("follow-up");
    dropped.onFinished([&](const CMReply<QVariant>&) {
        handler.requestResource(wish(second, QStringLiteral("media"), VelaPowerModuleActions::use), followUp);
    });
    handler.requestResource(wish(first, QStringLiteral("media"), VelaPowerModuleActions::use), dropped);
    ASSERT_TRUE(waitUntil([&] { return followUp.isFinished() && handler.pendingRequests() == 0; })) << eventDump();

    EXPECT_EQ(dropped.error().message().toString(), QStringLiteral("Cannot request node"));
    EXPECT_FALSE(followUp.error().isError()) << errorText(followUp);
    EXPECT_EQ(first->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(second->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(skipped->state(), VelaPowerNodeStates::initial);
    EXPECT_LT(indexOf(writeOn(first)), indexOf(writeOn(second))) << eventDump();
}

TEST_F(PowerHandlerReentrancy, RequestArrivingWhileAFailedTargetRequestCleansUpWaitsForIt)
{
    const UnreachableTarget blocked = addUnreachableTarget(QStringLiteral("media"));
    ASSERT_FALSE(HasFailure());
    ProbeResource* slowOff = addResource(Answer::AtOnce, Answer::Held);
    ProbeResource* other = addResource();

    CMReply<QVariant> failing = askTarget("target", blocked.target);
    ASSERT_EQ(heldAt(offPath(slowOff)), 1);
    ASSERT_FALSE(failing.isFinished());

    CMReply<QVariant> arriving = askResource("arriving", other, QStringLiteral("media"), VelaPowerModuleActions::use);
    drainEvents();
    EXPECT_FALSE(failing.isFinished()) << errorText(failing);
    EXPECT_FALSE(arriving.isFinished());
    EXPECT_EQ(handler.pendingRequests(), 2);

    ASSERT_TRUE(answerHeld(offPath(slowOff)));
    ASSERT_TRUE(waitUntil([&] { return failing.isFinished() && arriving.isFinished(); }));
    EXPECT_EQ(failing.error().message().toString(), QStringLiteral("Failed to resolve dependencies"));
    EXPECT_FALSE(arriving.error().isError()) << errorText(arriving);
    EXPECT_EQ(other->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(handler.pendingRequests(), 0);
    EXPECT_LT(indexOf("answer target error " + errorText(failing)), indexOf(writeOn(other))) << eventDump();
}
