// Module notification: who is told what before a request changes the graph
// (and, for comparison, after), and how the answers hold the request back.

#include "requestfixture.h"

namespace requests {
namespace {

const QString A = QStringLiteral("A");
const QString B = QStringLiteral("B");
const QString C = QStringLiteral("C");
const QString D = QStringLiteral("D");

/*
 * Target T enables r3 (held by C, and by A, with hold) and disables r1 (A
 * uses it; D already released it) and r2 (B uses it). T is reachable: no
 * other module holds what it disables.
 */
struct RevokeGraph {
    PowerTarget* target;
    PowerResource* r1;
    PowerResource* r2;
    PowerResource* r3;
};

class RequestNotification : public RequestTest
{
protected:
    // A target that disables r1, which A uses, and r2, which B uses.
    DisablingTarget makeTwoModuleTarget()
    {
        return makeTargetDisabling({{A, VelaPowerModuleActions::use}, {B, VelaPowerModuleActions::use}});
    }
};

class RevokeTest : public RequestTest
{
protected:
    RevokeGraph makeGraph(Answer writes = Answer::AtOnce)
    {
        RevokeGraph graph{
            makeTarget(),
            makeClaimedResource({{A, VelaPowerModuleActions::use}, {D, VelaPowerModuleActions::release}}, writes),
            makeClaimedResource({{B, VelaPowerModuleActions::use}}, writes),
            makeClaimedResource({{C, VelaPowerModuleActions::hold}, {A, VelaPowerModuleActions::hold}}, writes)};
        graph.target->enables(graph.r3);
        graph.target->disables(graph.r1);
        graph.target->disables(graph.r2);
        EXPECT_TRUE(graph.target->isStateReachable(VelaPowerNodeStates::enabled, VelaPowerManagerName(), true));
        return graph;
    }

