// The enable/disable state machine of a single node: every row of its
// transition table that does not stop the process, and its edge cases.

#include "switchingfixture.h"

using namespace switching;

namespace {

using StateMachine = SwitchingTest;
using TransitionTable = SwitchingTest;

const QString kModule = QStringLiteral("display-service");
const QString kOtherModule = QStringLiteral("media-service");

} // namespace

// --- Transition table ---------------------------------------------------------

TEST_F(TransitionTable, EnableFromInitialEntersEnablingWithNewReply)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const CMReply<void> before = node->enableReply();
    ASSERT_EQ(node->state(), VelaPowerNodeStates::initial);

    const CMReply<void> reply = node->enable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabling);
    EXPECT_NE(reply, before);
    EXPECT_EQ(reply, node->enableReply());
    EXPECT_FALSE(reply.isFinished());
}

TEST_F(TransitionTable, EnableFromDisabledEntersEnablingWithNewReply)
{
    TestResource* node = makeResource(Answer::Never, Answer::AtOnce);
    ASSERT_TRUE(waitUntil([&] { return node->disable().isFinished(); }));
    ASSERT_EQ(node->state(), VelaPowerNodeStates::disabled);
    const CMReply<void> before = node->enableReply();

    const CMReply<void> reply = node->enable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabling);
    EXPECT_NE(reply, before);
    EXPECT_EQ(reply, node->enableReply());
    EXPECT_FALSE(reply.isFinished());
    EXPECT_EQ(writesTo(enablePath(node)), 1);
}

TEST_F(TransitionTable, EnableAgainAfterAFullCycleStartsANewTransition)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> first = node->enable();
    ASSERT_TRUE(waitUntil([&] { return first.isFinished(); }));
    const CMReply<void> off = node->disable();
    ASSERT_TRUE(waitUntil([&] { return off.isFinished(); }));
    ASSERT_EQ(node->state(), VelaPowerNodeStates::disabled);

    const CMReply<void> second = node->enable();

    EXPECT_NE(second, first);
    ASSERT_TRUE(waitUntil([&] { return second.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(enablePath(node)), 2);
}

TEST_F(TransitionTable, EnableWhileEnablingKeepsStateAndReturnsCurrentReply)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const CMReply<void> running = node->enable();
    ASSERT_EQ(node->state(), VelaPowerNodeStates::enabling);

    const CMReply<void> joined = node->enable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabling);
    EXPECT_EQ(joined, running);
    EXPECT_FALSE(joined.isFinished());
    EXPECT_EQ(writesTo(enablePath(node)), 1);
}

TEST_F(TransitionTable, EnableWhileEnabledKeepsStateAndReturnsFinishedReply)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> done = node->enable();
    ASSERT_TRUE(waitUntil([&] { return done.isFinished(); }));
    ASSERT_EQ(node->state(), VelaPowerNodeStates::enabled);

    const CMReply<void> again = node->enable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(again, done);
    EXPECT_TRUE(again.isFinished());
    EXPECT_EQ(writesTo(enablePath(node)), 1);
}

TEST_F(TransitionTable, SuccessfulEnableActionEntersEnabledAndFinishesReply)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const CMReply<void> reply = node->enable();
    ASSERT_EQ(node->state(), VelaPowerNodeStates::enabling);

    ASSERT_TRUE(answerPending(enablePath(node)));
    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));

    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_FALSE(reply.error().isError());
}

TEST_F(TransitionTable, FailedEnableActionEntersEnabledAndFinishesReplyWithSuccess)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const CMReply<void> reply = node->enable();

    ASSERT_TRUE(answerPendingWithError(enablePath(node), CMError(TrString(QStringLiteral("no power")))));
    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));

    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_FALSE(reply.error().isError());
}

TEST_F(TransitionTable, DisableWhileDisablingKeepsStateAndReturnsCurrentReply)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const CMReply<void> running = node->disable();
    ASSERT_EQ(node->state(), VelaPowerNodeStates::disabling);

    const CMReply<void> joined = node->disable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabling);
    EXPECT_EQ(joined, running);
    EXPECT_FALSE(joined.isFinished());
    EXPECT_EQ(writesTo(disablePath(node)), 1);
}

TEST_F(TransitionTable, DisableWhileDisabledKeepsStateAndReturnsFinishedReply)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> done = node->disable();
    ASSERT_TRUE(waitUntil([&] { return done.isFinished(); }));
    ASSERT_EQ(node->state(), VelaPowerNodeStates::disabled);

    const CMReply<void> again = node->disable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(again, done);
    EXPECT_TRUE(again.isFinished());
    EXPECT_EQ(writesTo(disablePath(node)), 1);
}

