// The two entry points, requestTarget and requestResource: refusals answered
// at once, queued wishes answered once resolved, and the two signals.

#include "handler_fixture.h"

#include <gtest/gtest.h>

using namespace handlertest;

namespace {

const std::string kRequestTarget = "void PowerHandler::requestTarget(const VelaPowerManagerTarget&, CMReply<QVariant>)";
const std::string kRequestResource =
    "void PowerHandler::requestResource(const VelaPowerManagerResourceRequest&, CMReply<QVariant>)";

class PowerHandlerRequests : public HandlerTest
{
protected:
    // Each record goes through the entry point that takes it.
    void send(const VelaPowerManagerTarget& record, const CMReply<QVariant>& reply)
    {
        handler.requestTarget(record, reply);
    }
    void send(const VelaPowerManagerResourceRequest& record, const CMReply<QVariant>& reply)
    {
        handler.requestResource(record, reply);
    }
    static const std::string& entrySignature(const VelaPowerManagerTarget&) { return kRequestTarget; }
    static const std::string& entrySignature(const VelaPowerManagerResourceRequest&) { return kRequestResource; }

    /*
     * Sends `record` and checks the refusal: the entry line with the record,
     * then an answer before the call returns with the name "Error", the
     * message and the default title, logged at ERROR as the message, ": "
     * and the record, from the entry point that refused. Nothing is queued
     * and no signal goes out. Returns every ERROR message written meanwhile.
     */
    template <typename Record>
    std::vector<std::string> expectRefusal(const Record& record, const std::string& message)
    {
        LogCapture log;
        CMReply<QVariant> reply;
        send(record, reply);
        checkRefusal(reply, log, message, record);
        return errorMessages(log);
    }

    template <typename Record>
    void checkRefusal(const CMReply<QVariant>& reply, const LogCapture& log, const std::string& message,
                      const Record& record)
    {
        EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, enterLine(entrySignature(record), recordText(record))), 1)
            << log.dump();
        ASSERT_TRUE(reply.isFinished()) << "a refusal is answered at once";
        const CMError error = reply.error();
        EXPECT_EQ(error.name(), QStringLiteral("Error"));
        EXPECT_EQ(error.message().toString(), QString::fromStdString(message));
        EXPECT_EQ(error.title().toString(), CMError::DefaultTitle());
        EXPECT_EQ(error.size(), 3);
        expectSingleRecord(log, log4cplus::ERROR_LOG_LEVEL, message + ": " + recordText(record));
        for (const CapturedEvent& event : log.withMessage(message + ": " + recordText(record)))
            EXPECT_EQ(event.function, entrySignature(record));
        EXPECT_EQ(handler.pendingRequests(), 0);
        for (const std::string& event : m_events)
            EXPECT_EQ(event.find("argetChanged"), std::string::npos) << event;
    }

    static std::vector<std::string> errorMessages(const LogCapture& log)
    {
        std::vector<std::string> messages;
        for (const CapturedEvent& event : log.events()) {
            if (event.level == log4cplus::ERROR_LOG_LEVEL)
                messages.push_back(event.message);
        }
        return messages;
    }
};

} // namespace

// --- Refusals of requestTarget ---------------------------------------------------------

TEST_F(PowerHandlerRequests, EmptyTargetRecordIsAnsweredIncorrectRequest)
{
    addPowerManagerModule();
    addTarget();
    expectRefusal(VelaPowerManagerTarget(), "Incorrect request");
}

TEST_F(PowerHandlerRequests, UnregisteredTargetIsAnsweredUnknownTarget)
{
    addPowerManagerModule();
    addTarget();
    PowerTarget* unregistered = makeTarget();
    expectRefusal(targetRecord(unregistered), "Unknown target");
    EXPECT_EQ(unregistered->state(), VelaPowerNodeStates::initial);
}

