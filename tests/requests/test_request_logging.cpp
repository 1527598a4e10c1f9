// The request's log: entry and leave lines, progress lines, their levels,
// source file and function, and their order.

#include "requestfixture.h"

namespace requests {
namespace {

using RequestLogging = RequestTest;

const QString M = QStringLiteral("M");
const QString A = QStringLiteral("A");

const char* const kConstructorSignature =
    "PowerNodeRequest::PowerNodeRequest(PowerNode*, const QString&, const VelaPowerModuleActions::Enum&, const "
    "QHash<QString, VelaPowerManagerModuleRegister>&)";

// Position of the only event with this level and message; fails the test
// when there is none or more than one.
int positionOf(const LogCapture& log, log4cplus::LogLevel level, const std::string& message)
{
    const std::vector<CapturedEvent> events = log.events();
    int found = -1;
    int matches = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (events[i].level == level && events[i].message == message) {
            found = static_cast<int>(i);
            ++matches;
        }
    }
    EXPECT_EQ(matches, 1) << "line: " << message << "\n" << log.dump();
    return found;
}

const CapturedEvent* eventAt(const std::vector<CapturedEvent>& events, int position)
{
    return position >= 0 && position < static_cast<int>(events.size()) ? &events[position] : nullptr;
}

TEST_F(RequestLogging, ConstructorLogsItsEntryLineWithIdentityModuleAndAction)
{
    PowerResource* resource = makeResource();
    PowerNodeRequestTestAccess::setIdCounter(0);
    LogCapture log;

    const PowerNodeRequestPtr request =
        requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);

    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 1u) << log.dump();
    EXPECT_EQ(events[0].level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(events[0].message, "Enter [PowerManager] PowerNodeRequest::PowerNodeRequest(): id: 1 module: m action: use");
    EXPECT_EQ(events[0].file, requestSource());
    EXPECT_EQ(events[0].function, kConstructorSignature);
}

TEST_F(RequestLogging, ConstructorNamesEveryActionByItsText)
{
    PowerResource* resource = makeResource();
    PowerNodeRequestTestAccess::setIdCounter(40);
    LogCapture log;
    requestFor(resource, QStringLiteral("x"), VelaPowerModuleActions::hold);
    requestFor(resource, QStringLiteral("y"), VelaPowerModuleActions::release);
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL,
                        "Enter [PowerManager] PowerNodeRequest::PowerNodeRequest(): id: 41 module: x action: hold"),
              1)
        << log.dump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL,
                        "Enter [PowerManager] PowerNodeRequest::PowerNodeRequest(): id: 42 module: y action: release"),
              1)
        << log.dump();
}