TEST_F(TransitionTable, DisableOfClaimedNodeKeepsEachStateAndReturnsNewFinishedReply)
{
    // Initial: the claim comes from the set-up, without a transition.
    TestResource* initial = makeResource(Answer::Never, Answer::Never);
    initial->addModule(kModule, VelaPowerModuleActions::hold);
    // Enabling (no assertion: the claim is checked first).
    TestResource* enabling = makeResource(Answer::Never, Answer::Never);
    enabling->setModuleAction(kModule, VelaPowerModuleActions::use);
    // Enabled.
    TestResource* enabled = makeResource(Answer::AtOnce, Answer::Never);
    const CMReply<void> on = enabled->setModuleAction(kModule, VelaPowerModuleActions::hold);
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));

    const std::vector<std::pair<TestResource*, VelaPowerNodeStates::Enum>> cases{
        {initial, VelaPowerNodeStates::initial},
        {enabling, VelaPowerNodeStates::enabling},
        {enabled, VelaPowerNodeStates::enabled}};
    for (const auto& entry : cases) {
        TestResource* node = entry.first;
        SCOPED_TRACE(VelaPowerNodeStates::toString(entry.second).toStdString());
        ASSERT_EQ(node->state(), entry.second);
        const CMReply<void> kept = node->disableReply();

        const CMReply<void> reply = node->disable();

        EXPECT_TRUE(reply.isFinished());
        EXPECT_FALSE(reply.error().isError());
        EXPECT_NE(reply, kept);
        EXPECT_EQ(node->disableReply(), kept) << "the kept disable reply is not touched";
        EXPECT_EQ(node->state(), entry.second);
        EXPECT_EQ(writesTo(disablePath(node)), 0);
    }
}

TEST_F(TransitionTable, DisableOfLockedNodeKeepsEachStateAndReturnsNewFinishedReply)
{
    TestResource* holder = makeResource();
    TestResource* enabling = makeResource(Answer::Never, Answer::Never);
    enabling->nodeLock(holder);
    TestResource* enabled = makeResource(Answer::AtOnce, Answer::Never);
    const CMReply<void> on = enabled->nodeLock(holder);
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));

    const std::vector<std::pair<TestResource*, VelaPowerNodeStates::Enum>> cases{
        {enabling, VelaPowerNodeStates::enabling}, {enabled, VelaPowerNodeStates::enabled}};
    for (const auto& entry : cases) {
        TestResource* node = entry.first;
        SCOPED_TRACE(VelaPowerNodeStates::toString(entry.second).toStdString());
        ASSERT_EQ(node->state(), entry.second);
        const CMReply<void> kept = node->disableReply();

        const CMReply<void> reply = node->disable();

        EXPECT_TRUE(reply.isFinished());
        EXPECT_FALSE(reply.error().isError());
        EXPECT_NE(reply, kept);
        EXPECT_EQ(node->disableReply(), kept);
        EXPECT_EQ(node->state(), entry.second);
        EXPECT_EQ(node->lockedBy(), QSet<PowerNode*>{holder});
        EXPECT_EQ(writesTo(disablePath(node)), 0);
    }
}

TEST_F(TransitionTable, DisableFromInitialWithoutClaimOrHolderEntersDisablingWithNewReply)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const CMReply<void> before = node->disableReply();

    const CMReply<void> reply = node->disable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabling);
    EXPECT_NE(reply, before);
    EXPECT_EQ(reply, node->disableReply());
    EXPECT_FALSE(reply.isFinished());
    EXPECT_EQ(writesTo(disablePath(node)), 1);
}

TEST_F(TransitionTable, DisableFromEnabledWithoutClaimOrHolderEntersDisablingWithNewReply)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::Never);
    const CMReply<void> on = node->enable();
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    const CMReply<void> before = node->disableReply();

    const CMReply<void> reply = node->disable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabling);
    EXPECT_NE(reply, before);
    EXPECT_EQ(reply, node->disableReply());
    EXPECT_FALSE(reply.isFinished());
}

