// Edges between nodes: both sides, repeats, the cycle check, the target
// conflict check and their refusal lines.

#include "capturingappender.h"
#include "graph_test_nodes.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

const char* const kNodeSource = "modules/powerManager/powerHandler/PowerNode.cpp";
const char* const kNodeRequires = "virtual void PowerNode::requiresNode(PowerNode*)";
const char* const kNodeRequiredBy = "virtual void PowerNode::requiredByNode(PowerNode*)";
const char* const kTargetRequires = "virtual void PowerTarget::requiresNode(PowerNode*)";
const char* const kTargetRequiredBy = "virtual void PowerTarget::requiredByNode(PowerNode*)";

// The one event the log must hold: an ERROR with this text from `function`.
void expectSingleRefusal(const LogCapture& log, const std::string& message, const std::string& function)
{
    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 1u) << log.dump();
    EXPECT_EQ(events[0].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(events[0].message, message);
    EXPECT_EQ(events[0].file, kNodeSource);
    EXPECT_GT(events[0].line, 0);
    EXPECT_EQ(events[0].function, function);
}

struct EdgeSnapshot {
    QSet<PowerNode*> required;
    QSet<PowerNode*> requiredBy;
    bool operator==(const EdgeSnapshot& other) const
    {
        return required == other.required && requiredBy == other.requiredBy;
    }
};

EdgeSnapshot snapshot(const PowerNode& node)
{
    return EdgeSnapshot{node.requiredNodes(false), node.requiredByNodes(false)};
}

TEST(PowerNodeEdges, RequiresResourceStoresBothSidesWithoutLog)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    LogCapture log;
    a.requiresResource(&b);
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&b});
    EXPECT_EQ(b.requiredByNodes(false), QSet<PowerNode*>{&a});
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(b.requiredNodes(false).isEmpty());
    EXPECT_TRUE(log.events().empty()) << log.dump();
}

TEST(PowerNodeEdges, RepeatedEdgeChangesNothingAndLogsNothing)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresResource(&b);
    const EdgeSnapshot beforeA = snapshot(a);
    const EdgeSnapshot beforeB = snapshot(b);
    LogCapture log;
    a.requiresResource(&b);
    b.requiredBy(&a);
    a.requiresNode(&b);
    b.requiredByNode(&a);
    EXPECT_TRUE(snapshot(a) == beforeA);
    EXPECT_TRUE(snapshot(b) == beforeB);
    EXPECT_TRUE(log.events().empty()) << log.dump();
}

TEST(PowerNodeEdges, RequiredByFirstGivesTheSameTwoSides)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    LogCapture log;
    b.requiredBy(&a);
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&b});
    EXPECT_EQ(b.requiredByNodes(false), QSet<PowerNode*>{&a});
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(b.requiredNodes(false).isEmpty());
    EXPECT_TRUE(log.events().empty()) << log.dump();
}

TEST(PowerNodeEdges, RepeatedTargetEdgesLogNothing)
{
    PowerTarget t(VelaPowerManagerTargets::active), u(VelaPowerManagerTargets::off);
    PowerResource on(VelaPowerManagerResources::display), off(VelaPowerManagerResources::audio);
    t.enables(&on);
    t.disables(&off);
    t.disables(&u);
    LogCapture log;
    t.enables(&on);
    t.disables(&off);
    t.disables(&u);
    EXPECT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&on});
    EXPECT_EQ(t.requiredByNodes(false), (QSet<PowerNode*>{&off, &u}));
    EXPECT_TRUE(log.events().empty()) << log.dump();
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
    LogCapture log;
    a.requiresResource(&b);
    b.requiredBy(&a);
    EXPECT_TRUE(log.events().empty()) << log.dump();
}

TEST(PowerNodeEdges, CycleRefusedWithRequireNodeMessage)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight),
        z(VelaPowerManagerResources::sensors);
    a.requiresResource(&b);
    b.requiresResource(&z);
    const EdgeSnapshot beforeA = snapshot(a), beforeZ = snapshot(z);
    LogCapture log;
    z.requiresResource(&a);
    expectSingleRefusal(log,
                        "Tried to make power node sensors require node display, but that would have caused a "
                        "cyclic dependency.",
                        kNodeRequires);
    EXPECT_TRUE(snapshot(a) == beforeA);
    EXPECT_TRUE(snapshot(z) == beforeZ);
}

TEST(PowerNodeEdges, CycleRefusedWithBeRequiredByMessage)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight),
        z(VelaPowerManagerResources::sensors);
    a.requiresResource(&b);
    b.requiresResource(&z);
    const EdgeSnapshot beforeA = snapshot(a), beforeZ = snapshot(z);
    LogCapture log;
    a.requiredBy(&z);
    expectSingleRefusal(log,
                        "Tried to make power node display be required by node sensors, but that would have caused "
                        "a cyclic dependency.",
                        kNodeRequiredBy);
    EXPECT_TRUE(snapshot(a) == beforeA);
    EXPECT_TRUE(snapshot(z) == beforeZ);
}