    // Every write of the request (r3 on, r1 off, r2 off).
    std::vector<std::string> writesOf(const RevokeGraph& graph) const
    {
        return {writeLabel(graph.r3, "on"), writeLabel(graph.r1, "off"), writeLabel(graph.r2, "off")};
    }
};

TEST_F(RevokeTest, TargetChangeRevokesEachUsingModuleBeforeAndAfterAndSparesTheHolders)
{
    const RevokeGraph graph = makeGraph();
    registerModule(A);
    registerModule(B);
    registerModule(C);
    registerModule(D);

    const CMReply<void> reply = runToEnd(targetRequest(graph.target));
    EXPECT_FALSE(reply.error().isError());

    ASSERT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::revoke, {graph.r1}));
    ASSERT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {graph.r1}));
    ASSERT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::revoke, {graph.r2}));
    ASSERT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::postRevoke, {graph.r2}));

    // Spelled out through the record's accessors as well.
    const VelaPowerManagerRevokeMessage message(invocationsAt(revokePath(A))[0].arguments);
    EXPECT_EQ(message.moduleName(), A);
    EXPECT_EQ(message.messageType(), VelaPowerManagerMessageTypes::revoke);
    ASSERT_EQ(message.revokeResources().size(), 1);
    EXPECT_EQ(message.revokeResources()[0], graph.r1->resource());
    EXPECT_EQ(VelaPowerManagerRevokeMessage(invocationsAt(postRevokePath(B))[0].arguments).messageType(),
              VelaPowerManagerMessageTypes::postRevoke);
    for (const Invocation& invocation : m_invocations)
        EXPECT_TRUE(revokeListHoldsIntegers(invocation.arguments)) << invocation.label;

    // The holder of the kept resource and the module whose action already
    // was release hear nothing.
    EXPECT_TRUE(toldNothing(C));
    EXPECT_TRUE(toldNothing(D));
    EXPECT_EQ(m_invocations.size(), 4u) << eventDump();

    // Type 0 comes before type 1 for each module.
    EXPECT_LT(indexOf("pre A"), indexOf("post A")) << eventDump();
    EXPECT_LT(indexOf("pre B"), indexOf("post B")) << eventDump();

    EXPECT_EQ(graph.r1->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(graph.r2->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(graph.r3->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(graph.target->state(), VelaPowerNodeStates::enabled);
}

TEST_F(RevokeTest, PreNotificationsAnsweredLateHoldBackExecutionUntilTheLastAnswer)
{
    const RevokeGraph graph = makeGraph(Answer::Later);
    registerModule(A, Answer::Held);
    registerModule(B, Answer::Held);
    LogCapture log;

    const PowerNodeRequestPtr request = targetRequest(graph.target);
    const CMReply<void> reply = request->process();
    const std::string preFinished = "nodeRequest id: " + std::to_string(request->id()) + " all pre notifications finished";

    // Both modules are told at once, before anything is answered.
    EXPECT_EQ(m_held.size(), 2u) << eventDump();
    drainEvents();
    EXPECT_EQ(countStartingWith("write "), 0) << eventDump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, preFinished), 0);
    EXPECT_TRUE(request->isProcessing());
    EXPECT_FALSE(reply.isFinished());

    ASSERT_TRUE(answerHeld("pre A"));
    drainEvents();
    EXPECT_EQ(countStartingWith("write "), 0) << "a change started before B answered\n" << eventDump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, preFinished), 0);
    EXPECT_FALSE(reply.isFinished());

    ASSERT_TRUE(answerHeld("pre B"));
    ASSERT_TRUE(waitUntil([&reply]() { return reply.isFinished(); })) << eventDump();
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, preFinished), 1) << log.dump();

    // pre A, pre B, answered pre A, answered pre B, then the writes, their
    // answers, and the post notifications last.
    const int lastPreAnswer = indexOf("answered pre B");
    for (const std::string& write : writesOf(graph)) {
        SCOPED_TRACE(write);
        EXPECT_EQ(std::count(m_events.begin(), m_events.end(), write), 1) << eventDump();
        EXPECT_GT(indexOf(write), lastPreAnswer) << eventDump();
    }
    const std::vector<int> writes = indicesStartingWith("write ");
    const std::vector<int> answers = indicesStartingWith("answered write ");
    const std::vector<int> posts = indicesStartingWith("post ");
    ASSERT_EQ(writes.size(), 3u) << eventDump();
    ASSERT_EQ(answers.size(), 3u) << eventDump();
    ASSERT_EQ(posts.size(), 2u) << eventDump();
    EXPECT_LT(*std::max_element(writes.begin(), writes.end()), *std::min_element(answers.begin(), answers.end()))
        << "every change starts before any is answered\n"
        << eventDump();
    EXPECT_GT(*std::min_element(posts.begin(), posts.end()), *std::max_element(answers.begin(), answers.end()))
        << "post notifications go out once every change has finished\n"
        << eventDump();
}

TEST_F(RevokeTest, PreNotificationAnsweredWithAnErrorDoesNotStopTheRequest)
{
    const RevokeGraph graph = makeGraph();
    registerModule(A, Answer::WithError);
    registerModule(B);
    const PowerNodeRequestPtr request = targetRequest(graph.target);

    const CMReply<void> reply = runToEnd(request);

    EXPECT_FALSE(reply.error().isError()) << str(reply.error().message().toString());
    EXPECT_TRUE(request->isValid());
    EXPECT_GE(indexOf("failed pre A"), 0) << eventDump();
    EXPECT_GT(indexOf(writeLabel(graph.r1, "off")), indexOf("failed pre A")) << eventDump();
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {graph.r1}));
    EXPECT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::postRevoke, {graph.r2}));
    EXPECT_EQ(graph.r1->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(graph.r2->state(), VelaPowerNodeStates::disabled);
}

