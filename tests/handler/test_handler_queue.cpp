// The request queue: making and adding requests, running one at a time, the
// invalid heads, the finish continuation with its clean-up after target
// requests, and the resolution that answers the caller.

#include "handler_fixture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

using namespace handlertest;

namespace {

const std::string kMakeRequest =
    "PowerNodeRequestPtr PowerHandler::makeRequest(PowerNode*, const QString&, VelaPowerModuleActions::Enum)";
const std::string kAddRequest = "bool PowerHandler::addRequest(const PowerNodeRequestPtr&)";
const std::string kTryProcess = "void PowerHandler::tryProcessNextRequest()";
const std::string kProcessNext = "void PowerHandler::processNextRequest()";
const std::string kResolve = "void PowerHandler::resolveNodeRequest(int64_t, const CMError&)";
const std::string kFinishLambda = "PowerHandler::processNextRequest()::<lambda(const CMReply<void>&)>";

std::string processLine(int64_t id)
{
    return enterLine("CMReply<void> PowerNodeRequest::process()", "nodeRequest id: " + std::to_string(id));
}

std::string resolveLine(int64_t id, bool success)
{
    return enterLine(kResolve, "id: " + std::to_string(id) + " success: " + (success ? "1" : "0"));
}

std::string processNextLine(int queued)
{
    return enterLine(kProcessNext, "requests: " + std::to_string(queued));
}

// Position of the first event with this message at or after `from`; -1 if none.
int position(const std::vector<CapturedEvent>& events, const std::string& message, int from = 0)
{
    for (int i = std::max(from, 0); i < static_cast<int>(events.size()); ++i) {
        if (events[static_cast<size_t>(i)].message == message)
            return i;
    }
    return -1;
}

// The identities of the requests made while `log` listened, in order.
std::vector<int64_t> createdIds(const LogCapture& log)
{
    const std::string prefix = "Enter " +
                               dbglog_scopedFunction("PowerNodeRequest::PowerNodeRequest(PowerNode*, const QString&, "
                                                     "const VelaPowerModuleActions::Enum&, const QHash<QString, "
                                                     "VelaPowerManagerModuleRegister>&)",
                                                     "PowerManager") +
                               ": id: ";
    std::vector<int64_t> ids;
    for (const CapturedEvent& event : log.events()) {
        if (event.message.compare(0, prefix.size(), prefix) == 0)
            ids.push_back(std::stoll(event.message.substr(prefix.size())));
    }
    return ids;
}

class PowerHandlerQueue : public HandlerTest
{
protected:
    void SetUp() override
    {
        addPowerManagerModule();
        addModule(QStringLiteral("media"));
    }

    // A resource request from "media"; the caller's reply is tracked under `label`.
    CMReply<QVariant> requestUse(PowerResource* resource, const std::string& label,
                                 VelaPowerModuleActions::Enum action = VelaPowerModuleActions::use)
    {
        return askResource(label, resource, QStringLiteral("media"), action);
    }

    // A request of our own from "media", queued without a caller.
    PowerNodeRequestPtr queueOwn(PowerNode* node) { return HandlerTest::queueOwn(node, QStringLiteral("media")); }
    using HandlerTest::queueOwn;
};

using PowerHandlerQueueDeathTest = PowerHandlerQueue;

} // namespace

// --- makeRequest / addRequest ---------------------------------------------------

TEST_F(PowerHandlerQueue, MakeRequestWithANullNodeIsRefusedAndLogged)
{
    LogCapture log;
    EXPECT_TRUE(handler.makeRequest(nullptr, QStringLiteral("media"), VelaPowerModuleActions::use).isNull());
    expectSingleRecord(log, log4cplus::ERROR_LOG_LEVEL, "invalid power node requested");
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, enterLine(kMakeRequest, "")), 1) << log.dump();
    EXPECT_TRUE(createdIds(log).empty());
}

TEST_F(PowerHandlerQueue, MakeRequestForAnUnregisteredModuleIsRefusedAndLogged)
{
    ProbeResource* resource = addResource();
    LogCapture log;
    EXPECT_TRUE(handler.makeRequest(resource, QStringLiteral("ghost"), VelaPowerModuleActions::use).isNull());
    expectSingleRecord(log, log4cplus::ERROR_LOG_LEVEL, "unknown power module requested: ghost");
    EXPECT_TRUE(createdIds(log).empty());
}

