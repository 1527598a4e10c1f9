// Edges between nodes: both sides, repeats, the cycle check, the target
// conflict check and their refusal lines.

#include "graph_test_helpers.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <vector>

namespace {

// One call between two resources stores both sides, whichever of the four
// operations makes it, and logs nothing.
struct TwoSidedForm {
    const char* name;
    void (*wire)(PowerResource& a, PowerResource& b); // makes "a requires b"
};

// Printed in test listings and failure messages by its label.
void PrintTo(const TwoSidedForm& param, std::ostream* out)
{
    *out << param.name;
}

class PowerNodeTwoSidedEdge : public ::testing::TestWithParam<TwoSidedForm>
{
};

TEST_P(PowerNodeTwoSidedEdge, StoresBothSidesWithoutLog)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    EXPECT_TRUE(wiredSilently([&] { GetParam().wire(a, b); }));
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&b});
    EXPECT_EQ(b.requiredByNodes(false), QSet<PowerNode*>{&a});
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(b.requiredNodes(false).isEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Forms, PowerNodeTwoSidedEdge,
    ::testing::Values(TwoSidedForm{"RequiresResource", [](PowerResource& a, PowerResource& b) { a.requiresResource(&b); }},
                      TwoSidedForm{"RequiredByFirst", [](PowerResource& a, PowerResource& b) { b.requiredBy(&a); }},
                      TwoSidedForm{"RequiresNode", [](PowerResource& a, PowerResource& b) { a.requiresNode(&b); }},
                      TwoSidedForm{"RequiredByNodeFirst",
                                   [](PowerResource& a, PowerResource& b) { b.requiredByNode(&a); }}),
    [](const ::testing::TestParamInfo<TwoSidedForm>& info) { return std::string(info.param.name); });

TEST(PowerNodeEdges, RepeatedEdgeChangesNothingAndLogsNothing)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresResource(&b);
    const std::vector<EdgeSnapshot> before = snapshotEdges({&a, &b});
    EXPECT_TRUE(wiredSilently([&] {
        a.requiresResource(&b);
        b.requiredBy(&a);
        a.requiresNode(&b);
        b.requiredByNode(&a);
    }));
    EXPECT_TRUE(edgesUnchanged(before));
}

TEST(PowerNodeEdges, RepeatedTargetEdgesLogNothing)
{
    WiredTarget x;
    EXPECT_TRUE(wiredSilently([&] { x.wire(); }));
    EXPECT_EQ(x.t.requiredNodes(false), QSet<PowerNode*>{&x.on});
    EXPECT_EQ(x.t.requiredByNodes(false), (QSet<PowerNode*>{&x.off, &x.other}));
}

// A repeated edge is dropped before any check: even one that the check
// would refuse now (after edges made directly out of step) is silent.
TEST(PowerNodeEdges, RepeatedEdgeIsDroppedBeforeTheCheck)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresResource(&b);
    // Both sides of b requires a, made without checks: the check would now
    // refuse a and b in either direction.
    b.addRequiredNode(&a);
    a.addRequiredByNode(&b);
    ASSERT_TRUE(a.requiredByNodes(true).contains(&b));
    ASSERT_TRUE(b.requiredNodes(true).contains(&a));
    EXPECT_TRUE(wiredSilently([&] {
        a.requiresResource(&b);
        b.requiredBy(&a);
    }));
}

// With a requiring b and b requiring z, neither z requiring a nor a being
// required by z is allowed; the three nodes keep their edges.
TEST(PowerNodeEdges, CycleRefusedWithRequireNodeMessage)
{
    ResourceChain c;
    EXPECT_TRUE(refusedWithoutChange({&c.a, &c.b, &c.z}, [&] { c.z.requiresResource(&c.a); },
                                     cycleRequireRefusal("sensors", "display"), kNodeRequires));
}

TEST(PowerNodeEdges, CycleRefusedWithBeRequiredByMessage)
{
    ResourceChain c;
    EXPECT_TRUE(refusedWithoutChange({&c.a, &c.b, &c.z}, [&] { c.a.requiredBy(&c.z); },
                                     cycleRequiredByRefusal("display", "sensors"), kNodeRequiredBy));
}