TEST_F(PowerHandlerRequests, WithoutThePowerManagersOwnModuleEveryTargetRequestIsRefused)
{
    addModule(QStringLiteral("someone"));
    PowerTarget* target = addTarget();
    PowerTarget* other = addTarget();
    const std::string unknown = "unknown power module requested: " + str(VelaPowerManagerName());
    for (PowerTarget* requested : {target, other, target}) {
        const VelaPowerManagerTarget record = targetRecord(requested);
        EXPECT_EQ(expectRefusal(record, "Cannot add request for requested target"),
                  (std::vector<std::string>{unknown, "Cannot add request for requested target: " + recordText(record)}))
            << nameOf(requested);
    }
    EXPECT_TRUE(m_events.empty()) << eventDump();
    EXPECT_TRUE(target->moduleActions().isEmpty());
    EXPECT_TRUE(other->moduleActions().isEmpty());
}

TEST_F(PowerHandlerRequests, CannotAddTargetRequestIsBuiltLikeEveryRefusal)
{
    // No module registered at all.
    expectRefusal(targetRecord(addTarget()), "Cannot add request for requested target");
}

// --- Refusals of requestResource ---------------------------------------------------------

TEST_F(PowerHandlerRequests, EmptyResourceRecordIsAnsweredIncorrectRequest)
{
    addModule(QStringLiteral("media"));
    addResource();
    expectRefusal(VelaPowerManagerResourceRequest(), "Incorrect request");
}

TEST_F(PowerHandlerRequests, UnregisteredResourceIsAnsweredUnknownResource)
{
    addModule(QStringLiteral("media"));
    addResource();
    ProbeResource* unregistered = makeResource();
    expectRefusal(wish(unregistered, QStringLiteral("media"), VelaPowerModuleActions::use), "Unknown resource");
    EXPECT_EQ(unregistered->state(), VelaPowerNodeStates::initial);
    EXPECT_EQ(countOf(writeOn(unregistered)), 0);
}

TEST_F(PowerHandlerRequests, ResourceRequestFromAnUnregisteredModuleIsAnsweredCannotAddRequest)
{
    addModule(QStringLiteral("media"));
    ProbeResource* resource = addResource();
    const VelaPowerManagerResourceRequest record = wish(resource, QStringLiteral("stranger"), VelaPowerModuleActions::use);
    EXPECT_EQ(expectRefusal(record, "Cannot add request for requested resource"),
              (std::vector<std::string>{"unknown power module requested: stranger",
                                        "Cannot add request for requested resource: " + recordText(record)}));
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::initial);
    EXPECT_TRUE(resource->moduleActions().isEmpty());
}

TEST_F(PowerHandlerRequests, RefusalRecordsNameTheEntryPointThatRefused)
{
    addModule(QStringLiteral("media"));
    LogCapture log;
    CMReply<QVariant> target;
    handler.requestTarget(VelaPowerManagerTarget(), target);
    CMReply<QVariant> resource;
    handler.requestResource(VelaPowerManagerResourceRequest(), resource);
    const auto targetRecords = log.withMessage("Incorrect request: " + recordText(VelaPowerManagerTarget()));
    ASSERT_EQ(targetRecords.size(), 2u) << log.dump(); // both records print as an empty map
    EXPECT_EQ(targetRecords[0].function, kRequestTarget);
    EXPECT_EQ(targetRecords[1].function, kRequestResource);
}