TEST_F(PowerHandlerQueue, MakeRequestGivesAFreshRequestForTheNodeModuleAndAction)
{
    ProbeResource* resource = addResource();
    const PowerNodeRequestPtr first = handler.makeRequest(resource, QStringLiteral("media"), VelaPowerModuleActions::hold);
    const PowerNodeRequestPtr second = handler.makeRequest(resource, QStringLiteral("media"), VelaPowerModuleActions::use);
    ASSERT_FALSE(first.isNull());
    ASSERT_FALSE(second.isNull());
    EXPECT_EQ(first->node(), resource);
    EXPECT_EQ(first->module(), QStringLiteral("media"));
    EXPECT_EQ(first->action(), VelaPowerModuleActions::hold);
    EXPECT_TRUE(first->isValid());
    EXPECT_FALSE(first->isProcessing());
    EXPECT_TRUE(first->nodes().isEmpty());
    EXPECT_EQ(second->id(), first->id() + 1);
    // Made, not queued.
    EXPECT_EQ(handler.pendingRequests(), 0);
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::initial);
}

TEST_F(PowerHandlerQueue, AddRequestRefusesNullAndInvalidRequestsAndNeverStartsOne)
{
    ProbeResource* resource = addResource();
    LogCapture log;
    EXPECT_FALSE(handler.addRequest(PowerNodeRequestPtr()));
    const PowerNodeRequestPtr invalid = handler.makeRequest(resource, QStringLiteral("media"), VelaPowerModuleActions::use);
    invalidate(invalid);
    EXPECT_FALSE(handler.addRequest(invalid));
    // A request made without a node is born failed.
    EXPECT_FALSE(handler.addRequest(PowerNodeRequest::create(nullptr, QStringLiteral("media"),
                                                             VelaPowerModuleActions::use, {})));
    EXPECT_EQ(handler.pendingRequests(), 0);
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, enterLine(kAddRequest, "")), 3) << log.dump();

    const PowerNodeRequestPtr valid = handler.makeRequest(resource, QStringLiteral("media"), VelaPowerModuleActions::use);
    const PowerNodeRequestPtr behind = handler.makeRequest(resource, QStringLiteral("media"), VelaPowerModuleActions::hold);
    EXPECT_TRUE(handler.addRequest(valid));
    EXPECT_TRUE(handler.addRequest(behind));
    EXPECT_EQ(handler.pendingRequests(), 2);
    EXPECT_FALSE(valid->isProcessing());
    EXPECT_EQ(position(log.events(), processNextLine(1)), -1);
    EXPECT_EQ(position(log.events(), processNextLine(2)), -1);
    // Refusals are reported by the caller of addRequest, not here (the
    // request born without a node reports its own birth).
    for (const CapturedEvent& event : log.events()) {
        if (event.level >= log4cplus::WARN_LOG_LEVEL) {
            EXPECT_NE(event.file, handlerSource()) << event.message;
        }
    }

    // First in, first out.
    handler.tryProcessNextRequest();
    ASSERT_TRUE(waitUntil([&] { return handler.pendingRequests() == 0; }));
    const auto events = log.events();
    const int firstProcessed = position(events, processLine(valid->id()));
    const int secondProcessed = position(events, processLine(behind->id()));
    ASSERT_NE(firstProcessed, -1) << log.dump();
    EXPECT_LT(firstProcessed, secondProcessed) << log.dump();
    EXPECT_EQ(resource->moduleAction(QStringLiteral("media")), VelaPowerModuleActions::hold);
}

// --- tryProcessNextRequest ---------------------------------------------------------

TEST_F(PowerHandlerQueue, TryProcessNextRequestOnAnEmptyQueueDoesNothing)
{
    LogCapture log;
    handler.tryProcessNextRequest();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, enterLine(kTryProcess, "")), 1) << log.dump();
    EXPECT_EQ(position(log.events(), processNextLine(0)), -1) << log.dump();
    EXPECT_EQ(handler.pendingRequests(), 0);
}

