// A handler destroyed while its request is stuck on the platform, then its
// nodes: nothing that the request, the transitions or the time-outs made may
// stay behind, whether the platform still holds the unanswered call or has
// let go of it, and no time-out may fire into a node that is gone.

#include "lifetime_fixture.h"

#include "PowerNodeRequest.h"

#include <QPointer>
#include <QString>

#include <gtest/gtest.h>

using namespace lifetimetest;

namespace {

class NothingLeftBehind : public LifetimeTest
{
protected:
    // A module uses a resource that a target switches off: asking for the
    // target sends the module a revoke message that is never answered.
    PowerTarget* targetStuckOnARevokeMessage()
    {
        PowerResource* used = addResource(700, true);
        claim(used, VelaPowerModuleActions::use);
        PowerTarget* target = addTarget(700);
        target->disables(used);
        m_handler->registerTarget(target);
        leaveRevokesUnanswered();
        return target;
    }

    // The resource's enable write is never answered.
    PowerResource* resourceStuckOnAWrite() { return addResource(701, false); }

    // The module asks to use the resource, as a caller of the handler does.
    CMReply<QVariant> askToUse(PowerResource* resource)
    {
        CMReply<QVariant> caller;
        m_handler->requestResource(
            VelaPowerManagerResourceRequest(resource->resource(), module(), VelaPowerModuleActions::use), caller);
        settle();
        return caller;
    }

    // A request queued and started through the queue's own operations, so
    // that the test can watch the request object itself; only the handler
    // and its continuations keep it.
    QPointer<PowerNodeRequest> startRequest(PowerNode* node, const QString& module,
                                            VelaPowerModuleActions::Enum action)
    {
        const PowerNodeRequestPtr request = m_handler->makeRequest(node, module, action);
        EXPECT_TRUE(m_handler->addRequest(request));
        m_handler->tryProcessNextRequest();
        settle();
        return QPointer<PowerNodeRequest>(request.data());
    }

    // The platform lets go last. A caller still waiting when the handler
    // went was released unanswered.
    void expectNothingLeftOnceThePlatformLetsGo(const CMReply<QVariant>& caller)
    {
        releaseKeptCalls();
        EXPECT_FALSE(caller.isFinished()) << "a caller still waiting is released unanswered";
        expectNothingLeaked();
    }

    // The handler and the nodes go while `transition` waits for its write:
    // the transition is answered with an error, and once the platform lets
    // go nothing is left, the write's time-out due or not.
    void expectTransitionAbandonedWithItsNode(const CMReply<void>& transition)
    {
        destroyHandler();
        destroyNodes();
        EXPECT_TRUE(transition.isFinished()) << "a transition is answered when its node goes";
        EXPECT_TRUE(transition.error().isError());
        passTheTimeOut();
        releaseKeptCalls();
        expectNothingLeaked();
    }
};

} // namespace

TEST_P(NothingLeftBehind, TargetRequestWaitingForARevokeAnswer)
{
    PowerTarget* target = targetStuckOnARevokeMessage();
    CMReply<QVariant> caller;
    m_handler->requestTarget(VelaPowerManagerTarget(target->target()), caller);
    settle();
    ASSERT_EQ(m_revokes, 1);
    ASSERT_EQ(m_handler->pendingRequests(), 1);

    destroyHandler();
    destroyNodes();
    expectNothingLeftOnceThePlatformLetsGo(caller);
}

// The node abandons its pending write as it goes: the time-out that was
// still due must neither fire into the node nor keep anything alive.
TEST_P(NothingLeftBehind, ResourceRequestWaitingForAWriteAnswerWhenTheNodesGoBeforeTheTimeOut)
{
    PowerResource* resource = resourceStuckOnAWrite();
    const CMReply<QVariant> caller = askToUse(resource);
    ASSERT_EQ(m_writes, 1);
    ASSERT_EQ(resource->state(), VelaPowerNodeStates::enabling);

    destroyHandler();
    destroyNodes();
    // The time-out of the write was due after the node had gone.
    passTheTimeOut();
    expectNothingLeftOnceThePlatformLetsGo(caller);
}

