// Enabling and disabling through the required edges: a node locks what it
// requires before its own action, and releases it only after its own
// disable; a shared dependency stays on until its last holder lets go.

#include "switchingfixture.h"

#include <QSet>

using namespace switching;

namespace {

// a requires b and c; both require d.
struct Diamond {
    TestResource* a;
    TestResource* b;
    TestResource* c;
    TestResource* d;

    std::vector<TestResource*> all() const { return {a, b, c, d}; }
};

// How one node's enable and disable writes are answered.
struct Answers {
    Answer onEnable;
    Answer onDisable;
};

class DependencyLocks : public SwitchingTest
{
protected:
    Diamond makeDiamond(Answers a, Answers b, Answers c, Answers d)
    {
        const Diamond diamond{makeResource(a.onEnable, a.onDisable), makeResource(b.onEnable, b.onDisable),
                              makeResource(c.onEnable, c.onDisable), makeResource(d.onEnable, d.onDisable)};
        diamond.a->requiresNode(diamond.b);
        diamond.a->requiresNode(diamond.c);
        diamond.b->requiresNode(diamond.d);
        diamond.c->requiresNode(diamond.d);
        return diamond;
    }
};

// Position of the first event with this message, or -1.
int positionOf(const std::vector<CapturedEvent>& events, const std::string& message)
{
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (events[i].message == message)
            return static_cast<int>(i);
    }
    return -1;
}

std::string entersState(const PowerNode* node, const char* state)
{
    return "Node: " + str(node->name()) + " enters state: " + state;
}

} // namespace

TEST_F(DependencyLocks, DiamondSharesItsBottomUntilTheLastHolderReleasesIt)
{
    // c's disable write is kept unanswered until the test answers it.
    const Diamond diamond = makeDiamond({Answer::Later, Answer::Later}, {Answer::Later, Answer::Later},
                                        {Answer::Later, Answer::Never}, {Answer::Later, Answer::Later});
    TestResource* const a = diamond.a;
    TestResource* const b = diamond.b;
    TestResource* const c = diamond.c;
    TestResource* const d = diamond.d;
    LogCapture log(log4cplus::DEBUG_LOG_LEVEL);

    const CMReply<void> on = a->enable();

    // The whole required sub-graph is locked before enable() returns; only
    // the bottom's action can run yet.
    for (TestResource* node : diamond.all())
        EXPECT_EQ(node->state(), VelaPowerNodeStates::enabling) << str(node->name());
    EXPECT_EQ(d->lockedBy(), (QSet<PowerNode*>{b, c}));
    EXPECT_EQ(b->lockedBy(), QSet<PowerNode*>{a});
    EXPECT_EQ(c->lockedBy(), QSet<PowerNode*>{a});
    EXPECT_TRUE(a->lockedBy().isEmpty());
    EXPECT_EQ(writesTo(enablePath(d)), 1);
    EXPECT_EQ(writesTo(enablePath(b)) + writesTo(enablePath(c)) + writesTo(enablePath(a)), 0);

    ASSERT_TRUE(finishes(on));
    for (TestResource* node : diamond.all()) {
        EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled) << str(node->name());
        EXPECT_EQ(writesTo(enablePath(node)), 1) << str(node->name());
    }
    const auto events = log.events();
    const int dOn = positionOf(events, entersState(d, "enabled"));
    const int bOn = positionOf(events, entersState(b, "enabled"));
    const int cOn = positionOf(events, entersState(c, "enabled"));
    const int aOn = positionOf(events, entersState(a, "enabled"));
    ASSERT_TRUE(dOn >= 0 && bOn >= 0 && cOn >= 0 && aOn >= 0) << log.dump();
    EXPECT_LT(dOn, bOn);
    EXPECT_LT(dOn, cOn);
    EXPECT_LT(bOn, aOn);
    EXPECT_LT(cOn, aOn);

    // Disable: a's own action first, then b and c; c's write is kept.
    const CMReply<void> off = a->disable();
    ASSERT_TRUE(waitUntil([&] {
        return b->state() == VelaPowerNodeStates::disabled && c->state() == VelaPowerNodeStates::disabling;
    }));
    EXPECT_EQ(a->state(), VelaPowerNodeStates::disabled);
    drainEvents();
    EXPECT_EQ(d->state(), VelaPowerNodeStates::enabled) << "c still holds d";
    EXPECT_EQ(d->lockedBy(), QSet<PowerNode*>{c});
    EXPECT_EQ(writesTo(disablePath(d)), 0);
    EXPECT_FALSE(off.isFinished());

    ASSERT_TRUE(answerPending(disablePath(c)));
    ASSERT_TRUE(finishes(off));
    for (TestResource* node : diamond.all()) {
        EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled) << str(node->name());
        EXPECT_TRUE(node->lockedBy().isEmpty()) << str(node->name());
        EXPECT_EQ(writesTo(disablePath(node)), 1) << str(node->name());
    }
    EXPECT_TRUE(succeeded(off));
    const auto after = log.events();
    EXPECT_LT(positionOf(after, entersState(a, "disabled")), positionOf(after, entersState(b, "disabled")));
    EXPECT_LT(positionOf(after, entersState(c, "disabled")), positionOf(after, entersState(d, "disabled")));
}

