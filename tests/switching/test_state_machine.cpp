// The enable/disable state machine of a single node: every row of its
// transition table that does not stop the process, and its edge cases.

#include "switchingfixture.h"

using namespace switching;

namespace {

using StateMachine = SwitchingTest;

// The rows of the table that it has for both directions, and the edge cases
// that hold for both.
using TransitionRow = EachDirection;
using StateMachineBothWays = EachDirection;

// The edge cases that hold for every action that places a claim.
class StateMachineClaim : public SwitchingTest, public ::testing::WithParamInterface<VelaPowerModuleActions::Enum>
{
};

std::string claimName(const ::testing::TestParamInfo<VelaPowerModuleActions::Enum>& info)
{
    return str(VelaPowerModuleActions::toString(info.param));
}

class TransitionTable : public SwitchingTest
{
protected:
    // disable() on a node that must stay on: a new reply, finished with
    // success; the kept disable reply, the state and the writes unchanged.
    void expectDisableLeavesTheNodeAsItIs(TestResource* node, VelaPowerNodeStates::Enum state)
    {
        SCOPED_TRACE(str(VelaPowerNodeStates::toString(state)));
        ASSERT_EQ(node->state(), state);
        const CMReply<void> kept = node->disableReply();

        const CMReply<void> reply = node->disable();

        EXPECT_TRUE(succeeded(reply));
        EXPECT_NE(reply, kept);
        EXPECT_EQ(node->disableReply(), kept) << "the kept disable reply is not touched";
        EXPECT_EQ(node->state(), state);
        EXPECT_EQ(writesTo(disablePath(node)), 0);
    }
};

const QString kModule = QStringLiteral("display-service");
const QString kOtherModule = QStringLiteral("media-service");

} // namespace

INSTANTIATE_TEST_SUITE_P(Both, TransitionRow, ::testing::Values(kEnabling, kDisabling), directionName);
INSTANTIATE_TEST_SUITE_P(Both, StateMachineBothWays, ::testing::Values(kEnabling, kDisabling), directionName);
INSTANTIATE_TEST_SUITE_P(Claims, StateMachineClaim,
                         ::testing::Values(VelaPowerModuleActions::hold, VelaPowerModuleActions::use), claimName);

// --- Transition table ---------------------------------------------------------

// 0 -> 1 (enable) and 0 -> 3 (disable, no claim, no holder).
TEST_P(TransitionRow, FromInitialEntersTheRunningStateWithANewReply)
{
    TestResource* node = makeDirected(Answer::Never, Answer::Never);
    const CMReply<void> before = keptReply(node);
    ASSERT_EQ(node->state(), VelaPowerNodeStates::initial);

    const CMReply<void> reply = request(node);

    EXPECT_EQ(node->state(), direction().running);
    EXPECT_NE(reply, before);
    EXPECT_EQ(reply, keptReply(node));
    EXPECT_FALSE(reply.isFinished());
    EXPECT_EQ(writesTo(ownPath(node)), 1);
}

// 4 -> 1 (enable) and 2 -> 3 (disable, no claim, no holder).
TEST_P(TransitionRow, FromTheOtherEndStateEntersTheRunningStateWithANewReply)
{
    TestResource* node = makeDirected(Answer::Never, Answer::AtOnce);
    ASSERT_TRUE(bringToOppositeEnd(node));
    const CMReply<void> before = keptReply(node);

    const CMReply<void> reply = request(node);

    EXPECT_EQ(node->state(), direction().running);
    EXPECT_NE(reply, before);
    EXPECT_EQ(reply, keptReply(node));
    EXPECT_FALSE(reply.isFinished());
    EXPECT_EQ(writesTo(ownPath(node)), 1);
}

TEST_F(TransitionTable, EnableAgainAfterAFullCycleStartsANewTransition)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> first = node->enable();
    ASSERT_TRUE(finishes(first));
    ASSERT_TRUE(finishes(node->disable()));
    ASSERT_EQ(node->state(), VelaPowerNodeStates::disabled);

    const CMReply<void> second = node->enable();

    EXPECT_NE(second, first);
    ASSERT_TRUE(finishes(second));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(enablePath(node)), 2);
}

