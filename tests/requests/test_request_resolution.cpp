// Resolution: the ordered list of nodes a request changes, each with the
// complete module-action map it is to carry.

#include "requestfixture.h"

namespace requests {
namespace {

using RequestResolution = RequestTest;
using ActionMap = QHash<QString, VelaPowerModuleActions::Enum>;

const QString kModule = QStringLiteral("camera-app");

// Every module of `node`, each forced to release.
ActionMap allReleased(const PowerNode* node)
{
    ActionMap map = node->moduleActions();
    for (auto it = map.begin(); it != map.end(); ++it)
        it.value() = VelaPowerModuleActions::release;
    return map;
}

std::string names(const QList<PowerNodeRequest::NodeInfo>& nodes)
{
    std::string text;
    for (const PowerNodeRequest::NodeInfo& info : nodes)
        text += str(info.node->name()) + " ";
    return text;
}

TEST_F(RequestResolution, ResourceRequestYieldsOneEntryWithTheModuleActionMerged)
{
    PowerResource* resource = makeResource();
    resource->addModule(QStringLiteral("other"), VelaPowerModuleActions::hold);
    resource->addModule(kModule, VelaPowerModuleActions::release);
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, kModule, VelaPowerModuleActions::use, m_registrations);

    EXPECT_TRUE(request->resolve());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 1) << names(nodes);
    EXPECT_EQ(nodes[0].node, resource);
    const ActionMap expected{{QStringLiteral("other"), VelaPowerModuleActions::hold},
                             {kModule, VelaPowerModuleActions::use}};
    EXPECT_EQ(nodes[0].moduleActions, expected);
    // Resolution only plans: the node's own map and state are untouched.
    EXPECT_EQ(resource->moduleAction(kModule), VelaPowerModuleActions::release);
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::initial);
    EXPECT_TRUE(m_events.empty()) << eventDump();
}

TEST_F(RequestResolution, ResourceRequestOfANewModuleInsertsItIntoTheMap)
{
    PowerResource* resource = makeResource();
    resource->addModule(QStringLiteral("other"), VelaPowerModuleActions::use);
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, kModule, VelaPowerModuleActions::hold, m_registrations);

    EXPECT_TRUE(request->resolve());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 1);
    const ActionMap expected{{QStringLiteral("other"), VelaPowerModuleActions::use},
                             {kModule, VelaPowerModuleActions::hold}};
    EXPECT_EQ(nodes[0].moduleActions, expected);
}

TEST_F(RequestResolution, ResourceResolvesToItselfEvenWhenOtherNodesRequireIt)
{
    PowerResource* resource = makeResource();
    PowerResource* dependant = makeResource();
    PowerResource* dependency = makeResource();
    dependant->requiresResource(resource);
    resource->requiresResource(dependency);
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, kModule, VelaPowerModuleActions::release, m_registrations);

    EXPECT_TRUE(request->resolve());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 1) << names(nodes);
    EXPECT_EQ(nodes[0].node, resource);
    EXPECT_EQ(nodes[0].moduleActions, (ActionMap{{kModule, VelaPowerModuleActions::release}}));
}

TEST_F(RequestResolution, PlainNodeResolvesToItselfAlone)
{
    PlainNode* node = makePlainNode();
    PowerResource* dependency = makeResource();
    node->requiresNode(dependency);
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(node, kModule, VelaPowerModuleActions::use, m_registrations);

    EXPECT_TRUE(request->resolve());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 1) << names(nodes);
    EXPECT_EQ(nodes[0].node, node);
    EXPECT_EQ(nodes[0].moduleActions, (ActionMap{{kModule, VelaPowerModuleActions::use}}));
}