TEST(PowerNodeEdges, DirectReverseEdgeIsRefused)
{
    TestNode a(QStringLiteral("A")), b(QStringLiteral("B"));
    a.requiresNode(&b);
    LogCapture log;
    b.requiresNode(&a);
    expectSingleRefusal(log, "Tried to make power node B require node A, but that would have caused a cyclic "
                             "dependency.",
                        kNodeRequires);
    EXPECT_TRUE(b.requiredNodes(false).isEmpty());
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
}

TEST(PowerNodeEdges, RefusalIsNotLoggedWhenErrorIsOff)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresResource(&b);
    LogCapture log(log4cplus::FATAL_LOG_LEVEL);
    b.requiresResource(&a);
    EXPECT_TRUE(log.events().empty()) << log.dump();
    EXPECT_TRUE(b.requiredNodes(false).isEmpty());
}

TEST(PowerTargetEdges, TargetEnablingACannotDisableWhatARequires)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresResource(&b);
    t.enables(&a);
    LogCapture log;
    t.disables(&b);
    expectSingleRefusal(log, "Tried to make power target active disable node backlight, but it already enables that "
                             "node.",
                        kTargetRequiredBy);
    EXPECT_TRUE(t.requiredByNodes(false).isEmpty());
}

TEST(PowerTargetEdges, TargetEnablingACannotDisableA)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource a(VelaPowerManagerResources::display);
    t.enables(&a);
    LogCapture log;
    t.disables(&a);
    expectSingleRefusal(log, "Tried to make power target active disable node display, but it already enables that "
                             "node.",
                        kTargetRequiredBy);
}

TEST(PowerTargetEdges, TargetEnablingACanDisableADependantOfA)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource a(VelaPowerManagerResources::display), dependant(VelaPowerManagerResources::camera);
    dependant.requiresResource(&a);
    t.enables(&a);
    LogCapture log;
    t.disables(&dependant);
    EXPECT_TRUE(log.events().empty()) << log.dump();
    EXPECT_EQ(t.requiredByNodes(false), QSet<PowerNode*>{&dependant});
    EXPECT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&a});
}

TEST(PowerTargetEdges, TargetDisablingDCannotEnableD)
{
    PowerTarget t(VelaPowerManagerTargets::standby);
    PowerResource d(VelaPowerManagerResources::wifi);
    t.disables(&d);
    LogCapture log;
    t.enables(&d);
    expectSingleRefusal(log, "Tried to make power target standby enable node wifi, but it already disables that node.",
                        kTargetRequires);
    EXPECT_TRUE(t.requiredNodes(false).isEmpty());
}

TEST(PowerTargetEdges, TargetDisablingDCannotEnableADependantOfD)
{
    PowerTarget t(VelaPowerManagerTargets::standby);
    PowerResource d(VelaPowerManagerResources::wifi), user(VelaPowerManagerResources::network);
    user.requiresResource(&d);
    t.disables(&d);
    LogCapture log;
    t.enables(&user);
    expectSingleRefusal(log,
                        "Tried to make power target standby enable node network, but it already disables that node.",
                        kTargetRequires);
}

TEST(PowerTargetEdges, TargetDisablingDCanEnableWhatDRequires)
{
    PowerTarget t(VelaPowerManagerTargets::standby);
    PowerResource d(VelaPowerManagerResources::wifi), below(VelaPowerManagerResources::storage);
    d.requiresResource(&below);
    t.disables(&d);
    LogCapture log;
    t.enables(&below);
    EXPECT_TRUE(log.events().empty()) << log.dump();
    EXPECT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&below});
    EXPECT_EQ(t.requiredByNodes(false), QSet<PowerNode*>{&d});
}

