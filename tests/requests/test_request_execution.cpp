// Execution and processing: the changes on the graph, the post
// notifications, and the request's own reply.

#include "requestfixture.h"

namespace requests {
namespace {

using RequestExecution = RequestTest;

const QString A = QStringLiteral("A");
const QString B = QStringLiteral("B");
const QString C = QStringLiteral("C");

TEST_F(RequestExecution, PostNotificationsFollowAllChangesAndAreNotWaitedFor)
{
    PowerTarget* target = makeTarget();
    PowerResource* r1 = makeResource(Answer::Later, Answer::Later);
    PowerResource* r2 = makeResource(Answer::Later, Answer::Later);
    r1->addModule(A, VelaPowerModuleActions::use);
    r2->addModule(B, VelaPowerModuleActions::use);
    target->disables(r1);
    target->disables(r2);
    registerModule(A, Answer::AtOnce, Answer::Never);
    registerModule(B, Answer::AtOnce, Answer::Never);
    LogCapture log;

    const PowerNodeRequestPtr request = targetRequest(target);
    const CMReply<void> reply = runToEnd(request);

    // Finished although neither post notification was ever answered.
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(m_never.size(), 2u) << eventDump();
    const std::vector<Invocation> postA = invocationsAt(postRevokePath(A));
    const std::vector<Invocation> postB = invocationsAt(postRevokePath(B));
    ASSERT_EQ(postA.size(), 1u) << eventDump();
    ASSERT_EQ(postB.size(), 1u) << eventDump();
    EXPECT_EQ(postA[0].arguments, revokeMessage(A, VelaPowerManagerMessageTypes::postRevoke, {r1}));
    EXPECT_EQ(postB[0].arguments, revokeMessage(B, VelaPowerManagerMessageTypes::postRevoke, {r2}));

    // Both writes were answered before the first post notification.
    const int firstPost = std::min(indexOf("post A"), indexOf("post B"));
    EXPECT_LT(indexOf("answered " + writeLabel(r1, "off")), firstPost) << eventDump();
    EXPECT_LT(indexOf("answered " + writeLabel(r2, "off")), firstPost) << eventDump();
    const std::string allActions = "nodeRequest id: " + std::to_string(request->id()) + " all actions finished";
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, allActions), 1) << log.dump();
    // The unanswered post notifications are dropped by the fixture.
}

TEST_F(RequestExecution, AllChangesStartInOnePassInListOrder)
{
    PowerTarget* target = makeTarget();
    PowerResource* r1 = makeResource(Answer::Later, Answer::Later);
    PowerResource* r2 = makeResource(Answer::Later, Answer::Later);
    PowerResource* r3 = makeResource(Answer::Later, Answer::Later);
    r1->addModule(A, VelaPowerModuleActions::use);
    r2->addModule(B, VelaPowerModuleActions::use);
    r3->addModule(C, VelaPowerModuleActions::use);
    target->disables(r1);
    target->disables(r2);
    target->disables(r3);
    const PowerNodeRequestPtr request = targetRequest(target);

    const CMReply<void> reply = runToEnd(request);
    EXPECT_FALSE(reply.error().isError());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 4);
    std::vector<std::string> expectedWrites;
    for (int i = 1; i < nodes.size(); ++i)
        expectedWrites.push_back(writeLabel(nodes[i].node, "off"));
    std::vector<std::string> writes;
    for (int index : indicesStartingWith("write "))
        writes.push_back(m_events[index]);
    EXPECT_EQ(writes, expectedWrites) << eventDump();
    const std::vector<int> writeIndices = indicesStartingWith("write ");
    const std::vector<int> answerIndices = indicesStartingWith("answered write ");
    ASSERT_EQ(answerIndices.size(), 3u) << eventDump();
    EXPECT_LT(writeIndices.back(), answerIndices.front())
        << "no change waits for another to finish\n"
        << eventDump();
}

