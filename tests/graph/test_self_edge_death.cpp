// An edge from a node to itself is a wiring error: between the two edge
// operations of the base kind (resources and plain nodes) it stops the
// process with an assertion naming the node, before the two operations could
// call each other without end (which would end in a stack overflow, a
// different signal). A target's operations make no reverse call; their
// self-edges are covered with the other target edges.

#include "graph_test_nodes.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

// The assertion's stderr line, with the node's name and the relation.
std::string assertionPattern(const std::string& name, const std::string& relation)
{
    return "ASSERT: \"[^\"]*" + name + " cannot " + relation
        + " itself[^\"]*\" in file modules/powerManager/powerHandler/PowerNode.cpp, line [0-9]+";
}

TEST(PowerNodeSelfEdgeDeathTest, ResourceRequiringItselfStops)
{
    PowerResource resource(VelaPowerManagerResources::display);
    EXPECT_EXIT(resource.requiresResource(&resource), ::testing::KilledBySignal(SIGABRT),
                assertionPattern("display", "require"));
}

TEST(PowerNodeSelfEdgeDeathTest, ResourceRequiresNodeItselfStops)
{
    PowerResource resource(VelaPowerManagerResources::wifi);
    EXPECT_EXIT(resource.requiresNode(&resource), ::testing::KilledBySignal(SIGABRT),
                assertionPattern("wifi", "require"));
}

TEST(PowerNodeSelfEdgeDeathTest, ResourceRequiredByItselfStops)
{
    PowerResource resource(VelaPowerManagerResources::backlight);
    EXPECT_EXIT(resource.requiredBy(&resource), ::testing::KilledBySignal(SIGABRT),
                assertionPattern("backlight", "be required by"));
}

TEST(PowerNodeSelfEdgeDeathTest, ResourceRequiredByNodeItselfStops)
{
    PowerResource resource(VelaPowerManagerResources::audio);
    EXPECT_EXIT(resource.requiredByNode(&resource), ::testing::KilledBySignal(SIGABRT),
                assertionPattern("audio", "be required by"));
}

TEST(PowerNodeSelfEdgeDeathTest, BaseNodeRequiringItselfStops)
{
    TestNode node(QStringLiteral("lonely"));
    EXPECT_EXIT(node.requiresNode(&node), ::testing::KilledBySignal(SIGABRT), assertionPattern("lonely", "require"));
}

TEST(PowerNodeSelfEdgeDeathTest, BaseNodeRequiredByItselfStops)
{
    TestNode node(QStringLiteral("lonely"));
    EXPECT_EXIT(node.requiredByNode(&node), ::testing::KilledBySignal(SIGABRT),
                assertionPattern("lonely", "be required by"));
}

// Even with edges around it, the request stops before any check or recursion.
TEST(PowerNodeSelfEdgeDeathTest, WiredResourceRequiringItselfStops)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::gpu);
    a.requiresResource(&b);
    EXPECT_EXIT(b.requiresNode(&b), ::testing::KilledBySignal(SIGABRT), assertionPattern("gpu", "require"));
    EXPECT_EXIT(a.requiredByNode(&a), ::testing::KilledBySignal(SIGABRT), assertionPattern("display", "be required by"));
}

// The refused request leaves nothing behind in the surviving process (the
// death test ran it in a child), and the same node still wires normally.
TEST(PowerNodeSelfEdgeDeathTest, ParentProcessIsUnchanged)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::gpu);
    EXPECT_EXIT(a.requiresNode(&a), ::testing::KilledBySignal(SIGABRT), assertionPattern("display", "require"));
    EXPECT_TRUE(a.requiredNodes(false).isEmpty());
    a.requiresResource(&b);
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&b});
}

} // namespace