TEST_F(RevokeTest, PreNotificationToAnUnregisteredPathDoesNotStopTheRequest)
{
    const RevokeGraph graph = makeGraph();
    registerModule(B);
    // A's registration names a revoke path that nobody serves.
    const CMPath nowhere(QStringLiteral("/nowhere/A/revoke"));
    handleInvoke(postRevokePath(A), "post A", Answer::AtOnce);
    m_registrations.insert(A, VelaPowerManagerModuleRegister(A, nowhere, postRevokePath(A)));
    const PowerNodeRequestPtr request = targetRequest(graph.target);

    const CMReply<void> reply = runToEnd(request);

    EXPECT_FALSE(reply.error().isError()) << str(reply.error().message().toString());
    EXPECT_TRUE(request->isValid());
    EXPECT_EQ(countStartingWith(writeLabel(graph.r1, "off")), 1) << eventDump();
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {graph.r1}));
    EXPECT_EQ(graph.r1->state(), VelaPowerNodeStates::disabled);
}

TEST_F(RequestNotification, NotifyModuleToAnUnregisteredPathReturnsTheWorkersError)
{
    PowerResource* resource = makeResource();
    const PowerNodeRequestPtr request =
        requestFor(resource, A, VelaPowerModuleActions::use);
    const VelaPowerManagerRevokeMessage message(
        revokeMessage(A, VelaPowerManagerMessageTypes::revoke, {resource}));

    const CMReply<QVariant> reply = request->notifyModule(CMPath(QStringLiteral("/nowhere/A/revoke")), message);

    ASSERT_TRUE(waitUntil([&reply]() { return reply.isFinished(); }));
    EXPECT_EQ(reply.error().name(), CMRootWorker::NoHandlerError());
}

TEST_F(RequestNotification, NotifyModuleInvokesThePathAndReturnsItsAnswer)
{
    PowerResource* resource = makeResource();
    const PowerNodeRequestPtr request =
        requestFor(resource, A, VelaPowerModuleActions::use);
    const CMPath path(QStringLiteral("/modules/A/answering"));
    VelaHash received;
    int calls = 0;
    CMRootWorker::instance()->registerInvokeHandler(
        path, [&received, &calls](const CMPath&, const VelaHash& arguments, CMReply<QVariant> reply) {
            ++calls;
            received = arguments;
            reply.setValue(QVariant(42));
        });
    const VelaHash message = revokeMessage(A, VelaPowerManagerMessageTypes::revoke, {resource});

    const CMReply<QVariant> reply = request->notifyModule(path, VelaPowerManagerRevokeMessage(message));

    ASSERT_TRUE(waitUntil([&reply]() { return reply.isFinished(); }));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(received, message);
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(reply.value(), QVariant(42));
}

TEST_F(RequestNotification, NotifyModuleWithAnEmptyPathOrNothingRevokedSendsNothingAndFinishesAtOnce)
{
    PowerResource* resource = makeResource();
    registerModule(A);
    const PowerNodeRequestPtr request =
        requestFor(resource, A, VelaPowerModuleActions::use);

    const CMReply<QVariant> emptyPath = request->notifyModule(
        CMPath(), VelaPowerManagerRevokeMessage(revokeMessage(A, VelaPowerManagerMessageTypes::revoke, {resource})));
    const CMReply<QVariant> nothingRevoked = request->notifyModule(
        revokePath(A), VelaPowerManagerRevokeMessage(revokeMessage(A, VelaPowerManagerMessageTypes::revoke, {})));

    EXPECT_TRUE(emptyPath.isFinished());
    EXPECT_TRUE(nothingRevoked.isFinished());
    EXPECT_FALSE(emptyPath.error().isError());
    EXPECT_FALSE(nothingRevoked.error().isError());
    EXPECT_FALSE(emptyPath.value().isValid());
    EXPECT_FALSE(nothingRevoked.value().isValid());
    EXPECT_TRUE(m_invocations.empty()) << eventDump();
}

