// A resource request and a target request followed from the caller's call to
// the caller's answer, with every write, revoke message and signal in one
// ordered event log.

#include "handler_fixture.h"

#include <gtest/gtest.h>

#include <map>

using namespace handlertest;

namespace {

class PowerHandlerWalkthrough : public HandlerTest
{
protected:
    // Writes to the resources in `watched` are answered at once; each write
    // also records the states of all watched resources at that moment.
    void watchStates(const std::vector<PowerResource*>& watched)
    {
        for (PowerResource* resource : watched) {
            for (const QString& path : {onPath(resource), offPath(resource)}) {
                CMRootWorker::instance()->registerSetDataHandler(
                    CMPath(path), [this, watched](const CMPath& at, const QString& key, const QVariant& value,
                                                  CMReply<QVariant> reply) {
                        const std::string event =
                            "write " + str(at.toString()) + " " + str(key) + "=" + str(value.toString());
                        note(event);
                        std::string states;
                        for (const PowerResource* node : watched)
                            states += (states.empty() ? "" : " ") + nameOf(node) + "=" +
                                      std::to_string(static_cast<int>(node->state()));
                        m_statesAtWrite[event] = states;
                        reply.setValue(QVariant(true));
                    });
            }
        }
    }

    // Checks that the messages appear in `log` in this order (other records
    // may stand in between).
    static void expectInOrder(const LogCapture& log, const std::vector<std::string>& messages)
    {
        const auto events = log.events();
        size_t at = 0;
        for (const std::string& message : messages) {
            while (at < events.size() && events[at].message != message)
                ++at;
            ASSERT_LT(at, events.size()) << "missing or out of order: " << message << "\n" << log.dump();
            ++at;
        }
    }

    static std::string revokeEvent(const QString& module, int type, const PowerResource* resource)
    {
        const QString path = type == 0 ? revokePath(module) : postRevokePath(module);
        return "invoke " + str(path) + " " + str(module) + " type=" + std::to_string(type) + " revoke=[" +
               std::to_string(static_cast<int>(resource->resource())) + "]";
    }

    std::map<std::string, std::string> m_statesAtWrite;
};

std::string id(int64_t value)
{
    return std::to_string(value);
}

} // namespace