// The same without ever reaching the time-out: destroying the handler and
// the nodes is enough to release what the write had made.
TEST_P(NothingLeftBehind, PendingWriteIsReleasedWithItsNodeWithoutWaitingForTheTimeOut)
{
    PowerResource* resource = resourceStuckOnAWrite();
    const CMReply<QVariant> caller = askToUse(resource);
    ASSERT_EQ(m_writes, 1);

    destroyHandler();
    destroyNodes();
    expectNothingLeftOnceThePlatformLetsGo(caller);
}

// A resource whose disable write is never answered goes while disabling.
TEST_P(NothingLeftBehind, ResourceDestroyedWhileItsDisableWriteIsPending)
{
    PowerResource* resource = addResource(702, false);
    const CMReply<void> disabling = resource->disable();
    settle();
    ASSERT_EQ(m_writes, 1);
    ASSERT_EQ(resource->state(), VelaPowerNodeStates::disabling);

    expectTransitionAbandonedWithItsNode(disabling);
}

// A negative time-out never fires (the timer refuses it): only the node
// going can end the write's wait.
TEST_P(NothingLeftBehind, ResourceWithANegativeTimeOutDestroyedWhileItsWriteIsPending)
{
    PowerResource* resource = addResource(704, false, -1);
    const CMReply<void> enabling = resource->enable();
    settle();
    ASSERT_EQ(m_writes, 1);
    passTheTimeOut();
    ASSERT_EQ(resource->state(), VelaPowerNodeStates::enabling) << "nothing ended the write's wait";

    expectTransitionAbandonedWithItsNode(enabling);
}

// A dependant waits for its dependency's enable write; the dependant goes
// first, as the nodes' ownership rule asks, then the dependency.
TEST_P(NothingLeftBehind, DependantAndDependencyDestroyedWhileTheDependencyWriteIsPending)
{
    PowerResource* dependency = resourceStuckOnAWrite();
    PowerResource* dependant = addResource(703, true);
    dependant->requiresResource(dependency);
    const CMReply<QVariant> caller = askToUse(dependant);
    ASSERT_EQ(m_writes, 1) << "only the dependency's write has started";
    ASSERT_EQ(dependant->state(), VelaPowerNodeStates::enabling);
    ASSERT_EQ(dependency->state(), VelaPowerNodeStates::enabling);

    destroyHandler();
    destroyNodes();
    passTheTimeOut();
    expectNothingLeftOnceThePlatformLetsGo(caller);
}

TEST_P(NothingLeftBehind, ResourceRequestWaitingForAWriteAnswerWhenTheTimeOutComesAfterTheHandlerWent)
{
    PowerResource* resource = resourceStuckOnAWrite();
    const CMReply<QVariant> caller = askToUse(resource);
    ASSERT_EQ(m_writes, 1);

    destroyHandler();
    passTheTimeOut();
    // The node finished its transition on its own; the handler's part of the
    // work was left undone with the handler.
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::enabled);
    destroyNodes();
    expectNothingLeftOnceThePlatformLetsGo(caller);
}

// In every build: the request object that was stuck is deleted with the
// handler (and the platform letting go), not kept alive by its own
// continuations.
TEST_P(NothingLeftBehind, RequestStuckOnARevokeMessageIsDeleted)
{
    PowerTarget* target = targetStuckOnARevokeMessage();
    const QPointer<PowerNodeRequest> watched =
        startRequest(target, VelaPowerManagerName(), VelaPowerModuleActions::hold);
    ASSERT_EQ(m_revokes, 1);
    ASSERT_FALSE(watched.isNull());

    destroyHandler();
    destroyNodes();
    releaseKeptCalls();

    EXPECT_TRUE(watched.isNull());
}

TEST_P(NothingLeftBehind, RequestStuckOnAWriteIsDeleted)
{
    PowerResource* resource = resourceStuckOnAWrite();
    const QPointer<PowerNodeRequest> watched = startRequest(resource, module(), VelaPowerModuleActions::use);
    ASSERT_EQ(m_writes, 1);
    ASSERT_FALSE(watched.isNull());

    destroyHandler();
    passTheTimeOut();
    destroyNodes();
    releaseKeptCalls();

    EXPECT_TRUE(watched.isNull());
}

INSTANTIATE_TEST_SUITE_P(Platform, NothingLeftBehind, ::testing::Values(Unanswered::Kept, Unanswered::Dropped),
                         [](const ::testing::TestParamInfo<Unanswered>& info) { return nameOf(info.param); });
