// Node kinds, accessors, the module map and the two list utilities.

#include "graph_test_helpers.h"

#include <gtest/gtest.h>

namespace {

TEST(PowerNodeType, ValuesAreZeroOneTwo)
{
    EXPECT_EQ(static_cast<int>(PowerNodeType::PowerNode), 0);
    EXPECT_EQ(static_cast<int>(PowerNodeType::PowerTarget), 1);
    EXPECT_EQ(static_cast<int>(PowerNodeType::PowerResource), 2);
}

TEST(PowerNodeType, ResourceIsTwoTargetIsOneBaseNodeIsZero)
{
    PowerResource resource(VelaPowerManagerResources::wifi);
    PowerTarget target(VelaPowerManagerTargets::active);
    TestNode node(QStringLiteral("plain"));
    const PowerNode& resourceAsNode = resource;
    const PowerNode& targetAsNode = target;
    EXPECT_EQ(resourceAsNode.type(), PowerNodeType::PowerResource);
    EXPECT_EQ(targetAsNode.type(), PowerNodeType::PowerTarget);
    // TestNode does not override the answer unless asked to: this is the
    // base class's own.
    EXPECT_EQ(node.PowerNode::type(), PowerNodeType::PowerNode);
}

TEST(PowerNodeNames, ResourceNameIsTheEnumerationsText)
{
    for (int value = 0; value <= 11; ++value) {
        PowerResource resource(resourceValue(value));
        EXPECT_EQ(resource.name(), VelaPowerManagerResources::toString(resourceValue(value))) << value;
        EXPECT_EQ(resource.resource(), resourceValue(value));
    }
    // A value without a built-in name, and one named at run time.
    PowerResource unnamed(resourceValue(4321));
    EXPECT_EQ(unnamed.name(), VelaPowerManagerResources::toString(resourceValue(4321)));
    ASSERT_TRUE(VelaPowerManagerResources::registerName(resourceValue(4322), QStringLiteral("graphTestLamp")));
    PowerResource named(resourceValue(4322));
    EXPECT_EQ(named.name(), QStringLiteral("graphTestLamp"));
}

TEST(PowerNodeNames, TargetNameIsTheEnumerationsText)
{
    for (int value = 0; value <= 4; ++value) {
        PowerTarget target(targetValue(value));
        EXPECT_EQ(target.name(), VelaPowerManagerTargets::toString(targetValue(value))) << value;
        EXPECT_EQ(target.target(), targetValue(value));
    }
    ASSERT_TRUE(VelaPowerManagerTargets::registerName(targetValue(4323), QStringLiteral("graphTestNap")));
    PowerTarget named(targetValue(4323));
    EXPECT_EQ(named.name(), QStringLiteral("graphTestNap"));
}

TEST(PowerNodeNames, BaseNodeKeepsItsConstructorName)
{
    TestNode node(QStringLiteral("the node"));
    EXPECT_EQ(node.name(), QStringLiteral("the node"));
}

TEST(PowerResourceTimeout, OneArgumentConstructorGives5000)
{
    PowerResource resource(VelaPowerManagerResources::audio);
    EXPECT_EQ(resource.actionTimeout(), 5000);
}

TEST(PowerResourceTimeout, SecondArgumentIsStoredUnchecked)
{
    PowerResource zero(VelaPowerManagerResources::audio, 0);
    EXPECT_EQ(zero.actionTimeout(), 0);
    PowerResource negative(VelaPowerManagerResources::audio, -17);
    EXPECT_EQ(negative.actionTimeout(), -17);
    PowerResource longer(VelaPowerManagerResources::audio, 120000);
    EXPECT_EQ(longer.actionTimeout(), 120000);
}

TEST(PowerNodeConstruction, NewNodeIsInInitialStateWithNothingAttached)
{
    PowerResource resource(VelaPowerManagerResources::camera);
    PowerTarget target(VelaPowerManagerTargets::standby);
    TestNode plain(QStringLiteral("plain"));
    for (const PowerNode* node : {static_cast<const PowerNode*>(&resource), static_cast<const PowerNode*>(&target),
                                  static_cast<const PowerNode*>(&plain)}) {
        SCOPED_TRACE(node->name().toStdString());
        EXPECT_EQ(node->state(), VelaPowerNodeStates::initial);
        // State 0: neither enabled (2) nor disabled (4).
        EXPECT_EQ(static_cast<int>(node->state()), 0);
        EXPECT_FALSE(node->isEnabled());
        EXPECT_TRUE(node->moduleActions().isEmpty());
        EXPECT_TRUE(node->lockedBy().isEmpty());
        EXPECT_TRUE(node->requiredNodes(false).isEmpty());
        EXPECT_TRUE(node->requiredByNodes(false).isEmpty());
    }
    EXPECT_TRUE(resource.onEnableActionRequest().isNull());
    EXPECT_TRUE(resource.onDisableActionRequest().isNull());
    EXPECT_FALSE(target.isReachable(&target));
}

TEST(PowerNodeIsEnabled, OnlyStateTwoIsEnabled)
{
    TestResource resource(VelaPowerManagerResources::gpu);
    for (int state = 0; state <= 4; ++state) {
        resource.forceState(static_cast<VelaPowerNodeStates::Enum>(state));
        EXPECT_EQ(resource.isEnabled(), state == VelaPowerNodeStates::enabled) << "state " << state;
    }
}

// The record names the node source, the accessor's signature and its
// documented line.
TEST(PowerNodeIsEnabled, NewNodeTraceLineSaysDisabled)
{
    PowerResource resource(VelaPowerManagerResources::display);
    LogCapture log;
    EXPECT_FALSE(resource.isEnabled());
    const std::vector<CapturedEvent> events = log.events();
    ASSERT_EQ(events.size(), 1u) << log.dump();
    EXPECT_EQ(events[0].level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(events[0].message, "Enter [PowerManager] PowerNode::isEnabled(): display disabled");
    EXPECT_EQ(events[0].file, kNodeSource);
    EXPECT_EQ(events[0].function, "bool PowerNode::isEnabled() const");
    // Fixed by the log contract, wherever the statement stands in the file.
    EXPECT_EQ(events[0].line, 348);
}

TEST(PowerNodeIsEnabled, TraceLineSaysEnabledOnlyInStateTwo)
{
    TestTarget target(VelaPowerManagerTargets::suspend);
    for (int state = 0; state <= 4; ++state) {
        target.forceState(static_cast<VelaPowerNodeStates::Enum>(state));
        LogCapture log;
        target.isEnabled();
        const std::string expected = std::string("Enter [PowerManager] PowerNode::isEnabled(): suspend ")
            + (state == VelaPowerNodeStates::enabled ? "enabled" : "disabled");
        EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL, expected), 1) << "state " << state << "\n" << log.dump();
        EXPECT_EQ(log.events().size(), 1u) << log.dump();
    }
}