TEST_F(PowerHandlerQueue, TryProcessNextRequestWhileTheHeadRunsDoesNothing)
{
    ProbeResource* slow = addResource(Answer::Held);
    ProbeResource* other = addResource();
    CMReply<QVariant> running = requestUse(slow, "running");
    const PowerNodeRequestPtr waiting = queueOwn(other);
    ASSERT_EQ(handler.pendingRequests(), 2);

    LogCapture log;
    handler.tryProcessNextRequest();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, enterLine(kTryProcess, "")), 1) << log.dump();
    EXPECT_EQ(position(log.events(), processNextLine(2)), -1) << log.dump();
    EXPECT_FALSE(waiting->isProcessing());
    EXPECT_EQ(other->state(), VelaPowerNodeStates::initial);
    EXPECT_FALSE(running.isFinished());
    EXPECT_EQ(handler.pendingRequests(), 2);

    ASSERT_TRUE(answerHeld(onPath(slow)));
    ASSERT_TRUE(waitUntil([&] { return handler.pendingRequests() == 0; }));
    EXPECT_TRUE(waiting->isProcessing());
    EXPECT_EQ(other->state(), VelaPowerNodeStates::enabled);
}

// --- One at a time -----------------------------------------------------------------

TEST_F(PowerHandlerQueue, SecondResourceRequestWaitsAndTheFirstCallerIsAnsweredBeforeItsProcessStarts)
{
    ProbeResource* first = addResource(Answer::Held);
    ProbeResource* second = addResource();
    LogCapture log;
    CMReply<QVariant> firstReply = requestUse(first, "first");
    CMReply<QVariant> secondReply = requestUse(second, "second");
    const std::vector<int64_t> ids = createdIds(log);
    ASSERT_EQ(ids.size(), 2u);

    EXPECT_EQ(handler.pendingRequests(), 2);
    EXPECT_EQ(second->state(), VelaPowerNodeStates::initial);
    EXPECT_EQ(position(log.events(), processLine(ids[1])), -1) << "the second request started too early";
    EXPECT_EQ(indexOf(writeOn(second)), -1);

    ASSERT_TRUE(answerHeld(onPath(first)));
    ASSERT_TRUE(waitUntil([&] { return secondReply.isFinished(); }));

    const auto events = log.events();
    const int firstResolved = position(events, resolveLine(ids[0], true));
    const int secondProcessed = position(events, processLine(ids[1]));
    ASSERT_NE(firstResolved, -1) << log.dump();
    ASSERT_NE(secondProcessed, -1) << log.dump();
    EXPECT_LT(firstResolved, secondProcessed) << log.dump();
    // In the event log the first answer precedes the second request's write.
    EXPECT_LT(indexOf("answer first ok"), indexOf(writeOn(second))) << eventDump();
    EXPECT_LT(indexOf(writeOn(second)), indexOf("answer second ok")) << eventDump();
}

// --- Invalid heads ---------------------------------------------------------------------

TEST_F(PowerHandlerQueue, RequestTurnedInvalidWhileQueuedIsDroppedWithoutProcessAndTheNextStarts)
{
    ProbeResource* slow = addResource(Answer::Held);
    ProbeResource* skipped = addResource();
    ProbeResource* next = addResource();
    CMReply<QVariant> running = requestUse(slow, "running");
    const PowerNodeRequestPtr invalid = queueOwn(skipped);
    const PowerNodeRequestPtr behind = queueOwn(next);
    invalidate(invalid);

    LogCapture log;
    ASSERT_TRUE(answerHeld(onPath(slow)));
    ASSERT_TRUE(waitUntil([&] { return handler.pendingRequests() == 0; }));

    EXPECT_FALSE(invalid->isProcessing());
    EXPECT_TRUE(invalid->nodes().isEmpty()) << "the invalid request was resolved";
    EXPECT_EQ(skipped->state(), VelaPowerNodeStates::initial);
    EXPECT_EQ(next->state(), VelaPowerNodeStates::enabled);

    const auto events = log.events();
    EXPECT_EQ(position(events, processLine(invalid->id())), -1) << log.dump();
    const int removed = position(events, "remove invalid request id: " + std::to_string(invalid->id()));
    ASSERT_NE(removed, -1) << log.dump();
    EXPECT_EQ(events[static_cast<size_t>(removed)].level, log4cplus::INFO_LOG_LEVEL);
    EXPECT_EQ(events[static_cast<size_t>(removed)].file, handlerSource());
    EXPECT_EQ(events[static_cast<size_t>(removed)].function, kProcessNext);
    // Removed and answered, then the request behind is started at once: no
    // other request runs in between.
    const int resolved = position(events, resolveLine(invalid->id(), false), removed);
    const int nextLoop = position(events, processNextLine(1), resolved);
    const int nextProcessed = position(events, processLine(behind->id()), nextLoop);
    ASSERT_NE(resolved, -1) << log.dump();
    ASSERT_NE(nextLoop, -1) << log.dump();
    ASSERT_NE(nextProcessed, -1) << log.dump();
    for (int i = resolved + 1; i < nextLoop; ++i)
        EXPECT_EQ(events[static_cast<size_t>(i)].message.find("PowerNodeRequest::process()"), std::string::npos)
            << events[static_cast<size_t>(i)].message;
}

