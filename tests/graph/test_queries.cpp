// Dependency sets, ordered lists and dependency maps.

#include "graph_test_helpers.h"
#include "literal_reference.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using S = VelaPowerNodeStates;

QList<PowerNode*> setOrder(const QSet<PowerNode*>& nodes)
{
    return QList<PowerNode*>(nodes.cbegin(), nodes.cend());
}

PowerNode::DependencyList paired(const QList<PowerNode*>& nodes, VelaPowerNodeStates::Enum state)
{
    PowerNode::DependencyList list;
    for (PowerNode* node : nodes)
        list.append(qMakePair(node, state));
    return list;
}

TEST(PowerNodeQueries, NodeWithoutEdgesHasEmptySetsAndLists)
{
    PowerResource resource(VelaPowerManagerResources::display);
    PowerTarget target(VelaPowerManagerTargets::active);
    TestNode node(QStringLiteral("plain"));
    for (const PowerNode* n : {static_cast<const PowerNode*>(&resource), static_cast<const PowerNode*>(&target),
                               static_cast<const PowerNode*>(&node)}) {
        for (bool recursive : {false, true}) {
            SCOPED_TRACE(n->name().toStdString() + (recursive ? " recursive" : " direct"));
            EXPECT_TRUE(n->requiredNodes(recursive).isEmpty());
            EXPECT_TRUE(n->requiredByNodes(recursive).isEmpty());
            EXPECT_TRUE(n->orderedRequiredNodes(recursive).isEmpty());
            EXPECT_TRUE(n->orderedRequiredByNodes(recursive).isEmpty());
            for (int state = 0; state <= 4; ++state) {
                EXPECT_TRUE(n->dependencies(static_cast<S::Enum>(state), recursive).isEmpty()) << state;
                EXPECT_TRUE(n->orderedDependencies(static_cast<S::Enum>(state), recursive).isEmpty()) << state;
            }
        }
    }
}

TEST(PowerNodeQueries, NodeWithoutEdgesReachesTwoAndFourWhenNoOtherModuleHolds)
{
    PowerResource resource(VelaPowerManagerResources::display);
    PowerTarget target(VelaPowerManagerTargets::active);
    TestNode node(QStringLiteral("plain"));
    for (PowerNode* n : {static_cast<PowerNode*>(&resource), static_cast<PowerNode*>(&target),
                         static_cast<PowerNode*>(&node)}) {
        for (bool recursive : {false, true}) {
            for (const QString& module : {QString(), QStringLiteral("m")}) {
                EXPECT_TRUE(n->isStateReachable(S::enabled, module, recursive)) << n->name().toStdString();
                EXPECT_TRUE(n->isStateReachable(S::disabled, module, recursive)) << n->name().toStdString();
            }
        }
        // Modules that use or release the node place no hold.
        n->addModule(QStringLiteral("user"), VelaPowerModuleActions::use);
        n->addModule(QStringLiteral("gone"), VelaPowerModuleActions::release);
        for (bool recursive : {false, true}) {
            EXPECT_TRUE(n->isStateReachable(S::enabled, QStringLiteral("m"), recursive));
            EXPECT_TRUE(n->isStateReachable(S::disabled, QStringLiteral("m"), recursive));
        }
        // A hold by another module keeps the node from leaving its state.
        n->addModule(QStringLiteral("holder"), VelaPowerModuleActions::hold);
        for (bool recursive : {false, true}) {
            EXPECT_TRUE(n->isStateReachable(S::enabled, QStringLiteral("m"), recursive));
            EXPECT_FALSE(n->isStateReachable(S::disabled, QStringLiteral("m"), recursive));
            EXPECT_TRUE(n->isStateReachable(S::disabled, QStringLiteral("holder"), recursive));
        }
    }
}