TEST_F(RequestResolution, TargetWhoseOrderedDependenciesAllCarryEnabledYieldsOneEntry)
{
    PowerTarget* target = makeTarget();
    PowerResource* first = makeResource();
    PowerResource* second = makeResource();
    PowerResource* deeper = makeResource();
    first->addModule(QStringLiteral("A"), VelaPowerModuleActions::use);
    second->requiresResource(deeper);
    target->enables(first);
    target->enables(second);
    target->addModule(QStringLiteral("observer"), VelaPowerModuleActions::use);
    ASSERT_EQ(target->orderedDependencies(VelaPowerNodeStates::enabled, true).size(), 3);

    const PowerNodeRequestPtr request = targetRequest(target);
    EXPECT_TRUE(request->resolve());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 1) << names(nodes);
    EXPECT_EQ(nodes[0].node, target);
    const ActionMap expected{{QStringLiteral("observer"), VelaPowerModuleActions::use},
                             {VelaPowerManagerName(), VelaPowerModuleActions::hold}};
    EXPECT_EQ(nodes[0].moduleActions, expected);
}

TEST_F(RequestResolution, TargetComesFirstThenEveryDisabledDependencyWithAllModulesReleased)
{
    PowerTarget* target = makeTarget();
    PowerResource* kept = makeResource();
    PowerResource* r1 = makeResource();
    PowerResource* r2 = makeResource();
    PowerResource* dependantOfR1 = makeResource();
    PowerTarget* otherTarget = makeTarget();
    kept->addModule(QStringLiteral("C"), VelaPowerModuleActions::hold);
    r1->addModule(QStringLiteral("A"), VelaPowerModuleActions::use);
    r1->addModule(QStringLiteral("D"), VelaPowerModuleActions::release);
    r2->addModule(QStringLiteral("B"), VelaPowerModuleActions::use);
    r2->addModule(QStringLiteral("A"), VelaPowerModuleActions::use);
    dependantOfR1->addModule(QStringLiteral("E"), VelaPowerModuleActions::use);
    otherTarget->addModule(QStringLiteral("F"), VelaPowerModuleActions::use);
    dependantOfR1->requiresResource(r1);
    target->enables(kept);
    target->disables(r1);
    target->disables(r2);
    target->disables(otherTarget);

    const PowerNodeRequestPtr request = targetRequest(target);
    ASSERT_TRUE(request->resolve());

    // The expected list follows the graph's own ordering, whatever the order
    // of its sets.
    QList<PowerNode*> disabled;
    for (const auto& pair : target->orderedDependencies(VelaPowerNodeStates::enabled, true)) {
        if (pair.second != VelaPowerNodeStates::enabled)
            disabled.append(pair.first);
    }
    ASSERT_EQ(disabled.size(), 4);

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 1 + disabled.size()) << names(nodes);
    EXPECT_EQ(nodes[0].node, target);
    EXPECT_EQ(nodes[0].moduleActions, (ActionMap{{VelaPowerManagerName(), VelaPowerModuleActions::hold}}));
    for (int i = 0; i < disabled.size(); ++i) {
        SCOPED_TRACE(str(disabled[i]->name()));
        EXPECT_EQ(nodes[i + 1].node, disabled[i]);
        EXPECT_EQ(nodes[i + 1].moduleActions, allReleased(disabled[i]));
        EXPECT_EQ(nodes[i + 1].moduleActions.size(), disabled[i]->moduleActions().size());
    }
    for (const PowerNodeRequest::NodeInfo& info : nodes)
        EXPECT_NE(info.node, kept) << "an enabled dependency is not part of the list";
    // The map of r2 with both of its modules released.
    for (const PowerNodeRequest::NodeInfo& info : nodes) {
        if (info.node == r2) {
            EXPECT_EQ(info.moduleActions, (ActionMap{{QStringLiteral("A"), VelaPowerModuleActions::release},
                                                     {QStringLiteral("B"), VelaPowerModuleActions::release}}));
        }
    }
}