TEST_F(PowerHandlerQueue, CallerOfARequestTurnedInvalidIsAnsweredCannotRequestNode)
{
    ProbeResource* slow = addResource(Answer::Held);
    ProbeResource* skipped = addResource();
    CMReply<QVariant> running = requestUse(slow, "running");
    const PowerNodeRequestPtr invalid = queueOwn(skipped);
    reuseIdentityOf(invalid);
    CMReply<QVariant> answer = requestUse(skipped, "caller");
    invalidate(invalid);

    LogCapture log;
    ASSERT_TRUE(answerHeld(onPath(slow)));
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    const CMError error = answer.error();
    EXPECT_EQ(error.name(), CMError::DefaultName());
    EXPECT_EQ(error.message().toString(), QStringLiteral("Cannot request node"));
    EXPECT_EQ(error.title().toString(), CMError::DefaultTitle());
    EXPECT_EQ(error.size(), 3);
    EXPECT_EQ(log.count(log4cplus::INFO_LOG_LEVEL, "remove invalid request id: " + std::to_string(invalid->id())), 1)
        << log.dump();
    EXPECT_FALSE(invalid->isProcessing());
    ASSERT_TRUE(waitUntil([&] { return handler.pendingRequests() == 0; }));
}

TEST_F(PowerHandlerQueue, TargetRequestTurnedInvalidEmitsNoSignalAndIsAnsweredCannotRequestNode)
{
    ProbeResource* slow = addResource(Answer::Held);
    PowerTarget* target = addTarget();
    CMReply<QVariant> running = requestUse(slow, "running");
    const PowerNodeRequestPtr invalid = queueOwn(target, VelaPowerManagerName(), VelaPowerModuleActions::hold);
    reuseIdentityOf(invalid);
    CMReply<QVariant> answer = askTarget("target", target);
    invalidate(invalid);

    ASSERT_TRUE(answerHeld(onPath(slow)));
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished() && handler.pendingRequests() == 0; }));
    EXPECT_EQ(answer.error().message().toString(), QStringLiteral("Cannot request node"));
    EXPECT_EQ(countOf("nextTargetChanged " + nameOf(target)), 0) << eventDump();
    EXPECT_EQ(countOf("targetChanged " + nameOf(target)), 0) << eventDump();
}

TEST_F(PowerHandlerQueue, ThreeInvalidRequestsAndAValidOneAreAllHandledInOneProcessNextRequestCall)
{
    ProbeResource* slow = addResource(Answer::Held);
    std::vector<PowerNodeRequestPtr> invalid;
    for (int i = 0; i < 3; ++i)
        invalid.push_back(queueOwn(addResource()));
    const PowerNodeRequestPtr valid = queueOwn(slow);
    for (const PowerNodeRequestPtr& request : invalid)
        invalidate(request);
    ASSERT_EQ(handler.pendingRequests(), 4);

    LogCapture log;
    handler.processNextRequest();
    // Checked before the event loop runs again.
    EXPECT_EQ(handler.pendingRequests(), 1);
    EXPECT_TRUE(valid->isProcessing());
    EXPECT_EQ(slow->state(), VelaPowerNodeStates::enabling);

    const auto events = log.events();
    int at = 0;
    for (int i = 0; i < 3; ++i) {
        const int64_t id = invalid[static_cast<size_t>(i)]->id();
        at = position(events, processNextLine(4 - i), at);
        ASSERT_NE(at, -1) << i << "\n" << log.dump();
        at = position(events, "remove invalid request id: " + std::to_string(id), at);
        ASSERT_NE(at, -1) << i << "\n" << log.dump();
        at = position(events, resolveLine(id, false), at);
        ASSERT_NE(at, -1) << i << "\n" << log.dump();
        EXPECT_FALSE(invalid[static_cast<size_t>(i)]->isProcessing());
        EXPECT_EQ(position(events, processLine(id)), -1);
    }
    at = position(events, processNextLine(1), at);
    ASSERT_NE(at, -1) << log.dump();
    EXPECT_NE(position(events, processLine(valid->id()), at), -1) << log.dump();
}