TEST(PowerNodeQueries, DirectSetsHoldOnlyDirectEdges)
{
    ResourceChain c; // a requires b requires z
    EXPECT_EQ(c.a.requiredNodes(false), QSet<PowerNode*>{&c.b});
    EXPECT_EQ(c.a.requiredNodes(true), (QSet<PowerNode*>{&c.b, &c.z}));
    EXPECT_EQ(c.z.requiredByNodes(false), QSet<PowerNode*>{&c.b});
    EXPECT_EQ(c.z.requiredByNodes(true), (QSet<PowerNode*>{&c.b, &c.a}));
    EXPECT_EQ(c.a.orderedRequiredNodes(false), QList<PowerNode*>{&c.b});
    EXPECT_EQ(c.a.orderedRequiredNodes(true), (QList<PowerNode*>{&c.b, &c.z}));
    EXPECT_EQ(c.z.orderedRequiredByNodes(true), (QList<PowerNode*>{&c.b, &c.a}));
}

TEST(PowerNodeQueries, DirectListIsTheSetInItsOwnOrder)
{
    TestNode root(QStringLiteral("root"));
    std::vector<std::unique_ptr<TestNode>> children;
    for (int i = 0; i < 20; ++i) {
        children.emplace_back(new TestNode(QStringLiteral("c%1").arg(i)));
        root.requiresNode(children.back().get());
    }
    EXPECT_EQ(root.orderedRequiredNodes(false), setOrder(root.requiredNodes(false)));
    EXPECT_EQ(root.orderedRequiredNodes(true), setOrder(root.requiredNodes(false)));
}

TEST(PowerNodeQueries, RecursiveSetDoesNotGoPastATarget)
{
    TestNode a(QStringLiteral("A"));
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource r(VelaPowerManagerResources::display);
    a.requiresNode(&t);
    t.enables(&r);
    ASSERT_EQ(t.requiredNodes(false), QSet<PowerNode*>{&r});
    EXPECT_EQ(a.requiredNodes(true), QSet<PowerNode*>{&t});
    EXPECT_EQ(a.orderedRequiredNodes(true), QList<PowerNode*>{&t});
    EXPECT_EQ(a.dependencies(S::enabled, true).keys(), QList<PowerNode*>{&t});
    // From the target itself the chain is followed.
    EXPECT_EQ(t.requiredNodes(true), QSet<PowerNode*>{&r});
}

TEST(PowerNodeQueries, RecursiveRequiredBySetDoesNotGoPastATarget)
{
    PowerResource r(VelaPowerManagerResources::display), x(VelaPowerManagerResources::audio);
    PowerTarget t(VelaPowerManagerTargets::active);
    r.requiredByNode(&t); // t's reverse side: t enables r
    t.disables(&x);
    ASSERT_EQ(r.requiredByNodes(false), QSet<PowerNode*>{&t});
    ASSERT_EQ(t.requiredByNodes(false), QSet<PowerNode*>{&x});
    EXPECT_EQ(r.requiredByNodes(true), QSet<PowerNode*>{&t});
    EXPECT_EQ(r.orderedRequiredByNodes(true), QList<PowerNode*>{&t});
}

TEST(PowerNodeQueries, TargetSkipIsDecidedByType)
{
    // A base node claiming to be a target is not descended into; a target
    // claiming to be a base node is.
    TestNode a(QStringLiteral("A")), marked(QStringLiteral("marked"), PowerNodeType::PowerTarget),
        below(QStringLiteral("below"));
    a.requiresNode(&marked);
    marked.requiresNode(&below);
    EXPECT_EQ(a.requiredNodes(true), QSet<PowerNode*>{&marked});
    EXPECT_EQ(a.orderedRequiredNodes(true), QList<PowerNode*>{&marked});

    TestNode b(QStringLiteral("B"));
    TestTarget unmarked(VelaPowerManagerTargets::performance, PowerNodeType::PowerNode);
    PowerResource r(VelaPowerManagerResources::gpu);
    b.requiresNode(&unmarked);
    unmarked.enables(&r);
    EXPECT_EQ(b.requiredNodes(true), (QSet<PowerNode*>{&unmarked, &r}));
    EXPECT_EQ(b.orderedRequiredNodes(true), (QList<PowerNode*>{&unmarked, &r}));
}

