// What the switching writes to the "PowerManager" log: texts, levels, the
// source file and the function signatures of each record.

#include "switchingfixture.h"

using namespace switching;

namespace {

using SwitchingLog = SwitchingTest;
using SwitchingLogBothWays = EachDirection;

// The messages of all captured events, in order.
std::vector<std::string> messagesOf(const LogCapture& log)
{
    std::vector<std::string> messages;
    for (const CapturedEvent& event : log.events())
        messages.push_back(event.message);
    return messages;
}

std::string entersLine(const std::string& name, const Direction& direction)
{
    return "Node: " + name + " enters state: " + str(VelaPowerNodeStates::toString(direction.reached));
}

// A module's wish switched the node `name` in `direction`: the update, the
// action's result and the new state, in this order and nothing else.
void expectSwitchRecords(const LogCapture& log, const std::string& name, const std::string& module,
                         const std::string& actionText, const Direction& direction)
{
    const std::string updated = "Node: " + name + " updated by: " + module + " with action type: " + actionText;
    const std::string isNow = name + " is now " + direction.actionName;
    const std::string enters = entersLine(name, direction);
    EXPECT_TRUE(loggedOnce(log, updated, log4cplus::DEBUG_LOG_LEVEL, kSetModuleActionSignature,
                           documentedLine::moduleActionUpdated));
    EXPECT_TRUE(loggedOnce(log, isNow, log4cplus::DEBUG_LOG_LEVEL, kActionContinuation, documentedLine::actionSucceeded));
    EXPECT_TRUE(loggedOnce(log, enters, log4cplus::DEBUG_LOG_LEVEL, direction.actionContinuation, direction.stateLine));
    EXPECT_EQ(messagesOf(log), (std::vector<std::string>{updated, isNow, enters}));
}

// The action of `name` in `direction` failed with `message`: the resource's
// ERROR, the node's FATAL and the new state, in this order and nothing else.
void expectFailureRecords(const LogCapture& log, const std::string& name, const std::string& message,
                          const Direction& direction)
{
    const std::string action = direction.actionName;
    const std::string failed = name + " failed to " + action + " Message: " + message;
    const std::string fatal = "Failed to " + action + " resource " + name + ", error: " + message;
    const std::string enters = entersLine(name, direction);
    EXPECT_TRUE(loggedOnce(log, failed, log4cplus::ERROR_LOG_LEVEL, kActionContinuation, documentedLine::actionFailed));
    EXPECT_TRUE(loggedOnce(log, fatal, log4cplus::FATAL_LOG_LEVEL, direction.actionContinuation,
                           direction.actionFailedLine));
    EXPECT_TRUE(loggedOnce(log, enters, log4cplus::DEBUG_LOG_LEVEL, direction.actionContinuation, direction.stateLine));
    EXPECT_EQ(messagesOf(log), (std::vector<std::string>{failed, fatal, enters}));
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Both, SwitchingLogBothWays, ::testing::Values(kEnabling, kDisabling), directionName);

TEST_F(SwitchingLog, ClaimLogsUpdateActionResultAndStateInThatOrder)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    LogCapture log;

    ASSERT_TRUE(finishes(node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::use)));

    expectSwitchRecords(log, str(node->name()), "display-service", "use", kEnabling);
}

TEST_F(SwitchingLog, ReleaseLogsUpdateActionResultAndState)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    ASSERT_TRUE(finishes(node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::hold)));
    LogCapture log;

    ASSERT_TRUE(finishes(node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::release)));

    expectSwitchRecords(log, str(node->name()), "display-service", "release", kDisabling);
}

TEST_F(SwitchingLog, HoldActionIsNamedInTheUpdateLine)
{
    TestResource* node = makeResource(Answer::NoRequest, Answer::NoRequest);
    LogCapture log;

    node->setModuleAction(QStringLiteral("camera-service"), VelaPowerModuleActions::hold);

    EXPECT_TRUE(loggedOnce(log, "Node: " + str(node->name()) + " updated by: camera-service with action type: hold",
                           log4cplus::DEBUG_LOG_LEVEL, kSetModuleActionSignature, documentedLine::moduleActionUpdated));
}

// "already enabled or enable was already requested..." and its disable
// counterpart: one line for the running and for the finished transition.
TEST_P(SwitchingLogBothWays, AlreadyDoneAndAlreadyRequestedShareOneTraceLine)
{
    TestResource* node = makeDirected(Answer::Never, Answer::Never);
    request(node);
    LogCapture log;

    request(node); // running
    EXPECT_TRUE(loggedOnce(log, alreadyLine(node), log4cplus::TRACE_LOG_LEVEL, direction().signature,
                           direction().alreadyLine));

    ASSERT_TRUE(answerPending(ownPath(node)));
    ASSERT_TRUE(waitUntil([&] { return node->state() == direction().reached; }));
    log.clear();
    request(node); // done
    EXPECT_TRUE(loggedOnce(log, alreadyLine(node), log4cplus::TRACE_LOG_LEVEL, direction().signature,
                           direction().alreadyLine));
}

TEST_F(SwitchingLog, TraceLinesAreSkippedWhenTraceIsOff)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    ASSERT_TRUE(finishes(node->enable()));
    LogCapture log(log4cplus::DEBUG_LOG_LEVEL);

    node->enable();
    node->isEnabled();

    EXPECT_TRUE(log.events().empty()) << log.dump();
}

TEST_F(SwitchingLog, TimedOutEnableLogsErrorThenFatal)
{
    TestResource* node = makeResource(Answer::Never, Answer::AtOnce, 0);
    LogCapture log;

    ASSERT_TRUE(finishes(node->enable()));

    expectFailureRecords(log, str(node->name()), str(CMVoidReply::ErrorTimeout()), kEnabling);
}

TEST_F(SwitchingLog, FailedDisableLogsErrorThenFatal)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::WithError);
    LogCapture log;

    ASSERT_TRUE(finishes(node->disable()));

    expectFailureRecords(log, str(node->name()), "refused", kDisabling);
}

TEST_F(SwitchingLog, TargetLockFailureIsLoggedInTheLockContinuation)
{
    // A target whose dependency's enable reply was finished with an error by
    // its holder: the lock failure names the target.
    PowerTarget* target = makeTarget();
    TestResource* resource = makeResource(Answer::Never, Answer::AtOnce);
    target->enables(resource);
    resource->enable().setError(CMError(TrString(QStringLiteral("gone"))));
    LogCapture log;

    ASSERT_TRUE(finishes(target->enable()));

    EXPECT_TRUE(loggedOnce(log, "Failed to lock dependencies for " + str(target->name()) + ", error: gone",
                           log4cplus::FATAL_LOG_LEVEL, kLockContinuation, documentedLine::lockFailed));
    EXPECT_TRUE(loggedOnce(log, "Node: " + str(target->name()) + " enters state: enabled",
                           log4cplus::DEBUG_LOG_LEVEL, kEnableActionContinuation, documentedLine::enabledState));
}