TEST(PowerNodeIsEnabled, NoTraceLineWhenTraceIsOff)
{
    TestResource resource(VelaPowerManagerResources::display);
    resource.forceState(VelaPowerNodeStates::enabled);
    LogCapture log(log4cplus::DEBUG_LOG_LEVEL);
    EXPECT_TRUE(resource.isEnabled());
    EXPECT_TRUE(loggedNothing(log));
}

TEST(PowerNodeModuleMap, UnknownModuleHasNeutralActionTwo)
{
    PowerResource resource(VelaPowerManagerResources::usb);
    EXPECT_EQ(resource.moduleAction(QStringLiteral("nobody")), VelaPowerModuleActions::release);
    EXPECT_EQ(static_cast<int>(resource.moduleAction(QStringLiteral("nobody"))), 2);
    resource.addModule(QStringLiteral("someone"), VelaPowerModuleActions::hold);
    EXPECT_EQ(resource.moduleAction(QStringLiteral("nobody")), VelaPowerModuleActions::release);
    // Asking does not create an entry.
    EXPECT_EQ(resource.moduleActions().size(), 1);
}

TEST(PowerNodeModuleMap, ModuleAddedWithHoldYieldsHold)
{
    PowerResource resource(VelaPowerManagerResources::usb);
    resource.addModule(QStringLiteral("m"), VelaPowerModuleActions::hold);
    resource.addModule(QStringLiteral("u"), VelaPowerModuleActions::use);
    EXPECT_EQ(resource.moduleAction(QStringLiteral("m")), VelaPowerModuleActions::hold);
    EXPECT_EQ(static_cast<int>(resource.moduleAction(QStringLiteral("m"))), 0);
    EXPECT_EQ(resource.moduleAction(QStringLiteral("u")), VelaPowerModuleActions::use);
}