TEST(PowerNodeEdges, DirectReverseEdgeIsRefused)
{
    TestNode a(QStringLiteral("A")), b(QStringLiteral("B"));
    a.requiresNode(&b);
    EXPECT_TRUE(refusedWithoutChange({&a, &b}, [&] { b.requiresNode(&a); }, cycleRequireRefusal("B", "A"),
                                     kNodeRequires));
}

TEST(PowerNodeEdges, RefusalIsNotLoggedWhenErrorIsOff)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresResource(&b);
    LogCapture log(log4cplus::FATAL_LOG_LEVEL);
    b.requiresResource(&a);
    EXPECT_TRUE(loggedNothing(log));
    EXPECT_TRUE(b.requiredNodes(false).isEmpty());
}

TEST(PowerTargetEdges, TargetEnablingACannotDisableWhatARequires)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresResource(&b);
    t.enables(&a);
    EXPECT_TRUE(refusedWithoutChange({&t, &a, &b}, [&] { t.disables(&b); },
                                     targetDisableRefusal("active", "backlight"), kTargetRequiredBy));
    EXPECT_TRUE(t.requiredByNodes(false).isEmpty());
}

TEST(PowerTargetEdges, TargetEnablingACannotDisableA)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource a(VelaPowerManagerResources::display);
    t.enables(&a);
    EXPECT_TRUE(refusedWithoutChange({&t, &a}, [&] { t.disables(&a); }, targetDisableRefusal("active", "display"),
                                     kTargetRequiredBy));
}

TEST(PowerTargetEdges, TargetEnablingACanDisableADependantOfA)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource a(VelaPowerManagerResources::display), dependant(VelaPowerManagerResources::camera);
    dependant.requiresResource(&a);
    t.enables(&a);
    EXPECT_TRUE(wiredSilently([&] { t.disables(&dependant); }));
    EXPECT_EQ(t.requiredByNodes(false), QSet<PowerNode*>{&dependant});
    EXPECT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&a});
}

TEST(PowerTargetEdges, TargetDisablingDCannotEnableD)
{
    PowerTarget t(VelaPowerManagerTargets::standby);
    PowerResource d(VelaPowerManagerResources::wifi);
    t.disables(&d);
    EXPECT_TRUE(refusedWithoutChange({&t, &d}, [&] { t.enables(&d); }, targetEnableRefusal("standby", "wifi"),
                                     kTargetRequires));
    EXPECT_TRUE(t.requiredNodes(false).isEmpty());
}

TEST(PowerTargetEdges, TargetDisablingDCannotEnableADependantOfD)
{
    PowerTarget t(VelaPowerManagerTargets::standby);
    PowerResource d(VelaPowerManagerResources::wifi), user(VelaPowerManagerResources::network);
    user.requiresResource(&d);
    t.disables(&d);
    EXPECT_TRUE(refusedWithoutChange({&t, &d, &user}, [&] { t.enables(&user); },
                                     targetEnableRefusal("standby", "network"), kTargetRequires));
}

TEST(PowerTargetEdges, TargetDisablingDCanEnableWhatDRequires)
{
    PowerTarget t(VelaPowerManagerTargets::standby);
    PowerResource d(VelaPowerManagerResources::wifi), below(VelaPowerManagerResources::storage);
    d.requiresResource(&below);
    t.disables(&d);
    EXPECT_TRUE(wiredSilently([&] { t.enables(&below); }));
    EXPECT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&below});
    EXPECT_EQ(t.requiredByNodes(false), QSet<PowerNode*>{&d});
}

// The shorthands enables/disables store what the target enables and disables
// on the target's side; the other nodes' sets do not mention the target.
TEST(PowerTargetEdges, TargetEdgesAreStoredOnTheTargetSideOnly)
{
    WiredTarget x;
    EXPECT_EQ(x.t.requiredNodes(false), QSet<PowerNode*>{&x.on});
    EXPECT_EQ(x.t.requiredByNodes(false), (QSet<PowerNode*>{&x.off, &x.other}));
    for (const PowerNode* other : {static_cast<const PowerNode*>(&x.on), static_cast<const PowerNode*>(&x.off),
                                   static_cast<const PowerNode*>(&x.other)}) {
        SCOPED_TRACE(other->name().toStdString());
        EXPECT_FALSE(other->requiredNodes(false).contains(&x.t));
        EXPECT_FALSE(other->requiredByNodes(false).contains(&x.t));
        EXPECT_TRUE(other->requiredNodes(false).isEmpty());
        EXPECT_TRUE(other->requiredByNodes(false).isEmpty());
    }
}