TEST_F(PowerHandlerQueue, ThreeInvalidRequestsWithCallersAreAllAnsweredWithErrorsBeforeTheValidOneStarts)
{
    // Our own requests: the running head, three that turn invalid while
    // they wait, and a valid one whose write is held. Three callers' wishes
    // are stored under the identities of the three invalid ones.
    ProbeResource* slow = addResource(Answer::Held);
    ProbeResource* validNode = addResource(Answer::Held);
    const PowerNodeRequestPtr running = queueOwn(slow);
    handler.tryProcessNextRequest();
    ASSERT_TRUE(running->isProcessing());
    std::vector<PowerNodeRequestPtr> invalid;
    std::vector<ProbeResource*> skipped;
    for (int i = 0; i < 3; ++i) {
        skipped.push_back(addResource());
        invalid.push_back(queueOwn(skipped.back()));
    }
    const PowerNodeRequestPtr valid = queueOwn(validNode);
    reuseIdentityOf(invalid.front());
    std::vector<CMReply<QVariant>> callers;
    {
        LogCapture made;
        for (int i = 0; i < 3; ++i)
            callers.push_back(requestUse(skipped[static_cast<size_t>(i)], "invalid " + std::to_string(i)));
        ASSERT_EQ(createdIds(made), (std::vector<int64_t>{invalid[0]->id(), invalid[1]->id(), invalid[2]->id()}));
    }
    for (const PowerNodeRequestPtr& request : invalid)
        invalidate(request);
    ASSERT_EQ(handler.pendingRequests(), 8);

    ASSERT_TRUE(answerHeld(onPath(slow)));
    ASSERT_TRUE(waitUntil([&] { return heldAt(onPath(validNode)) == 1; })) << eventDump();

    EXPECT_TRUE(valid->isProcessing());
    // The valid request and the three callers' own requests behind it.
    EXPECT_EQ(handler.pendingRequests(), 4);
    const std::string refused = " error " + str(CMError::DefaultName()) + " / Cannot request node";
    for (int i = 0; i < 3; ++i) {
        const CMReply<QVariant>& reply = callers[static_cast<size_t>(i)];
        ASSERT_TRUE(reply.isFinished()) << i;
        EXPECT_EQ(reply.error().message().toString(), QStringLiteral("Cannot request node")) << i;
        const int answered = indexOf("answer invalid " + std::to_string(i) + refused);
        ASSERT_NE(answered, -1) << eventDump();
        EXPECT_LT(answered, indexOf(writeOn(validNode))) << eventDump();
        EXPECT_FALSE(invalid[static_cast<size_t>(i)]->isProcessing());
        EXPECT_EQ(countOf(writeOn(skipped[static_cast<size_t>(i)])), 0) << eventDump();
    }
    EXPECT_LT(indexOf("answer invalid 0" + refused), indexOf("answer invalid 1" + refused)) << eventDump();
    EXPECT_LT(indexOf("answer invalid 1" + refused), indexOf("answer invalid 2" + refused)) << eventDump();
}

TEST_F(PowerHandlerQueue, ProcessNextRequestOnAnEmptyQueueOnlyLogsItsEntry)
{
    LogCapture log;
    handler.processNextRequest();
    const auto events = log.events();
    ASSERT_EQ(events.size(), 1u) << log.dump();
    EXPECT_EQ(events.front().message, processNextLine(0));
    EXPECT_EQ(events.front().level, log4cplus::TRACE_LOG_LEVEL);
}

// --- Finish continuation ---------------------------------------------------------------

TEST_F(PowerHandlerQueue, FinishedRequestIsLoggedFromTheFinishContinuation)
{
    ProbeResource* resource = addResource();
    LogCapture log;
    CMReply<QVariant> answer = requestUse(resource, "use");
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    const std::vector<int64_t> ids = createdIds(log);
    ASSERT_EQ(ids.size(), 1u);

    const auto events = log.events();
    const int finished = position(events, "request id: " + std::to_string(ids[0]) + " finished");
    ASSERT_NE(finished, -1) << log.dump();
    const CapturedEvent& event = events[static_cast<size_t>(finished)];
    EXPECT_EQ(event.level, log4cplus::INFO_LOG_LEVEL);
    EXPECT_EQ(event.file, handlerSource());
    EXPECT_EQ(event.function, kFinishLambda);
    // After the request's own work, before its resolution.
    EXPECT_LT(position(events, "nodeRequest id: " + std::to_string(ids[0]) + " all actions finished"), finished);
    EXPECT_GT(position(events, resolveLine(ids[0], true)), finished);
}

