// The handler's meta-object, registration of modules, resources and targets,
// the node snapshot, the programming errors that stop the process, and what
// destroying the handler leaves behind.

#include "handler_fixture.h"

#include <QMetaMethod>
#include <QMetaObject>
#include <QMetaType>
#include <QVariantHash>

#include <gtest/gtest.h>

using namespace handlertest;

namespace {

// A regular expression matching `text` literally.
std::string escapeRegex(const std::string& text)
{
    static const std::string special = "\\^$.|?*+()[]{}";
    std::string escaped;
    for (const char c : text) {
        if (special.find(c) != std::string::npos)
            escaped += '\\';
        escaped += c;
    }
    return escaped;
}

// The stderr line of a failed assertion of the handler.
std::string handlerAssertion(const std::string& text)
{
    return "ASSERT: \"" + escapeRegex(text) + "\" in file " + escapeRegex(handlerSource()) + ", line [0-9]+";
}

// A node that claims to be of another kind.
template <typename Node, typename Value>
class Mislabelled : public Node
{
public:
    Mislabelled(Value value, PowerNodeType reported)
        : Node(value)
        , m_reported(reported)
    {
    }
    PowerNodeType type() const override { return m_reported; }

private:
    PowerNodeType m_reported;
};

using MislabelledResource = Mislabelled<PowerResource, VelaPowerManagerResources::Enum>;
using MislabelledTarget = Mislabelled<PowerTarget, VelaPowerManagerTargets::Enum>;

QVariantHash infoOf(const QVariantHash& snapshot, const char* kind, const PowerNode* node)
{
    return snapshot.value(QLatin1String(kind)).toHash().value(node->name()).toHash();
}

using PowerHandlerRegistration = HandlerTest;
using PowerHandlerDeathTest = HandlerTest;

} // namespace

// --- Meta-object ------------------------------------------------------------

TEST(PowerHandlerMetaObject, DeclaresExactlyTheTwoSignalsTargetChangedThenNextTargetChanged)
{
    const QMetaObject& meta = PowerHandler::staticMetaObject;
    EXPECT_STREQ(meta.className(), "PowerHandler");
    EXPECT_EQ(meta.superClass(), &QObject::staticMetaObject);
    ASSERT_EQ(meta.methodCount() - meta.methodOffset(), 2);

    const char* const names[] = {"targetChanged", "nextTargetChanged"};
    for (int i = 0; i < 2; ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        EXPECT_EQ(method.name(), QByteArray(names[i])) << i;
        EXPECT_EQ(method.methodType(), QMetaMethod::Signal) << i;
        EXPECT_EQ(method.returnType(), static_cast<int>(QMetaType::Void)) << i;
        ASSERT_EQ(method.parameterCount(), 1) << i;
        EXPECT_EQ(method.parameterNames(), QList<QByteArray>{QByteArray("target")}) << i;
        EXPECT_EQ(method.parameterTypes(), QList<QByteArray>{QByteArray("VelaPowerManagerTarget")}) << i;
    }
    EXPECT_EQ(meta.indexOfSignal("targetChanged(VelaPowerManagerTarget)") - meta.methodOffset(), 0);
    EXPECT_EQ(meta.indexOfSignal("nextTargetChanged(VelaPowerManagerTarget)") - meta.methodOffset(), 1);
}

TEST(PowerHandlerMetaObject, HasNoPropertiesEnumsOrClassInfo)
{
    const QMetaObject& meta = PowerHandler::staticMetaObject;
    EXPECT_EQ(meta.propertyCount(), meta.propertyOffset());
    EXPECT_EQ(meta.enumeratorCount(), meta.enumeratorOffset());
    EXPECT_EQ(meta.classInfoCount(), meta.classInfoOffset());
    EXPECT_EQ(meta.constructorCount(), 0);
}

TEST(PowerHandlerMetaObject, TargetRecordIsRegisteredUnderItsName)
{
    // Asked by name first, before this test has used the type itself.
    const int byName = QMetaType::type("VelaPowerManagerTarget");
    ASSERT_NE(byName, static_cast<int>(QMetaType::UnknownType));
    EXPECT_EQ(byName, qMetaTypeId<VelaPowerManagerTarget>());
    const QMetaMethod signal = PowerHandler::staticMetaObject.method(PowerHandler::staticMetaObject.methodOffset());
    EXPECT_EQ(signal.parameterType(0), byName);
    // The record survives a trip through QVariant unchanged.
    const VelaPowerManagerTarget record(VelaPowerManagerTargets::standby);
    const QVariant boxed = QVariant::fromValue(record);
    EXPECT_EQ(boxed.userType(), byName);
    EXPECT_TRUE(boxed.value<VelaPowerManagerTarget>() == record);
}

