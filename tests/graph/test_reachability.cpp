// Whether a node may be brought to a state on behalf of a module, and the
// reachable targets of an enabled target.

#include "graph_test_helpers.h"
#include "literal_reference.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using S = VelaPowerNodeStates;
using A = VelaPowerModuleActions;

const QString kM = QStringLiteral("M");
const QString kOther = QStringLiteral("other");

TEST(PowerNodeReachability, OwnHoldDoesNotBlockTheAskingModule)
{
    TestResource r(VelaPowerManagerResources::display);
    r.forceState(S::enabled);
    r.addModule(kM, A::hold);
    EXPECT_TRUE(r.isStateReachable(S::disabled, kM, false));
    EXPECT_FALSE(r.isStateReachable(S::disabled, kOther, false));
    EXPECT_FALSE(r.isStateReachable(S::disabled, QStringLiteral("third"), false));
    for (const QString& module : {kM, kOther, QString()})
        EXPECT_TRUE(r.isStateReachable(S::enabled, module, false)) << module.toStdString();
}

TEST(PowerNodeReachability, AlreadyDisabledNodeReachesFourDespiteAHold)
{
    TestResource r(VelaPowerManagerResources::display);
    r.forceState(S::disabled);
    r.addModule(kM, A::hold);
    EXPECT_TRUE(r.isStateReachable(S::disabled, kOther, false));
    EXPECT_TRUE(r.isStateReachable(S::disabled, kOther, true));
}

TEST(PowerNodeReachability, HoldBlocksEveryStateButTwoAndTheCurrentOne)
{
    TestResource r(VelaPowerManagerResources::display);
    r.addModule(kM, A::hold);
    for (int current = 0; current <= 4; ++current) {
        r.forceState(static_cast<S::Enum>(current));
        for (int wished = 0; wished <= 4; ++wished) {
            const bool expected = wished == S::enabled || wished == current;
            EXPECT_EQ(r.isStateReachable(static_cast<S::Enum>(wished), kOther, false), expected)
                << "current " << current << " wished " << wished;
            EXPECT_TRUE(r.isStateReachable(static_cast<S::Enum>(wished), kM, false));
        }
    }
}

TEST(PowerNodeReachability, OnlyActionZeroBlocks)
{
    TestResource r(VelaPowerManagerResources::display);
    r.forceState(S::enabled);
    r.addModule(QStringLiteral("user"), A::use);
    r.addModule(QStringLiteral("gone"), A::release);
    EXPECT_TRUE(r.isStateReachable(S::disabled, kOther, false));
    EXPECT_TRUE(r.isStateReachable(S::disabling, kOther, true));
}

TEST(PowerNodeReachability, EmptyModuleNameExcludesNobody)
{
    TestResource r(VelaPowerManagerResources::display);
    r.forceState(S::enabled);
    r.addModule(kM, A::hold);
    EXPECT_FALSE(r.isStateReachable(S::disabled, QString(), false));
    // A module registered under the empty name is not excluded either.
    TestResource s(VelaPowerManagerResources::audio);
    s.forceState(S::enabled);
    s.addModule(QString(), A::hold);
    EXPECT_FALSE(s.isStateReachable(S::disabled, QString(), false));
    EXPECT_FALSE(s.isStateReachable(S::disabled, kM, false));
}

// top requires middle requires bottom; a hold on top by another module keeps
// bottom from disabling, through the chain.
TEST(PowerNodeReachability, DisablingIsRefusedThroughATransitiveDependantsHold)
{
    ResourceChain c;
    TestResource& top = c.a;
    TestResource& bottom = c.z;
    for (TestResource* r : {&c.a, &c.b, &c.z})
        r->forceState(S::enabled);
    top.addModule(kM, A::hold);
    EXPECT_FALSE(bottom.isStateReachable(S::disabled, kOther, true));
    EXPECT_TRUE(bottom.isStateReachable(S::disabled, kOther, false));
    EXPECT_TRUE(bottom.isStateReachable(S::disabled, kM, true));
    // Enabling is not refused by dependants.
    EXPECT_TRUE(bottom.isStateReachable(S::enabled, kOther, true));
    // A dependant already disabled does not object.
    top.forceState(S::disabled);
    EXPECT_TRUE(bottom.isStateReachable(S::disabled, kOther, true));
}