TEST_F(PowerHandlerQueue, AfterATargetRequestEveryResourceStillInitialIsDisabledOnce)
{
    PowerTarget* target = addTarget();
    ProbeResource* initialA = addResource();
    ProbeResource* initialB = addResource();
    ProbeResource* enabled = addResource();
    enabled->forceState(VelaPowerNodeStates::enabled); // no claim, no holder: disable() would switch it off
    ProbeResource* disabled = addResource();
    disabled->forceState(VelaPowerNodeStates::disabled);
    ProbeResource* unregistered = makeResource();

    LogCapture log;
    CMReply<QVariant> answer = askTarget("target", target);
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    EXPECT_EQ(eventDump().find("error"), std::string::npos) << eventDump();

    EXPECT_EQ(countOf(writeOff(initialA)), 1) << eventDump();
    EXPECT_EQ(countOf(writeOff(initialB)), 1) << eventDump();
    EXPECT_EQ(initialA->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(initialB->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(countOf(writeOff(enabled)), 0) << eventDump();
    EXPECT_EQ(enabled->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(countOf(writeOff(disabled)), 0) << eventDump();
    // A call of disable() on a node that is disabled already writes no
    // data, only this line.
    const std::string disabledAlready = "Leave " +
                                        dbglog_scopedFunction("CMReply<void> PowerNode::disable()", "PowerManager") +
                                        ": powerNode: " + nameOf(disabled) +
                                        " already disabled or disable was already requested...";
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, disabledAlready), 0)
        << "disable() was called on a resource that was disabled already";
    EXPECT_EQ(unregistered->state(), VelaPowerNodeStates::initial);
    EXPECT_EQ(countOf(writeOff(unregistered)), 0);
    // The line looked for above is the one such a call writes.
    disabled->disable();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, disabledAlready), 1) << log.dump();

    // A second target request finds nothing left in the initial state.
    CMReply<QVariant> again = askTarget("again", target);
    ASSERT_TRUE(waitUntil([&] { return again.isFinished(); }));
    EXPECT_EQ(countOf(writeOff(initialA)), 1) << eventDump();
    EXPECT_EQ(countOf(writeOff(initialB)), 1) << eventDump();
}

TEST_F(PowerHandlerQueue, AfterAResourceRequestNothingIsDisabled)
{
    ProbeResource* used = addResource();
    ProbeResource* initial = addResource();
    addTarget();
    CMReply<QVariant> answer = requestUse(used, "use");
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    CMReply<QVariant> release = requestUse(used, "release", VelaPowerModuleActions::release);
    ASSERT_TRUE(waitUntil([&] { return release.isFinished(); }));
    EXPECT_EQ(initial->state(), VelaPowerNodeStates::initial);
    EXPECT_EQ(countOf(writeOff(initial)), 0) << eventDump();
    EXPECT_EQ(countOf(writeOff(used)), 1) << eventDump();
}

