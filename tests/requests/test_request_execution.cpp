// Execution and processing: the changes on the graph, the post
// notifications, and the request's own reply.

#include "requestfixture.h"

#include <QObject>

namespace requests {
namespace {

using RequestExecution = RequestTest;

const QString A = QStringLiteral("A");
const QString B = QStringLiteral("B");
const QString C = QStringLiteral("C");

TEST_F(RequestExecution, PostNotificationsFollowAllChangesAndAreNotWaitedFor)
{
    const DisablingTarget graph = makeTargetDisabling(
        {{A, VelaPowerModuleActions::use, Answer::Later}, {B, VelaPowerModuleActions::use, Answer::Later}});
    PowerResource* r1 = graph.resources[0];
    PowerResource* r2 = graph.resources[1];
    registerModule(A, Answer::AtOnce, Answer::Never);
    registerModule(B, Answer::AtOnce, Answer::Never);
    LogCapture log;

    const PowerNodeRequestPtr request = targetRequest(graph.target);
    const CMReply<void> reply = runToEnd(request);

    // Finished although neither post notification was ever answered.
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(m_never.size(), 2u) << eventDump();
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {r1}));
    EXPECT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::postRevoke, {r2}));

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
    const DisablingTarget graph = makeTargetDisabling({{A, VelaPowerModuleActions::use, Answer::Later},
                                                       {B, VelaPowerModuleActions::use, Answer::Later},
                                                       {C, VelaPowerModuleActions::use, Answer::Later}});
    const PowerNodeRequestPtr request = targetRequest(graph.target);

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

TEST_F(RequestExecution, NodeListedTwiceIsChangedOnlyOnce)
{
    // The second entry of the same node finds the action already applied by
    // the first one.
    ScriptedTarget* target = makeScriptedTarget();
    PowerResource* twice = makeClaimedResource({{A, VelaPowerModuleActions::use}});
    target->script = {qMakePair(static_cast<PowerNode*>(twice), VelaPowerNodeStates::disabled),
                      qMakePair(static_cast<PowerNode*>(twice), VelaPowerNodeStates::disabled)};
    registerModule(A);
    LogCapture log;
    const PowerNodeRequestPtr request = targetRequest(target);

    const CMReply<void> reply = runToEnd(request);

    EXPECT_FALSE(reply.error().isError());
    ASSERT_EQ(request->nodes().size(), 3);
    EXPECT_EQ(log.count(log4cplus::DEBUG_LOG_LEVEL,
                        "Node: " + str(twice->name()) + " updated by: A with action type: release"),
              1)
        << log.dump();
    EXPECT_EQ(countStartingWith(writeLabel(twice, "off")), 1) << eventDump();
    // One message each way, listing the resource once.
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::revoke, {twice}));
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {twice}));
    EXPECT_EQ(twice->state(), VelaPowerNodeStates::disabled);
}

TEST_F(RequestExecution, NodeAlreadyCarryingTheActionStartsNoChangeAndTheRequestSucceeds)
{
    PowerResource* resource = makeClaimedResource({{A, VelaPowerModuleActions::use}});
    registerModule(A);
    LogCapture log;
    const PowerNodeRequestPtr request = requestFor(resource, A, VelaPowerModuleActions::use);

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
    PowerResource* resource = makeClaimedResource({{A, VelaPowerModuleActions::hold}});
    const PowerNodeRequestPtr request = requestFor(resource, A, VelaPowerModuleActions::hold);
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
    const DisablingTarget graph =
        makeTargetDisabling({{A, VelaPowerModuleActions::use}, {C, VelaPowerModuleActions::hold}});
    PowerTarget* target = graph.target;
    registerModule(A);
    registerModule(C);
    registerModule(VelaPowerManagerName());
    LogCapture log;
    const PowerNodeRequestPtr request = targetRequest(target);

    const CMReply<void> reply = request->process();

    ASSERT_TRUE(reply.isFinished()) << "a failed resolution answers at once";
    drainEvents();
    const CMError error = reply.error();
    EXPECT_TRUE(error.isError());
    EXPECT_EQ(error.message().toString(), QStringLiteral("Failed to resolve dependencies"));
    EXPECT_EQ(error.name(), CMError::DefaultName());
    EXPECT_EQ(error.title().toString(), CMError::DefaultTitle());
    EXPECT_FALSE(request->isValid());
    EXPECT_FALSE(request->isProcessing());
    EXPECT_TRUE(m_events.empty()) << "no module told, nothing written\n" << eventDump();
    EXPECT_EQ(graph.resources[0]->moduleAction(A), VelaPowerModuleActions::use);
    EXPECT_EQ(target->state(), VelaPowerNodeStates::initial);
    EXPECT_EQ(log.count(log4cplus::INFO_LOG_LEVEL, "node unreachable: " + str(target->name())), 1) << log.dump();
    EXPECT_FALSE(log.containsFragment(log4cplus::TRACE_LOG_LEVEL, "PowerNodeRequest::notify()")) << log.dump();
}