TEST(PowerNodeReachability, EnablingIsNotRefusedByHoldsBelow)
{
    TestResource top(VelaPowerManagerResources::camera), below(VelaPowerManagerResources::gpu);
    top.requiresResource(&below);
    below.forceState(S::disabled);
    below.addModule(kM, A::hold);
    top.addModule(kM, A::hold);
    EXPECT_TRUE(top.isStateReachable(S::enabled, kOther, true));
}

// A requires target T; T disables the enabled target T1, which does not list
// T as reachable: A cannot be enabled, through T.
TEST(PowerNodeReachability, EnablingAnOrdinaryNodeIsRefusedThroughATargetDependency)
{
    TestNode a(QStringLiteral("A"));
    TestTarget t(VelaPowerManagerTargets::active), t1(VelaPowerManagerTargets::off);
    t.disables(&t1);
    a.requiresNode(&t);
    t1.forceState(S::enabled);
    EXPECT_FALSE(a.isStateReachable(S::enabled, kOther, true));
    EXPECT_TRUE(a.isStateReachable(S::enabled, kOther, false));
    t1.setReachableTargets({&t});
    EXPECT_TRUE(a.isStateReachable(S::enabled, kOther, true));
}

// T disables B and enables A; A requires N and N requires B, wired after the
// target's edges. Asking T for state 2 asks B for 2 (down A's chain) and for
// 4 (T's disabled half), and the two answers differ: A, which B's dependants
// reach, is held by another module.
TEST(PowerNodeReachability, NodeAskedForTwoStatesInOneQuestionIsAnsweredForEach)
{
    TestTarget t(VelaPowerManagerTargets::active);
    TestResource a(VelaPowerManagerResources::display), n(VelaPowerManagerResources::gpu),
        b(VelaPowerManagerResources::sensors);
    t.disables(&b);
    t.enables(&a);
    ASSERT_TRUE(wiredSilently([&] {
        a.requiresResource(&n);
        n.requiresResource(&b);
    }));
    for (TestResource* r : {&a, &n, &b})
        r->forceState(S::enabled);
    a.addModule(kM, A::hold);

    EXPECT_TRUE(b.isStateReachable(S::enabled, kOther, true));
    EXPECT_FALSE(b.isStateReachable(S::disabled, kOther, true));
    EXPECT_FALSE(t.isStateReachable(S::enabled, kOther, true));
    EXPECT_TRUE(t.isStateReachable(S::enabled, kM, true));
    LiteralGraph literal(4);
    EXPECT_FALSE(literal.isStateReachable(&t, S::enabled, kOther, true));
}

struct ThreeTargets {
    TestTarget t1{VelaPowerManagerTargets::off};
    TestTarget t2{VelaPowerManagerTargets::suspend};
    TestTarget t3{VelaPowerManagerTargets::standby};
};

TEST(PowerTargetReachability, EnabledTargetRefusesATargetItDoesNotList)
{
    ThreeTargets x;
    x.t1.setReachableTargets({&x.t2});
    x.t3.disables(&x.t1);
    // Nothing else objects: with T1 not enabled, T3 is reachable.
    for (bool recursive : {false, true})
        ASSERT_TRUE(x.t3.isStateReachable(S::enabled, kOther, recursive));
    x.t1.forceState(S::enabled);
    for (bool recursive : {false, true}) {
        EXPECT_FALSE(x.t3.isStateReachable(S::enabled, kOther, recursive));
        EXPECT_FALSE(x.t3.isStateReachable(S::enabled, QString(), recursive));
    }
}

TEST(PowerTargetReachability, EnabledTargetsListedTargetIsReachableWhateverTheHolds)
{
    ThreeTargets x;
    TestResource held(VelaPowerManagerResources::wifi);
    held.forceState(S::enabled);
    held.addModule(kM, A::hold);
    x.t1.forceState(S::enabled);
    x.t1.setReachableTargets({&x.t2});
    x.t2.disables(&x.t1);
    x.t2.disables(&held);
    x.t2.addModule(kM, A::hold);
    EXPECT_TRUE(x.t2.isStateReachable(S::enabled, kOther, true));
    EXPECT_TRUE(x.t2.isStateReachable(S::initial, kOther, true));
    // Without T1 enabled, the base rules decide and the hold on the
    // disabled resource refuses.
    x.t1.forceState(S::disabled);
    EXPECT_FALSE(x.t2.isStateReachable(S::enabled, kOther, true));
    EXPECT_TRUE(x.t2.isStateReachable(S::enabled, kM, true));
}