// A target's operations make no reverse call, so a self-edge cannot recurse:
// it is never stored, and with nothing around it nothing is logged.
TEST(PowerTargetEdges, SelfEdgeOfATargetIsDroppedSilently)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource r(VelaPowerManagerResources::display);
    EXPECT_TRUE(wiredSilently([&] {
        t.requiresNode(&t);
        t.requiredByNode(&t);
        t.disables(&t);
    }));
    EXPECT_TRUE(t.requiredNodes(false).isEmpty());
    EXPECT_TRUE(t.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(wiredSilently([&] {
        t.enables(&r);
        t.requiresNode(&t);
        t.disables(&t);
    }));
    EXPECT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&r});
    EXPECT_TRUE(t.requiredByNodes(false).isEmpty());
}

// When the target already stands in its own chains (through nodes wired
// with the base operations), its self-edge meets the ordinary conflict
// check and is refused like any other node in those chains.
TEST(PowerTargetEdges, SelfEdgeOfATargetInItsOwnChainsIsRefused)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    TestNode a(QStringLiteral("A")), b(QStringLiteral("B"));
    a.requiresNode(&t);   // a requires t; t's reverse side: t disables a
    b.requiredByNode(&t); // t requires b; t's reverse side: t enables b
    a.requiredByNode(&b); // b requires a
    ASSERT_TRUE(t.requiredByNodes(true).contains(&t));
    ASSERT_TRUE(t.requiredNodes(true).contains(&t));
    EXPECT_TRUE(refusedWithoutChange({&t, &a, &b}, [&] { t.requiresNode(&t); },
                                     targetEnableRefusal("active", "active"), kTargetRequires));
    EXPECT_TRUE(refusedWithoutChange({&t, &a, &b}, [&] { t.disables(&t); }, targetDisableRefusal("active", "active"),
                                     kTargetRequiredBy));
    EXPECT_FALSE(t.requiredNodes(false).contains(&t));
    EXPECT_FALSE(t.requiredByNodes(false).contains(&t));
}

// B is required by target T (stored on both sides by the base operation and
// the target's reverse), A requires T. A chain A -> T -> B exists, but the
// check does not follow it through T, so B may require A.
TEST(PowerNodeEdges, ChecksDoNotSeeThroughTargets)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    b.requiredByNode(&t);
    a.requiresNode(&t);
    ASSERT_EQ(b.requiredByNodes(false), QSet<PowerNode*>{&t});
    ASSERT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&b});
    ASSERT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&t});
    ASSERT_EQ(t.requiredByNodes(false), QSet<PowerNode*>{&a});
    EXPECT_TRUE(wiredSilently([&] { b.requiresResource(&a); }));
    EXPECT_EQ(b.requiredNodes(false), QSet<PowerNode*>{&a});
    EXPECT_EQ(a.requiredByNodes(false), QSet<PowerNode*>{&b});
}

// The same shape with a resource in the middle is a cycle and is refused.
TEST(PowerNodeEdges, SameChainThroughAResourceIsRefused)
{
    PowerResource middle(VelaPowerManagerResources::gpu);
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    b.requiredByNode(&middle);
    a.requiresNode(&middle);
    EXPECT_TRUE(refusedWithoutChange({&a, &b, &middle}, [&] { b.requiresResource(&a); },
                                     cycleRequireRefusal("backlight", "display"), kNodeRequires));
}

// A node of the base kind that claims to be a target (by type()) is not
// looked through either: the skip is decided by type().
TEST(PowerNodeEdges, ChecksSkipNodesByTheirType)
{
    TestNode marked(QStringLiteral("marked"), PowerNodeType::PowerTarget);
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresNode(&marked);
    marked.requiresNode(&b);
    EXPECT_TRUE(wiredSilently([&] { b.requiresResource(&a); }));
    EXPECT_EQ(b.requiredNodes(false), QSet<PowerNode*>{&a});
}