TEST_F(PowerHandlerQueue, CleanUpRunsAfterAFailedTargetRequestToo)
{
    const UnreachableTarget blocked = addUnreachableTarget(QStringLiteral("media"));
    ASSERT_FALSE(HasFailure());
    ProbeResource* initial = addResource();

    CMReply<QVariant> answer = askTarget("target", blocked.target);
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    EXPECT_EQ(answer.error().message().toString(), QStringLiteral("Failed to resolve dependencies"));
    EXPECT_EQ(countOf(writeOff(initial)), 1) << eventDump();
    EXPECT_EQ(initial->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(blocked.held->state(), VelaPowerNodeStates::enabled);
    EXPECT_LT(indexOf(writeOff(initial)), indexOf("answer target error " + errorText(answer))) << eventDump();
}

TEST_F(PowerHandlerQueue, TargetCallerIsAnsweredOnlyAfterTheCleanUpDisablesFinished)
{
    PowerTarget* target = addTarget();
    ProbeResource* slowOff = addResource(Answer::AtOnce, Answer::Held);
    ProbeResource* quickOff = addResource();
    CMReply<QVariant> answer = askTarget("target", target);
    ASSERT_TRUE(waitUntil([&] { return heldAt(offPath(slowOff)) == 1; }));
    drainEvents();
    EXPECT_FALSE(answer.isFinished());
    EXPECT_EQ(handler.pendingRequests(), 1);
    EXPECT_EQ(slowOff->state(), VelaPowerNodeStates::disabling);
    EXPECT_EQ(quickOff->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(countOf("targetChanged " + nameOf(target)), 0);

    ASSERT_TRUE(answerHeld(offPath(slowOff)));
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    const int answered = indexOf("platform answers " + str(offPath(slowOff)));
    const int changed = indexOf("targetChanged " + nameOf(target));
    const int replied = indexOf("answer target ok");
    ASSERT_NE(changed, -1) << eventDump();
    EXPECT_LT(answered, changed) << eventDump();
    EXPECT_LT(changed, replied) << eventDump();
}

TEST_F(PowerHandlerQueue, FailedCleanUpDisableDoesNotChangeTheAnswer)
{
    PowerTarget* target = addTarget();
    ProbeResource* failing = addResource(Answer::AtOnce, Answer::WithError);
    CMReply<QVariant> answer = askTarget("target", target);
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    EXPECT_FALSE(answer.error().isError()) << errorText(answer);
    EXPECT_EQ(countOf(writeOff(failing)), 1);
    EXPECT_EQ(countOf("targetChanged " + nameOf(target)), 1) << eventDump();
    // The queue keeps running.
    ProbeResource* next = addResource();
    CMReply<QVariant> use = requestUse(next, "use");
    ASSERT_TRUE(waitUntil([&] { return use.isFinished(); }));
    EXPECT_FALSE(use.error().isError());
}

// --- Resolution ---------------------------------------------------------------------------

TEST_F(PowerHandlerQueue, ProcessErrorGoesToTheCallerUnchangedWithoutTargetChanged)
{
    const UnreachableTarget blocked = addUnreachableTarget(QStringLiteral("media"));
    ASSERT_FALSE(HasFailure());
    PowerTarget* target = blocked.target;

    // Queued behind a running request, with another request behind it.
    ProbeResource* slow = addResource(Answer::Held);
    ProbeResource* after = addResource();
    CMReply<QVariant> running = requestUse(slow, "running");
    LogCapture log;
    CMReply<QVariant> answer = askTarget("target", target);
    CMReply<QVariant> behind = requestUse(after, "behind");
    ASSERT_TRUE(answerHeld(onPath(slow)));
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished() && behind.isFinished(); }));
    EXPECT_FALSE(behind.error().isError()) << "the request behind the failed one did not run";
    EXPECT_EQ(after->state(), VelaPowerNodeStates::enabled);
    EXPECT_LT(indexOf("answer target error " + errorText(answer)), indexOf(writeOn(after))) << eventDump();
    const CMError error = answer.error();
    EXPECT_EQ(error.name(), CMError::DefaultName());
    EXPECT_EQ(error.message().toString(), QStringLiteral("Failed to resolve dependencies"));
    EXPECT_EQ(error.title().toString(), CMError::DefaultTitle());
    EXPECT_EQ(countOf("nextTargetChanged " + nameOf(target)), 1) << eventDump();
    EXPECT_EQ(countOf("targetChanged " + nameOf(target)), 0) << eventDump();
    const std::vector<int64_t> ids = createdIds(log);
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveLine(ids[0], false)), 1) << log.dump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveLine(ids[1], true)), 1) << log.dump();
}

TEST_F(PowerHandlerQueue, ErrorWithoutNameButWithMessageCountsAsSuccess)
{
    PowerTarget* target = addTarget();
    // Our own request runs first; its reply already carries a message
    // without a name.
    const PowerNodeRequestPtr own = handler.makeRequest(target, VelaPowerManagerName(), VelaPowerModuleActions::hold);
    CMError nameless;
    nameless.insert(CMError::Message(), QVariant::fromValue(TrString("only a message")));
    nameless.insert(CMError::Title(), QVariant::fromValue(TrString("and a title")));
    own->reply().setError(nameless);
    ASSERT_TRUE(own->isValid());
    ASSERT_TRUE(handler.addRequest(own));
    // The caller's wish is stored under our request's identity.
    PowerNodeRequestTestAccess::setIdCounter(own->id() - 1);

    LogCapture log;
    CMReply<QVariant> answer = askTarget("target", target);
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished() && handler.pendingRequests() == 0; }));
    EXPECT_FALSE(answer.error().isError());
    EXPECT_TRUE(answer.error().isEmpty());
    EXPECT_FALSE(answer.value().isValid());
    EXPECT_EQ(countOf("nextTargetChanged " + nameOf(target)), 1) << eventDump();
    EXPECT_EQ(countOf("targetChanged " + nameOf(target)), 1) << eventDump();
    EXPECT_LT(indexOf("targetChanged " + nameOf(target)), indexOf("answer target ok")) << eventDump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveLine(own->id(), true)), 2) << log.dump();
}