TEST_F(PowerHandlerRequests, EveryRefusalWhileARequestRunsLeavesTheQueueRunning)
{
    // No module under the power manager's own name: target requests for
    // registered targets are refused too.
    addModule(QStringLiteral("media"));
    ProbeResource* slow = addResource(Answer::Held);
    PowerTarget* target = addTarget();
    CMReply<QVariant> running = askResource("running", slow, QStringLiteral("media"), VelaPowerModuleActions::use);
    ASSERT_EQ(handler.pendingRequests(), 1);

    const auto expectRefusedAtOnce = [&](auto record, const QString& message) {
        CMReply<QVariant> refused;
        send(record, refused);
        ASSERT_TRUE(refused.isFinished()) << str(message);
        EXPECT_EQ(refused.error().name(), QStringLiteral("Error"));
        EXPECT_EQ(refused.error().message().toString(), message);
        EXPECT_EQ(handler.pendingRequests(), 1) << str(message);
        EXPECT_FALSE(running.isFinished()) << str(message);
    };
    expectRefusedAtOnce(VelaPowerManagerTarget(), QStringLiteral("Incorrect request"));
    expectRefusedAtOnce(targetRecord(makeTarget()), QStringLiteral("Unknown target"));
    expectRefusedAtOnce(targetRecord(target), QStringLiteral("Cannot add request for requested target"));
    expectRefusedAtOnce(VelaPowerManagerResourceRequest(), QStringLiteral("Incorrect request"));
    expectRefusedAtOnce(wish(makeResource(), QStringLiteral("media"), VelaPowerModuleActions::use),
                        QStringLiteral("Unknown resource"));
    expectRefusedAtOnce(wish(slow, QStringLiteral("stranger"), VelaPowerModuleActions::release),
                        QStringLiteral("Cannot add request for requested resource"));
    EXPECT_EQ(slow->state(), VelaPowerNodeStates::enabling);

    ASSERT_TRUE(answerHeld(onPath(slow)));
    ASSERT_TRUE(waitUntil([&] { return running.isFinished(); }));
    EXPECT_FALSE(running.error().isError());
    EXPECT_EQ(handler.pendingRequests(), 0);
    EXPECT_EQ(slow->state(), VelaPowerNodeStates::enabled);
}

// --- Queued wishes -------------------------------------------------------------------------

TEST_F(PowerHandlerRequests, SuccessfulReplyCarriesAnInvalidValue)
{
    addPowerManagerModule();
    addModule(QStringLiteral("media"));
    ProbeResource* resource = addResource();
    PowerTarget* target = addTarget();
    CMReply<QVariant> resourceReply = caller("resource");
    CMReply<QVariant> targetReply = caller("target");
    handler.requestResource(wish(resource, QStringLiteral("media"), VelaPowerModuleActions::use), resourceReply);
    handler.requestTarget(targetRecord(target), targetReply);
    ASSERT_TRUE(waitUntil([&] { return resourceReply.isFinished() && targetReply.isFinished(); }));
    for (const CMReply<QVariant>* reply : {&resourceReply, &targetReply}) {
        EXPECT_FALSE(reply->error().isError());
        EXPECT_FALSE(reply->value().isValid());
        EXPECT_TRUE(reply->value().isNull());
    }
}

TEST_F(PowerHandlerRequests, ResourceRequestActsForTheRecordsModuleWithTheRecordsAction)
{
    addModule(QStringLiteral("media"));
    addModule(QStringLiteral("phone"));
    ProbeResource* resource = addResource();
    CMReply<QVariant> hold = askResource("hold", resource, QStringLiteral("phone"), VelaPowerModuleActions::hold);
    ASSERT_TRUE(waitUntil([&] { return hold.isFinished(); }));
    EXPECT_EQ(resource->moduleActions(),
              (QHash<QString, VelaPowerModuleActions::Enum>{{QStringLiteral("phone"), VelaPowerModuleActions::hold}}));
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(countOf(writeOn(resource)), 1);
}

TEST_F(PowerHandlerRequests, TargetRequestActsForThePowerManagerWithHold)
{
    addPowerManagerModule();
    PowerTarget* target = addTarget();
    CMReply<QVariant> reply = askTarget("target", target);
    ASSERT_TRUE(waitUntil([&] { return reply.isFinished(); }));
    EXPECT_EQ(target->moduleActions(), (QHash<QString, VelaPowerModuleActions::Enum>{
                                           {VelaPowerManagerName(), VelaPowerModuleActions::hold}}));
    EXPECT_TRUE(target->isEnabled());
}

