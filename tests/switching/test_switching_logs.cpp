// What the switching writes to the "PowerManager" log: texts, levels, the
// source file and the function signatures of each record.

#include "switchingfixture.h"

using namespace switching;

namespace {

using SwitchingLog = SwitchingTest;

const char* const kEnableSignature = "CMReply<void> PowerNode::enable()";
const char* const kDisableSignature = "CMReply<void> PowerNode::disable()";
const char* const kSetModuleActionSignature =
    "CMReply<void> PowerNode::setModuleAction(const QString&, const VelaPowerModuleActions::Enum&)";
const char* const kLockContinuation = "PowerNode::enable()::<lambda(const CMReply<QList<CMVoidReply> >&)> mutable";
const char* const kEnableActionContinuation =
    "PowerNode::enable()::<lambda(const CMReply<QList<CMVoidReply> >&)> mutable::<lambda(const CMReply<void>&)> mutable";
const char* const kDisableActionContinuation = "PowerNode::disable()::<lambda(const CMReply<void>&)> mutable";
const char* const kUnlockContinuation =
    "PowerNode::disable()::<lambda(const CMReply<void>&)> mutable::<lambda(const CMReply<QList<CMVoidReply> >&)> mutable";
const char* const kActionContinuation =
    "PowerResource::executeAction(const QString&, const CMSetDataRequest&)::<lambda(const CMReply<QVariant>&)> mutable";

// The single event with this message, checked for level, file and function.
::testing::AssertionResult logged(const LogCapture& log, const std::string& message, log4cplus::LogLevel level,
                                  const std::string& function)
{
    const auto lines = log.withMessage(message);
    if (lines.size() != 1)
        return ::testing::AssertionFailure() << lines.size() << " events \"" << message << "\" in\n" << log.dump();
    if (lines[0].level != level)
        return ::testing::AssertionFailure() << "level " << lines[0].level << " of \"" << message << "\"";
    if (lines[0].file != nodeSource())
        return ::testing::AssertionFailure() << "file " << lines[0].file << " of \"" << message << "\"";
    if (lines[0].function != function)
        return ::testing::AssertionFailure() << "function " << lines[0].function << " of \"" << message << "\"";
    if (lines[0].line <= 0)
        return ::testing::AssertionFailure() << "line " << lines[0].line << " of \"" << message << "\"";
    return ::testing::AssertionSuccess();
}

} // namespace

TEST_F(SwitchingLog, ClaimLogsUpdateActionResultAndStateInThatOrder)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const std::string name = str(node->name());
    LogCapture log;

    const CMReply<void> on = node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::use);
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));

    const std::string updated = "Node: " + name + " updated by: display-service with action type: use";
    const std::string isNow = name + " is now enable";
    const std::string enters = "Node: " + name + " enters state: enabled";
    EXPECT_TRUE(logged(log, updated, log4cplus::DEBUG_LOG_LEVEL, kSetModuleActionSignature));
    EXPECT_TRUE(logged(log, isNow, log4cplus::DEBUG_LOG_LEVEL, kActionContinuation));
    EXPECT_TRUE(logged(log, enters, log4cplus::DEBUG_LOG_LEVEL, kEnableActionContinuation));
    std::vector<std::string> messages;
    for (const CapturedEvent& event : log.events())
        messages.push_back(event.message);
    EXPECT_EQ(messages, (std::vector<std::string>{updated, isNow, enters}));
}

TEST_F(SwitchingLog, ReleaseLogsUpdateActionResultAndState)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const std::string name = str(node->name());
    const CMReply<void> on = node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::hold);
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    LogCapture log;

    const CMReply<void> off = node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::release);
    ASSERT_TRUE(waitUntil([&] { return off.isFinished(); }));

    const std::string updated = "Node: " + name + " updated by: display-service with action type: release";
    const std::string isNow = name + " is now disable";
    const std::string enters = "Node: " + name + " enters state: disabled";
    EXPECT_TRUE(logged(log, updated, log4cplus::DEBUG_LOG_LEVEL, kSetModuleActionSignature));
    EXPECT_TRUE(logged(log, isNow, log4cplus::DEBUG_LOG_LEVEL, kActionContinuation));
    EXPECT_TRUE(logged(log, enters, log4cplus::DEBUG_LOG_LEVEL, kDisableActionContinuation));
    std::vector<std::string> messages;
    for (const CapturedEvent& event : log.events())
        messages.push_back(event.message);
    EXPECT_EQ(messages, (std::vector<std::string>{updated, isNow, enters}));
}

TEST_F(SwitchingLog, HoldActionIsNamedInTheUpdateLine)
{
    TestResource* node = makeResource(Answer::NoRequest, Answer::NoRequest);
    LogCapture log;

    node->setModuleAction(QStringLiteral("camera-service"), VelaPowerModuleActions::hold);

    EXPECT_TRUE(logged(log, "Node: " + str(node->name()) + " updated by: camera-service with action type: hold",
                       log4cplus::DEBUG_LOG_LEVEL, kSetModuleActionSignature));
}