// --- Snapshot ---------------------------------------------------------------

TEST_F(PowerHandlerRegistration, FreshHandlerListsEmptyTargetsAndResources)
{
    const QVariantHash snapshot = handler.listNodes();
    ASSERT_EQ(snapshot.size(), 2);
    ASSERT_TRUE(snapshot.contains(QStringLiteral("targets")));
    ASSERT_TRUE(snapshot.contains(QStringLiteral("resources")));
    EXPECT_EQ(snapshot.value(QStringLiteral("targets")).userType(), static_cast<int>(QMetaType::QVariantHash));
    EXPECT_EQ(snapshot.value(QStringLiteral("resources")).userType(), static_cast<int>(QMetaType::QVariantHash));
    EXPECT_TRUE(snapshot.value(QStringLiteral("targets")).toHash().isEmpty());
    EXPECT_TRUE(snapshot.value(QStringLiteral("resources")).toHash().isEmpty());
}

TEST_F(PowerHandlerRegistration, ListNodesGivesEveryRegisteredNodeWithItsStateAndActions)
{
    addPowerManagerModule();
    addModule(QStringLiteral("camera"));
    ProbeResource* used = addResource();
    ProbeResource* untouched = addResource();
    PowerTarget* target = addTarget();
    PowerTarget* other = addTarget();

    CMReply<QVariant> answer = askResource("use", used, QStringLiteral("camera"), VelaPowerModuleActions::use);
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));

    const QVariantHash snapshot = handler.listNodes();
    ASSERT_EQ(snapshot.size(), 2);
    const QVariantHash resources = snapshot.value(QStringLiteral("resources")).toHash();
    const QVariantHash targets = snapshot.value(QStringLiteral("targets")).toHash();
    ASSERT_EQ(resources.size(), 2);
    ASSERT_EQ(targets.size(), 2);
    EXPECT_TRUE(resources.contains(VelaPowerManagerResources::toString(used->resource())));
    EXPECT_TRUE(resources.contains(VelaPowerManagerResources::toString(untouched->resource())));
    EXPECT_TRUE(targets.contains(VelaPowerManagerTargets::toString(target->target())));
    EXPECT_TRUE(targets.contains(VelaPowerManagerTargets::toString(other->target())));

    const QVariantHash usedInfo = infoOf(snapshot, "resources", used);
    ASSERT_EQ(usedInfo.size(), 2);
    EXPECT_EQ(usedInfo.value(QStringLiteral("isEnabled")).userType(), static_cast<int>(QMetaType::Bool));
    EXPECT_TRUE(usedInfo.value(QStringLiteral("isEnabled")).toBool());
    const QVariantHash usedActions = usedInfo.value(QStringLiteral("actions")).toHash();
    ASSERT_EQ(usedActions.size(), 1);
    EXPECT_EQ(usedActions.value(QStringLiteral("camera")).userType(), static_cast<int>(QMetaType::QString));
    EXPECT_EQ(usedActions.value(QStringLiteral("camera")).toString(),
              VelaPowerModuleActions::toString(VelaPowerModuleActions::use));

    const QVariantHash untouchedInfo = infoOf(snapshot, "resources", untouched);
    ASSERT_EQ(untouchedInfo.size(), 2);
    EXPECT_FALSE(untouchedInfo.value(QStringLiteral("isEnabled")).toBool());
    EXPECT_TRUE(untouchedInfo.contains(QStringLiteral("actions")));
    EXPECT_TRUE(untouchedInfo.value(QStringLiteral("actions")).toHash().isEmpty());

    const QVariantHash targetInfo = infoOf(snapshot, "targets", target);
    ASSERT_EQ(targetInfo.size(), 2);
    EXPECT_FALSE(targetInfo.value(QStringLiteral("isEnabled")).toBool());
    EXPECT_TRUE(targetInfo.value(QStringLiteral("actions")).toHash().isEmpty());

    // A snapshot: later changes do not reach it.
    CMReply<QVariant> release = askResource("release", used, QStringLiteral("camera"), VelaPowerModuleActions::release);
    ASSERT_TRUE(waitUntil([&] { return release.isFinished(); }));
    EXPECT_TRUE(infoOf(snapshot, "resources", used).value(QStringLiteral("isEnabled")).toBool());
    EXPECT_FALSE(infoOf(handler.listNodes(), "resources", used).value(QStringLiteral("isEnabled")).toBool());
}