TEST_F(TransitionTable, DisableActionFinishingEntersDisabledAndReplyWaitsForTheUnlocks)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* dependency = makeResource(Answer::AtOnce, Answer::Never);
    node->requiresNode(dependency);
    const CMReply<void> on = node->enable();
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    ASSERT_EQ(dependency->state(), VelaPowerNodeStates::enabled);

    const CMReply<void> reply = node->disable();

    // Its own action is done: disabled, but the reply waits for the released
    // dependency to finish its own disable.
    ASSERT_TRUE(waitUntil([&] { return node->state() == VelaPowerNodeStates::disabled; }));
    EXPECT_EQ(dependency->state(), VelaPowerNodeStates::disabling);
    const CMReply<void> dependencyReply = dependency->disableReply();
    drainEvents();
    EXPECT_FALSE(reply.isFinished());

    ASSERT_TRUE(answerPending(disablePath(dependency)));
    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));
    EXPECT_TRUE(dependencyReply.isFinished());
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(dependency->state(), VelaPowerNodeStates::disabled);
}

TEST_F(TransitionTable, FailedDisableActionEntersDisabledAndFinishesReplyWithSuccess)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::Never);
    const CMReply<void> on = node->enable();
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    const CMReply<void> reply = node->disable();
    ASSERT_EQ(node->state(), VelaPowerNodeStates::disabling);

    ASSERT_TRUE(answerPendingWithError(disablePath(node), CMError(TrString(QStringLiteral("stuck")))));
    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));

    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_FALSE(reply.error().isError());
}

// --- Edge cases ---------------------------------------------------------------

TEST_F(StateMachine, EnableWithoutRequiredNodesRunsItsActionAndBecomesEnabled)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    ASSERT_TRUE(node->requiredNodes(false).isEmpty());

    const CMReply<void> reply = node->enable();

    // The empty join is done at once: the action has been started already.
    EXPECT_EQ(writesTo(enablePath(node)), 1);
    EXPECT_FALSE(reply.isFinished());
    ASSERT_TRUE(answerPending(enablePath(node)));
    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_TRUE(node->isEnabled());
}

TEST_F(StateMachine, EnableTwiceReturnsTheSameReplyAndRunsTheActionOnce)
{
    TestResource* node = makeResource(Answer::Later, Answer::Later);

    const CMReply<void> first = node->enable();
    const CMReply<void> second = node->enable();

    EXPECT_EQ(first, second);
    ASSERT_TRUE(waitUntil([&] { return first.isFinished(); }));
    EXPECT_EQ(writesTo(enablePath(node)), 1);
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
}

TEST_F(StateMachine, EnableOfEnabledNodeReturnsFinishedReplyAndLogsAlreadyEnabled)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> done = node->enable();
    ASSERT_TRUE(waitUntil([&] { return done.isFinished(); }));
    LogCapture log;

    const CMReply<void> again = node->enable();

    EXPECT_EQ(again, done);
    EXPECT_TRUE(again.isFinished());
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, "Leave [PowerManager] PowerNode::enable(): powerNode: "
                                                        + str(node->name())
                                                        + " already enabled or enable was already requested..."),
              1)
        << log.dump();
    EXPECT_EQ(writesTo(enablePath(node)), 1);
}

TEST_F(StateMachine, NewNodeCanBeDisabledAndEndsDisabled)
{
    TestResource* node = makeResource(Answer::Later, Answer::Later);
    ASSERT_EQ(node->state(), VelaPowerNodeStates::initial);

    const CMReply<void> reply = node->disable();

    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabling);
    EXPECT_EQ(writesTo(disablePath(node)), 1);
    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_FALSE(reply.error().isError());
}

TEST_F(StateMachine, DisableOfNodeStillClaimedByAModuleRunsNoActionAndKeepsState)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> on = node->setModuleAction(kModule, VelaPowerModuleActions::use);
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));

    const CMReply<void> reply = node->disable();

    EXPECT_TRUE(reply.isFinished());
    EXPECT_FALSE(reply.error().isError());
    drainEvents();
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(disablePath(node)), 0);
}