TEST_F(PowerHandlerWalkthrough, ResourceRequestWithUseFromCallToAnswer)
{
    addModule(QStringLiteral("speaker"));
    ProbeResource* dac = addResource();
    ProbeResource* amp = addResource();
    amp->requiresResource(dac);
    watchStates({dac, amp});

    LogCapture log;
    const VelaPowerManagerResourceRequest record = wish(amp, QStringLiteral("speaker"), VelaPowerModuleActions::use);
    CMReply<QVariant> answer = caller("use");
    const int64_t expectedId = PowerNodeRequest::nextId() + 1; // the next identity after this one
    handler.requestResource(record, answer);
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));

    // The required node is switched on first, while the requested one is
    // still enabling; no module is told anything, since nothing is revoked.
    const std::vector<std::string> expected{writeOn(dac), writeOn(amp), "answer use ok"};
    EXPECT_EQ(m_events, expected) << eventDump();
    EXPECT_EQ(m_statesAtWrite[writeOn(dac)], nameOf(dac) + "=1 " + nameOf(amp) + "=1");
    EXPECT_EQ(m_statesAtWrite[writeOn(amp)], nameOf(dac) + "=2 " + nameOf(amp) + "=1");

    EXPECT_EQ(amp->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(dac->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(amp->moduleActions(), (QHash<QString, VelaPowerModuleActions::Enum>{
                                        {QStringLiteral("speaker"), VelaPowerModuleActions::use}}));
    EXPECT_TRUE(dac->moduleActions().isEmpty());
    EXPECT_EQ(dac->lockedBy(), (QSet<PowerNode*>{amp}));
    EXPECT_TRUE(amp->lockedBy().isEmpty());
    EXPECT_FALSE(answer.error().isError());
    EXPECT_FALSE(answer.value().isValid());
    EXPECT_EQ(handler.pendingRequests(), 0);

    const std::string action = str(VelaPowerModuleActions::toString(VelaPowerModuleActions::use));
    expectInOrder(
        log,
        {enterLine("void PowerHandler::requestResource(const VelaPowerManagerResourceRequest&, CMReply<QVariant>)",
                   recordText(record)),
         enterLine("PowerNodeRequestPtr PowerHandler::makeRequest(PowerNode*, const QString&, "
                   "VelaPowerModuleActions::Enum)",
                   ""),
         enterLine("PowerNodeRequest::PowerNodeRequest(PowerNode*, const QString&, const VelaPowerModuleActions::Enum&, "
                   "const QHash<QString, VelaPowerManagerModuleRegister>&)",
                   "id: " + id(expectedId) + " module: speaker action: " + action),
         enterLine("bool PowerHandler::addRequest(const PowerNodeRequestPtr&)", ""),
         enterLine("void PowerHandler::tryProcessNextRequest()", ""),
         enterLine("void PowerHandler::processNextRequest()", "requests: 1"),
         enterLine("CMReply<void> PowerNodeRequest::process()", "nodeRequest id: " + id(expectedId)),
         enterLine("bool PowerNodeRequest::resolve()", "nodeRequest id: " + id(expectedId)),
         "nodeRequest id: " + id(expectedId) + " resolved ok",
         enterLine("CMReply<void> PowerNodeRequest::notify()", "nodeRequest id: " + id(expectedId)),
         "nodeRequest id: " + id(expectedId) + " all pre notifications finished",
         enterLine("CMReply<void> PowerNodeRequest::execute()", "nodeRequest id: " + id(expectedId)),
         "Node: " + nameOf(amp) + " updated by: speaker with action type: " + action,
         nameOf(dac) + " is now enable",
         nameOf(amp) + " is now enable",
         "nodeRequest id: " + id(expectedId) + " all actions finished",
         "request id: " + id(expectedId) + " finished",
         enterLine("void PowerHandler::resolveNodeRequest(int64_t, const CMError&)",
                   "id: " + id(expectedId) + " success: 1"),
         enterLine("void PowerHandler::processNextRequest()", "requests: 0")});
}

TEST_F(PowerHandlerWalkthrough, TargetRequestFromCallToAnswer)
{
    addPowerManagerModule();
    // The revoke message is answered from the event loop: the request waits.
    addModule(QStringLiteral("speaker"), Answer::Later, Answer::AtOnce);
    addModule(QStringLiteral("radio"));

    // x1 requires m1, which requires b0; the target enables x1 and disables
    // d, which "speaker" uses. c is never touched by anyone; e is used by
    // "radio" and stays out of the target's way.
    ProbeResource* b0 = addResource();
    ProbeResource* m1 = addResource();
    ProbeResource* x1 = addResource();
    ProbeResource* d = addResource();
    ProbeResource* c = addResource();
    ProbeResource* e = addResource();
    m1->requiresResource(b0);
    x1->requiresResource(m1);
    PowerTarget* previous = addTarget();
    PowerTarget* target = makeTarget();
    target->enables(x1);
    target->disables(d);
    handler.registerTarget(target);
    watchStates({b0, m1, x1, d, c});

    CMReply<QVariant> useD = askResource("speaker uses d", d, QStringLiteral("speaker"), VelaPowerModuleActions::use);
    CMReply<QVariant> useE = askResource("radio uses e", e, QStringLiteral("radio"), VelaPowerModuleActions::use);
    ASSERT_TRUE(waitUntil([&] { return useD.isFinished() && useE.isFinished(); }));
    ASSERT_EQ(d->state(), VelaPowerNodeStates::enabled);
    ASSERT_EQ(c->state(), VelaPowerNodeStates::initial);
    m_events.clear();

    CMReply<QVariant> answer = askTarget("target", target);
    ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));

    const int announced = indexOf("nextTargetChanged " + nameOf(target));
    const int revoke = indexOf(revokeEvent(QStringLiteral("speaker"), 0, d));
    const int offD = indexOf(writeOff(d));
    const int onB0 = indexOf(writeOn(b0));
    const int onM1 = indexOf(writeOn(m1));
    const int onX1 = indexOf(writeOn(x1));
    const int postRevoke = indexOf(revokeEvent(QStringLiteral("speaker"), 1, d));
    const int offC = indexOf(writeOff(c));
    const int changed = indexOf("targetChanged " + nameOf(target));
    const int answered = indexOf("answer target ok");
    for (const int at : {announced, revoke, offD, onB0, onM1, onX1, postRevoke, offC, changed, answered})
        ASSERT_NE(at, -1) << eventDump();

    EXPECT_EQ(announced, 0) << eventDump();
    EXPECT_EQ(revoke, 1) << eventDump();
    // Every write waits for the revoke message's answer.
    EXPECT_LT(revoke, std::min({offD, onB0, onM1, onX1})) << eventDump();
    // Required nodes before their dependants.
    EXPECT_LT(onB0, onM1) << eventDump();
    EXPECT_LT(onM1, onX1) << eventDump();
    EXPECT_EQ(m_statesAtWrite[writeOn(m1)].find(nameOf(b0) + "=2"), 0u) << m_statesAtWrite[writeOn(m1)];
    // The module is told again once every change has finished.
    EXPECT_GT(postRevoke, std::max({offD, onB0, onM1, onX1})) << eventDump();
    // Then the clean-up, the signal and the answer.
    EXPECT_GT(offC, postRevoke) << eventDump();
    EXPECT_EQ(changed, offC + 1) << eventDump();
    EXPECT_EQ(answered, changed + 1) << eventDump();
    EXPECT_EQ(static_cast<int>(m_events.size()), answered + 1) << eventDump();
    // Nothing else: "radio" loses nothing, e is not switched.
    EXPECT_EQ(m_events.size(), 10u) << eventDump();
    EXPECT_EQ(countOf(revokeEvent(QStringLiteral("speaker"), 0, d)), 1);

    EXPECT_EQ(target->state(), VelaPowerNodeStates::enabled);
    for (const ProbeResource* on : {b0, m1, x1, e})
        EXPECT_EQ(on->state(), VelaPowerNodeStates::enabled) << nameOf(on);
    for (const ProbeResource* off : {d, c})
        EXPECT_EQ(off->state(), VelaPowerNodeStates::disabled) << nameOf(off);
    EXPECT_EQ(d->moduleActions(), (QHash<QString, VelaPowerModuleActions::Enum>{
                                      {QStringLiteral("speaker"), VelaPowerModuleActions::release}}));
    EXPECT_EQ(x1->lockedBy(), (QSet<PowerNode*>{target}));
    EXPECT_EQ(m1->lockedBy(), (QSet<PowerNode*>{x1}));
    EXPECT_EQ(b0->lockedBy(), (QSet<PowerNode*>{m1}));
    EXPECT_EQ(target->moduleActions(), (QHash<QString, VelaPowerModuleActions::Enum>{
                                           {VelaPowerManagerName(), VelaPowerModuleActions::hold}}));
    // The other target was never switched on, so there was nothing to take
    // from it.
    EXPECT_EQ(previous->state(), VelaPowerNodeStates::initial);
    EXPECT_FALSE(answer.value().isValid());
    EXPECT_EQ(handler.pendingRequests(), 0);
}

