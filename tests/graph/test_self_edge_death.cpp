// An edge from a node to itself is a wiring error: between the two edge
// operations of the base kind (resources and plain nodes) it stops the
// process with an assertion naming the node, before the two operations could
// call each other without end (which would end in a stack overflow, a
// different signal). A target's operations make no reverse call; their
// self-edges are covered with the other target edges.

#include "graph_test_nodes.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <ostream>
#include <string>

namespace {

// The assertion's stderr line, with the node's name and the relation.
std::string assertionPattern(const std::string& name, const std::string& relation)
{
    return "ASSERT: \"[^\"]*" + name + " cannot " + relation
        + " itself[^\"]*\" in file modules/powerManager/powerHandler/PowerNode.cpp, line [0-9]+";
}

// One self-edge request of the base kind's operations: the node it is asked
// of, and the name and relation its assertion must state.
struct SelfEdgeCase {
    const char* label;
    std::unique_ptr<PowerNode> (*make)();
    void (*ask)(PowerNode& node);
    const char* name;
    const char* relation;
};

std::unique_ptr<PowerNode> makeResource(VelaPowerManagerResources::Enum value)
{
    return std::unique_ptr<PowerNode>(new PowerResource(value));
}

PowerResource& asResource(PowerNode& node)
{
    return static_cast<PowerResource&>(node);
}

// Printed in test listings and failure messages by its label.
void PrintTo(const SelfEdgeCase& param, std::ostream* out)
{
    *out << param.label;
}

class PowerNodeSelfEdgeDeathTest : public ::testing::TestWithParam<SelfEdgeCase>
{
};

TEST_P(PowerNodeSelfEdgeDeathTest, Stops)
{
    const SelfEdgeCase& c = GetParam();
    const std::unique_ptr<PowerNode> node = c.make();
    EXPECT_EXIT(c.ask(*node), ::testing::KilledBySignal(SIGABRT), assertionPattern(c.name, c.relation));
}

INSTANTIATE_TEST_SUITE_P(
    Requests, PowerNodeSelfEdgeDeathTest,
    ::testing::Values(
        SelfEdgeCase{"ResourceRequiringItself", [] { return makeResource(VelaPowerManagerResources::display); },
                     [](PowerNode& n) { asResource(n).requiresResource(&asResource(n)); }, "display", "require"},
        SelfEdgeCase{"ResourceRequiresNodeItself", [] { return makeResource(VelaPowerManagerResources::wifi); },
                     [](PowerNode& n) { n.requiresNode(&n); }, "wifi", "require"},
        SelfEdgeCase{"ResourceRequiredByItself", [] { return makeResource(VelaPowerManagerResources::backlight); },
                     [](PowerNode& n) { asResource(n).requiredBy(&asResource(n)); }, "backlight", "be required by"},
        SelfEdgeCase{"ResourceRequiredByNodeItself", [] { return makeResource(VelaPowerManagerResources::audio); },
                     [](PowerNode& n) { n.requiredByNode(&n); }, "audio", "be required by"},
        SelfEdgeCase{"BaseNodeRequiringItself",
                     [] { return std::unique_ptr<PowerNode>(new TestNode(QStringLiteral("lonely"))); },
                     [](PowerNode& n) { n.requiresNode(&n); }, "lonely", "require"},
        SelfEdgeCase{"BaseNodeRequiredByItself",
                     [] { return std::unique_ptr<PowerNode>(new TestNode(QStringLiteral("lonely"))); },
                     [](PowerNode& n) { n.requiredByNode(&n); }, "lonely", "be required by"}),
    [](const ::testing::TestParamInfo<SelfEdgeCase>& info) { return std::string(info.param.label); });

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