TEST_F(StateMachine, TwoHoldersKeepTheNodeEnabledUntilTheLastUnlocks)
{
    TestResource* first = makeResource();
    TestResource* second = makeResource();
    TestResource* shared = makeResource(Answer::AtOnce, Answer::AtOnce);

    const CMReply<void> firstLock = shared->nodeLock(first);
    const CMReply<void> secondLock = shared->nodeLock(second);
    EXPECT_EQ(firstLock, secondLock);
    ASSERT_TRUE(waitUntil([&] { return secondLock.isFinished(); }));
    ASSERT_EQ(shared->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(shared->lockedBy(), (QSet<PowerNode*>{first, second}));
    EXPECT_EQ(writesTo(enablePath(shared)), 1);

    const CMReply<void> firstUnlock = shared->nodeUnlock(first);
    EXPECT_TRUE(firstUnlock.isFinished());
    drainEvents();
    EXPECT_EQ(shared->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(shared->lockedBy(), QSet<PowerNode*>{second});
    EXPECT_EQ(writesTo(disablePath(shared)), 0);

    const CMReply<void> secondUnlock = shared->nodeUnlock(second);
    ASSERT_TRUE(waitUntil([&] { return secondUnlock.isFinished(); }));
    EXPECT_EQ(shared->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(shared->lockedBy().isEmpty());
    EXPECT_EQ(writesTo(disablePath(shared)), 1);
}

TEST_F(StateMachine, LastUnlockLeavesAModuleClaimedNodeEnabledWithoutHolders)
{
    TestResource* holder = makeResource();
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> locked = node->nodeLock(holder);
    ASSERT_TRUE(waitUntil([&] { return locked.isFinished(); }));
    node->setModuleAction(kModule, VelaPowerModuleActions::use);

    const CMReply<void> unlocked = node->nodeUnlock(holder);

    EXPECT_TRUE(unlocked.isFinished());
    drainEvents();
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_TRUE(node->lockedBy().isEmpty());
    EXPECT_EQ(writesTo(disablePath(node)), 0);
}

TEST_F(StateMachine, UnlockByANodeThatHoldsNothingRemovesNoHolder)
{
    TestResource* holder = makeResource();
    TestResource* stranger = makeResource();
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> locked = node->nodeLock(holder);
    ASSERT_TRUE(waitUntil([&] { return locked.isFinished(); }));

    const CMReply<void> unlocked = node->nodeUnlock(stranger);

    EXPECT_TRUE(unlocked.isFinished());
    EXPECT_EQ(node->lockedBy(), QSet<PowerNode*>{holder});
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(disablePath(node)), 0);
}

TEST_F(StateMachine, SameHolderLockingTwiceIsOneHolder)
{
    TestResource* holder = makeResource();
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);

    node->nodeLock(holder);
    const CMReply<void> locked = node->nodeLock(holder);
    ASSERT_TRUE(waitUntil([&] { return locked.isFinished(); }));
    EXPECT_EQ(node->lockedBy().size(), 1);

    const CMReply<void> unlocked = node->nodeUnlock(holder);
    ASSERT_TRUE(waitUntil([&] { return unlocked.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(node->lockedBy().isEmpty());
}

TEST_F(StateMachine, ReleaseWhileAnotherModuleClaimsReturnsFinishedReplyAndKeepsNodeEnabled)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    node->setModuleAction(kModule, VelaPowerModuleActions::use);
    const CMReply<void> on = node->setModuleAction(kOtherModule, VelaPowerModuleActions::hold);
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));

    const CMReply<void> released = node->setModuleAction(kModule, VelaPowerModuleActions::release);

    EXPECT_TRUE(released.isFinished());
    EXPECT_FALSE(released.error().isError());
    EXPECT_NE(released, on);
    drainEvents();
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(disablePath(node)), 0);
    const QHash<QString, VelaPowerModuleActions::Enum> expected{{kModule, VelaPowerModuleActions::release},
                                                               {kOtherModule, VelaPowerModuleActions::hold}};
    EXPECT_EQ(node->moduleActions(), expected);
}

TEST_F(StateMachine, ClaimEnablesTheNodeEvenWhenTheModuleAlreadyHeldIt)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    node->addModule(kModule, VelaPowerModuleActions::use);
    ASSERT_EQ(node->state(), VelaPowerNodeStates::initial);

    const CMReply<void> on = node->setModuleAction(kModule, VelaPowerModuleActions::use);
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(enablePath(node)), 1);

    // Repeated on an enabled node: the finished reply of that enable.
    const CMReply<void> again = node->setModuleAction(kModule, VelaPowerModuleActions::use);
    EXPECT_EQ(again, on);
    EXPECT_TRUE(again.isFinished());
    EXPECT_EQ(writesTo(enablePath(node)), 1);
}