TEST(PowerTargetEdges, TargetEdgesAreStoredOnTheTargetSideOnly)
{
    PowerTarget t(VelaPowerManagerTargets::active), u(VelaPowerManagerTargets::off);
    PowerResource r(VelaPowerManagerResources::display), s(VelaPowerManagerResources::audio);
    t.enables(&r);
    t.disables(&s);
    t.disables(&u);
    for (const PowerNode* other : {static_cast<const PowerNode*>(&r), static_cast<const PowerNode*>(&s),
                                   static_cast<const PowerNode*>(&u)}) {
        EXPECT_FALSE(other->requiredNodes(false).contains(&t)) << other->name().toStdString();
        EXPECT_FALSE(other->requiredByNodes(false).contains(&t)) << other->name().toStdString();
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
    LogCapture log;
    t.requiresNode(&t);
    t.requiredByNode(&t);
    t.disables(&t);
    EXPECT_TRUE(t.requiredNodes(false).isEmpty());
    EXPECT_TRUE(t.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(log.events().empty()) << log.dump();
    t.enables(&r);
    t.requiresNode(&t);
    t.disables(&t);
    EXPECT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&r});
    EXPECT_TRUE(t.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(log.events().empty()) << log.dump();
}

// When the target already stands in its own chains (through nodes wired
// with the base operations), its self-edge meets the ordinary conflict
// check and is refused like any other node in those chains.
TEST(PowerTargetEdges, SelfEdgeOfATargetInItsOwnChainsIsRefused)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    TestNode a(QStringLiteral("A")), b(QStringLiteral("B"));
    a.requiresNode(&t);     // a requires t; t's reverse side: t disables a
    b.requiredByNode(&t);   // t requires b; t's reverse side: t enables b
    a.requiredByNode(&b);   // b requires a
    ASSERT_TRUE(t.requiredByNodes(true).contains(&t));
    ASSERT_TRUE(t.requiredNodes(true).contains(&t));
    LogCapture log;
    t.requiresNode(&t);
    expectSingleRefusal(log, "Tried to make power target active enable node active, but it already disables that node.",
                        kTargetRequires);
    log.clear();
    t.disables(&t);
    expectSingleRefusal(log, "Tried to make power target active disable node active, but it already enables that node.",
                        kTargetRequiredBy);
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
    LogCapture log;
    b.requiresResource(&a);
    EXPECT_TRUE(log.events().empty()) << log.dump();
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
    LogCapture log;
    b.requiresResource(&a);
    expectSingleRefusal(log, "Tried to make power node backlight require node display, but that would have caused a "
                             "cyclic dependency.",
                        kNodeRequires);
}

// A node of the base kind that claims to be a target (by type()) is not
// looked through either: the skip is decided by type().
TEST(PowerNodeEdges, ChecksSkipNodesByTheirType)
{
    TestNode marked(QStringLiteral("marked"), PowerNodeType::PowerTarget);
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.requiresNode(&marked);
    marked.requiresNode(&b);
    LogCapture log;
    b.requiresResource(&a);
    EXPECT_TRUE(log.events().empty()) << log.dump();
    EXPECT_EQ(b.requiredNodes(false), QSet<PowerNode*>{&a});
}

TEST(PowerNodeEdges, BaseRequiresTargetRecordsTheNodeAmongWhatTheTargetDisables)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    TestNode a(QStringLiteral("A"));
    LogCapture log;
    a.requiresNode(&t);
    EXPECT_TRUE(log.events().empty()) << log.dump();
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
    LogCapture log;
    a.requiresNode(&t);
    expectSingleRefusal(log, "Tried to make power target active disable node display, but it already enables that "
                             "node.",
                        kTargetRequiredBy);
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&t});
    EXPECT_TRUE(t.requiredByNodes(false).isEmpty());
}

TEST(PowerNodeEdges, ReverseRefusalAfterOneSidedEdgeLeavesTheFirstSideStored)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight);
    a.addRequiredNode(&b); // a requires b, but b does not know
    LogCapture log;
    b.requiresResource(&a);
    expectSingleRefusal(log, "Tried to make power node display be required by node backlight, but that would have "
                             "caused a cyclic dependency.",
                        kNodeRequiredBy);
    EXPECT_EQ(b.requiredNodes(false), QSet<PowerNode*>{&a});
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
}

TEST(PowerNodeEdges, AddOperationsIgnoreSelfAndRepeats)
{
    TestNode a(QStringLiteral("A")), b(QStringLiteral("B"));
    LogCapture log;
    a.addRequiredNode(&a);
    a.addRequiredByNode(&a);
    EXPECT_TRUE(a.requiredNodes(false).isEmpty());
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
    a.addRequiredNode(&b);
    a.addRequiredNode(&b);
    a.addRequiredByNode(&b);
    EXPECT_EQ(a.requiredNodes(false), QSet<PowerNode*>{&b});
    EXPECT_EQ(a.requiredByNodes(false), QSet<PowerNode*>{&b});
    // One side only: no reverse side, no check, no log.
    EXPECT_TRUE(b.requiredNodes(false).isEmpty());
    EXPECT_TRUE(b.requiredByNodes(false).isEmpty());
    EXPECT_TRUE(log.events().empty()) << log.dump();
}

TEST(PowerNodeEdges, CheckFollowsLongChains)
{
    std::vector<std::unique_ptr<PowerResource>> chain;
    for (int i = 0; i < 30; ++i)
        chain.emplace_back(new PowerResource(resourceValue(600 + i)));
    for (int i = 0; i + 1 < 30; ++i)
        chain[i]->requiresResource(chain[i + 1].get());
    LogCapture log;
    chain.back()->requiresResource(chain.front().get());
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL,
                        "Tried to make power node " + chain.back()->name().toStdString() + " require node "
                            + chain.front()->name().toStdString() + ", but that would have caused a cyclic dependency."),
              1)
        << log.dump();
    EXPECT_TRUE(chain.back()->requiredNodes(false).isEmpty());
    // Skipping ahead along the chain is no cycle.
    log.clear();
    chain.front()->requiresResource(chain.back().get());
    EXPECT_TRUE(log.events().empty()) << log.dump();
}

} // namespace