TEST_F(RequestExecution, NodeAlreadyCarryingTheActionStartsNoChangeAndTheRequestSucceeds)
{
    PowerResource* resource = makeResource();
    resource->addModule(A, VelaPowerModuleActions::use);
    registerModule(A);
    LogCapture log;
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, A, VelaPowerModuleActions::use, m_registrations);

    const CMReply<void> reply = runToEnd(request);

    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(request->isValid());
    EXPECT_TRUE(m_events.empty()) << "nothing written, nobody told\n" << eventDump();
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::initial);
    EXPECT_FALSE(log.containsFragment(log4cplus::DEBUG_LOG_LEVEL, " updated by: ")) << log.dump();
    const std::string id = std::to_string(request->id());
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, "nodeRequest id: " + id + " all actions finished"), 1)
        << log.dump();
    // No changed resource, so no notifyModule call either.
    EXPECT_FALSE(log.containsFragment(log4cplus::TRACE_LOG_LEVEL, "PowerNodeRequest::notifyModule()")) << log.dump();
}

TEST_F(RequestExecution, ExecuteWithNothingToChangeFinishesWithSuccess)
{
    PowerResource* resource = makeResource();
    resource->addModule(A, VelaPowerModuleActions::hold);
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, A, VelaPowerModuleActions::hold, m_registrations);
    ASSERT_TRUE(request->resolve());

    const CMReply<void> executed = request->execute();

    ASSERT_TRUE(waitUntil([&executed]() { return executed.isFinished(); }));
    EXPECT_FALSE(executed.error().isError());
    EXPECT_TRUE(m_events.empty()) << eventDump();
    // execute() does not finish the request's own reply.
    EXPECT_FALSE(request->reply().isFinished());
}

TEST_F(RequestExecution, UnreachableTargetFailsToResolveAndNoModuleIsNotified)
{
    PowerTarget* target = makeTarget();
    PowerResource* r1 = makeResource();
    PowerResource* r2 = makeResource();
    r1->addModule(A, VelaPowerModuleActions::use);
    r2->addModule(C, VelaPowerModuleActions::hold);
    target->disables(r1);
    target->disables(r2);
    registerModule(A);
    registerModule(C);
    registerModule(VelaPowerManagerName());
    LogCapture log;
    const PowerNodeRequestPtr request = targetRequest(target);

    const CMReply<void> reply = request->process();

    EXPECT_TRUE(reply.isFinished()) << "a failed resolution answers at once";
    ASSERT_TRUE(waitUntil([&reply]() { return reply.isFinished(); }));
    drainEvents();
    const CMError error = reply.error();
    EXPECT_TRUE(error.isError());
    EXPECT_EQ(error.message().toString(), QStringLiteral("Failed to resolve dependencies"));
    EXPECT_EQ(error.name(), CMError::DefaultName());
    EXPECT_EQ(error.title().toString(), CMError::DefaultTitle());
    EXPECT_FALSE(request->isValid());
    EXPECT_FALSE(request->isProcessing());
    EXPECT_TRUE(m_events.empty()) << "no module told, nothing written\n" << eventDump();
    EXPECT_EQ(r1->moduleAction(A), VelaPowerModuleActions::use);
    EXPECT_EQ(target->state(), VelaPowerNodeStates::initial);
    EXPECT_EQ(log.count(log4cplus::INFO_LOG_LEVEL, "node unreachable: " + str(target->name())), 1) << log.dump();
    EXPECT_FALSE(log.containsFragment(log4cplus::TRACE_LOG_LEVEL, "PowerNodeRequest::notify()")) << log.dump();
}