TEST_F(StateMachine, HoldUseAndReleaseFromSeveralModules)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const QString third = QStringLiteral("camera-service");

    const CMReply<void> held = node->setModuleAction(kModule, VelaPowerModuleActions::hold);
    ASSERT_TRUE(waitUntil([&] { return held.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);

    const CMReply<void> used = node->setModuleAction(kOtherModule, VelaPowerModuleActions::use);
    EXPECT_EQ(used, held) << "a further claim joins the finished enable";

    // A module that never claimed releases: others still claim.
    const CMReply<void> neverClaimed = node->setModuleAction(third, VelaPowerModuleActions::release);
    EXPECT_TRUE(neverClaimed.isFinished());
    const CMReply<void> firstRelease = node->setModuleAction(kModule, VelaPowerModuleActions::release);
    EXPECT_TRUE(firstRelease.isFinished());
    drainEvents();
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(disablePath(node)), 0);

    // The last claim goes: the node is switched off.
    const CMReply<void> lastRelease = node->setModuleAction(kOtherModule, VelaPowerModuleActions::release);
    ASSERT_TRUE(waitUntil([&] { return lastRelease.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(writesTo(disablePath(node)), 1);
    EXPECT_EQ(lastRelease, node->disableReply());
    const QHash<QString, VelaPowerModuleActions::Enum> expected{{kModule, VelaPowerModuleActions::release},
                                                               {kOtherModule, VelaPowerModuleActions::release},
                                                               {third, VelaPowerModuleActions::release}};
    EXPECT_EQ(node->moduleActions(), expected);
    EXPECT_EQ(node->moduleAction(kModule), VelaPowerModuleActions::release);

    // Claimed again with hold: on again.
    const CMReply<void> again = node->setModuleAction(third, VelaPowerModuleActions::hold);
    ASSERT_TRUE(waitUntil([&] { return again.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(enablePath(node)), 2);
}

TEST_F(StateMachine, ReleaseOfAnUnclaimedNewNodeDisablesIt)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);

    const CMReply<void> reply = node->setModuleAction(kModule, VelaPowerModuleActions::release);

    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(writesTo(disablePath(node)), 1);
}

TEST_F(StateMachine, FailedEnableActionStillLeavesTheNodeEnabled)
{
    TestResource* node = makeResource(Answer::WithError, Answer::AtOnce);
    LogCapture log;

    const CMReply<void> reply = node->enable();

    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL,
                        "Failed to enable resource " + str(node->name()) + ", error: refused"),
              1)
        << log.dump();
}

TEST_F(StateMachine, TimedOutEnableActionStillLeavesTheNodeEnabled)
{
    TestResource* node = makeResource(Answer::Never, Answer::AtOnce, 10);
    LogCapture log;

    const CMReply<void> reply = node->enable();

    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    const std::string timeout = str(CMVoidReply::ErrorTimeout());
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, str(node->name()) + " failed to enable Message: " + timeout), 1)
        << log.dump();
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL,
                        "Failed to enable resource " + str(node->name()) + ", error: " + timeout),
              1)
        << log.dump();
}

TEST_F(StateMachine, TimedOutDisableActionStillLeavesTheNodeDisabled)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::Never, 0);
    LogCapture log;

    const CMReply<void> reply = node->disable();

    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL, "Failed to disable resource " + str(node->name())
                                                        + ", error: " + str(CMVoidReply::ErrorTimeout())),
              1)
        << log.dump();
}

TEST_F(StateMachine, IsEnabledIsTrueOnlyWhenEnabledAndItsTraceSaysSo)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const std::string prefix = "Enter [PowerManager] PowerNode::isEnabled(): " + str(node->name());
    LogCapture log;

    auto check = [&](VelaPowerNodeStates::Enum state, bool expected) {
        SCOPED_TRACE(VelaPowerNodeStates::toString(state).toStdString());
        ASSERT_EQ(node->state(), state);
        log.clear();
        EXPECT_EQ(node->isEnabled(), expected);
        const auto lines = log.withMessage(prefix + (expected ? " enabled" : " disabled"));
        ASSERT_EQ(lines.size(), 1u) << log.dump();
        EXPECT_EQ(lines[0].level, log4cplus::TRACE_LOG_LEVEL);
        EXPECT_EQ(lines[0].file, nodeSource());
        EXPECT_EQ(lines[0].function, "bool PowerNode::isEnabled() const");
    };

    check(VelaPowerNodeStates::initial, false);
    const CMReply<void> on = node->enable();
    check(VelaPowerNodeStates::enabling, false);
    ASSERT_TRUE(answerPending(enablePath(node)));
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    check(VelaPowerNodeStates::enabled, true);
    const CMReply<void> off = node->disable();
    check(VelaPowerNodeStates::disabling, false);
    ASSERT_TRUE(answerPending(disablePath(node)));
    ASSERT_TRUE(waitUntil([&] { return off.isFinished(); }));
    check(VelaPowerNodeStates::disabled, false);
}

TEST_F(StateMachine, TargetSwitchesAtOnceWithoutWrites)
{
    PowerTarget* target = makeTarget();

    const CMReply<void> on = target->enable();
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    EXPECT_EQ(target->state(), VelaPowerNodeStates::enabled);

    const CMReply<void> off = target->disable();
    ASSERT_TRUE(waitUntil([&] { return off.isFinished(); }));
    EXPECT_EQ(target->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(m_writes.empty());
}