// The other way round: a target that reports another kind is looked through,
// and its edges, stored on its own side only, are followed. Backlight does
// not know that the target enables it. When backlight then requires display,
// backlight's side is stored, but display's reverse side finds backlight
// behind the target and refuses. (A check that walked back from the far end
// along the other side of each edge would miss this: the target's edge has
// no other side.)
TEST(PowerNodeEdges, ChecksFollowTheOneSidedEdgesOfATargetThatReportsAnotherKind)
{
    TestTarget unmarked(VelaPowerManagerTargets::active, PowerNodeType::PowerNode);
    PowerResource display(VelaPowerManagerResources::display), backlight(VelaPowerManagerResources::backlight);
    unmarked.enables(&backlight);
    display.requiresNode(&unmarked);
    ASSERT_TRUE(backlight.requiredByNodes(false).isEmpty());
    ASSERT_EQ(unmarked.requiredByNodes(false), QSet<PowerNode*>{&display});
    EXPECT_TRUE(refusedWithoutChange({&display}, [&] { backlight.requiresResource(&display); },
                                     cycleRequiredByRefusal("display", "backlight"), kNodeRequiredBy));
    EXPECT_EQ(backlight.requiredNodes(false), QSet<PowerNode*>{&display});
}

TEST(PowerNodeEdges, BaseRequiresTargetRecordsTheNodeAmongWhatTheTargetDisables)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    TestNode a(QStringLiteral("A"));
    EXPECT_TRUE(wiredSilently([&] { a.requiresNode(&t); }));
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&t});
    EXPECT_EQ(t.requiredByNodes(false), QSet<PowerNode*>{&a});
    EXPECT_TRUE(t.requiredNodes(false).isEmpty());
}

// The reverse side runs the target's own check; when it refuses, the first
// side stays stored and nothing undoes it.
TEST(PowerNodeEdges, TargetRefusingTheReverseSideLeavesTheFirstSideStored)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource a(VelaPowerManagerResources::display);
    t.enables(&a);
    EXPECT_TRUE(refusedWithoutChange({&t}, [&] { a.requiresNode(&t); }, targetDisableRefusal("active", "display"),
                                     kTargetRequiredBy));
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&t});
    EXPECT_TRUE(t.requiredByNodes(false).isEmpty());
}

TEST(PowerNodeEdges, ReverseRefusalAfterOneSidedEdgeLeavesTheFirstSideStored)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.addRequiredNode(&b); // a requires b, but b does not know
    EXPECT_TRUE(refusedWithoutChange({&a}, [&] { b.requiresResource(&a); },
                                     cycleRequiredByRefusal("display", "backlight"), kNodeRequiredBy));
    EXPECT_EQ(b.requiredNodes(false), QSet<PowerNode*>{&a});
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
}

TEST(PowerNodeEdges, AddOperationsIgnoreSelfAndRepeats)
{
    TestNode a(QStringLiteral("A")), b(QStringLiteral("B"));
    EXPECT_TRUE(wiredSilently([&] {
        a.addRequiredNode(&a);
        a.addRequiredByNode(&a);
    }));
    EXPECT_TRUE(a.requiredNodes(false).isEmpty());
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(wiredSilently([&] {
        a.addRequiredNode(&b);
        a.addRequiredNode(&b);
        a.addRequiredByNode(&b);
    }));
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&b});
    EXPECT_EQ(a.requiredByNodes(false), QSet<PowerNode*>{&b});
    // One side only: no reverse side, no check, no log.
    EXPECT_TRUE(b.requiredNodes(false).isEmpty());
    EXPECT_TRUE(b.requiredByNodes(false).isEmpty());
}

TEST(PowerNodeEdges, CheckFollowsLongChains)
{
    std::vector<std::unique_ptr<PowerResource>> chain;
    for (int i = 0; i < 30; ++i)
        chain.emplace_back(new PowerResource(resourceValue(600 + i)));
    for (int i = 0; i + 1 < 30; ++i)
        chain[i]->requiresResource(chain[i + 1].get());
    PowerResource* front = chain.front().get();
    PowerResource* back = chain.back().get();
    EXPECT_TRUE(refusedWithoutChange({front, back}, [&] { back->requiresResource(front); },
                                     cycleRequireRefusal(back->name().toStdString(), front->name().toStdString()),
                                     kNodeRequires));
    EXPECT_TRUE(back->requiredNodes(false).isEmpty());
    // Skipping ahead along the chain is no cycle.
    EXPECT_TRUE(wiredSilently([&] { front->requiresResource(back); }));
    EXPECT_TRUE(front->requiredNodes(false).contains(back));
}

} // namespace