TEST_F(RequestExecution, FailingWriteStillLeadsToPostNotificationsAndASuccessfulRequest)
{
    const DisablingTarget graph = makeTargetDisabling(
        {{A, VelaPowerModuleActions::use, Answer::WithError}, {B, VelaPowerModuleActions::use}});
    PowerResource* failing = graph.resources[0];
    PowerResource* fine = graph.resources[1];
    registerModule(A);
    registerModule(B);
    LogCapture log;
    const PowerNodeRequestPtr request = targetRequest(graph.target);

    const CMReply<void> reply = runToEnd(request);

    EXPECT_FALSE(reply.error().isError()) << str(reply.error().message().toString());
    EXPECT_TRUE(request->isValid());
    ASSERT_GE(indexOf("failed " + writeLabel(failing, "off")), 0) << eventDump();
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL,
                        "Failed to disable resource " + str(failing->name()) + ", error: refused by the test"),
              1)
        << log.dump();
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {failing}));
    EXPECT_GT(indexOf("post A"), indexOf("failed " + writeLabel(failing, "off"))) << eventDump();
    EXPECT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::postRevoke, {fine}));
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
    const PowerNodeRequestPtr request = requestFor(failing, A, VelaPowerModuleActions::use);
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

// A resource whose latest enable transition ended with an error, as a node
// kind of a service may leave it: asking it to enable again hands out that
// finished reply, so the change of a module's action fails.
class FailedEnableResource : public PowerResource
{
public:
    explicit FailedEnableResource(VelaPowerManagerResources::Enum resource)
        : PowerResource(resource)
    {
        m_state = VelaPowerNodeStates::enabled;
        m_enableReply.setError(CMError(TrString("enable failed in the node")));
    }
};

TEST_F(RequestExecution, ExecuteCarriesTheFailedChangeWhileTheRequestSucceeds)
{
    registerModule(A);
    FailedEnableResource executedAlone(static_cast<VelaPowerManagerResources::Enum>(9001));
    FailedEnableResource processed(static_cast<VelaPowerManagerResources::Enum>(9002));

    // execute() reports the change's error on its own reply ...
    const PowerNodeRequestPtr direct = requestFor(&executedAlone, A, VelaPowerModuleActions::use);
    ASSERT_TRUE(direct->resolve());
    const CMReply<void> executed = direct->execute();
    ASSERT_TRUE(waitUntil([&executed]() { return executed.isFinished(); }));
    EXPECT_EQ(executed.error().message().toString(), QStringLiteral("enable failed in the node"));
    EXPECT_FALSE(direct->reply().isFinished());

    // ... while the same change run by process() leaves the request's reply
    // successful and the request valid.
    const PowerNodeRequestPtr request = requestFor(&processed, A, VelaPowerModuleActions::use);
    const CMReply<void> reply = request->process();
    ASSERT_TRUE(waitUntil([&reply]() { return reply.isFinished(); }));
    EXPECT_FALSE(reply.error().isError()) << str(reply.error().message().toString());
    EXPECT_TRUE(request->isValid());
    EXPECT_EQ(processed.moduleAction(A), VelaPowerModuleActions::use);
}

// process() on a request that has already finished, in each of the three
// ways a request finishes.
enum class Finished { Succeeded, BornWithoutNode, FailedToResolve };

const char* nameOf(Finished finished)
{
    switch (finished) {
    case Finished::Succeeded:
        return "Succeeded";
    case Finished::BornWithoutNode:
        return "BornWithoutNode";
    case Finished::FailedToResolve:
        return "FailedToResolve";
    }
    return "Unknown";
}

void PrintTo(Finished finished, std::ostream* out)
{
    *out << nameOf(finished);
}

std::string finishedName(const ::testing::TestParamInfo<Finished>& info)
{
    return nameOf(info.param);
}

class ProcessOnAFinishedRequest : public RequestTest, public ::testing::WithParamInterface<Finished>
{
};