TEST_F(RequestLogging, NullNodeLogsTheEntryLineThenTheError)
{
    PowerNodeRequestTestAccess::setIdCounter(4);
    LogCapture log;

    requestFor(nullptr, QStringLiteral("m"), VelaPowerModuleActions::use);

    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 2u) << log.dump();
    EXPECT_EQ(events[0].level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(events[0].message, "Enter [PowerManager] PowerNodeRequest::PowerNodeRequest(): id: 5 module: m action: use");
    EXPECT_EQ(events[1].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(events[1].message, "Null node pointer.");
    EXPECT_EQ(events[1].file, requestSource());
    EXPECT_EQ(events[1].function, kConstructorSignature);
}

// The constructor's two records (entry, then "Null node pointer.") carry
// the documented lines 34 and 36, wherever the statements stand in the file.
TEST_F(RequestLogging, ConstructorRecordsCarryTheDocumentedLines)
{
    LogCapture log;
    requestFor(nullptr, QStringLiteral("m"), VelaPowerModuleActions::use);
    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 2u) << log.dump();
    EXPECT_EQ(events[0].level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(events[0].line, 34) << log.dump();
    EXPECT_EQ(events[1].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(events[1].line, 36) << log.dump();
}

TEST_F(RequestLogging, ResourceRequestLogsEveryStepInOrder)
{
    PowerResource* resource = makeResource();
    registerModule(M);
    PowerNodeRequestTestAccess::setIdCounter(6);
    LogCapture log;

    const PowerNodeRequestPtr request = requestFor(resource, M, VelaPowerModuleActions::use);
    ASSERT_EQ(request->id(), 7);
    const CMReply<void> reply = runToEnd(request);
    ASSERT_FALSE(reply.error().isError());

    const log4cplus::LogLevel trace = log4cplus::TRACE_LOG_LEVEL;
    const int constructed =
        positionOf(log, trace, "Enter [PowerManager] PowerNodeRequest::PowerNodeRequest(): id: 7 module: M action: use");
    const int processEntry = positionOf(log, trace, "Enter [PowerManager] PowerNodeRequest::process(): nodeRequest id: 7");
    const int resolveEntry = positionOf(log, trace, "Enter [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 7");
    const int resolved = positionOf(log, trace, "nodeRequest id: 7 resolved ok");
    const int notifyEntry = positionOf(log, trace, "Enter [PowerManager] PowerNodeRequest::notify(): nodeRequest id: 7");
    const int preModule = positionOf(log, trace,
                                     "Enter [PowerManager] PowerNodeRequest::notifyModule(): path: /modules/M/revoke "
                                     "message: {messageType: 0, moduleName: M}");
    const int notifyLeave = positionOf(log, trace, "Leave [PowerManager] PowerNodeRequest::notify(): nodeRequest id: 7");
    const int preFinished = positionOf(log, trace, "nodeRequest id: 7 all pre notifications finished");
    const int executeEntry = positionOf(log, trace, "Enter [PowerManager] PowerNodeRequest::execute(): nodeRequest id: 7");
    const int executeLeave = positionOf(log, trace, "Leave [PowerManager] PowerNodeRequest::execute(): nodeRequest id: 7");
    const int actionsFinished = positionOf(log, trace, "nodeRequest id: 7 all actions finished");
    const int postModule = positionOf(log, trace,
                                      "Enter [PowerManager] PowerNodeRequest::notifyModule(): path: /modules/M/postRevoke "
                                      "message: {messageType: 1, moduleName: M}");

    EXPECT_LT(constructed, processEntry);
    EXPECT_LT(processEntry, resolveEntry);
    EXPECT_LT(resolveEntry, resolved);
    EXPECT_LT(resolved, notifyEntry);
    EXPECT_LT(notifyEntry, preModule);
    EXPECT_LT(preModule, notifyLeave);
    EXPECT_LT(notifyEntry, preFinished);
    EXPECT_LT(preFinished, executeEntry);
    EXPECT_LT(executeEntry, executeLeave);
    EXPECT_LT(executeEntry, actionsFinished);
    EXPECT_LT(actionsFinished, postModule);

    // A resource resolves without a leave line.
    EXPECT_EQ(log.count(trace, "Leave [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 7"), 0)
        << log.dump();

    const std::vector<CapturedEvent> events = log.events();
    const struct {
        int position;
        const char* function;
    } entries[] = {{processEntry, "CMReply<void> PowerNodeRequest::process()"},
                   {resolveEntry, "bool PowerNodeRequest::resolve()"},
                   {resolved, "bool PowerNodeRequest::resolve()"},
                   {notifyEntry, "CMReply<void> PowerNodeRequest::notify()"},
                   {notifyLeave, "CMReply<void> PowerNodeRequest::notify()"},
                   {preModule, "CMReply<QVariant> PowerNodeRequest::notifyModule(const CMPath&, const "
                               "VelaPowerManagerRevokeMessage&)"},
                   {executeEntry, "CMReply<void> PowerNodeRequest::execute()"},
                   {executeLeave, "CMReply<void> PowerNodeRequest::execute()"}};
    for (const auto& entry : entries) {
        const CapturedEvent* event = eventAt(events, entry.position);
        ASSERT_NE(event, nullptr) << entry.function;
        EXPECT_EQ(event->function, entry.function);
        EXPECT_EQ(event->file, requestSource());
    }
    // The progress lines of the continuations carry the enclosing function
    // with the lambda's signature.
    const CapturedEvent* pre = eventAt(events, preFinished);
    const CapturedEvent* actions = eventAt(events, actionsFinished);
    ASSERT_NE(pre, nullptr);
    ASSERT_NE(actions, nullptr);
    const std::string joined = "::<lambda(const CMReply<QList<CMVoidReply> >&)>";
    EXPECT_EQ(pre->function.rfind("PowerNodeRequest::notify()" + joined, 0), 0u) << pre->function;
    EXPECT_EQ(actions->function.rfind("PowerNodeRequest::execute()" + joined, 0), 0u) << actions->function;
    EXPECT_EQ(pre->file, requestSource());
    EXPECT_EQ(actions->file, requestSource());
}

// A target's resolution ends with its leave line and never says "resolved
// ok"; an unreachable one says so at INFO just before leaving.
class TargetResolutionLog : public RequestTest, public ::testing::WithParamInterface<bool>
{
};

TEST_P(TargetResolutionLog, LogsEntryAndLeaveWithoutResolvedOkAndTheInfoLineOnlyWhenUnreachable)
{
    const bool reachable = GetParam();
    const DisablingTarget graph = makeTargetDisabling(
        {{A, reachable ? VelaPowerModuleActions::use : VelaPowerModuleActions::hold}});
    PowerNodeRequestTestAccess::setIdCounter(20);
    const PowerNodeRequestPtr request = targetRequest(graph.target);
    LogCapture log;

    ASSERT_EQ(request->resolve(), reachable);

    const std::string leaveLine = "Leave [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 21";
    const std::vector<CapturedEvent> events = log.events();
    ASSERT_GE(events.size(), 2u) << log.dump();
    EXPECT_EQ(events.front().message, "Enter [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 21");
    EXPECT_EQ(events.back().message, leaveLine);
    EXPECT_EQ(events.back().level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(events.back().function, "bool PowerNodeRequest::resolve()");
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, "nodeRequest id: 21 resolved ok"), 0) << log.dump();

    const std::string infoLine = "node unreachable: " + str(graph.target->name());
    if (reachable) {
        EXPECT_EQ(log.withMessage(infoLine).size(), 0u) << log.dump();
        return;
    }
    const int info = positionOf(log, log4cplus::INFO_LOG_LEVEL, infoLine);
    const int leave = positionOf(log, log4cplus::TRACE_LOG_LEVEL, leaveLine);
    EXPECT_LT(info, leave);
    const CapturedEvent* infoEvent = eventAt(events, info);
    ASSERT_NE(infoEvent, nullptr);
    EXPECT_EQ(infoEvent->file, requestSource());
    EXPECT_EQ(infoEvent->function, "bool PowerNodeRequest::resolve()");
}

INSTANTIATE_TEST_SUITE_P(ReachableOrNot, TargetResolutionLog, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "Reachable" : "Unreachable");
                         });