TEST_F(PowerHandlerRegistration, ListNodesWritesItsEntryLine)
{
    LogCapture log;
    handler.listNodes();
    const auto entries = log.withMessage(enterLine("QVariantHash PowerHandler::listNodes() const", ""));
    ASSERT_EQ(entries.size(), 1u) << log.dump();
    EXPECT_EQ(entries.front().level, log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(entries.front().file, handlerSource());
}

TEST_F(PowerHandlerRegistration, GetNodeInfoOfAnEnablingNodeReportsNotEnabled)
{
    addModule(QStringLiteral("audio"));
    ProbeResource* resource = addResource(Answer::Held);
    CMReply<QVariant> answer = askResource("use", resource, QStringLiteral("audio"), VelaPowerModuleActions::use);
    ASSERT_EQ(resource->state(), VelaPowerNodeStates::enabling);

    const QVariantHash enabling = handler.getNodeInfo(resource);
    ASSERT_EQ(enabling.size(), 2);
    EXPECT_FALSE(enabling.value(QStringLiteral("isEnabled")).toBool());
    EXPECT_EQ(enabling.value(QStringLiteral("actions")).toHash(),
              (QVariantHash{{QStringLiteral("audio"), VelaPowerModuleActions::toString(VelaPowerModuleActions::use)}}));

    ASSERT_TRUE(answerHeld(onPath(resource)));
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
    EXPECT_TRUE(handler.getNodeInfo(resource).value(QStringLiteral("isEnabled")).toBool());
}

TEST_F(PowerHandlerRegistration, GetNodeInfoWritesNoRecordOfItsOwn)
{
    ProbeResource* resource = addResource();
    LogCapture log;
    const QVariantHash info = handler.getNodeInfo(resource);
    EXPECT_EQ(info.size(), 2);
    for (const CapturedEvent& event : log.events())
        EXPECT_EQ(event.function.find("PowerHandler::"), std::string::npos) << event.function << ": " << event.message;
}

// --- Modules ----------------------------------------------------------------

TEST_F(PowerHandlerRegistration, RegisterModuleWithFieldsReturnsTrueAndWritesItsEntryLine)
{
    LogCapture log;
    const VelaPowerManagerModuleRegister record(QStringLiteral("display"), CMPath("/display/revoke"),
                                                CMPath("/display/postRevoke"));
    EXPECT_TRUE(handler.registerModule(record));
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL,
                        enterLine("bool PowerHandler::registerModule(const VelaPowerManagerModuleRegister&)",
                                  recordText(record))),
              1)
        << log.dump();
    // Registered: a request on its behalf can be made.
    ProbeResource* resource = addResource();
    EXPECT_FALSE(handler.makeRequest(resource, QStringLiteral("display"), VelaPowerModuleActions::use).isNull());
}

TEST_F(PowerHandlerRegistration, RegisterModuleWithoutFieldsIsRefusedAndLogged)
{
    LogCapture log;
    const VelaPowerManagerModuleRegister empty;
    ASSERT_TRUE(empty.isEmpty());
    EXPECT_FALSE(handler.registerModule(empty));
    expectSingleRecord(log, log4cplus::ERROR_LOG_LEVEL, "Cannot register module: " + recordText(empty));
    // Nothing stored, not even under the empty name that the record reads as.
    ProbeResource* resource = addResource();
    EXPECT_TRUE(handler.makeRequest(resource, empty.moduleName(), VelaPowerModuleActions::use).isNull());
}

TEST_F(PowerHandlerRegistration, RefusedEmptyModuleLeavesTheRegisteredModulesAsTheyWere)
{
    addModule(QStringLiteral("keep"));
    ProbeResource* resource = addResource();
    EXPECT_FALSE(handler.registerModule(VelaPowerManagerModuleRegister()));
    // The module registered before still acts, and still with its own
    // revoke path: releasing a resource it used tells it there.
    CMReply<QVariant> use = askResource("use", resource, QStringLiteral("keep"), VelaPowerModuleActions::use);
    ASSERT_TRUE(waitUntil([&] { return use.isFinished(); }));
    EXPECT_FALSE(use.error().isError()) << errorText(use);
    CMReply<QVariant> release = askResource("release", resource, QStringLiteral("keep"), VelaPowerModuleActions::release);
    ASSERT_TRUE(waitUntil([&] { return release.isFinished(); }));
    EXPECT_FALSE(release.error().isError()) << errorText(release);
    EXPECT_EQ(countOf("invoke " + str(revokePath(QStringLiteral("keep"))) + " keep type=0 revoke=[" +
                      std::to_string(static_cast<int>(resource->resource())) + "]"),
              1)
        << eventDump();
    EXPECT_TRUE(handler.makeRequest(resource, QString(), VelaPowerModuleActions::use).isNull());
}

