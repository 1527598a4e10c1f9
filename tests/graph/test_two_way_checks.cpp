// The wiring checks search from both ends of the new edge. The side that
// starts at the far end can only follow edges stored on both of their nodes;
// these tests make it run out first, beside an edge stored on one side only,
// so that a check trusting it would let a cycle or a conflict through.

#include "graph_test_helpers.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

// Nodes named "<prefix>0", "<prefix>1", ...
std::vector<std::unique_ptr<TestNode>> makeNodes(const char* prefix, int count)
{
    std::vector<std::unique_ptr<TestNode>> nodes;
    nodes.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        nodes.push_back(std::make_unique<TestNode>(QString::fromLatin1(prefix) + QString::number(i)));
    return nodes;
}

// Gives `root` `count` more required nodes that lead nowhere, so that a
// search starting at `root` has more to do than one starting at a fresh node.
std::vector<std::unique_ptr<TestNode>> widen(PowerNode& root, int count)
{
    std::vector<std::unique_ptr<TestNode>> padding = makeNodes("pad", count);
    for (const auto& node : padding)
        root.requiresNode(node.get());
    return padding;
}

} // namespace

// root requires x on both sides; x requires y on its own side only. Making y
// require root would close root -> x -> y -> root.
TEST(PowerNodeTwoWayChecks, EdgeAddedOnOneSideOnlyIsFollowedWhenTheOtherEndRunsOutFirst)
{
    TestNode root(QStringLiteral("root")), x(QStringLiteral("x")), y(QStringLiteral("y"));
    root.requiresNode(&x);
    const auto padding = widen(root, 8);
    x.addRequiredNode(&y);
    ASSERT_TRUE(y.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(refusedWithoutChange(
        {&root, &x}, [&] { y.requiresNode(&root); }, cycleRequiredByRefusal("root", "y"), kNodeRequiredBy));
    // The first side stays, as after any refused reverse call.
    EXPECT_EQ(y.requiredNodes(false), QSet<PowerNode*>{&root});
}

// The same with the one-sided edge in the other set: x stores that y
// requires it, y does not.
TEST(PowerNodeTwoWayChecks, RequiredByEdgeAddedOnOneSideOnlyIsFollowedWhenTheOtherEndRunsOutFirst)
{
    TestNode root(QStringLiteral("root")), x(QStringLiteral("x")), y(QStringLiteral("y"));
    x.requiresNode(&root);
    const auto dependants = makeNodes("dependant", 8);
    for (const auto& node : dependants)
        node->requiresNode(&root);
    x.addRequiredByNode(&y);
    ASSERT_TRUE(y.requiredNodes(false).isEmpty());
    EXPECT_TRUE(refusedWithoutChange(
        {&root, &x, &y}, [&] { root.requiresNode(&y); }, cycleRequireRefusal("root", "y"), kNodeRequires));
}

// A target kind that reports another type is passed through by the checks,
// but stores its edges on its own side only.
TEST(PowerNodeTwoWayChecks, TargetReportingAnotherKindIsFollowedWhenTheOtherEndRunsOutFirst)
{
    TestTarget unmarked(VelaPowerManagerTargets::active, PowerNodeType::PowerNode);
    PowerResource display(VelaPowerManagerResources::display), backlight(VelaPowerManagerResources::backlight);
    unmarked.enables(&backlight);
    display.requiresNode(&unmarked);
    const auto padding = widen(display, 8);
    ASSERT_TRUE(backlight.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(refusedWithoutChange(
        {&display}, [&] { backlight.requiresResource(&display); }, cycleRequiredByRefusal("display", "backlight"),
        kNodeRequiredBy));
}

// A node held by more nodes than its counter can count is searched from the
// root's side only. 65,536 one-sided holders would bring a counter that wraps
// round back to zero, and the check would then see nothing reaching y.
TEST(PowerNodeTwoWayChecks, NodeWithMoreHoldersThanItCanCountIsStillChecked)
{
    TestNode root(QStringLiteral("root")), y(QStringLiteral("y"));
    const auto holders = makeNodes("holder", 65536);
    for (const auto& holder : holders)
        holder->addRequiredNode(&y);
    root.requiresNode(holders.front().get());
    const auto padding = widen(root, 8);
    EXPECT_TRUE(refusedWithoutChange(
        {&root}, [&] { y.requiresNode(&root); }, cycleRequiredByRefusal("root", "y"), kNodeRequiredBy));
}

// A target's edges are one-sided by design and it is not counted among the
// holders of the nodes it enables; as the root of a check it is searched
// through its own edges.
TEST(PowerNodeTwoWayChecks, TargetAsRootIsSearchedThroughItsOwnEdges)
{
    PowerTarget target(VelaPowerManagerTargets::active);
    PowerResource display(VelaPowerManagerResources::display), backlight(VelaPowerManagerResources::backlight);
    display.requiresResource(&backlight);
    target.enables(&display);
    const auto padding = widen(target, 8);
    EXPECT_TRUE(refusedWithoutChange(
        {&target, &display, &backlight}, [&] { target.disables(&backlight); },
        targetDisableRefusal("active", "backlight"), kTargetRequiredBy));
}