TEST_F(SwitchingLog, AlreadyEnabledAndEnableAlreadyRequestedShareOneTraceLine)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const std::string line = "Leave [PowerManager] PowerNode::enable(): powerNode: " + str(node->name())
                             + " already enabled or enable was already requested...";
    node->enable();
    LogCapture log;

    node->enable(); // enabling
    EXPECT_TRUE(logged(log, line, log4cplus::TRACE_LOG_LEVEL, kEnableSignature));

    ASSERT_TRUE(answerPending(enablePath(node)));
    ASSERT_TRUE(waitUntil([&] { return node->state() == VelaPowerNodeStates::enabled; }));
    log.clear();
    node->enable(); // enabled
    EXPECT_TRUE(logged(log, line, log4cplus::TRACE_LOG_LEVEL, kEnableSignature));
}

TEST_F(SwitchingLog, AlreadyDisabledAndDisableAlreadyRequestedShareOneTraceLine)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    const std::string line = "Leave [PowerManager] PowerNode::disable(): powerNode: " + str(node->name())
                             + " already disabled or disable was already requested...";
    node->disable();
    LogCapture log;

    node->disable(); // disabling
    EXPECT_TRUE(logged(log, line, log4cplus::TRACE_LOG_LEVEL, kDisableSignature));

    ASSERT_TRUE(answerPending(disablePath(node)));
    ASSERT_TRUE(waitUntil([&] { return node->state() == VelaPowerNodeStates::disabled; }));
    log.clear();
    node->disable(); // disabled
    EXPECT_TRUE(logged(log, line, log4cplus::TRACE_LOG_LEVEL, kDisableSignature));
}

TEST_F(SwitchingLog, TraceLinesAreSkippedWhenTraceIsOff)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    const CMReply<void> on = node->enable();
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    LogCapture log(log4cplus::DEBUG_LOG_LEVEL);

    node->enable();
    node->isEnabled();

    EXPECT_TRUE(log.events().empty()) << log.dump();
}

TEST_F(SwitchingLog, TimedOutEnableLogsErrorThenFatal)
{
    TestResource* node = makeResource(Answer::Never, Answer::AtOnce, 0);
    const std::string name = str(node->name());
    const std::string timeout = str(CMVoidReply::ErrorTimeout());
    LogCapture log;

    const CMReply<void> on = node->enable();
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));

    const std::string failed = name + " failed to enable Message: " + timeout;
    const std::string fatal = "Failed to enable resource " + name + ", error: " + timeout;
    EXPECT_TRUE(logged(log, failed, log4cplus::ERROR_LOG_LEVEL, kActionContinuation));
    EXPECT_TRUE(logged(log, fatal, log4cplus::FATAL_LOG_LEVEL, kEnableActionContinuation));
    EXPECT_TRUE(logged(log, "Node: " + name + " enters state: enabled", log4cplus::DEBUG_LOG_LEVEL,
                       kEnableActionContinuation));
    const auto events = log.events();
    ASSERT_EQ(events.size(), 3u) << log.dump();
    EXPECT_EQ(events[0].message, failed);
    EXPECT_EQ(events[1].message, fatal);
}

TEST_F(SwitchingLog, FailedDisableLogsErrorThenFatal)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::WithError);
    const std::string name = str(node->name());
    LogCapture log;

    const CMReply<void> off = node->disable();
    ASSERT_TRUE(waitUntil([&] { return off.isFinished(); }));

    EXPECT_TRUE(logged(log, name + " failed to disable Message: refused", log4cplus::ERROR_LOG_LEVEL,
                       kActionContinuation));
    EXPECT_TRUE(logged(log, "Failed to disable resource " + name + ", error: refused", log4cplus::FATAL_LOG_LEVEL,
                       kDisableActionContinuation));
    EXPECT_TRUE(logged(log, "Node: " + name + " enters state: disabled", log4cplus::DEBUG_LOG_LEVEL,
                       kDisableActionContinuation));
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

    const CMReply<void> on = target->enable();
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));

    EXPECT_TRUE(logged(log, "Failed to lock dependencies for " + str(target->name()) + ", error: gone",
                       log4cplus::FATAL_LOG_LEVEL, kLockContinuation));
    EXPECT_TRUE(logged(log, "Node: " + str(target->name()) + " enters state: enabled", log4cplus::DEBUG_LOG_LEVEL,
                       kEnableActionContinuation));
}

TEST_F(SwitchingLog, FailedUnlockNamesTheDisablingNode)
{
    TestResource* top = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* bottom = makeResource(Answer::AtOnce, Answer::Never);
    top->requiresNode(bottom);
    const CMReply<void> on = top->enable();
    ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }));
    LogCapture log;

    const CMReply<void> off = top->disable();
    ASSERT_TRUE(waitUntil([&] { return bottom->state() == VelaPowerNodeStates::disabling; }));
    bottom->disableReply().setError(CMError(TrString(QStringLiteral("stuck"))));
    ASSERT_TRUE(waitUntil([&] { return off.isFinished(); }));

    EXPECT_TRUE(logged(log, "Failed to unlock all dependencies for " + str(top->name()) + ", error: stuck",
                       log4cplus::FATAL_LOG_LEVEL, kUnlockContinuation));
}