struct Example {
    std::unique_ptr<TestNode> a, b, q, d, e, f;
};

// A requires {B, Q}, B requires {D}, Q requires {D, E}, D requires {F}.
std::unique_ptr<Example> makeExample()
{
    std::unique_ptr<Example> x(new Example);
    x->a.reset(new TestNode(QStringLiteral("A")));
    x->b.reset(new TestNode(QStringLiteral("B")));
    x->q.reset(new TestNode(QStringLiteral("Q")));
    x->d.reset(new TestNode(QStringLiteral("D")));
    x->e.reset(new TestNode(QStringLiteral("E")));
    x->f.reset(new TestNode(QStringLiteral("F")));
    x->a->requiresNode(x->b.get());
    x->a->requiresNode(x->q.get());
    x->b->requiresNode(x->d.get());
    x->q->requiresNode(x->d.get());
    x->q->requiresNode(x->e.get());
    x->d->requiresNode(x->f.get());
    return x;
}

// The list of the example written out by its definition, for the set orders
// the nodes actually have: A's direct nodes, then B's list and Q's list with
// what is already listed left out.
QList<PowerNode*> exampleByDefinition(const Example& x)
{
    const QList<PowerNode*> dList{x.f.get()};
    QList<PowerNode*> bList{x.d.get()};
    LiteralGraph::appendMissing(dList, bList);
    QList<PowerNode*> qList = setOrder(x.q->requiredNodes(false));
    LiteralGraph::appendMissing(dList, qList);
    QList<PowerNode*> aList = setOrder(x.a->requiredNodes(false));
    for (PowerNode* direct : setOrder(x.a->requiredNodes(false)))
        LiteralGraph::appendMissing(direct == x.b.get() ? bList : qList, aList);
    return aList;
}

TEST(PowerNodeQueries, OrderedRequiredNodesOfTheExample)
{
    std::vector<std::unique_ptr<Example>> built;
    bool writtenOrderSeen = false;
    // Set order is the hash's: build copies until one has A's set ordered
    // [B, Q] and Q's ordered [D, E], the order in which the example is
    // written, and check every copy against its own order on the way.
    for (int attempt = 0; attempt < 200 && !writtenOrderSeen; ++attempt) {
        built.push_back(makeExample());
        const Example& x = *built.back();
        const QList<PowerNode*> list = x.a->orderedRequiredNodes(true);
        EXPECT_EQ(list, exampleByDefinition(x)) << namesOf(list);
        EXPECT_EQ(list.size(), 5) << namesOf(list);
        EXPECT_EQ(QSet<PowerNode*>(list.cbegin(), list.cend()).size(), list.size()) << namesOf(list);
        EXPECT_EQ(QSet<PowerNode*>(list.cbegin(), list.cend()), x.a->requiredNodes(true));
        if (setOrder(x.a->requiredNodes(false)) == QList<PowerNode*>{x.b.get(), x.q.get()}
            && setOrder(x.q->requiredNodes(false)) == QList<PowerNode*>{x.d.get(), x.e.get()}) {
            writtenOrderSeen = true;
            EXPECT_EQ(namesOf(list), "[B, Q, D, F, E]");
        }
    }
    EXPECT_TRUE(writtenOrderSeen) << "no copy had the written set order";
}

TEST(PowerNodeQueries, OrderedRequiredByNodesOfTheMirroredExample)
{
    // The example with every edge reversed, read from the bottom.
    std::vector<std::unique_ptr<TestNode>> keep;
    auto node = [&keep](const char* name) {
        keep.emplace_back(new TestNode(QString::fromLatin1(name)));
        return keep.back().get();
    };
    for (int attempt = 0; attempt < 20; ++attempt) {
        TestNode *a = node("A"), *b = node("B"), *q = node("Q"), *d = node("D"), *e = node("E"), *f = node("F");
        a->requiredByNode(b);
        a->requiredByNode(q);
        b->requiredByNode(d);
        q->requiredByNode(d);
        q->requiredByNode(e);
        d->requiredByNode(f);
        LiteralGraph literal(6);
        const QList<PowerNode*> list = a->orderedRequiredByNodes(true);
        EXPECT_EQ(list, literal.orderedRequiredByNodes(a, true)) << namesOf(list);
        EXPECT_EQ(list.size(), 5) << namesOf(list);
        EXPECT_EQ(setOrder(a->requiredByNodes(false)), list.mid(0, 2));
    }
}