TEST_F(RequestNotification, ChangesTouchingNoResourceSendNothingAndNotifyFinishesAtOnce)
{
    // The target enables nothing and disables only another target, which a
    // registered module uses: neither is a resource, so nobody is told.
    PowerTarget* target = makeTarget();
    PowerTarget* other = makeTarget();
    other->addModule(A, VelaPowerModuleActions::use);
    target->disables(other);
    registerModule(A);
    registerModule(VelaPowerManagerName());

    const PowerNodeRequestPtr request = targetRequest(target);
    ASSERT_TRUE(request->resolve());
    ASSERT_EQ(request->nodes().size(), 2);
    const CMReply<void> notified = request->notify();
    EXPECT_TRUE(waitUntil([&notified]() { return notified.isFinished(); }));
    EXPECT_FALSE(notified.error().isError());
    EXPECT_TRUE(m_invocations.empty()) << eventDump();

    // The whole request says nothing to anybody either.
    const CMReply<void> reply = runToEnd(targetRequest(target));
    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(m_invocations.empty()) << eventDump();
    EXPECT_EQ(other->moduleAction(A), VelaPowerModuleActions::release);
    EXPECT_EQ(other->state(), VelaPowerNodeStates::disabled);
}

TEST_F(RequestNotification, PlainNodeRequestSendsNothing)
{
    PlainNode* node = makePlainNode();
    registerModule(A);
    const CMReply<void> reply = runToEnd(requestFor(node, A, VelaPowerModuleActions::release));
    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(m_invocations.empty()) << eventDump();
}

TEST_F(RequestNotification, ModuleThatOnlyGainsUseOrHoldGetsNoMessage)
{
    PowerResource* used = makeResource();
    PowerResource* held = makeResource();
    registerModule(A);
    LogCapture log;

    const CMReply<void> first = runToEnd(requestFor(used, A, VelaPowerModuleActions::use));
    const CMReply<void> second = runToEnd(requestFor(held, A, VelaPowerModuleActions::hold));

    EXPECT_FALSE(first.error().isError());
    EXPECT_FALSE(second.error().isError());
    EXPECT_TRUE(m_invocations.empty()) << eventDump();
    EXPECT_EQ(used->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(held->state(), VelaPowerNodeStates::enabled);
    // The message is still built, without revoke list, and handed to
    // notifyModule, which does not send it: once before and once after each
    // change.
    const std::string pre = "Enter [PowerManager] PowerNodeRequest::notifyModule(): path: "
        + revokePath(A).toString().toStdString() + " message: {messageType: 0, moduleName: A}";
    const std::string post = "Enter [PowerManager] PowerNodeRequest::notifyModule(): path: "
        + postRevokePath(A).toString().toStdString() + " message: {messageType: 1, moduleName: A}";
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, pre), 2) << log.dump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, post), 2) << log.dump();
}

TEST_F(RequestNotification, ResourceReleasedByItsModuleIsRevokedFromThatModule)
{
    PowerResource* resource = makeClaimedResource({{A, VelaPowerModuleActions::use}});
    registerModule(A);

    const CMReply<void> reply = runToEnd(requestFor(resource, A, VelaPowerModuleActions::release));

    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::revoke, {resource}));
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {resource}));
}

TEST_F(RequestNotification, ModuleMissingFromTheRegistrationCopyIsSkippedSilently)
{
    const DisablingTarget graph = makeTwoModuleTarget();
    PowerResource* r1 = graph.resources[0];
    registerModule(A);
    registerModule(B);
    m_registrations.remove(A); // A's handlers stay in place
    LogCapture log;

    const CMReply<void> reply = runToEnd(targetRequest(graph.target));

    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(toldNothing(A));
    EXPECT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::revoke, {graph.resources[1]}));
    EXPECT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::postRevoke, {graph.resources[1]}));
    EXPECT_EQ(r1->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(r1->moduleAction(A), VelaPowerModuleActions::release);
    // Silently: no notifyModule line for A and nothing above INFO.
    EXPECT_FALSE(log.containsFragment(log4cplus::TRACE_LOG_LEVEL, "moduleName: A")) << log.dump();
    for (const CapturedEvent& event : log.events())
        EXPECT_LT(event.level, log4cplus::WARN_LOG_LEVEL) << event.message;
}