TEST_F(PowerHandlerRequests, RequestThatFinishesInsideTheCallStillReachesItsCaller)
{
    addPowerManagerModule();
    addModule(QStringLiteral("media"));
    ProbeResource* resource = addResource();
    PowerTarget* target = addTarget();
    // Every answer of the platform comes from inside the call, so both
    // requests run to their end before the entry point returns: the reply
    // must have been stored before the queue was kicked.
    CMReply<QVariant> reply = askResource("use", resource, QStringLiteral("media"), VelaPowerModuleActions::use);
    ASSERT_TRUE(reply.isFinished()) << eventDump();
    EXPECT_FALSE(reply.error().isError()) << errorText(reply);
    EXPECT_EQ(handler.pendingRequests(), 0);
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::enabled);

    CMReply<QVariant> toTarget = askTarget("target", target);
    ASSERT_TRUE(toTarget.isFinished()) << eventDump();
    EXPECT_FALSE(toTarget.error().isError()) << errorText(toTarget);
    EXPECT_EQ(handler.pendingRequests(), 0);
    EXPECT_EQ(m_events, (std::vector<std::string>{writeOn(resource), "answer use ok", "nextTargetChanged " + nameOf(target),
                                                  "targetChanged " + nameOf(target), "answer target ok"}))
        << eventDump();
}

TEST_F(PowerHandlerRequests, TargetRequestOnAnIdleHandlerAnnouncesTheTargetBeforeTheCallReturns)
{
    addPowerManagerModule();
    PowerTarget* target = addTarget();
    ProbeResource* slow = addResource(Answer::Held);
    target->enables(slow);
    CMReply<QVariant> reply = askTarget("target", target);
    EXPECT_EQ(m_events, (std::vector<std::string>{"nextTargetChanged " + nameOf(target), writeOn(slow)}));
    EXPECT_FALSE(reply.isFinished());
}

TEST_F(PowerHandlerRequests, SignalsCarryTheRecordAsSent)
{
    addPowerManagerModule();
    PowerTarget* target = addTarget();
    VelaPowerManagerTarget record = targetRecord(target);
    record.insert(QStringLiteral("reason"), QStringLiteral("user"));
    std::vector<VelaPowerManagerTarget> announced;
    std::vector<VelaPowerManagerTarget> reached;
    const QMetaObject::Connection announcing = QObject::connect(
        &handler, &PowerHandler::nextTargetChanged, [&](const VelaPowerManagerTarget& sent) { announced.push_back(sent); });
    const QMetaObject::Connection reaching = QObject::connect(
        &handler, &PowerHandler::targetChanged, [&](const VelaPowerManagerTarget& sent) { reached.push_back(sent); });
    CMReply<QVariant> reply = caller("target");
    handler.requestTarget(record, reply);
    const bool answered = waitUntil([&] { return reply.isFinished(); });
    QObject::disconnect(announcing);
    QObject::disconnect(reaching);
    ASSERT_TRUE(answered);
    ASSERT_EQ(announced.size(), 1u);
    ASSERT_EQ(reached.size(), 1u);
    EXPECT_TRUE(announced.front() == record);
    EXPECT_TRUE(reached.front() == record);
}

TEST_F(PowerHandlerRequests, TwoTargetRequestsInARowRunInTurnAndEachSuccessAnnouncesItsOwnTarget)
{
    addPowerManagerModule();
    PowerTarget* first = addTarget();
    PowerTarget* second = addTarget();
    ProbeResource* slow = addResource(Answer::Held);
    first->enables(slow);
    first->setReachableTargets({second});
    second->setReachableTargets({first});

    CMReply<QVariant> firstReply = askTarget("first", first);
    EXPECT_EQ(countOf("nextTargetChanged " + nameOf(first)), 1) << "the first request did not start in the call";
    CMReply<QVariant> secondReply = askTarget("second", second);
    EXPECT_EQ(countOf("nextTargetChanged " + nameOf(second)), 0) << "the second request did not wait";
    EXPECT_EQ(handler.pendingRequests(), 2);

    ASSERT_TRUE(answerHeld(onPath(slow)));
    ASSERT_TRUE(waitUntil([&] { return secondReply.isFinished(); }));
    const std::vector<std::string> expected{
        "nextTargetChanged " + nameOf(first), writeOn(slow), "platform answers " + str(onPath(slow)),
        "targetChanged " + nameOf(first),     "answer first ok", "nextTargetChanged " + nameOf(second),
        writeOff(slow),                       "targetChanged " + nameOf(second), "answer second ok"};
    EXPECT_EQ(m_events, expected) << eventDump();
    EXPECT_TRUE(second->isEnabled());
    EXPECT_FALSE(first->isEnabled());
}