// 1 -> 1 (enable) and 3 -> 3 (disable): the running transition is joined.
TEST_P(TransitionRow, RepeatedWhileRunningKeepsTheStateAndReturnsTheCurrentReply)
{
    TestResource* node = makeDirected(Answer::Never, Answer::Never);
    const CMReply<void> running = request(node);
    ASSERT_EQ(node->state(), direction().running);

    const CMReply<void> joined = request(node);

    EXPECT_EQ(node->state(), direction().running);
    EXPECT_EQ(joined, running);
    EXPECT_FALSE(joined.isFinished());
    EXPECT_EQ(writesTo(ownPath(node)), 1);
}

// 2 -> 2 (enable) and 4 -> 4 (disable): the finished reply of the last one.
TEST_P(TransitionRow, RepeatedWhenDoneKeepsTheStateAndReturnsTheFinishedReply)
{
    TestResource* node = makeDirected(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> done = request(node);
    ASSERT_TRUE(finishes(done));
    ASSERT_EQ(node->state(), direction().reached);

    const CMReply<void> again = request(node);

    EXPECT_EQ(node->state(), direction().reached);
    EXPECT_EQ(again, done);
    EXPECT_TRUE(again.isFinished());
    EXPECT_EQ(writesTo(ownPath(node)), 1);
}

// 1 -> 2 and 3 -> 4 when the action's write is answered.
TEST_P(TransitionRow, AnsweredActionEntersTheEndStateAndFinishesTheReply)
{
    TestResource* node = makeDirected(Answer::Never, Answer::Never);
    const CMReply<void> reply = request(node);
    ASSERT_EQ(node->state(), direction().running);

    ASSERT_TRUE(answerPending(ownPath(node)));
    ASSERT_TRUE(finishes(reply));

    EXPECT_EQ(node->state(), direction().reached);
    EXPECT_TRUE(succeeded(reply));
}

// 1 -> 2 and 3 -> 4 also when the action's write fails: logged, not passed on.
TEST_P(TransitionRow, FailedActionEntersTheEndStateAndFinishesTheReplyWithSuccess)
{
    TestResource* node = makeDirected(Answer::Never, Answer::AtOnce);
    ASSERT_TRUE(bringToOppositeEnd(node));
    LogCapture log;
    const CMReply<void> reply = request(node);
    ASSERT_EQ(node->state(), direction().running);

    ASSERT_TRUE(answerPendingWithError(ownPath(node), CMError(TrString(QStringLiteral("no power")))));
    ASSERT_TRUE(finishes(reply));

    EXPECT_EQ(node->state(), direction().reached);
    EXPECT_TRUE(succeeded(reply));
    EXPECT_TRUE(loggedOnce(log,
                           "Failed to " + std::string(direction().actionName) + " resource " + str(node->name())
                               + ", error: no power",
                           log4cplus::FATAL_LOG_LEVEL, direction().actionContinuation, direction().actionFailedLine));
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
    ASSERT_TRUE(finishes(enabled->setModuleAction(kModule, VelaPowerModuleActions::hold)));

    expectDisableLeavesTheNodeAsItIs(initial, VelaPowerNodeStates::initial);
    expectDisableLeavesTheNodeAsItIs(enabling, VelaPowerNodeStates::enabling);
    expectDisableLeavesTheNodeAsItIs(enabled, VelaPowerNodeStates::enabled);
}

TEST_F(TransitionTable, DisableOfLockedNodeKeepsEachStateAndReturnsNewFinishedReply)
{
    TestResource* holder = makeResource();
    TestResource* enabling = makeResource(Answer::Never, Answer::Never);
    enabling->nodeLock(holder);
    TestResource* enabled = makeResource(Answer::AtOnce, Answer::Never);
    ASSERT_TRUE(finishes(enabled->nodeLock(holder)));

    for (TestResource* node : {enabling, enabled}) {
        expectDisableLeavesTheNodeAsItIs(node, node == enabling ? VelaPowerNodeStates::enabling
                                                                : VelaPowerNodeStates::enabled);
        EXPECT_EQ(node->lockedBy(), QSet<PowerNode*>{holder});
    }
}

TEST_F(TransitionTable, DisableActionFinishingEntersDisabledAndReplyWaitsForTheUnlocks)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* dependency = makeResource(Answer::AtOnce, Answer::Never);
    node->requiresNode(dependency);
    ASSERT_TRUE(finishes(node->enable()));
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
    ASSERT_TRUE(finishes(reply));
    EXPECT_TRUE(dependencyReply.isFinished());
    EXPECT_TRUE(succeeded(reply));
    EXPECT_EQ(dependency->state(), VelaPowerNodeStates::disabled);
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
    ASSERT_TRUE(finishes(reply));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_TRUE(node->isEnabled());
}