TEST_F(PowerHandlerRegistration, ModuleWithAnEmptyNameButFieldsIsAccepted)
{
    const VelaPowerManagerModuleRegister record{QString(), CMPath(), CMPath()};
    ASSERT_FALSE(record.isEmpty());
    EXPECT_TRUE(handler.registerModule(record));
    ProbeResource* resource = addResource();
    EXPECT_FALSE(handler.makeRequest(resource, QString(), VelaPowerModuleActions::use).isNull());
}

TEST_F(PowerHandlerRegistration, ModuleRegisteredAgainReplacesItsRecordForLaterRequests)
{
    serveInvocations(QStringLiteral("/first/revoke"), Answer::AtOnce);
    serveInvocations(QStringLiteral("/second/revoke"), Answer::AtOnce);
    ASSERT_TRUE(handler.registerModule(
        VelaPowerManagerModuleRegister(QStringLiteral("wifi"), CMPath("/first/revoke"), CMPath())));
    ProbeResource* resource = addResource();

    CMReply<QVariant> use = askResource("use", resource, QStringLiteral("wifi"), VelaPowerModuleActions::use);
    ASSERT_TRUE(waitUntil([&] { return use.isFinished(); }));

    LogCapture log;
    EXPECT_TRUE(handler.registerModule(
        VelaPowerManagerModuleRegister(QStringLiteral("wifi"), CMPath("/second/revoke"), CMPath())));
    // Replaced silently.
    for (const CapturedEvent& event : log.events())
        EXPECT_LT(event.level, log4cplus::WARN_LOG_LEVEL) << event.message;

    // Releasing revokes the resource: the message goes to the second path.
    CMReply<QVariant> release = askResource("release", resource, QStringLiteral("wifi"), VelaPowerModuleActions::release);
    ASSERT_TRUE(waitUntil([&] { return release.isFinished(); }));
    const std::string expected =
        "invoke /second/revoke wifi type=0 revoke=[" + std::to_string(static_cast<int>(resource->resource())) + "]";
    EXPECT_EQ(countOf(expected), 1) << eventDump();
    for (const std::string& event : m_events)
        EXPECT_EQ(event.find("/first/"), std::string::npos) << event;
}

// --- Resources and targets ---------------------------------------------------

TEST_F(PowerHandlerRegistration, RegisterResourceAndTargetWriteTheirEntryLines)
{
    LogCapture log;
    ProbeResource* resource = addResource();
    PowerTarget* target = addTarget();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL,
                        enterLine("void PowerHandler::registerResource(PowerResource*)", nameOf(resource))),
              1)
        << log.dump();
    EXPECT_EQ(log.count(log4cplus::TRACE_LOG_LEVEL,
                        enterLine("void PowerHandler::registerTarget(PowerTarget*)", nameOf(target))),
              1)
        << log.dump();
}

TEST_F(PowerHandlerRegistration, SingleTargetDisablesNothing)
{
    PowerTarget* only = addTarget();
    EXPECT_TRUE(only->requiredByNodes(false).isEmpty());
    EXPECT_TRUE(only->requiredNodes(false).isEmpty());
}