TEST(PowerTargetReachability, WithoutEnabledTargetTheBaseRulesDecideIncludingTheTargetsOwnModules)
{
    TestTarget t(VelaPowerManagerTargets::active);
    t.addModule(kM, A::hold);
    EXPECT_TRUE(t.isStateReachable(S::enabled, kOther, false));
    EXPECT_FALSE(t.isStateReachable(S::disabled, kOther, false));
    EXPECT_FALSE(t.isStateReachable(S::enabling, kOther, true));
    EXPECT_TRUE(t.isStateReachable(S::initial, kOther, true)); // its current state
    EXPECT_TRUE(t.isStateReachable(S::disabled, kM, true));

    // A disabled target among its dependencies does not decide.
    TestTarget quiet(VelaPowerManagerTargets::off);
    quiet.forceState(S::disabled);
    TestResource r(VelaPowerManagerResources::display);
    r.forceState(S::enabled);
    r.addModule(kM, A::hold);
    t.disables(&quiet);
    t.disables(&r);
    EXPECT_FALSE(t.isStateReachable(S::enabled, kOther, true));
    EXPECT_TRUE(t.isStateReachable(S::enabled, kM, true));
    EXPECT_TRUE(t.isStateReachable(S::enabled, kOther, false));
}

TEST(PowerTargetReachability, StateFourOfATargetAsksOnlyTheTargetsOwnModules)
{
    TestTarget t(VelaPowerManagerTargets::active), t1(VelaPowerManagerTargets::off);
    t1.forceState(S::enabled); // lists nothing as reachable
    t.disables(&t1);
    t.forceState(S::enabled);
    EXPECT_TRUE(t.isStateReachable(S::disabled, kOther, true));
    t.addModule(kM, A::hold);
    EXPECT_FALSE(t.isStateReachable(S::disabled, kOther, true));
    EXPECT_TRUE(t.isStateReachable(S::disabled, kM, true));
}

// The enabled half comes before the disabled half: an enabled target that T
// enables decides before one that T disables.
TEST(PowerTargetReachability, FirstEnabledTargetInOrderDecides)
{
    TestTarget t(VelaPowerManagerTargets::active), first(VelaPowerManagerTargets::off),
        second(VelaPowerManagerTargets::suspend);
    t.requiresNode(&first);
    t.disables(&second);
    first.forceState(S::enabled);
    second.forceState(S::enabled);
    first.setReachableTargets({&t});
    EXPECT_TRUE(t.isStateReachable(S::enabled, kOther, true));
    first.setReachableTargets({});
    second.setReachableTargets({&t});
    EXPECT_FALSE(t.isStateReachable(S::enabled, kOther, true));
    // Once the first is no longer enabled, the next one decides.
    first.forceState(S::enabling);
    EXPECT_TRUE(t.isStateReachable(S::enabled, kOther, true));
}

// The enabled-target rule recognises targets by their class, not by type().
TEST(PowerTargetReachability, EnabledTargetIsFoundByClassNotByType)
{
    TestTarget t(VelaPowerManagerTargets::active);
    TestNode impostor(QStringLiteral("impostor"), PowerNodeType::PowerTarget);
    impostor.forceState(S::enabled);
    t.requiredByNode(&impostor);
    EXPECT_TRUE(t.isStateReachable(S::enabled, kOther, false));

    TestTarget unmarked(VelaPowerManagerTargets::off, PowerNodeType::PowerNode);
    unmarked.forceState(S::enabled);
    t.requiredByNode(&unmarked);
    EXPECT_FALSE(t.isStateReachable(S::enabled, kOther, false));
    unmarked.setReachableTargets({&t});
    EXPECT_TRUE(t.isStateReachable(S::enabled, kOther, false));
}