TEST_F(RequestNotification, RegistrationsChangedAfterCreationDoNotReachTheRequest)
{
    const DisablingTarget graph = makeTwoModuleTarget();
    registerModule(B);
    const PowerNodeRequestPtr request = targetRequest(graph.target);
    // Registered only once the request exists, and B's paths moved.
    registerModule(A);
    m_registrations[B].setRevokeResourcesPath(revokePath(A)).setPostRevokeResourcesPath(postRevokePath(A));

    const CMReply<void> reply = runToEnd(request);

    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(toldNothing(A));
    EXPECT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::revoke, {graph.resources[1]}));
    EXPECT_TRUE(toldOnce(B, VelaPowerManagerMessageTypes::postRevoke, {graph.resources[1]}));
}

TEST_F(RequestNotification, ModuleLosingTwoResourcesGetsOneMessageListingBoth)
{
    const DisablingTarget graph =
        makeTargetDisabling({{A, VelaPowerModuleActions::use}, {A, VelaPowerModuleActions::use}});
    PowerResource* r1 = graph.resources[0];
    PowerResource* r2 = graph.resources[1];
    graph.target->enables(makeClaimedResource({{A, VelaPowerModuleActions::use}}));
    registerModule(A);

    const CMReply<void> reply = runToEnd(targetRequest(graph.target));

    EXPECT_FALSE(reply.error().isError());
    const std::vector<Invocation> pre = invocationsAt(revokePath(A));
    ASSERT_EQ(pre.size(), 1u) << eventDump();
    const VelaPowerManagerRevokeMessage message(pre[0].arguments);
    EXPECT_EQ(message.moduleName(), A);
    EXPECT_EQ(message.messageType(), VelaPowerManagerMessageTypes::revoke);
    const VelaList<VelaPowerManagerResources::Enum> revoked = message.revokeResources();
    const std::set<int> listed(revoked.cbegin(), revoked.cend());
    EXPECT_EQ(listed, (std::set<int>{r1->resource(), r2->resource()}));
    EXPECT_EQ(revoked.size(), 2);
    EXPECT_TRUE(revokeListHoldsIntegers(pre[0].arguments));
    EXPECT_EQ(invocationsAt(postRevokePath(A)).size(), 1u) << eventDump();
}

TEST_F(RequestNotification, ModuleWithoutRevokePathIsOnlyToldAfterwards)
{
    const DisablingTarget graph = makeTargetDisabling({{A, VelaPowerModuleActions::use}});
    handleInvoke(postRevokePath(A), "post A", Answer::AtOnce);
    m_registrations.insert(A, VelaPowerManagerModuleRegister(A, CMPath(), postRevokePath(A)));

    const CMReply<void> reply = runToEnd(targetRequest(graph.target));

    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(m_invocations.size(), 1u) << eventDump();
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::postRevoke, {graph.resources[0]}));
}

TEST_F(RequestNotification, NotifyWaitsForEveryModuleAndIgnoresTheirOutcome)
{
    const DisablingTarget graph = makeTwoModuleTarget();
    registerModule(A, Answer::Held);
    registerModule(B, Answer::Held);
    const PowerNodeRequestPtr request = targetRequest(graph.target);
    ASSERT_TRUE(request->resolve());

    const CMReply<void> notified = request->notify();
    EXPECT_EQ(m_held.size(), 2u) << eventDump();
    drainEvents();
    EXPECT_FALSE(notified.isFinished());

    // One answer with an error, the other with success: the join succeeds.
    ASSERT_TRUE(failHeld("pre A", QStringLiteral("busy")));
    drainEvents();
    EXPECT_FALSE(notified.isFinished());

    ASSERT_TRUE(answerHeld("pre B"));
    ASSERT_TRUE(waitUntil([&notified]() { return notified.isFinished(); }));
    EXPECT_FALSE(notified.error().isError());
    // notify() alone changes nothing on the graph.
    EXPECT_EQ(countStartingWith("write "), 0) << eventDump();
    EXPECT_EQ(graph.resources[0]->moduleAction(A), VelaPowerModuleActions::use);
}