TEST_P(ProcessOnAFinishedRequest, ReturnsTheSameReplyAndDoesNothing)
{
    registerModule(A);
    PowerNodeRequestPtr request;
    CMReply<void> first;
    QString expectedError;
    int expectedNodes = 0;
    bool expectedProcessing = false;
    switch (GetParam()) {
    case Finished::Succeeded:
        request = requestFor(makeResource(), A, VelaPowerModuleActions::use);
        first = runToEnd(request);
        ASSERT_FALSE(first.error().isError());
        expectedNodes = 1;
        expectedProcessing = true;
        break;
    case Finished::BornWithoutNode:
        request = requestFor(nullptr, A, VelaPowerModuleActions::use);
        first = request->reply();
        expectedError = QStringLiteral("Invalid power node pointer");
        break;
    case Finished::FailedToResolve:
        request = targetRequest(makeUnreachableTarget().target);
        first = request->process();
        expectedError = QStringLiteral("Failed to resolve dependencies");
        expectedNodes = 1;
        break;
    }
    ASSERT_TRUE(first.isFinished());
    drainEvents();
    const std::vector<std::string> eventsBefore = m_events;
    PowerNode* node = request->node();
    const VelaPowerNodeStates::Enum stateBefore = node ? node->state() : VelaPowerNodeStates::initial;
    LogCapture log;

    const CMReply<void> second = request->process();

    EXPECT_TRUE(second == first) << "the very same reply";
    EXPECT_TRUE(second.isFinished());
    EXPECT_EQ(second.error().isError(), !expectedError.isEmpty());
    EXPECT_EQ(second.error().message().toString(), expectedError);
    EXPECT_EQ(request->isProcessing(), expectedProcessing);
    EXPECT_EQ(request->nodes().size(), expectedNodes) << "not resolved a second time";
    drainEvents();
    EXPECT_EQ(m_events, eventsBefore) << eventDump();
    if (node) {
        EXPECT_EQ(node->state(), stateBefore);
    }
    // Only the entry line of process() itself.
    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 1u) << log.dump();
    EXPECT_EQ(events[0].message,
              "Enter [PowerManager] PowerNodeRequest::process(): nodeRequest id: " + std::to_string(request->id()));
}

INSTANTIATE_TEST_SUITE_P(EveryWayToFinish, ProcessOnAFinishedRequest,
                         ::testing::Values(Finished::Succeeded, Finished::BornWithoutNode,
                                           Finished::FailedToResolve),
                         finishedName);

TEST_F(RequestExecution, ProcessingRequestReturnsItsUnfinishedReplyAndFinishesItWithSuccess)
{
    PowerResource* resource = makeClaimedResource({{A, VelaPowerModuleActions::use}});
    registerModule(A, Answer::Held);
    const PowerNodeRequestPtr request = requestFor(resource, A, VelaPowerModuleActions::release);

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

TEST_F(RequestExecution, RequestAloneKeepsItselfAliveUntilItHasFinishedAndIsThenReleased)
{
    PowerResource* resource = makeClaimedResource({{A, VelaPowerModuleActions::use}}, Answer::Later);
    registerModule(A, Answer::Later);
    CMReply<void> reply;
    bool destroyed = false;
    {
        const PowerNodeRequestPtr request = requestFor(resource, A, VelaPowerModuleActions::release);
        QObject::connect(request.data(), &QObject::destroyed, [&destroyed]() { destroyed = true; });
        reply = request->process();
    }
    // The only share left is the one the running request holds itself.
    EXPECT_FALSE(destroyed) << "the running request was released by its caller's last share";
    ASSERT_TRUE(waitUntil([&reply]() { return reply.isFinished(); })) << eventDump();
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {resource}));
    // Once finished, nothing keeps it any longer.
    EXPECT_TRUE(waitUntil([&destroyed]() { return destroyed; })) << "the finished request is never released";
}

TEST_F(RequestExecution, TargetRequestAppliesEveryPlannedAction)
{
    PowerTarget* target = makeTarget();
    PowerResource* kept = makeClaimedResource({{C, VelaPowerModuleActions::hold}});
    PowerResource* r1 = makeClaimedResource({{A, VelaPowerModuleActions::use}, {B, VelaPowerModuleActions::hold}});
    PowerResource* dependant = makeClaimedResource({{B, VelaPowerModuleActions::use}});
    dependant->requiresResource(r1);
    target->enables(kept);
    target->disables(dependant);
    target->disables(r1);
    // B's hold on r1 would block the target; it is released by B first.
    const CMReply<void> released = runToEnd(requestFor(r1, B, VelaPowerModuleActions::release));
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