// Top requires left and right, both require the next top: a node below is
// reached along many paths, and must still stand in the list once.
TEST(PowerNodeQueries, SharedNodesStandOnceInTheOrderedList)
{
    DiamondLadder ladder(8, 700);
    const int count = static_cast<int>(ladder.nodes.size());
    const QList<PowerNode*> list = ladder.root->orderedRequiredNodes(true);
    EXPECT_EQ(list.size(), count - 1);
    EXPECT_EQ(QSet<PowerNode*>(list.cbegin(), list.cend()).size(), list.size());
    LiteralGraph literal(count);
    EXPECT_EQ(list, literal.orderedRequiredNodes(ladder.root, true)) << namesOf(list);
    EXPECT_EQ(ladder.bottom->orderedRequiredByNodes(true), literal.orderedRequiredByNodes(ladder.bottom, true));
    EXPECT_EQ(ladder.bottom->orderedRequiredByNodes(true).size(), count - 1);
    EXPECT_EQ(ladder.root->requiredNodes(true), literal.requiredNodes(ladder.root, true));
}

// The middle of a chain has dependencies for 2 and for 4, and none for any
// other state.
TEST(PowerNodeQueries, BaseDependenciesOfOtherStatesAreEmpty)
{
    ResourceChain c;
    const PowerNode& node = c.b;
    ASSERT_FALSE(node.dependencies(S::enabled, false).isEmpty());
    ASSERT_FALSE(node.dependencies(S::disabled, false).isEmpty());
    for (S::Enum state : {S::initial, S::enabling, S::disabling}) {
        for (bool recursive : {false, true}) {
            EXPECT_TRUE(node.dependencies(state, recursive).isEmpty()) << state;
            EXPECT_TRUE(node.orderedDependencies(state, recursive).isEmpty()) << state;
        }
    }
}

TEST(PowerNodeQueries, BaseDependenciesOfTwoAndFour)
{
    PowerResource top(VelaPowerManagerResources::camera), above(VelaPowerManagerResources::usb),
        node(VelaPowerManagerResources::display), below(VelaPowerManagerResources::gpu),
        bottom(VelaPowerManagerResources::sensors);
    top.requiresResource(&above);
    above.requiresResource(&node);
    node.requiresResource(&below);
    below.requiresResource(&bottom);
    using Map = QHash<PowerNode*, S::Enum>;
    EXPECT_EQ(node.dependencies(S::enabled, false), (Map{{&below, S::enabled}}));
    EXPECT_EQ(node.dependencies(S::enabled, true), (Map{{&below, S::enabled}, {&bottom, S::enabled}}));
    EXPECT_EQ(node.dependencies(S::disabled, false), (Map{{&above, S::disabled}}));
    EXPECT_EQ(node.dependencies(S::disabled, true), (Map{{&above, S::disabled}, {&top, S::disabled}}));
    EXPECT_EQ(node.orderedDependencies(S::enabled, true),
              (PowerNode::DependencyList{{&below, S::enabled}, {&bottom, S::enabled}}));
    EXPECT_EQ(node.orderedDependencies(S::disabled, true),
              (PowerNode::DependencyList{{&above, S::disabled}, {&top, S::disabled}}));
}