/*
 * Many modules losing several resources each: the messages go out module by
 * module, and list the resources, in the order of a table of tables filled
 * change by change from the resolved nodes (the order the request has always
 * used). The expected order is computed here that literal way, from a twin
 * request resolved on the same graph.
 */
TEST_F(RequestNotification, ManyModulesAreToldInTheOrderOfTheChangeTable)
{
    const QString modules[] = {A, B, C, D, QStringLiteral("E")};
    PowerTarget* target = makeTarget();
    for (int i = 0; i < 15; ++i) {
        PowerResource* resource = makeClaimedResource(
            {{modules[i % 5], VelaPowerModuleActions::use}, {modules[(i * 2 + 1) % 5], VelaPowerModuleActions::use}});
        target->disables(resource);
    }
    for (const QString& module : modules)
        registerModule(module);

    QHash<QString, QHash<VelaPowerManagerResources::Enum, VelaPowerModuleActions::Enum>> table;
    const PowerNodeRequestPtr twin = targetRequest(target);
    ASSERT_TRUE(twin->resolve());
    for (const PowerNodeRequest::NodeInfo& info : twin->nodes()) {
        auto* resource = dynamic_cast<PowerResource*>(info.node);
        for (auto it = info.moduleActions.cbegin(); it != info.moduleActions.cend(); ++it) {
            if (resource && it.value() != info.node->moduleAction(it.key()))
                table[it.key()][resource->resource()] = it.value();
        }
    }
    ASSERT_EQ(table.size(), 5);

    const CMReply<void> reply = runToEnd(targetRequest(target));
    EXPECT_FALSE(reply.error().isError());

    std::vector<std::string> expectedOrder;
    std::vector<std::string> toldOrder;
    for (auto it = table.cbegin(); it != table.cend(); ++it) {
        expectedOrder.push_back("pre " + str(it.key()));
        const std::vector<Invocation> told = invocationsAt(revokePath(it.key()));
        ASSERT_EQ(told.size(), 1u) << str(it.key()) << "\n" << eventDump();
        const VelaList<VelaPowerManagerResources::Enum> listed =
            VelaPowerManagerRevokeMessage(told[0].arguments).revokeResources();
        EXPECT_EQ(listed, VelaList<VelaPowerManagerResources::Enum>(it.value().keys())) << str(it.key());
    }
    for (const Invocation& invocation : m_invocations) {
        if (invocation.label.compare(0, 4, "pre ") == 0)
            toldOrder.push_back(invocation.label);
    }
    EXPECT_EQ(toldOrder, expectedOrder) << eventDump();
}

// A node that resolution lists twice is one change: its module hears of the
// resource once, in one message that lists it once.
TEST_F(RequestNotification, ResourceListedTwiceIsRevokedOnce)
{
    ScriptedTarget* target = makeScriptedTarget();
    PowerResource* resource = makeClaimedResource({{A, VelaPowerModuleActions::use}});
    target->script = {qMakePair(static_cast<PowerNode*>(resource), VelaPowerNodeStates::disabled),
                      qMakePair(static_cast<PowerNode*>(resource), VelaPowerNodeStates::disabled)};
    registerModule(A);

    const CMReply<void> reply = runToEnd(targetRequest(target));

    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(toldOnce(A, VelaPowerManagerMessageTypes::revoke, {resource}));
}

} // namespace
} // namespace requests