TEST_F(StateMachine, EnableTwiceReturnsTheSameReplyAndRunsTheActionOnce)
{
    TestResource* node = makeResource(Answer::Later, Answer::Later);

    const CMReply<void> first = node->enable();
    const CMReply<void> second = node->enable();

    EXPECT_EQ(first, second);
    ASSERT_TRUE(finishes(first));
    EXPECT_EQ(writesTo(enablePath(node)), 1);
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
}

TEST_F(StateMachine, EnableOfEnabledNodeReturnsFinishedReplyAndLogsAlreadyEnabled)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> done = node->enable();
    ASSERT_TRUE(finishes(done));
    LogCapture log;

    const CMReply<void> again = node->enable();

    EXPECT_EQ(again, done);
    EXPECT_TRUE(again.isFinished());
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL,
                        leaveLine(kEnableSignature, "powerNode: " + str(node->name())
                                                        + " already enabled or enable was already requested...")),
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
    ASSERT_TRUE(finishes(reply));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(succeeded(reply));
}

TEST_P(StateMachineClaim, DisableOfNodeStillClaimedByAModuleRunsNoActionAndKeepsState)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    ASSERT_TRUE(finishes(node->setModuleAction(kModule, GetParam())));
    ASSERT_EQ(node->state(), VelaPowerNodeStates::enabled);

    const CMReply<void> reply = node->disable();

    EXPECT_TRUE(succeeded(reply));
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
    ASSERT_TRUE(finishes(secondLock));
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
    ASSERT_TRUE(finishes(secondUnlock));
    EXPECT_EQ(shared->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(shared->lockedBy().isEmpty());
    EXPECT_EQ(writesTo(disablePath(shared)), 1);
}

TEST_F(StateMachine, LastUnlockLeavesAModuleClaimedNodeEnabledWithoutHolders)
{
    TestResource* holder = makeResource();
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    ASSERT_TRUE(finishes(node->nodeLock(holder)));
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
    ASSERT_TRUE(finishes(node->nodeLock(holder)));

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

    const CMReply<void> first = node->nodeLock(holder);
    const CMReply<void> locked = node->nodeLock(holder);
    ASSERT_TRUE(finishes(locked));
    EXPECT_EQ(locked, first);
    EXPECT_EQ(node->lockedBy(), QSet<PowerNode*>{holder});
    EXPECT_EQ(writesTo(enablePath(node)), 1);

    // One unlock from it is enough to let the node go.
    const CMReply<void> unlocked = node->nodeUnlock(holder);
    ASSERT_TRUE(finishes(unlocked));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(node->lockedBy().isEmpty());
    EXPECT_EQ(writesTo(disablePath(node)), 1);
}

TEST_F(StateMachine, ReleaseWhileAnotherModuleClaimsReturnsFinishedReplyAndKeepsNodeEnabled)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    node->setModuleAction(kModule, VelaPowerModuleActions::use);
    const CMReply<void> on = node->setModuleAction(kOtherModule, VelaPowerModuleActions::hold);
    ASSERT_TRUE(finishes(on));

    const CMReply<void> released = node->setModuleAction(kModule, VelaPowerModuleActions::release);

    EXPECT_TRUE(succeeded(released));
    EXPECT_NE(released, on);
    drainEvents();
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(disablePath(node)), 0);
    const QHash<QString, VelaPowerModuleActions::Enum> expected{{kModule, VelaPowerModuleActions::release},
                                                               {kOtherModule, VelaPowerModuleActions::hold}};
    EXPECT_EQ(node->moduleActions(), expected);
}

TEST_P(StateMachineClaim, ClaimEnablesTheNodeEvenWhenTheModuleAlreadyHeldIt)
{
    const VelaPowerModuleActions::Enum claim = GetParam();
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    node->addModule(kModule, claim);
    ASSERT_EQ(node->state(), VelaPowerNodeStates::initial);

    const CMReply<void> on = node->setModuleAction(kModule, claim);
    ASSERT_TRUE(finishes(on));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(enablePath(node)), 1);
    EXPECT_EQ(node->moduleAction(kModule), claim);

    // Repeated on an enabled node: the finished reply of that enable.
    const CMReply<void> again = node->setModuleAction(kModule, claim);
    EXPECT_EQ(again, on);
    EXPECT_TRUE(again.isFinished());
    EXPECT_EQ(writesTo(enablePath(node)), 1);
}