TEST_F(RequestExecution, FailingWriteStillLeadsToPostNotificationsAndASuccessfulRequest)
{
    PowerTarget* target = makeTarget();
    PowerResource* failing = makeResource(Answer::AtOnce, Answer::WithError);
    PowerResource* fine = makeResource();
    failing->addModule(A, VelaPowerModuleActions::use);
    fine->addModule(B, VelaPowerModuleActions::use);
    target->disables(failing);
    target->disables(fine);
    registerModule(A);
    registerModule(B);
    LogCapture log;
    const PowerNodeRequestPtr request = targetRequest(target);

    const CMReply<void> reply = runToEnd(request);

    EXPECT_FALSE(reply.error().isError()) << str(reply.error().message().toString());
    EXPECT_TRUE(request->isValid());
    ASSERT_GE(indexOf("failed " + writeLabel(failing, "off")), 0) << eventDump();
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL,
                        "Failed to disable resource " + str(failing->name()) + ", error: refused by the test"),
              1)
        << log.dump();
    const std::vector<Invocation> postA = invocationsAt(postRevokePath(A));
    ASSERT_EQ(postA.size(), 1u) << eventDump();
    EXPECT_EQ(postA[0].arguments, revokeMessage(A, VelaPowerManagerMessageTypes::postRevoke, {failing}));
    EXPECT_GT(indexOf("post A"), indexOf("failed " + writeLabel(failing, "off"))) << eventDump();
    EXPECT_EQ(invocationsAt(postRevokePath(B)).size(), 1u) << eventDump();
    EXPECT_EQ(failing->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(fine->state(), VelaPowerNodeStates::disabled);
}

TEST_F(RequestExecution, ExecuteResultOfAFailingWriteFollowsTheNodesSuccessfulReply)
{
    // A node transition never fails towards its caller: the failed write is
    // logged by the node, whose reply succeeds, so the join that execute()
    // reports on carries no error either.
    PowerResource* failing = makeResource(Answer::WithError, Answer::WithError);
    registerModule(A);
    LogCapture log;
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(failing, A, VelaPowerModuleActions::use, m_registrations);
    ASSERT_TRUE(request->resolve());

    const CMReply<void> executed = request->execute();

    ASSERT_TRUE(waitUntil([&executed]() { return executed.isFinished(); }));
    EXPECT_GE(indexOf("failed " + writeLabel(failing, "on")), 0) << eventDump();
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL,
                        "Failed to enable resource " + str(failing->name()) + ", error: refused by the test"),
              1)
        << log.dump();
    EXPECT_FALSE(executed.error().isError()) << str(executed.error().message().toString());
    EXPECT_EQ(failing->state(), VelaPowerNodeStates::enabled);
    EXPECT_FALSE(request->reply().isFinished());
}

TEST_F(RequestExecution, ProcessOnAFinishedRequestReturnsTheSameReplyAndDoesNothing)
{
    PowerResource* resource = makeResource();
    registerModule(A);
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, A, VelaPowerModuleActions::use, m_registrations);
    const CMReply<void> first = runToEnd(request);
    ASSERT_FALSE(first.error().isError());
    drainEvents();
    const std::vector<std::string> eventsBefore = m_events;
    const VelaPowerNodeStates::Enum stateBefore = resource->state();
    LogCapture log;

    const CMReply<void> second = request->process();

    EXPECT_TRUE(second == first) << "the very same reply";
    EXPECT_TRUE(second.isFinished());
    EXPECT_FALSE(second.error().isError());
    drainEvents();
    EXPECT_EQ(m_events, eventsBefore) << eventDump();
    EXPECT_EQ(request->nodes().size(), 1);
    EXPECT_EQ(resource->state(), stateBefore);
    // Only the entry line of process() itself.
    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 1u) << log.dump();
    EXPECT_EQ(events[0].message,
              "Enter [PowerManager] PowerNodeRequest::process(): nodeRequest id: " + std::to_string(request->id()));
}

TEST_F(RequestExecution, ProcessOnANullNodeRequestReturnsItsFailedReplyAndDoesNothing)
{
    registerModule(A);
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(nullptr, A, VelaPowerModuleActions::use, m_registrations);
    const CMReply<void> born = request->reply();
    LogCapture log;

    const CMReply<void> processed = request->process();

    EXPECT_TRUE(processed == born);
    EXPECT_TRUE(processed.isFinished());
    EXPECT_EQ(processed.error().message().toString(), QStringLiteral("Invalid power node pointer"));
    EXPECT_FALSE(request->isProcessing());
    EXPECT_TRUE(request->nodes().isEmpty());
    drainEvents();
    EXPECT_TRUE(m_events.empty()) << eventDump();
    ASSERT_EQ(log.events().size(), 1u) << log.dump();
    EXPECT_EQ(log.events()[0].message,
              "Enter [PowerManager] PowerNodeRequest::process(): nodeRequest id: " + std::to_string(request->id()));
}