TEST_F(RequestResolution, TargetAsksReachabilityAndOrderingForEnabledRecursivelyOnBehalfOfTheModule)
{
    ScriptedTarget* target = makeScriptedTarget();
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(target, QStringLiteral("asker"), VelaPowerModuleActions::hold, m_registrations);

    EXPECT_TRUE(request->resolve());

    ASSERT_EQ(target->reachabilityQueries.size(), 1u);
    EXPECT_EQ(target->reachabilityQueries[0].state, VelaPowerNodeStates::enabled);
    EXPECT_EQ(target->reachabilityQueries[0].module, QStringLiteral("asker"));
    EXPECT_TRUE(target->reachabilityQueries[0].recursive);
    ASSERT_EQ(target->dependencyQueries.size(), 1u);
    EXPECT_EQ(target->dependencyQueries[0].state, VelaPowerNodeStates::enabled);
    EXPECT_TRUE(target->dependencyQueries[0].recursive);
}

TEST_F(RequestResolution, NodeListedTwiceByTheOrderingIsAppendedTwiceAndOnlyEnabledPairsAreSkipped)
{
    ScriptedTarget* target = makeScriptedTarget();
    PowerResource* a = makeResource();
    PowerResource* b = makeResource();
    PowerResource* c = makeResource();
    a->addModule(QStringLiteral("A"), VelaPowerModuleActions::use);
    b->addModule(QStringLiteral("B"), VelaPowerModuleActions::use);
    c->addModule(QStringLiteral("C"), VelaPowerModuleActions::hold);
    target->script = {qMakePair(static_cast<PowerNode*>(a), VelaPowerNodeStates::disabled),
                      qMakePair(static_cast<PowerNode*>(b), VelaPowerNodeStates::enabled),
                      qMakePair(static_cast<PowerNode*>(a), VelaPowerNodeStates::disabled),
                      qMakePair(static_cast<PowerNode*>(c), VelaPowerNodeStates::disabling),
                      qMakePair(static_cast<PowerNode*>(b), VelaPowerNodeStates::disabled)};

    const PowerNodeRequestPtr request = targetRequest(target);
    EXPECT_TRUE(request->resolve());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 5) << names(nodes);
    EXPECT_EQ(nodes[0].node, target);
    EXPECT_EQ(nodes[1].node, a);
    EXPECT_EQ(nodes[2].node, a);
    EXPECT_EQ(nodes[3].node, c);
    EXPECT_EQ(nodes[4].node, b);
    EXPECT_EQ(nodes[1].moduleActions, (ActionMap{{QStringLiteral("A"), VelaPowerModuleActions::release}}));
    EXPECT_EQ(nodes[2].moduleActions, (ActionMap{{QStringLiteral("A"), VelaPowerModuleActions::release}}));
    EXPECT_EQ(nodes[3].moduleActions, (ActionMap{{QStringLiteral("C"), VelaPowerModuleActions::release}}));
    EXPECT_EQ(nodes[4].moduleActions, (ActionMap{{QStringLiteral("B"), VelaPowerModuleActions::release}}));
}

TEST_F(RequestResolution, DisabledNodeWithoutModulesIsListedWithAnEmptyMap)
{
    PowerTarget* target = makeTarget();
    PowerResource* bare = makeResource();
    target->disables(bare);

    const PowerNodeRequestPtr request = targetRequest(target);
    ASSERT_TRUE(request->resolve());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 2) << names(nodes);
    EXPECT_EQ(nodes[1].node, bare);
    EXPECT_TRUE(nodes[1].moduleActions.isEmpty());
}

TEST_F(RequestResolution, UnreachableTargetReturnsFalseLogsItsNameAndKeepsOnlyTheFirstEntry)
{
    PowerTarget* target = makeTarget();
    PowerResource* held = makeResource();
    held->addModule(QStringLiteral("C"), VelaPowerModuleActions::hold);
    target->disables(held);
    ASSERT_FALSE(target->isStateReachable(VelaPowerNodeStates::enabled, VelaPowerManagerName(), true));

    const PowerNodeRequestPtr request = targetRequest(target);
    LogCapture log;
    EXPECT_FALSE(request->resolve());

    const std::string expectedInfo = "node unreachable: " + str(target->name());
    EXPECT_EQ(log.count(log4cplus::INFO_LOG_LEVEL, expectedInfo), 1) << log.dump();
    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 1) << names(nodes);
    EXPECT_EQ(nodes[0].node, target);
    EXPECT_EQ(nodes[0].moduleActions, (ActionMap{{VelaPowerManagerName(), VelaPowerModuleActions::hold}}));
    EXPECT_EQ(held->moduleAction(QStringLiteral("C")), VelaPowerModuleActions::hold);
}

