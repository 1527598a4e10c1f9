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

/*
 * A node that is not a target resolves to itself alone, with the module's
 * action merged into the node's current map, whatever its edges.
 */
struct AloneCase {
    const char* name;
    enum Kind { Resource, ResourceWithEdgesBothWays, PlainNodeWithDependency } kind;
    ActionMap start;
    VelaPowerModuleActions::Enum action;
    ActionMap expected;
};

const AloneCase kAloneCases[] = {
    {"ResourceMergesTheActionOverTheModulesEarlierOne",
     AloneCase::Resource,
     {{QStringLiteral("other"), VelaPowerModuleActions::hold}, {kModule, VelaPowerModuleActions::release}},
     VelaPowerModuleActions::use,
     {{QStringLiteral("other"), VelaPowerModuleActions::hold}, {kModule, VelaPowerModuleActions::use}}},
    {"ResourceInsertsANewModuleIntoTheMap",
     AloneCase::Resource,
     {{QStringLiteral("other"), VelaPowerModuleActions::use}},
     VelaPowerModuleActions::hold,
     {{QStringLiteral("other"), VelaPowerModuleActions::use}, {kModule, VelaPowerModuleActions::hold}}},
    {"ResourceResolvesToItselfEvenWhenOtherNodesRequireIt",
     AloneCase::ResourceWithEdgesBothWays,
     {},
     VelaPowerModuleActions::release,
     {{kModule, VelaPowerModuleActions::release}}},
    {"PlainNodeResolvesToItselfAlone",
     AloneCase::PlainNodeWithDependency,
     {},
     VelaPowerModuleActions::use,
     {{kModule, VelaPowerModuleActions::use}}},
};

void PrintTo(const AloneCase& param, std::ostream* out)
{
    *out << param.name;
}

class NonTargetResolution : public RequestTest, public ::testing::WithParamInterface<AloneCase>
{
};

TEST_P(NonTargetResolution, YieldsOneEntryWithTheModuleActionMerged)
{
    const AloneCase& param = GetParam();
    PowerNode* node = nullptr;
    switch (param.kind) {
    case AloneCase::Resource:
        node = makeClaimedResource(param.start);
        break;
    case AloneCase::ResourceWithEdgesBothWays: {
        PowerResource* resource = makeClaimedResource(param.start);
        makeResource()->requiresResource(resource);
        resource->requiresResource(makeResource());
        node = resource;
        break;
    }
    case AloneCase::PlainNodeWithDependency:
        node = makePlainNode();
        for (auto it = param.start.cbegin(); it != param.start.cend(); ++it)
            node->addModule(it.key(), it.value());
        node->requiresNode(makeResource());
        break;
    }
    const PowerNodeRequestPtr request = requestFor(node, kModule, param.action);

    EXPECT_TRUE(request->resolve());

    const QList<PowerNodeRequest::NodeInfo> nodes = request->nodes();
    ASSERT_EQ(nodes.size(), 1) << names(nodes);
    EXPECT_EQ(nodes[0].node, node);
    EXPECT_EQ(nodes[0].moduleActions, param.expected);
    // Resolution only plans: the node's own map and state are untouched.
    EXPECT_EQ(node->moduleActions(), param.start);
    EXPECT_EQ(node->state(), VelaPowerNodeStates::initial);
    EXPECT_TRUE(m_events.empty()) << eventDump();
}

INSTANTIATE_TEST_SUITE_P(AloneCases, NonTargetResolution, ::testing::ValuesIn(kAloneCases),
                         [](const ::testing::TestParamInfo<AloneCase>& info) { return std::string(info.param.name); });

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
    const PowerNodeRequestPtr request = requestFor(target, QStringLiteral("asker"), VelaPowerModuleActions::hold);

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
    const DisablingTarget graph = makeUnreachableTarget();
    PowerTarget* target = graph.target;
    PowerResource* held = graph.resources[0];

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
    const PowerNodeRequestPtr resourceRequest = requestFor(resource, kModule, VelaPowerModuleActions::use);
    EXPECT_TRUE(resourceRequest->resolve());
    EXPECT_TRUE(resourceRequest->resolve());
    const QList<PowerNodeRequest::NodeInfo> resourceNodes = resourceRequest->nodes();
    ASSERT_EQ(resourceNodes.size(), 2) << names(resourceNodes);
    EXPECT_EQ(resourceNodes[0].node, resource);
    EXPECT_EQ(resourceNodes[1].node, resource);
    EXPECT_EQ(resourceNodes[1].moduleActions, resourceNodes[0].moduleActions);

    const PowerNodeRequestPtr request = targetRequest(
        makeTargetDisabling({{QStringLiteral("A"), VelaPowerModuleActions::use},
                             {QStringLiteral("B"), VelaPowerModuleActions::use}})
            .target);
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
    PowerTarget* target = makeUnreachableTarget().target;

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
    const PowerNodeRequestPtr request = requestFor(makeResource(), kModule, VelaPowerModuleActions::use);
    LogCapture log;
    runToEnd(request);
    EXPECT_EQ(request->nodes().size(), 1);
    const std::string resolveEntry =
        "Enter [PowerManager] PowerNodeRequest::resolve(): nodeRequest id: " + std::to_string(request->id());
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, resolveEntry), 1) << log.dump();
}

} // namespace
} // namespace requests