TEST_F(PowerHandlerRegistration, ThreeTargetsEachDisableTheOtherTwo)
{
    PowerTarget* first = addTarget();
    EXPECT_TRUE(first->requiredByNodes(false).isEmpty());
    // The second target is paired with the first when it arrives.
    PowerTarget* second = addTarget();
    EXPECT_EQ(first->requiredByNodes(false), (QSet<PowerNode*>{second}));
    EXPECT_EQ(second->requiredByNodes(false), (QSet<PowerNode*>{first}));
    // The third with both of them.
    PowerTarget* third = addTarget();
    EXPECT_EQ(first->requiredByNodes(false), (QSet<PowerNode*>{second, third}));
    EXPECT_EQ(second->requiredByNodes(false), (QSet<PowerNode*>{first, third}));
    EXPECT_EQ(third->requiredByNodes(false), (QSet<PowerNode*>{first, second}));
    // Disabling only: nothing is enabled by the pairing.
    for (PowerTarget* target : {first, second, third})
        EXPECT_TRUE(target->requiredNodes(false).isEmpty()) << nameOf(target);
    // Six disabling edges in all, one for each ordered pair.
    int edges = 0;
    for (PowerTarget* target : {first, second, third})
        edges += target->requiredByNodes(false).size();
    EXPECT_EQ(edges, 6);
}

TEST_F(PowerHandlerRegistration, TargetsPairedWithoutTouchingResourcesTheyAlreadyWire)
{
    ProbeResource* shared = addResource();
    PowerTarget* first = makeTarget();
    PowerTarget* second = makeTarget();
    first->enables(shared);
    second->disables(shared);
    handler.registerTarget(first);
    handler.registerTarget(second);
    EXPECT_EQ(first->requiredNodes(false), (QSet<PowerNode*>{shared}));
    EXPECT_EQ(first->requiredByNodes(false), (QSet<PowerNode*>{second}));
    EXPECT_EQ(second->requiredByNodes(false), (QSet<PowerNode*>{shared, first}));
    EXPECT_TRUE(second->requiredNodes(false).isEmpty());
}

TEST_F(PowerHandlerRegistration, RefusedPairingIsLoggedAndTheTargetIsRegisteredAnyway)
{
    PowerTarget* first = addTarget();
    PowerTarget* second = makeTarget();
    // Wired so that the first target already enables the second.
    first->requiresNode(second);
    LogCapture log;
    handler.registerTarget(second);
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, "Tried to make power target " + nameOf(first) + " disable node " +
                                                        nameOf(second) + ", but it already enables that node."),
              1)
        << log.dump();
    EXPECT_FALSE(first->requiredByNodes(false).contains(second));
    EXPECT_TRUE(second->requiredByNodes(false).contains(first));
    EXPECT_TRUE(handler.listNodes()
                    .value(QStringLiteral("targets"))
                    .toHash()
                    .contains(VelaPowerManagerTargets::toString(second->target())));
}

// --- Programming errors -------------------------------------------------------

TEST_F(PowerHandlerDeathTest, RegisteringAResourceThatIsNotOfKindResourceStops)
{
    MislabelledResource plain(resourceValue(2001), PowerNodeType::PowerNode);
    EXPECT_DEATH(handler.registerResource(&plain), handlerAssertion("resource->type() == PowerNodeType::PowerResource"));
    MislabelledResource target(resourceValue(2002), PowerNodeType::PowerTarget);
    EXPECT_DEATH(handler.registerResource(&target),
                 handlerAssertion("resource->type() == PowerNodeType::PowerResource"));
}

TEST_F(PowerHandlerDeathTest, RegisteringAResourceValueTwiceStops)
{
    PowerResource first(resourceValue(2003));
    PowerResource second(resourceValue(2003));
    handler.registerResource(&first);
    EXPECT_DEATH(handler.registerResource(&second), handlerAssertion("!m_resources.contains(resource->resource())"));
    EXPECT_DEATH(handler.registerResource(&first), handlerAssertion("!m_resources.contains(resource->resource())"));
}

TEST_F(PowerHandlerDeathTest, RegisteringATargetThatIsNotOfKindTargetStops)
{
    MislabelledTarget plain(targetValue(2004), PowerNodeType::PowerNode);
    EXPECT_DEATH(handler.registerTarget(&plain), handlerAssertion("target->type() == PowerNodeType::PowerTarget"));
    MislabelledTarget resource(targetValue(2005), PowerNodeType::PowerResource);
    EXPECT_DEATH(handler.registerTarget(&resource), handlerAssertion("target->type() == PowerNodeType::PowerTarget"));
}

TEST_F(PowerHandlerDeathTest, RegisteringATargetValueTwiceStops)
{
    PowerTarget first(targetValue(2006));
    PowerTarget second(targetValue(2006));
    handler.registerTarget(&first);
    EXPECT_DEATH(handler.registerTarget(&second), handlerAssertion("!m_targets.contains(target->target())"));
    EXPECT_DEATH(handler.registerTarget(&first), handlerAssertion("!m_targets.contains(target->target())"));
}