TEST_F(DependencyLocks, DiamondAnsweredAtOnceEnablesAndDisablesCompletely)
{
    // c switches without writes.
    const Diamond diamond = makeDiamond({Answer::AtOnce, Answer::AtOnce}, {Answer::AtOnce, Answer::AtOnce},
                                        {Answer::NoRequest, Answer::NoRequest}, {Answer::AtOnce, Answer::AtOnce});
    TestResource* const d = diamond.d;

    ASSERT_TRUE(finishes(diamond.a->enable()));
    for (TestResource* node : diamond.all())
        EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled) << str(node->name());
    EXPECT_EQ(d->lockedBy(), (QSet<PowerNode*>{diamond.b, diamond.c}));

    ASSERT_TRUE(finishes(diamond.a->disable()));
    for (TestResource* node : diamond.all()) {
        EXPECT_EQ(node->state(), VelaPowerNodeStates::disabled) << str(node->name());
        EXPECT_TRUE(node->lockedBy().isEmpty()) << str(node->name());
    }
    EXPECT_EQ(writesTo(enablePath(d)), 1);
    EXPECT_EQ(writesTo(disablePath(d)), 1);
}

TEST_F(DependencyLocks, DisablingOneOfTwoDependantsKeepsTheSharedNodeOn)
{
    TestResource* left = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* right = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* shared = makeResource(Answer::AtOnce, Answer::AtOnce);
    left->requiresNode(shared);
    right->requiresNode(shared);
    const CMReply<void> leftOn = left->enable();
    const CMReply<void> rightOn = right->enable();
    ASSERT_TRUE(waitUntil([&] { return leftOn.isFinished() && rightOn.isFinished(); }));
    EXPECT_EQ(writesTo(enablePath(shared)), 1);

    const CMReply<void> leftOff = left->disable();
    ASSERT_TRUE(finishes(leftOff));
    EXPECT_EQ(left->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(shared->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(shared->lockedBy(), QSet<PowerNode*>{right});

    const CMReply<void> rightOff = right->disable();
    ASSERT_TRUE(finishes(rightOff));
    EXPECT_EQ(shared->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(writesTo(disablePath(shared)), 1);
}

TEST_F(DependencyLocks, DependantOfAClaimedNodeLeavesItOnWhenDisabled)
{
    TestResource* top = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* bottom = makeResource(Answer::AtOnce, Answer::AtOnce);
    top->requiresNode(bottom);
    const CMReply<void> claimed = bottom->setModuleAction(QStringLiteral("audio-service"), VelaPowerModuleActions::use);
    const CMReply<void> on = top->enable();
    ASSERT_TRUE(waitUntil([&] { return claimed.isFinished() && on.isFinished(); }));

    const CMReply<void> off = top->disable();
    ASSERT_TRUE(finishes(off));

    EXPECT_EQ(top->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(bottom->state(), VelaPowerNodeStates::enabled);
    EXPECT_TRUE(bottom->lockedBy().isEmpty());
    EXPECT_EQ(writesTo(disablePath(bottom)), 0);
}

TEST_F(DependencyLocks, NodeRunsItsOwnActionOnlyAfterItsDependencies)
{
    TestResource* top = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* bottom = makeResource(Answer::Never, Answer::AtOnce);
    top->requiresNode(bottom);

    const CMReply<void> on = top->enable();
    drainEvents();
    EXPECT_EQ(writesTo(enablePath(top)), 0);
    EXPECT_EQ(top->state(), VelaPowerNodeStates::enabling);
    EXPECT_FALSE(on.isFinished());

    ASSERT_TRUE(answerPending(enablePath(bottom)));
    ASSERT_TRUE(finishes(on));
    EXPECT_EQ(writesTo(enablePath(top)), 1);
    EXPECT_EQ(top->state(), VelaPowerNodeStates::enabled);
}

TEST_F(DependencyLocks, FailedDependencyActionDoesNotStopTheDependant)
{
    TestResource* top = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* bottom = makeResource(Answer::WithError, Answer::AtOnce);
    top->requiresNode(bottom);
    LogCapture log;

    const CMReply<void> on = top->enable();

    ASSERT_TRUE(finishes(on));
    EXPECT_TRUE(succeeded(on));
    EXPECT_EQ(top->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(bottom->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL, "Failed to enable resource " + str(bottom->name()) + ", error: refused"),
              1)
        << log.dump();
    // The dependency's transition succeeded: no lock failure upstream.
    EXPECT_FALSE(log.containsFragment(log4cplus::FATAL_LOG_LEVEL, "Failed to lock dependencies")) << log.dump();
}

TEST_F(DependencyLocks, FailedLockIsLoggedAndTheNodeStillRunsItsOwnAction)
{
    // The bottom's enable reply is a shared handle: whoever holds it can
    // finish it with an error, which is what the top then receives as its
    // lock reply.
    TestResource* top = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* bottom = makeResource(Answer::Never, Answer::AtOnce);
    top->requiresNode(bottom);
    const CMReply<void> bottomOn = bottom->enable();
    bottomOn.setError(CMError(TrString(QStringLiteral("lock broken"))));
    LogCapture log;

    const CMReply<void> on = top->enable();

    ASSERT_TRUE(finishes(on));
    EXPECT_TRUE(succeeded(on));
    EXPECT_EQ(top->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(writesTo(enablePath(top)), 1);
    EXPECT_TRUE(loggedOnce(log, "Failed to lock dependencies for " + str(top->name()) + ", error: lock broken",
                           log4cplus::FATAL_LOG_LEVEL, kLockContinuation, documentedLine::lockFailed));
}

TEST_F(DependencyLocks, FailedUnlockIsLoggedForTheDisablingNodeAndTheDisableStillSucceeds)
{
    TestResource* top = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* bottom = makeResource(Answer::AtOnce, Answer::Never);
    top->requiresNode(bottom);
    ASSERT_TRUE(finishes(top->enable()));
    LogCapture log;

    const CMReply<void> off = top->disable();
    ASSERT_TRUE(waitUntil([&] { return bottom->state() == VelaPowerNodeStates::disabling; }));
    EXPECT_FALSE(off.isFinished());
    // The bottom's running disable reply, finished with an error by its holder.
    bottom->disableReply().setError(CMError(TrString(QStringLiteral("unlock broken"))));

    ASSERT_TRUE(finishes(off));
    EXPECT_TRUE(succeeded(off));
    EXPECT_EQ(top->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(loggedOnce(log, "Failed to unlock all dependencies for " + str(top->name()) + ", error: unlock broken",
                           log4cplus::FATAL_LOG_LEVEL, kUnlockContinuation, documentedLine::unlockFailed));
}

TEST_F(DependencyLocks, TargetLocksTheResourceItEnablesAndReleasesItWhenDisabled)
{
    PowerTarget* target = makeTarget();
    TestResource* resource = makeResource(Answer::AtOnce, Answer::AtOnce);
    target->enables(resource);

    const CMReply<void> on = target->enable();
    ASSERT_TRUE(finishes(on));
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(resource->lockedBy(), QSet<PowerNode*>{target});

    const CMReply<void> off = target->disable();
    ASSERT_TRUE(finishes(off));
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::disabled);
    EXPECT_TRUE(resource->lockedBy().isEmpty());
}

namespace {

// The writes of enabling `node` as the depth-first lock descent makes them
// when every write is answered at once: each node's required nodes in the
// order in which it walks them, each one completely (its own required nodes,
// then its own write) before the next, a node already enabled skipped.
void expectedEnableWrites(const PowerNode* node, QSet<const PowerNode*>& enabled, QStringList& writes)
{
    enabled.insert(node);
    for (const PowerNode* required : node->requiredNodes(false)) {
        if (!enabled.contains(required))
            expectedEnableWrites(required, enabled, writes);
    }
    writes << SwitchingTest::enablePath(node);
}

} // namespace

TEST_F(DependencyLocks, TreeAnsweredAtOnceIsWrittenInDepthFirstOrderWithSharedNodesOnce)
{
    // top requires three branches of two levels; two branches share a node.
    std::vector<TestResource*> nodes;
    for (int i = 0; i < 10; ++i)
        nodes.push_back(makeResource(Answer::AtOnce, Answer::AtOnce));
    const std::vector<std::pair<int, int>> edges{{0, 1}, {0, 2}, {0, 3}, {1, 4}, {1, 5}, {2, 6},
                                                 {2, 7}, {3, 7}, {3, 8}, {7, 9}};
    for (const auto& edge : edges)
        nodes[static_cast<std::size_t>(edge.first)]->requiresNode(nodes[static_cast<std::size_t>(edge.second)]);
    QSet<const PowerNode*> enabled;
    QStringList expected;
    expectedEnableWrites(nodes.front(), enabled, expected);

    ASSERT_TRUE(finishes(nodes.front()->enable()));

    QStringList written;
    for (const Write& write : m_writes)
        written << write.path.toString();
    EXPECT_EQ(written, expected);
    for (TestResource* node : nodes)
        EXPECT_EQ(node->state(), VelaPowerNodeStates::enabled) << str(node->name());
    EXPECT_EQ(nodes[7]->lockedBy(), (QSet<PowerNode*>{nodes[2], nodes[3]}));
}