// Each target looked at is asked isEnabled(), in order, up to the first
// enabled one.
TEST(PowerTargetReachability, IsEnabledIsAskedUpToTheFirstEnabledTarget)
{
    TestTarget t(VelaPowerManagerTargets::active), a(VelaPowerManagerTargets::off),
        b(VelaPowerManagerTargets::suspend), c(VelaPowerManagerTargets::standby);
    t.disables(&a);
    t.disables(&b);
    t.disables(&c);
    b.forceState(S::enabled);
    b.setReachableTargets({&t});
    std::vector<std::string> expected;
    for (PowerNode* node : t.orderedRequiredByNodes(false)) {
        const bool enabled = node == &b;
        expected.push_back("Enter [PowerManager] PowerNode::isEnabled(): " + node->name().toStdString()
                           + (enabled ? " enabled" : " disabled"));
        if (enabled)
            break;
    }
    LogCapture log;
    EXPECT_TRUE(t.isStateReachable(S::enabled, kOther, false));
    std::vector<std::string> seen;
    for (const CapturedEvent& event : log.events()) {
        EXPECT_EQ(event.level, log4cplus::TRACE_LOG_LEVEL);
        seen.push_back(event.message);
    }
    EXPECT_EQ(seen, expected) << log.dump();
}

TEST(PowerTargetReachability, SetReachableTargetsEmptyMakesEveryTargetUnreachable)
{
    ThreeTargets x;
    x.t1.setReachableTargets({&x.t2, &x.t3});
    EXPECT_TRUE(x.t1.isReachable(&x.t2));
    x.t1.setReachableTargets({});
    for (const PowerTarget* target : {&x.t1, &x.t2, &x.t3})
        EXPECT_FALSE(x.t1.isReachable(target));
    EXPECT_FALSE(x.t1.isReachable(nullptr));
}

TEST(PowerTargetReachability, SetReachableTargetsReplacesAndFoldsDuplicates)
{
    ThreeTargets x;
    LogCapture log;
    x.t1.setReachableTargets({&x.t2, &x.t2, &x.t1});
    EXPECT_TRUE(x.t1.isReachable(&x.t2));
    EXPECT_TRUE(x.t1.isReachable(&x.t1));
    EXPECT_FALSE(x.t1.isReachable(&x.t3));
    x.t1.setReachableTargets({&x.t3});
    EXPECT_FALSE(x.t1.isReachable(&x.t2));
    EXPECT_FALSE(x.t1.isReachable(&x.t1));
    EXPECT_TRUE(x.t1.isReachable(&x.t3));
    EXPECT_TRUE(loggedNothing(log));
}

// A ladder of diamonds whose bottom is held by another module: every path
// from the bottom up meets the same answers, and the result equals the
// definition's.
TEST(PowerNodeReachability, SharedSubgraphsGiveTheDefinitionsAnswer)
{
    DiamondLadder ladder(10, 800);
    const std::vector<std::unique_ptr<TestResource>>& nodes = ladder.nodes;
    for (const auto& node : nodes)
        node->forceState(S::enabled);
    TestResource* root = ladder.root;
    TestResource* bottom = ladder.bottom;
    LiteralGraph literal(static_cast<int>(nodes.size()));
    root->addModule(kM, A::hold);
    EXPECT_FALSE(bottom->isStateReachable(S::disabled, kOther, true));
    EXPECT_EQ(literal.isStateReachable(bottom, S::disabled, kOther, true), false);
    EXPECT_TRUE(bottom->isStateReachable(S::disabled, kM, true));
    EXPECT_TRUE(root->isStateReachable(S::enabled, kOther, true));
    root->forceState(S::disabled);
    EXPECT_TRUE(bottom->isStateReachable(S::disabled, kOther, true));
    nodes[nodes.size() / 2]->addModule(kOther, A::hold);
    for (const QString& module : {kM, kOther, QString()}) {
        for (const auto& node : nodes) {
            for (int state = 0; state <= 4; ++state) {
                EXPECT_EQ(node->isStateReachable(static_cast<S::Enum>(state), module, true),
                          literal.isStateReachable(node.get(), static_cast<S::Enum>(state), module, true))
                    << node->name().toStdString() << " state " << state << " module " << module.toStdString();
            }
        }
    }
    EXPECT_FALSE(literal.diverged());
}

} // namespace