TEST(PowerNodeModuleMap, AddModuleTwiceKeepsOneEntryWithTheSecondAction)
{
    TestResource resource(VelaPowerManagerResources::usb);
    LogCapture log;
    resource.addModule(QStringLiteral("m"), VelaPowerModuleActions::hold);
    resource.addModule(QStringLiteral("m"), VelaPowerModuleActions::release);
    const QHash<QString, VelaPowerModuleActions::Enum> actions = resource.moduleActions();
    EXPECT_EQ(actions.size(), 1);
    EXPECT_EQ(actions.value(QStringLiteral("m")), VelaPowerModuleActions::release);
    EXPECT_EQ(resource.moduleAction(QStringLiteral("m")), VelaPowerModuleActions::release);
    // Set-up only: no transition and no log.
    EXPECT_EQ(resource.state(), VelaPowerNodeStates::initial);
    EXPECT_TRUE(loggedNothing(log));
}

TEST(PowerNodeAppendMissing, AppendsInOrderWhatIsNotHeldYet)
{
    TestNode a(QStringLiteral("a")), b(QStringLiteral("b")), c(QStringLiteral("c")), d(QStringLiteral("d"));
    QList<PowerNode*> destination{&c, &a};
    PowerNode::appendMissing({&a, &d, &b, &c, &d}, destination);
    EXPECT_EQ(destination, (QList<PowerNode*>{&c, &a, &d, &b})) << namesOf(destination);
}

TEST(PowerNodeAppendMissing, KeepsWhatTheDestinationHeldIncludingItsRepeats)
{
    TestNode a(QStringLiteral("a")), b(QStringLiteral("b"));
    QList<PowerNode*> destination{&a, &a};
    PowerNode::appendMissing({&b, &a, &b}, destination);
    EXPECT_EQ(destination, (QList<PowerNode*>{&a, &a, &b})) << namesOf(destination);
    QList<PowerNode*> empty;
    PowerNode::appendMissing({}, empty);
    EXPECT_TRUE(empty.isEmpty());
}

TEST(PowerNodeRemoveAction, RemovesEveryOccurrenceKeepingTheOrder)
{
    using A = VelaPowerModuleActions;
    QList<A::Enum> actions{A::use, A::release, A::hold, A::release, A::release, A::use};
    PowerNode::removeAction(actions, A::release);
    EXPECT_EQ(actions, (QList<A::Enum>{A::use, A::hold, A::use}));
    PowerNode::removeAction(actions, A::use);
    EXPECT_EQ(actions, (QList<A::Enum>{A::hold}));
    PowerNode::removeAction(actions, A::hold);
    EXPECT_TRUE(actions.isEmpty());
}

TEST(PowerNodeRemoveAction, ListWithoutTheValueIsLeftSharedAndUntouched)
{
    using A = VelaPowerModuleActions;
    const QList<A::Enum> original{A::use, A::hold};
    QList<A::Enum> actions = original;
    ASSERT_TRUE(actions.isSharedWith(original));
    PowerNode::removeAction(actions, A::release);
    EXPECT_TRUE(actions.isSharedWith(original));
    EXPECT_EQ(actions, original);
}

TEST(PowerNodeRemoveAction, ListWithTheValueDetachesFromItsCopies)
{
    using A = VelaPowerModuleActions;
    const QList<A::Enum> original{A::release, A::use, A::release};
    QList<A::Enum> actions = original;
    PowerNode::removeAction(actions, A::release);
    EXPECT_FALSE(actions.isSharedWith(original));
    EXPECT_EQ(actions, (QList<A::Enum>{A::use}));
    EXPECT_EQ(original, (QList<A::Enum>{A::release, A::use, A::release}));
}

TEST(PowerNodeRemoveAction, EmptyListStaysEmpty)
{
    QList<VelaPowerModuleActions::Enum> actions;
    PowerNode::removeAction(actions, VelaPowerModuleActions::hold);
    EXPECT_TRUE(actions.isEmpty());
}

TEST(PowerNodeShorthands, ResourceShorthandsMakeTwoSidedEdges)
{
    PowerResource a(VelaPowerManagerResources::display), b(VelaPowerManagerResources::backlight),
        c(VelaPowerManagerResources::gpu);
    a.requiresResource(&b);
    c.requiredBy(&a);
    EXPECT_EQ(a.requiredNodes(false), (QSet<PowerNode*>{&b, &c}));
    EXPECT_EQ(b.requiredByNodes(false), QSet<PowerNode*>{&a});
    EXPECT_EQ(c.requiredByNodes(false), QSet<PowerNode*>{&a});
    EXPECT_TRUE(a.requiredByNodes(false).isEmpty());
}

// The target shorthands (enables, disables) are covered by
// PowerTargetEdges.TargetEdgesAreStoredOnTheTargetSideOnly.

} // namespace