TEST_F(RequestResolution, UnreachableScriptedTargetIsNotAskedForItsDependencies)
{
    ScriptedTarget* target = makeScriptedTarget();
    PowerResource* a = makeResource();
    target->reachable = false;
    target->script = {qMakePair(static_cast<PowerNode*>(a), VelaPowerNodeStates::disabled)};

    const PowerNodeRequestPtr request = targetRequest(target);
    EXPECT_FALSE(request->resolve());
    EXPECT_TRUE(target->dependencyQueries.empty());
    EXPECT_EQ(request->nodes().size(), 1);
}

TEST_F(RequestResolution, ResolvingTwiceAppendsTheEntriesAgain)
{
    PowerResource* resource = makeResource();
    const PowerNodeRequestPtr resourceRequest =
        PowerNodeRequest::create(resource, kModule, VelaPowerModuleActions::use, m_registrations);
    EXPECT_TRUE(resourceRequest->resolve());
    EXPECT_TRUE(resourceRequest->resolve());
    const QList<PowerNodeRequest::NodeInfo> resourceNodes = resourceRequest->nodes();
    ASSERT_EQ(resourceNodes.size(), 2) << names(resourceNodes);
    EXPECT_EQ(resourceNodes[0].node, resource);
    EXPECT_EQ(resourceNodes[1].node, resource);
    EXPECT_EQ(resourceNodes[1].moduleActions, resourceNodes[0].moduleActions);

    PowerTarget* target = makeTarget();
    PowerResource* r1 = makeResource();
    PowerResource* r2 = makeResource();
    r1->addModule(QStringLiteral("A"), VelaPowerModuleActions::use);
    target->disables(r1);
    target->disables(r2);
    const PowerNodeRequestPtr request = targetRequest(target);
    EXPECT_TRUE(request->resolve());
    const QList<PowerNodeRequest::NodeInfo> once = request->nodes();
    ASSERT_EQ(once.size(), 3) << names(once);
    EXPECT_TRUE(request->resolve());
    const QList<PowerNodeRequest::NodeInfo> twice = request->nodes();
    ASSERT_EQ(twice.size(), 6) << names(twice);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(twice[i].node, once[i].node);
        EXPECT_EQ(twice[i + 3].node, once[i].node);
        EXPECT_EQ(twice[i + 3].moduleActions, once[i].moduleActions);
    }
}

TEST_F(RequestResolution, UnreachableTargetResolvedTwiceKeepsTwoFirstEntries)
{
    PowerTarget* target = makeTarget();
    PowerResource* held = makeResource();
    held->addModule(QStringLiteral("C"), VelaPowerModuleActions::hold);
    target->disables(held);

    const PowerNodeRequestPtr request = targetRequest(target);
    EXPECT_FALSE(request->resolve());
    EXPECT_FALSE(request->resolve());
    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 2) << names(nodes);
    EXPECT_EQ(nodes[0].node, target);
    EXPECT_EQ(nodes[1].node, target);
}

TEST_F(RequestResolution, ProcessResolvesOncePerRequest)
{
    PowerResource* resource = makeResource();
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(resource, kModule, VelaPowerModuleActions::use, m_registrations);
    LogCapture log;
    runToEnd(request);
    EXPECT_EQ(request->nodes().size(), 1);
    const std::string resolveEntry =
        "Enter [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: " + std::to_string(request->id());
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveEntry), 1) << log.dump();
}

} // namespace
} // namespace requests