TEST_F(StateMachine, HoldUseAndReleaseFromSeveralModules)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const QString third = QStringLiteral("camera-service");

    const CMReply<void> held = node->setModuleAction(kModule, VelaPowerModuleActions::hold);
    ASSERT_TRUE(finishes(held));
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
    ASSERT_TRUE(finishes(lastRelease));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(writesTo(disablePath(node)), 1);
    EXPECT_EQ(lastRelease, node->disableReply());
    const QHash<QString, VelaPowerModuleActions::Enum> expected{{kModule, VelaPowerModuleActions::release},
                                                               {kOtherModule, VelaPowerModuleActions::release},
                                                               {third, VelaPowerModuleActions::release}};
    EXPECT_EQ(node->moduleActions(), expected);
    EXPECT_EQ(node->moduleAction(kModule), VelaPowerModuleActions::release);

    // Claimed again with hold: on again.
    ASSERT_TRUE(finishes(node->setModuleAction(third, VelaPowerModuleActions::hold)));
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(enablePath(node)), 2);
}

TEST_F(StateMachine, ReleaseOfAnUnclaimedNewNodeDisablesIt)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);

    ASSERT_TRUE(finishes(node->setModuleAction(kModule, VelaPowerModuleActions::release)));

    EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(writesTo(disablePath(node)), 1);
}

TEST_F(StateMachine, FailedEnableActionStillLeavesTheNodeEnabled)
{
    TestResource* node = makeResource(Answer::WithError, Answer::AtOnce);
    LogCapture log;

    const CMReply<void> reply = node->enable();

    ASSERT_TRUE(finishes(reply));
    EXPECT_TRUE(succeeded(reply));
    EXPECT_EQ(reply, node->enableReply());
    EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL,
                        "Failed to enable resource " + str(node->name()) + ", error: refused"),
              1)
        << log.dump();
}

// A time-out is an action failure like any other: logged, then the end
// state is reached and the node's reply succeeds.
TEST_P(StateMachineBothWays, TimedOutActionStillReachesTheEndState)
{
    TestResource* node = makeDirected(Answer::Never, Answer::AtOnce, 10);
    LogCapture log;

    const CMReply<void> reply = request(node);

    ASSERT_TRUE(finishes(reply));
    EXPECT_TRUE(succeeded(reply));
    EXPECT_EQ(reply, keptReply(node));
    EXPECT_EQ(node->state(), direction().reached);
    const std::string action = direction().actionName;
    const std::string timeout = str(CMVoidReply::ErrorTimeout());
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL,
                        str(node->name()) + " failed to " + action + " Message: " + timeout),
              1)
        << log.dump();
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL,
                        "Failed to " + action + " resource " + str(node->name()) + ", error: " + timeout),
              1)
        << log.dump();
}

TEST_F(StateMachine, IsEnabledIsTrueOnlyWhenEnabledAndItsTraceSaysSo)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const std::string prefix = "Enter " + dbglog_scopedFunction("bool PowerNode::isEnabled() const", "PowerManager")
                               + ": " + str(node->name());
    LogCapture log;

    auto check = [&](VelaPowerNodeStates::Enum state, bool expected) {
        SCOPED_TRACE(str(VelaPowerNodeStates::toString(state)));
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
    ASSERT_TRUE(finishes(on));
    check(VelaPowerNodeStates::enabled, true);
    const CMReply<void> off = node->disable();
    check(VelaPowerNodeStates::disabling, false);
    ASSERT_TRUE(answerPending(disablePath(node)));
    ASSERT_TRUE(finishes(off));
    check(VelaPowerNodeStates::disabled, false);
}

TEST_F(StateMachine, TargetSwitchesAtOnceWithoutWrites)
{
    PowerTarget* target = makeTarget();

    // Nothing to lock and an action that is done at once: both transitions
    // have finished when the call returns.
    EXPECT_TRUE(succeeded(target->enable()));
    EXPECT_EQ(target->state(), VelaPowerNodeStates::enabled);

    EXPECT_TRUE(succeeded(target->disable()));
    EXPECT_EQ(target->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(m_writes.empty());
}