// --- Destruction ---------------------------------------------------------------

namespace {

struct NodeSnapshot {
    VelaPowerNodeStates::Enum state;
    QHash<QString, VelaPowerModuleActions::Enum> actions;
    QSet<PowerNode*> lockedBy;
    QSet<PowerNode*> required;
    QSet<PowerNode*> requiredBy;

    explicit NodeSnapshot(const PowerNode* node)
        : state(node->state())
        , actions(node->moduleActions())
        , lockedBy(node->lockedBy())
        , required(node->requiredNodes(false))
        , requiredBy(node->requiredByNodes(false))
    {
    }
    bool operator==(const NodeSnapshot& other) const
    {
        return state == other.state && actions == other.actions && lockedBy == other.lockedBy &&
               required == other.required && requiredBy == other.requiredBy;
    }
};

int shares(const CMVoidReply& reply)
{
    return reply.data()->m_ref.loadRelaxed();
}

} // namespace

TEST_F(PowerHandlerRegistration, DestroyingTheHandlerLeavesNodesAliveAndUntouchedAndCallersUnanswered)
{
    auto owned = std::make_unique<PowerHandler>();
    ASSERT_TRUE(owned->registerModule(VelaPowerManagerModuleRegister(VelaPowerManagerName(), CMPath(), CMPath())));
    ASSERT_TRUE(owned->registerModule(VelaPowerManagerModuleRegister(QStringLiteral("gpu"), CMPath(), CMPath())));
    ProbeResource* base = makeResource();
    ProbeResource* running = makeResource(Answer::Held);
    ProbeResource* waiting = makeResource();
    running->requiresResource(base);
    PowerTarget* target = makeTarget();
    PowerTarget* otherTarget = makeTarget();
    target->enables(waiting);
    for (ProbeResource* resource : {base, running, waiting})
        owned->registerResource(resource);
    owned->registerTarget(target);
    owned->registerTarget(otherTarget);

    CMReply<QVariant> first = caller("running");
    CMReply<QVariant> second = caller("queued resource");
    CMReply<QVariant> third = caller("queued target");
    owned->requestResource(wish(running, QStringLiteral("gpu"), VelaPowerModuleActions::use), first);
    owned->requestResource(wish(waiting, QStringLiteral("gpu"), VelaPowerModuleActions::hold), second);
    owned->requestTarget(targetRecord(target), third);
    // A request of the test's own, held by nothing but the queue.
    QWeakPointer<PowerNodeRequest> queuedOnly;
    {
        const PowerNodeRequestPtr own = owned->makeRequest(waiting, QStringLiteral("gpu"), VelaPowerModuleActions::use);
        ASSERT_TRUE(owned->addRequest(own));
        queuedOnly = own;
    }
    ASSERT_EQ(owned->pendingRequests(), 4);
    ASSERT_FALSE(queuedOnly.isNull());
    ASSERT_EQ(running->state(), VelaPowerNodeStates::enabling);
    ASSERT_EQ(base->state(), VelaPowerNodeStates::enabled);

    const std::vector<const PowerNode*> nodes{base, running, waiting, target, otherTarget};
    std::vector<NodeSnapshot> before;
    for (const PowerNode* node : nodes)
        before.emplace_back(node);
    // Each stored reply is shared three ways
    // (the test's handle, the fixture's caller list and the handler).
    for (const CMReply<QVariant>* reply : {&first, &second, &third})
        EXPECT_EQ(shares(*reply), 3);

    owned.reset();

    EXPECT_TRUE(queuedOnly.isNull()) << "the queue's share of a request outlived the handler";
    for (size_t i = 0; i < nodes.size(); ++i)
        EXPECT_TRUE(NodeSnapshot(nodes[i]) == before[i]) << nameOf(nodes[i]);
    for (const CMReply<QVariant>* reply : {&first, &second, &third}) {
        EXPECT_FALSE(reply->isFinished());
        EXPECT_EQ(shares(*reply), 2) << "the handler still holds a caller's reply";
    }

    // The platform answers the write of the request that was running: the
    // node finishes its own transition, and nobody answers the callers.
    ASSERT_TRUE(answerHeld(onPath(running)));
    drainEvents();
    EXPECT_EQ(running->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(waiting->state(), VelaPowerNodeStates::initial);
    for (const CMReply<QVariant>* reply : {&first, &second, &third})
        EXPECT_FALSE(reply->isFinished());
}