TEST_F(PowerHandlerWalkthrough, TargetRequestSwitchingFromAnotherTargetReleasesWhatOnlyThatTargetHeld)
{
    addPowerManagerModule();
    ProbeResource* shared = addResource();
    ProbeResource* onlyFirst = addResource();
    ProbeResource* onlySecond = addResource();
    PowerTarget* first = makeTarget();
    PowerTarget* second = makeTarget();
    first->enables(shared);
    first->enables(onlyFirst);
    second->enables(shared);
    second->enables(onlySecond);
    first->setReachableTargets({second});
    second->setReachableTargets({first});
    handler.registerTarget(first);
    handler.registerTarget(second);

    CMReply<QVariant> toFirst = askTarget("first", first);
    ASSERT_TRUE(waitUntil([&] { return toFirst.isFinished(); }));
    ASSERT_EQ(onlySecond->state(), VelaPowerNodeStates::disabled) << "cleaned up after the first target";
    m_events.clear();

    CMReply<QVariant> toSecond = askTarget("second", second);
    ASSERT_TRUE(waitUntil([&] { return toSecond.isFinished(); }));
    // The two writes run side by side; their relative order is the graph's.
    ASSERT_EQ(m_events.size(), 5u) << eventDump();
    EXPECT_EQ(m_events[0], "nextTargetChanged " + nameOf(second));
    EXPECT_NE(indexOf(writeOn(onlySecond)), -1) << eventDump();
    EXPECT_NE(indexOf(writeOff(onlyFirst)), -1) << eventDump();
    EXPECT_EQ(m_events[3], "targetChanged " + nameOf(second));
    EXPECT_EQ(m_events[4], "answer second ok");
    EXPECT_EQ(shared->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(shared->lockedBy(), (QSet<PowerNode*>{second}));
    EXPECT_EQ(first->state(), VelaPowerNodeStates::disabled);
    EXPECT_EQ(first->moduleAction(VelaPowerManagerName()), VelaPowerModuleActions::release);
    EXPECT_EQ(second->state(), VelaPowerNodeStates::enabled);
}
