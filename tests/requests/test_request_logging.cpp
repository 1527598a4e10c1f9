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
    PowerNodeRequest::setIdCounter(0);
    LogCapture log;

    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, QStringLiteral("m"), VelaPowerModuleActions::use, m_registrations);

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
    PowerNodeRequest::setIdCounter(40);
    LogCapture log;
    PowerNodeRequest::create(resource, QStringLiteral("x"), VelaPowerModuleActions::hold, m_registrations);
    PowerNodeRequest::create(resource, QStringLiteral("y"), VelaPowerModuleActions::release, m_registrations);
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
    PowerNodeRequest::setIdCounter(4);
    LogCapture log;

    PowerNodeRequest::create(nullptr, QStringLiteral("m"), VelaPowerModuleActions::use, m_registrations);

    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 2u) << log.dump();
    EXPECT_EQ(events[0].level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(events[0].message, "Enter [PowerManager] PowerNodeRequest::PowerNodeRequest(): id: 5 module: m action: use");
    EXPECT_EQ(events[1].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(events[1].message, "Null node pointer.");
    EXPECT_EQ(events[1].file, requestSource());
    EXPECT_EQ(events[1].function, kConstructorSignature);
}

// KNOWN DEVIATION, left failing on purpose: the constructor's entry line
// belongs at line 34 of PowerNodeRequest.cpp and the "Null node pointer."
// line at line 36; the library emits them from other lines (the records'
// line fields differ).
TEST_F(RequestLogging, ConstructorLogsEntryThenNullNodeFromTheConstructor)
{
    LogCapture log;
    PowerNodeRequest::create(nullptr, QStringLiteral("m"), VelaPowerModuleActions::use, m_registrations);
    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 2u) << log.dump();
    EXPECT_EQ(events[0].file, requestSource());
    EXPECT_EQ(events[1].file, requestSource());
    EXPECT_EQ(events[0].level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(events[1].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(events[0].function, events[1].function);
    EXPECT_EQ(events[0].function.rfind("PowerNodeRequest::PowerNodeRequest(", 0), 0u) << events[0].function;
    EXPECT_LT(events[0].line, events[1].line);
}

TEST_F(RequestLogging, ResourceRequestLogsEveryStepInOrder)
{
    PowerResource* resource = makeResource();
    registerModule(M);
    PowerNodeRequest::setIdCounter(6);
    LogCapture log;

    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, M, VelaPowerModuleActions::use, m_registrations);
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

TEST_F(RequestLogging, TargetResolutionLogsEntryAndLeaveWithoutResolvedOk)
{
    PowerTarget* target = makeTarget();
    PowerResource* r1 = makeResource();
    r1->addModule(A, VelaPowerModuleActions::use);
    target->disables(r1);
    PowerNodeRequest::setIdCounter(20);
    const PowerNodeRequestPtr request = targetRequest(target);
    LogCapture log;

    ASSERT_TRUE(request->resolve());

    const std::vector<CapturedEvent> events = log.events();
    ASSERT_GE(events.size(), 2u) << log.dump();
    EXPECT_EQ(events.front().message, "Enter [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 21");
    EXPECT_EQ(events.back().message, "Leave [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 21");
    EXPECT_EQ(events.back().level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(events.back().function, "bool PowerNodeRequest::resolve()");
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, "nodeRequest id: 21 resolved ok"), 0) << log.dump();
}

TEST_F(RequestLogging, UnreachableTargetLogsTheInfoLineThenTheLeaveLine)
{
    PowerTarget* target = makeTarget();
    PowerResource* held = makeResource();
    held->addModule(A, VelaPowerModuleActions::hold);
    target->disables(held);
    PowerNodeRequest::setIdCounter(30);
    const PowerNodeRequestPtr request = targetRequest(target);
    LogCapture log;

    ASSERT_FALSE(request->resolve());

    const int info = positionOf(log, log4cplus::INFO_LOG_LEVEL, "node unreachable: " + str(target->name()));
    const int leave = positionOf(log, log4cplus::TRACE_LOG_LEVEL,
                                 "Leave [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 31");
    EXPECT_LT(info, leave);
    const std::vector<CapturedEvent> events = log.events();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().message, "Leave [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: 31");
    const CapturedEvent* infoEvent = eventAt(events, info);
    ASSERT_NE(infoEvent, nullptr);
    EXPECT_EQ(infoEvent->file, requestSource());
    EXPECT_EQ(infoEvent->function, "bool PowerNodeRequest::resolve()");
}

TEST_F(RequestLogging, NotifyModuleLinePrintsThePathAndTheMessageWithItsRevokeList)
{
    PowerTarget* target = makeTarget();
    PowerResource* r1 = makeResource();
    r1->addModule(A, VelaPowerModuleActions::use);
    target->disables(r1);
    registerModule(A);
    PowerNodeRequest::setIdCounter(50);
    LogCapture log;

    const CMReply<void> reply = runToEnd(targetRequest(target));
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
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, A, VelaPowerModuleActions::use, m_registrations);
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