TEST_F(RequestLogging, NotifyModuleLinePrintsThePathAndTheMessageWithItsRevokeList)
{
    const DisablingTarget graph = makeTargetDisabling({{A, VelaPowerModuleActions::use}});
    PowerResource* r1 = graph.resources[0];
    registerModule(A);
    PowerNodeRequestTestAccess::setIdCounter(50);
    LogCapture log;

    const CMReply<void> reply = runToEnd(targetRequest(graph.target));
    ASSERT_FALSE(reply.error().isError());

    const std::string value = std::to_string(static_cast<int>(r1->resource()));
    const int pre = positionOf(log, log4cplus::TRACE_LOG_LEVEL,
                               "Enter [PowerManager] PowerNodeRequest::notifyModule(): path: /modules/A/revoke "
                               "message: {messageType: 0, moduleName: A, revokeResources: ["
                                   + value + "]}");
    const int post = positionOf(log, log4cplus::TRACE_LOG_LEVEL,
                                "Enter [PowerManager] PowerNodeRequest::notifyModule(): path: /modules/A/postRevoke "
                                "message: {messageType: 1, moduleName: A, revokeResources: ["
                                    + value + "]}");
    EXPECT_LT(pre, post);
    const int leaveResolve =
        positionOf(log, log4cplus::TRACE_LOG_LEVEL, "Leave [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 51");
    EXPECT_LT(leaveResolve, pre);
}

TEST_F(RequestLogging, NotifyModuleLogsEvenWhenNothingIsSent)
{
    PowerResource* resource = makeResource();
    const PowerNodeRequestPtr request = requestFor(resource, A, VelaPowerModuleActions::use);
    LogCapture log;

    request->notifyModule(CMPath(), VelaPowerManagerRevokeMessage(
                                        revokeMessage(A, VelaPowerManagerMessageTypes::revoke, {resource})));

    const std::string value = std::to_string(static_cast<int>(resource->resource()));
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL,
                        "Enter [PowerManager] PowerNodeRequest::notifyModule(): path:  message: {messageType: 0, "
                        "moduleName: A, revokeResources: ["
                            + value + "]}"),
              1)
        << log.dump();
    EXPECT_TRUE(m_invocations.empty());
}

} // namespace
} // namespace requests