TEST_F(PowerHandlerQueue, ResolveNodeRequestDecidesSuccessByTheNameAlone)
{
    ProbeResource* resource = addResource();
    std::vector<PowerNodeRequestPtr> queued;
    for (int i = 0; i < 4; ++i)
        queued.push_back(queueOwn(resource));

    CMError messageOnly;
    messageOnly.insert(CMError::Message(), QVariant::fromValue(TrString("a message")));
    CMError emptyName;
    emptyName.insert(CMError::Name(), QString());
    emptyName.insert(CMError::Message(), QVariant::fromValue(TrString("a message")));
    LogCapture log;
    handler.resolveNodeRequest(queued[0]->id(), CMError());
    handler.resolveNodeRequest(queued[1]->id(), messageOnly);
    handler.resolveNodeRequest(queued[2]->id(), emptyName);
    handler.resolveNodeRequest(queued[3]->id(), withdrawn());
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveLine(queued[0]->id(), true)), 1) << log.dump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveLine(queued[1]->id(), true)), 1) << log.dump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveLine(queued[2]->id(), true)), 1) << log.dump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveLine(queued[3]->id(), false)), 1) << log.dump();
    EXPECT_EQ(handler.pendingRequests(), 0);
    for (const PowerNodeRequestPtr& request : queued)
        EXPECT_FALSE(request->isProcessing());
}

TEST_F(PowerHandlerQueue, ResolveNodeRequestRemovesTheHeadWhateverTheIdentity)
{
    ProbeResource* first = addResource();
    ProbeResource* second = addResource();
    const PowerNodeRequestPtr head = queueOwn(first);
    const PowerNodeRequestPtr tail = queueOwn(second);
    handler.resolveNodeRequest(tail->id(), CMError());
    ASSERT_EQ(handler.pendingRequests(), 1);
    handler.processNextRequest();
    ASSERT_TRUE(waitUntil([&] { return handler.pendingRequests() == 0; }));
    EXPECT_FALSE(head->isProcessing());
    EXPECT_TRUE(tail->isProcessing());
    EXPECT_EQ(first->state(), VelaPowerNodeStates::initial);
    EXPECT_EQ(second->state(), VelaPowerNodeStates::enabled);
}

TEST_F(PowerHandlerQueue, ResolutionAnswersTheCallerWithAnInvalidValueAfterRemovingTheHead)
{
    ProbeResource* resource = addResource();
    CMReply<QVariant> answer = requestUse(resource, "use");
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    EXPECT_FALSE(answer.error().isError());
    EXPECT_FALSE(answer.value().isValid());
    EXPECT_EQ(answer.value().userType(), static_cast<int>(QMetaType::UnknownType));
    EXPECT_EQ(handler.pendingRequests(), 0);
}

// --- Programming errors -----------------------------------------------------------------

TEST_F(PowerHandlerQueueDeathTest, ProcessNextRequestWhileTheHeadRunsStops)
{
    ProbeResource* slow = addResource(Answer::Held);
    CMReply<QVariant> running = requestUse(slow, "running");
    ASSERT_EQ(handler.pendingRequests(), 1);
    EXPECT_DEATH(handler.processNextRequest(), "ASSERT: \"!request->isProcessing\\(\\)\" in file "
                                               "modules/powerManager/powerHandler/PowerHandler\\.cpp, line [0-9]+");
}

TEST_F(PowerHandlerQueueDeathTest, ResolvingWithAnEmptyQueueStops)
{
    ASSERT_EQ(handler.pendingRequests(), 0);
    EXPECT_DEATH(handler.resolveNodeRequest(1, CMError()), "ASSERT: \"!isEmpty\\(\\)\" in file [^ ]+, line [0-9]+");
}

TEST_F(PowerHandlerQueueDeathTest, ResolvingAnUnknownIdentityWithAnEmptyQueueStops)
{
    ProbeResource* resource = addResource();
    CMReply<QVariant> answer = requestUse(resource, "use");
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    EXPECT_DEATH(handler.resolveNodeRequest(std::numeric_limits<int64_t>::max(), withdrawn()),
                 "ASSERT: \"!isEmpty\\(\\)\" in file [^ ]+, line [0-9]+");
}