TEST(PowerTargetQueries, OrderedDependenciesOfTwoAndZeroAreEqualAndOfFourEmpty)
{
    PowerTarget t(VelaPowerManagerTargets::active), other(VelaPowerManagerTargets::off);
    PowerResource on1(VelaPowerManagerResources::display), on2(VelaPowerManagerResources::backlight),
        below(VelaPowerManagerResources::gpu), off1(VelaPowerManagerResources::audio),
        user(VelaPowerManagerResources::camera);
    on1.requiresResource(&below);
    user.requiresResource(&off1);
    t.enables(&on1);
    t.enables(&on2);
    t.disables(&off1);
    t.disables(&other);
    for (bool recursive : {false, true}) {
        const PowerNode::DependencyList two = t.orderedDependencies(S::enabled, recursive);
        EXPECT_EQ(t.orderedDependencies(S::initial, recursive), two);
        EXPECT_EQ(t.orderedDependencies(S::enabling, recursive), two);
        EXPECT_EQ(t.orderedDependencies(S::disabling, recursive), two);
        EXPECT_TRUE(t.orderedDependencies(S::disabled, recursive).isEmpty());
        EXPECT_TRUE(t.dependencies(S::disabled, recursive).isEmpty());
        // Enabled half first, then the disabled half.
        EXPECT_EQ(two, paired(t.orderedRequiredNodes(recursive), S::enabled)
                           + paired(t.orderedRequiredByNodes(recursive), S::disabled))
            << namesOf(two);
        for (S::Enum state : {S::initial, S::enabling, S::enabled, S::disabling})
            EXPECT_EQ(t.dependencies(state, recursive).size(), recursive ? 6 : 4);
    }
    EXPECT_EQ(t.orderedDependencies(S::enabled, true).size(), 6);
}

// T disables D and enables X; X is then made to require D. Both stand in
// both halves of T's recursive list.
TEST(PowerTargetQueries, NodeBothEnabledAndDisabledStandsTwice)
{
    PowerTarget t(VelaPowerManagerTargets::active);
    PowerResource d(VelaPowerManagerResources::wifi), x(VelaPowerManagerResources::network);
    t.disables(&d);
    t.enables(&x);
    ASSERT_TRUE(wiredSilently([&] { x.requiresResource(&d); }));

    const PowerNode::DependencyList list = t.orderedDependencies(S::enabled, true);
    EXPECT_EQ(list, (PowerNode::DependencyList{{&x, S::enabled}, {&d, S::enabled}, {&d, S::disabled},
                                              {&x, S::disabled}}))
        << namesOf(list);
    using Map = QHash<PowerNode*, S::Enum>;
    EXPECT_EQ(t.dependencies(S::enabled, true), (Map{{&x, S::disabled}, {&d, S::disabled}}));
    EXPECT_EQ(t.orderedDependencies(S::enabled, false),
              (PowerNode::DependencyList{{&x, S::enabled}, {&d, S::disabled}}));
    EXPECT_EQ(t.dependencies(S::enabled, false), (Map{{&x, S::enabled}, {&d, S::disabled}}));
}

// Every call computes its result afresh: an edge made below a node after an
// earlier query shows in the node's next answers.
TEST(PowerNodeQueries, ResultsAreComputedOnEveryCall)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight),
        c(VelaPowerManagerResources::gpu);
    a.requiresResource(&b);
    ASSERT_EQ(a.requiredNodes(true), QSet<PowerNode*>{&b});
    ASSERT_EQ(a.orderedRequiredNodes(true), QList<PowerNode*>{&b});
    ASSERT_EQ(a.orderedDependencies(S::enabled, true), (PowerNode::DependencyList{{&b, S::enabled}}));
    ASSERT_EQ(c.requiredByNodes(true), QSet<PowerNode*>{});
    b.requiresResource(&c);
    EXPECT_EQ(a.requiredNodes(true), (QSet<PowerNode*>{&b, &c}));
    EXPECT_EQ(a.orderedRequiredNodes(true), (QList<PowerNode*>{&b, &c}));
    EXPECT_EQ(a.orderedDependencies(S::enabled, true), (PowerNode::DependencyList{{&b, S::enabled}, {&c, S::enabled}}));
    EXPECT_EQ(c.requiredByNodes(true), (QSet<PowerNode*>{&b, &a}));
}

} // namespace