TEST_F(RequestExecution, ProcessOnAFailedResolutionReturnsTheSameFailedReplyAgain)
{
    PowerTarget* target = makeTarget();
    PowerResource* held = makeResource();
    held->addModule(C, VelaPowerModuleActions::hold);
    target->disables(held);
    const PowerNodeRequestPtr request = targetRequest(target);
    const CMReply<void> first = request->process();
    ASSERT_TRUE(first.isFinished());

    const CMReply<void> second = request->process();

    EXPECT_TRUE(second == first);
    EXPECT_EQ(second.error().message().toString(), QStringLiteral("Failed to resolve dependencies"));
    EXPECT_EQ(request->nodes().size(), 1) << "not resolved a second time";
}

TEST_F(RequestExecution, ProcessingRequestReturnsItsUnfinishedReplyAndFinishesItWithSuccess)
{
    PowerResource* resource = makeResource();
    resource->addModule(A, VelaPowerModuleActions::use);
    registerModule(A, Answer::Held);
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, A, VelaPowerModuleActions::release, m_registrations);

    const CMReply<void> reply = request->process();

    EXPECT_TRUE(reply == request->reply());
    EXPECT_TRUE(request->isProcessing());
    EXPECT_FALSE(reply.isFinished());
    EXPECT_TRUE(request->isValid());
    ASSERT_TRUE(answerHeld("pre A"));
    ASSERT_TRUE(waitUntil([&reply]() { return reply.isFinished(); })) << eventDump();
    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(request->isProcessing());
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(resource->moduleAction(A), VelaPowerModuleActions::release);
}

TEST_F(RequestExecution, RequestAloneKeepsItselfAliveUntilItHasFinished)
{
    PowerResource* resource = makeResource(Answer::Later, Answer::Later);
    registerModule(A, Answer::Later);
    resource->addModule(A, VelaPowerModuleActions::use);
    CMReply<void> reply;
    {
        const PowerNodeRequestPtr request =
            PowerNodeRequest::create(resource, A, VelaPowerModuleActions::release, m_registrations);
        reply = request->process();
    }
    // The only share left is the one the running request holds itself.
    ASSERT_TRUE(waitUntil([&reply]() { return reply.isFinished(); })) << eventDump();
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(invocationsAt(postRevokePath(A)).size(), 1u) << eventDump();
}

TEST_F(RequestExecution, TargetRequestAppliesEveryPlannedAction)
{
    PowerTarget* target = makeTarget();
    PowerResource* kept = makeResource();
    PowerResource* r1 = makeResource();
    PowerResource* dependant = makeResource();
    kept->addModule(C, VelaPowerModuleActions::hold);
    r1->addModule(A, VelaPowerModuleActions::use);
    r1->addModule(B, VelaPowerModuleActions::hold);
    dependant->addModule(B, VelaPowerModuleActions::use);
    dependant->requiresResource(r1);
    target->enables(kept);
    target->disables(dependant);
    target->disables(r1);
    // B's hold on r1 would block the target; it is released by B first.
    const CMReply<void> released =
        runToEnd(PowerNodeRequest::create(r1, B, VelaPowerModuleActions::release, m_registrations));
    ASSERT_FALSE(released.error().isError());

    const CMReply<void> reply = runToEnd(targetRequest(target));

    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(target->moduleAction(VelaPowerManagerName()), VelaPowerModuleActions::hold);
    EXPECT_EQ(target->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(kept->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(r1->moduleAction(A), VelaPowerModuleActions::release);
    EXPECT_EQ(dependant->moduleAction(B), VelaPowerModuleActions::release);
    EXPECT_EQ(r1->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(dependant->state(), VelaPowerNodeStates::disabled);
}

} // namespace
} // namespace requests