TEST_F(PowerHandlerRequests, FailedTargetRequestAnnouncesOnlyTheNextTarget)
{
    addPowerManagerModule();
    PowerTarget* first = addTarget();
    PowerTarget* second = addTarget();
    // From the first target only the first itself can be reached.
    first->setReachableTargets({});

    CMReply<QVariant> firstReply = askTarget("first", first);
    CMReply<QVariant> secondReply = askTarget("second", second);
    ASSERT_TRUE(waitUntil([&] { return firstReply.isFinished() && secondReply.isFinished(); }));
    EXPECT_FALSE(firstReply.error().isError());
    EXPECT_EQ(secondReply.error().message().toString(), QStringLiteral("Failed to resolve dependencies"));
    const std::vector<std::string> expected{
        "nextTargetChanged " + nameOf(first), "targetChanged " + nameOf(first), "answer first ok",
        "nextTargetChanged " + nameOf(second), "answer second error " + errorText(secondReply)};
    EXPECT_EQ(m_events, expected) << eventDump();
    EXPECT_TRUE(first->isEnabled());
    EXPECT_FALSE(second->isEnabled());
}

TEST_F(PowerHandlerRequests, SignalsGoOutWhileTheRequestHeadsTheQueueBeforeItsWorkAndBeforeItsAnswer)
{
    addPowerManagerModule();
    PowerTarget* target = addTarget();
    ProbeResource* resource = addResource();
    target->enables(resource);
    CMReply<QVariant> reply = caller("target");
    struct Seen {
        int pending = -1;
        VelaPowerNodeStates::Enum resourceState = VelaPowerNodeStates::initial;
        bool targetClaimed = false;
        bool answered = false;
    };
    Seen atStart;
    Seen atArrival;
    auto look = [&](Seen& seen) {
        seen.pending = handler.pendingRequests();
        seen.resourceState = resource->state();
        seen.targetClaimed = !target->moduleActions().isEmpty();
        seen.answered = reply.isFinished();
    };
    const QMetaObject::Connection starting =
        QObject::connect(&handler, &PowerHandler::nextTargetChanged, [&] { look(atStart); });
    const QMetaObject::Connection arriving =
        QObject::connect(&handler, &PowerHandler::targetChanged, [&] { look(atArrival); });
    handler.requestTarget(targetRecord(target), reply);
    const bool answered = waitUntil([&] { return reply.isFinished(); });
    QObject::disconnect(starting);
    QObject::disconnect(arriving);
    ASSERT_TRUE(answered);

    // Announced before any change: the target is not claimed yet and its
    // resource untouched.
    EXPECT_EQ(atStart.pending, 1);
    EXPECT_FALSE(atStart.targetClaimed);
    EXPECT_EQ(atStart.resourceState, VelaPowerNodeStates::initial);
    EXPECT_FALSE(atStart.answered);
    // Arrived: the work is done, the request still heads the queue, and the
    // caller has not been answered yet.
    EXPECT_EQ(atArrival.pending, 1);
    EXPECT_TRUE(atArrival.targetClaimed);
    EXPECT_EQ(atArrival.resourceState, VelaPowerNodeStates::enabled);
    EXPECT_FALSE(atArrival.answered);
    EXPECT_EQ(handler.pendingRequests(), 0);
}
