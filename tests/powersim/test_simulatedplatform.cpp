// The simulated platform: the owner of every path a graph writes to or
// messages, answering as its policy says (as the file says, all at once, or
// only when the caller says so), reporting each call and what became of it,
// with the library's nodes running against it.

#include "graphfile.h"
#include "platformcall.h"
#include "powergraph.h"
#include "requestdriver.h"
#include "simulatedplatform.h"
#include "simulatedtimedispatcher.h"

#include "capturingappender.h"
#include "eventloop.h"
#include "scenariorequests.h"
#include "simulatedclockthread.h"

#include "PowerHandler.h"
#include "PowerNode.h"

#include "cmpath.h"
#include "cmreply.h"
#include "cmrootworker.h"
#include "velapowerenums.h"

#include <QCoreApplication>
#include <QList>
#include <QString>
#include <QTimer>
#include <QVariant>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Answering = SimulatedPlatform::Answering;

std::string str(const QString& text)
{
    return text.toStdString();
}

struct Report {
    PlatformCall::Step step;
    PlatformCall call;
    // The simulated milliseconds when reported, on a simulated clock.
    qint64 atMs = -1;
};

const char* stepName(PlatformCall::Step step)
{
    switch (step) {
    case PlatformCall::Arrived:
        return "arrived";
    case PlatformCall::Answered:
        return "answered";
    case PlatformCall::Failed:
        return "failed";
    case PlatformCall::Ignored:
        return "ignored";
    }
    return "?";
}

// "arrived /hw/lamp power = true" for each report.
std::vector<std::string> stepsOf(const QList<Report>& reports)
{
    std::vector<std::string> steps;
    for (const Report& report : reports)
        steps.push_back(std::string(stepName(report.step)) + " " + str(report.call.path) + " " +
                        str(report.call.text()));
    return steps;
}

GraphFile parsed(const QByteArray& json)
{
    GraphFile file;
    GraphFile::Failure failure;
    EXPECT_TRUE(GraphFile::parse(json, QStringLiteral("platform.json"), &file, &failure)) << str(failure.message());
    return file;
}

// A lamp, switched by writing true / false under "power" at /hw/lamp, the
// keeper module that claims it, and how the platform answers there.
QByteArray lampGraph(const QByteArray& platform, int timeoutMs = 5000)
{
    return R"({"modules": [{"name": "keeper"}],
               "resources": [{"name": "lamp", "timeoutMs": )" +
           QByteArray::number(timeoutMs) + R"(,
                              "enable": {"path": "/hw/lamp", "key": "power", "value": true},
                              "disable": {"path": "/hw/lamp", "key": "power", "value": false}}],
               "platform": {)" +
           platform + "}}";
}

/*
 * A graph file on the simulated platform: the platform, the library's nodes
 * and a handler, made in that order and destroyed in the reverse one; every
 * report of the platform is kept. It keeps its own copy of the file, so that
 * a test can make it straight from parsed(). Only one may exist at a time.
 */
class PlatformRun
{
public:
    PlatformRun(const GraphFile& file, Answering answering, std::function<qint64()> clock = {})
        : m_file(file)
        , m_clock(std::move(clock))
        , m_platform(m_file, answering,
                     [this](PlatformCall::Step step, const PlatformCall& call) {
                         reports.append(Report{step, call, m_clock ? m_clock() : -1});
                     })
        , m_graph(m_file)
    {
        m_graph.registerWith(m_handler);
    }

    ~PlatformRun()
    {
        // Calls still waiting are answered, so that the queue drains while
        // the nodes exist.
        for (int round = 0; round < 100 && !m_platform.pending().isEmpty(); ++round) {
            while (!m_platform.pending().isEmpty())
                m_platform.answer(0);
            drainEvents();
        }
    }

    CMReply<QVariant> send(const Scenario::Request& request)
    {
        return RequestDriver::sendTo(m_handler, m_graph, request);
    }

    SimulatedPlatform& platform() { return m_platform; }
    const PowerGraph& graph() const { return m_graph; }
    PowerHandler& handler() { return m_handler; }
    VelaPowerNodeStates::Enum state(const QString& node) const { return m_graph.node(node)->state(); }

    QList<Report> reports;

private:
    GraphFile m_file;
    std::function<qint64()> m_clock;
    SimulatedPlatform m_platform;
    PowerGraph m_graph;
    PowerHandler m_handler;
};

bool finished(const CMVoidReply& reply)
{
    return waitUntil([&reply] { return reply.isFinished(); });
}

} // namespace

// --- As the file says ------------------------------------------------------------

TEST(SimulatedPlatformAsTheFileSays, ImmediateAnswerComesInsideTheCallAndOnlyTheArrivalIsReported)
{
    PlatformRun run(parsed(lampGraph("")), Answering::AsTheFileSays);

    const CMReply<QVariant> reply = run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));

    // Answered at once: the lamp is on before the request returns.
    EXPECT_EQ(run.state("lamp"), VelaPowerNodeStates::enabled);
    ASSERT_TRUE(finished(reply));
    EXPECT_FALSE(reply.error().isError());
    ASSERT_EQ(run.reports.size(), 1);
    const Report& report = run.reports.first();
    EXPECT_EQ(report.step, PlatformCall::Arrived);
    EXPECT_EQ(report.call.kind, PlatformCall::Write);
    EXPECT_EQ(str(report.call.path), "/hw/lamp");
    EXPECT_EQ(str(report.call.key), "power");
    EXPECT_EQ(report.call.value, QVariant(true));
    EXPECT_TRUE(report.call.answeredAtOnce);
    EXPECT_EQ(str(report.call.resource), "lamp");
    EXPECT_TRUE(report.call.module.isEmpty());
    EXPECT_TRUE(report.call.error.isEmpty());
}

TEST(SimulatedPlatformAsTheFileSays, DelayedAnswerComesAfterExactlyItsDelayOnTheSimulatedClock)
{
    const GraphFile file = parsed(lampGraph(R"("/hw/lamp": {"delayMs": 250})"));
    QList<Report> reports;
    qint64 enabledAtMs = -1;
    VelaPowerNodeStates::Enum stateAtArrival = VelaPowerNodeStates::initial;
    bool answered = false;
    ASSERT_TRUE(onSimulatedClock([&](SimulatedTimeDispatcher& clock) {
        PlatformRun run(file, Answering::AsTheFileSays, [&clock] { return clock.elapsedMs(); });
        const CMReply<QVariant> reply = run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));
        stateAtArrival = run.state("lamp");
        runUntil([&] { return run.state("lamp") == VelaPowerNodeStates::enabled; });
        enabledAtMs = clock.elapsedMs();
        runUntil([&] { return reply.isFinished(); });
        answered = reply.isFinished() && !reply.error().isError();
        reports = run.reports;
    }));

    EXPECT_EQ(stateAtArrival, VelaPowerNodeStates::enabling);
    EXPECT_TRUE(answered);
    EXPECT_EQ(enabledAtMs, 250);
    EXPECT_EQ(stepsOf(reports),
              (std::vector<std::string>{"arrived /hw/lamp power = true", "answered /hw/lamp power = true"}));
    ASSERT_EQ(reports.size(), 2);
    EXPECT_EQ(reports.at(0).atMs, 0);
    EXPECT_FALSE(reports.at(0).call.answeredAtOnce);
    EXPECT_EQ(reports.at(1).atMs, 250);
    EXPECT_EQ(str(reports.at(1).call.resource), "lamp");
}

TEST(SimulatedPlatformAsTheFileSays, DelayedAnswerOnTheWallClockComesAfterTheCallReturned)
{
    PlatformRun run(parsed(lampGraph(R"("/hw/lamp": {"delayMs": 20})")), Answering::AsTheFileSays);

    const CMReply<QVariant> reply = run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));

    EXPECT_EQ(run.state("lamp"), VelaPowerNodeStates::enabling);
    EXPECT_EQ(run.reports.size(), 1);
    ASSERT_TRUE(finished(reply));
    EXPECT_EQ(run.state("lamp"), VelaPowerNodeStates::enabled);
    EXPECT_EQ(stepsOf(run.reports),
              (std::vector<std::string>{"arrived /hw/lamp power = true", "answered /hw/lamp power = true"}));
}

TEST(SimulatedPlatformAsTheFileSays, ErrorRefusesTheWriteAndTheLibraryLogsItsFailure)
{
    PlatformRun run(parsed(lampGraph(R"("/hw/lamp": {"error": "bus is busy"})")), Answering::AsTheFileSays);
    LogCapture log;

    ASSERT_TRUE(finished(run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use))));

    EXPECT_EQ(stepsOf(run.reports),
              (std::vector<std::string>{"arrived /hw/lamp power = true", "failed /hw/lamp power = true"}));
    ASSERT_EQ(run.reports.size(), 2);
    EXPECT_FALSE(run.reports.at(0).call.answeredAtOnce);
    EXPECT_EQ(str(run.reports.at(1).call.error), "bus is busy");
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, "lamp failed to enable Message: bus is busy"), 1) << log.dump();
    // The library goes on: the node is enabled all the same.
    EXPECT_EQ(run.state("lamp"), VelaPowerNodeStates::enabled);
}

TEST(SimulatedPlatformAsTheFileSays, NeverAnsweredWriteIsReportedIgnoredAndTheLibraryTimesOut)
{
    PlatformRun run(parsed(lampGraph(R"("/hw/lamp": "never")", 0)), Answering::AsTheFileSays);
    LogCapture log;

    ASSERT_TRUE(finished(run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use))));

    EXPECT_EQ(stepsOf(run.reports),
              (std::vector<std::string>{"arrived /hw/lamp power = true", "ignored /hw/lamp power = true"}));
    EXPECT_EQ(
        log.count(log4cplus::ERROR_LOG_LEVEL, "lamp failed to enable Message: " + str(CMVoidReply::ErrorTimeout())), 1)
        << log.dump();
}

TEST(SimulatedPlatformAsTheFileSays, AbsentPathIsServedByNoOneAndTheLibraryLogsTheMissingHandler)
{
    PlatformRun run(parsed(lampGraph(R"("/hw/lamp": "absent")")), Answering::AsTheFileSays);
    LogCapture log;

    ASSERT_TRUE(finished(run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use))));

    EXPECT_TRUE(run.reports.isEmpty()) << stepsOf(run.reports).size();
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL,
                        "lamp failed to enable Message: No set-data handler registered for path: /hw/lamp"),
              1)
        << log.dump();
}

// --- At once ------------------------------------------------------------------------

TEST(SimulatedPlatformAtOnce, EveryCallIsAnsweredAtOnceWhateverTheFileSays)
{
    const GraphFile file = parsed(R"({"modules": [{"name": "keeper"}],
        "resources": [
            {"name": "slow", "enable": {"path": "/hw/slow", "key": "on", "value": 1}},
            {"name": "broken", "enable": {"path": "/hw/broken", "key": "on", "value": 2}},
            {"name": "silent", "enable": {"path": "/hw/silent", "key": "on", "value": 3}},
            {"name": "missing", "enable": {"path": "/hw/missing", "key": "on", "value": 4}}],
        "platform": {"/hw/slow": {"delayMs": 1000}, "/hw/broken": {"error": "no"},
                     "/hw/silent": "never", "/hw/missing": "absent"}})");
    PlatformRun run(file, Answering::AtOnce);
    LogCapture log(log4cplus::ERROR_LOG_LEVEL);

    for (const char* name : {"slow", "broken", "silent", "missing"}) {
        const CMReply<QVariant> reply = run.send(resourceRequest(name, "keeper", VelaPowerModuleActions::use));
        EXPECT_EQ(run.state(name), VelaPowerNodeStates::enabled) << name;
        EXPECT_TRUE(finished(reply)) << name;
    }

    EXPECT_EQ(stepsOf(run.reports),
              (std::vector<std::string>{"arrived /hw/slow on = 1", "arrived /hw/broken on = 2",
                                        "arrived /hw/silent on = 3", "arrived /hw/missing on = 4"}));
    for (const Report& report : run.reports)
        EXPECT_TRUE(report.call.answeredAtOnce) << str(report.call.path);
    EXPECT_TRUE(log.events().empty()) << log.dump();
}

// --- By the caller ------------------------------------------------------------------

TEST(SimulatedPlatformByCaller, CallWaitsUntilAnsweredAndThenTheNodeReachesItsState)
{
    PlatformRun run(parsed(lampGraph("")), Answering::ByCaller);

    const CMReply<QVariant> reply = run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));
    drainEvents();

    ASSERT_EQ(run.platform().pending().size(), 1);
    const SimulatedPlatform::PendingCall& pending = run.platform().pending().first();
    EXPECT_EQ(pending.call.kind, PlatformCall::Write);
    EXPECT_EQ(str(pending.call.path), "/hw/lamp");
    EXPECT_EQ(str(pending.call.key), "power");
    EXPECT_EQ(pending.call.value, QVariant(true));
    EXPECT_EQ(str(pending.call.resource), "lamp");
    EXPECT_FALSE(pending.call.answeredAtOnce);
    EXPECT_EQ(pending.value, QVariant(true));
    EXPECT_EQ(run.state("lamp"), VelaPowerNodeStates::enabling);
    EXPECT_FALSE(reply.isFinished());
    EXPECT_EQ(stepsOf(run.reports), (std::vector<std::string>{"arrived /hw/lamp power = true"}));

    run.platform().answer(0);

    EXPECT_TRUE(run.platform().pending().isEmpty());
    EXPECT_EQ(stepsOf(run.reports),
              (std::vector<std::string>{"arrived /hw/lamp power = true", "answered /hw/lamp power = true"}));
    ASSERT_TRUE(finished(reply));
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(run.state("lamp"), VelaPowerNodeStates::enabled);
}

TEST(SimulatedPlatformByCaller, RefusedCallIsReportedFailedAndTheLibraryLogsTheError)
{
    PlatformRun run(parsed(lampGraph("")), Answering::ByCaller);
    LogCapture log;

    const CMReply<QVariant> reply = run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));
    drainEvents();
    ASSERT_EQ(run.platform().pending().size(), 1);
    run.platform().refuse(0, QStringLiteral("no power left"));

    EXPECT_TRUE(run.platform().pending().isEmpty());
    ASSERT_EQ(run.reports.size(), 2);
    EXPECT_EQ(run.reports.at(1).step, PlatformCall::Failed);
    EXPECT_EQ(str(run.reports.at(1).call.error), "no power left");
    EXPECT_EQ(str(run.reports.at(1).call.resource), "lamp");
    ASSERT_TRUE(finished(reply));
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, "lamp failed to enable Message: no power left"), 1) << log.dump();
    EXPECT_EQ(log.count(log4cplus::FATAL_LOG_LEVEL, "Failed to enable resource lamp, error: no power left"), 1)
        << log.dump();
}

TEST(SimulatedPlatformByCaller, DroppedCallIsReportedIgnoredAndTheLibrarysTimeOutDecides)
{
    PlatformRun run(parsed(lampGraph("", 0)), Answering::ByCaller);
    LogCapture log;

    const CMReply<QVariant> reply = run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));
    ASSERT_EQ(run.platform().pending().size(), 1);
    run.platform().drop(0);

    EXPECT_TRUE(run.platform().pending().isEmpty());
    EXPECT_EQ(stepsOf(run.reports),
              (std::vector<std::string>{"arrived /hw/lamp power = true", "ignored /hw/lamp power = true"}));
    ASSERT_TRUE(finished(reply));
    EXPECT_EQ(
        log.count(log4cplus::ERROR_LOG_LEVEL, "lamp failed to enable Message: " + str(CMVoidReply::ErrorTimeout())), 1)
        << log.dump();
    EXPECT_EQ(run.state("lamp"), VelaPowerNodeStates::enabled);
}

TEST(SimulatedPlatformByCaller, AbsentPathStaysUnservedAndNothingWaits)
{
    PlatformRun run(parsed(lampGraph(R"("/hw/lamp": "absent")")), Answering::ByCaller);
    LogCapture log;

    ASSERT_TRUE(finished(run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use))));

    EXPECT_TRUE(run.platform().pending().isEmpty());
    EXPECT_TRUE(run.reports.isEmpty());
    EXPECT_TRUE(log.containsFragment(log4cplus::ERROR_LOG_LEVEL, "No set-data handler registered for path: /hw/lamp"))
        << log.dump();
}

TEST(SimulatedPlatformByCaller, PendingCallsAreAnsweredInAnyOrderTheCallerChooses)
{
    const GraphFile file = parsed(R"({"modules": [{"name": "keeper"}],
        "resources": [
            {"name": "hub", "requires": ["left", "right"],
             "enable": {"path": "/hw/hub", "key": "power", "value": true}},
            {"name": "left", "enable": {"path": "/hw/left", "key": "power", "value": true}},
            {"name": "right", "enable": {"path": "/hw/right", "key": "power", "value": true}}]})");
    PlatformRun run(file, Answering::ByCaller);

    const CMReply<QVariant> reply = run.send(resourceRequest("hub", "keeper", VelaPowerModuleActions::use));
    drainEvents();
    // Both required nodes write at once; the hub waits for them.
    ASSERT_EQ(run.platform().pending().size(), 2);
    const QString last = run.platform().pending().at(1).call.resource;
    run.platform().answer(1);
    EXPECT_EQ(run.state(last), VelaPowerNodeStates::enabled);
    ASSERT_EQ(run.platform().pending().size(), 1);
    const QString first = run.platform().pending().at(0).call.resource;
    EXPECT_NE(first, last);
    EXPECT_EQ(run.state(first), VelaPowerNodeStates::enabling);
    run.platform().answer(0);
    drainEvents();
    ASSERT_EQ(run.platform().pending().size(), 1);
    EXPECT_EQ(str(run.platform().pending().at(0).call.resource), "hub");
    run.platform().answer(0);
    ASSERT_TRUE(finished(reply));
    EXPECT_EQ(run.state("hub"), VelaPowerNodeStates::enabled);
}

// --- Revoke messages and who a call concerns ------------------------------------------

TEST(SimulatedPlatformMessages, RevokeMessagesNameTheirModuleAndWhetherTheyComeAfterTheChange)
{
    const GraphFile file = parsed(R"({
        "modules": [{"name": "media", "revokePath": "/media/revoke", "postRevokePath": "/media/after"}],
        "resources": [{"name": "audio", "modules": {"media": "release"},
                       "enable": {"path": "/hw/codec", "key": "power", "value": "on"},
                       "disable": {"path": "/hw/codec", "key": "power", "value": "off"}}]})");
    PlatformRun run(file, Answering::ByCaller);

    const CMReply<QVariant> use = run.send(resourceRequest("audio", "media", VelaPowerModuleActions::use));
    drainEvents();
    ASSERT_EQ(run.platform().pending().size(), 1);
    run.platform().answer(0);
    ASSERT_TRUE(finished(use));
    run.reports.clear();

    const CMReply<QVariant> release = run.send(resourceRequest("audio", "media", VelaPowerModuleActions::release));
    drainEvents();
    // First the module is told, and the change waits for its answer.
    ASSERT_EQ(run.platform().pending().size(), 1);
    const PlatformCall before = run.platform().pending().first().call;
    EXPECT_EQ(before.kind, PlatformCall::Message);
    EXPECT_EQ(str(before.path), "/media/revoke");
    EXPECT_EQ(str(before.module), "media");
    EXPECT_FALSE(before.afterRevoke);
    EXPECT_TRUE(before.resource.isEmpty());
    EXPECT_EQ(str(before.messageName()), "revoke audio");
    EXPECT_EQ(PlatformCall::revokedResources(before.message), QStringList({"audio"}));
    EXPECT_EQ(run.state("audio"), VelaPowerNodeStates::enabled);
    run.platform().answer(0);
    drainEvents();

    ASSERT_EQ(run.platform().pending().size(), 1);
    const PlatformCall write = run.platform().pending().first().call;
    EXPECT_EQ(write.kind, PlatformCall::Write);
    EXPECT_EQ(str(write.resource), "audio");
    EXPECT_EQ(write.value, QVariant(QStringLiteral("off")));
    run.platform().answer(0);
    drainEvents();

    // Then the module is told again, and the request does not wait for it.
    ASSERT_TRUE(finished(release));
    ASSERT_EQ(run.platform().pending().size(), 1);
    const PlatformCall after = run.platform().pending().first().call;
    EXPECT_EQ(after.kind, PlatformCall::Message);
    EXPECT_EQ(str(after.path), "/media/after");
    EXPECT_EQ(str(after.module), "media");
    EXPECT_TRUE(after.afterRevoke);
    EXPECT_EQ(str(after.messageName()), "postRevoke audio");
    EXPECT_EQ(run.state("audio"), VelaPowerNodeStates::disabled);
    EXPECT_EQ(stepsOf(run.reports).size(), 5u);
}

TEST(SimulatedPlatformMessages, WritesToOneSharedPathAreNamedAfterTheResourceWhoseValueTheyCarry)
{
    const GraphFile file = parsed(R"({"modules": [{"name": "keeper"}],
        "resources": [
            {"name": "dim", "enable": {"path": "/hw/panel", "key": "level", "value": 20}},
            {"name": "bright", "enable": {"path": "/hw/panel", "key": "level", "value": 90}}]})");
    PlatformRun run(file, Answering::AtOnce);

    ASSERT_TRUE(finished(run.send(resourceRequest("bright", "keeper", VelaPowerModuleActions::use))));
    ASSERT_TRUE(finished(run.send(resourceRequest("dim", "keeper", VelaPowerModuleActions::use))));

    ASSERT_EQ(run.reports.size(), 2);
    EXPECT_EQ(str(run.reports.at(0).call.resource), "bright");
    EXPECT_EQ(str(run.reports.at(0).call.text()), "level = 90");
    EXPECT_EQ(str(run.reports.at(1).call.resource), "dim");
    EXPECT_EQ(str(run.reports.at(1).call.text()), "level = 20");
}

// --- Lifetime ---------------------------------------------------------------------------

TEST(SimulatedPlatformLifetime, PathsAreServedOnlyWhileThePlatformLives)
{
    const GraphFile file = parsed(lampGraph(""));
    {
        SimulatedPlatform platform(file, Answering::AtOnce, [](PlatformCall::Step, const PlatformCall&) {});
        const CMReply<QVariant> served =
            CMRootWorker::instance()->setData(CMPath("/hw/lamp"), "power", QVariant(true), CMReply<QVariant>());
        ASSERT_TRUE(served.isFinished());
        EXPECT_FALSE(served.error().isError());
    }
    const CMReply<QVariant> unserved =
        CMRootWorker::instance()->setData(CMPath("/hw/lamp"), "power", QVariant(true), CMReply<QVariant>());
    ASSERT_TRUE(unserved.isFinished());
    EXPECT_EQ(str(unserved.error().name()), str(CMRootWorker::NoHandlerError()));
}

TEST(SimulatedPlatformLifetime, PlatformThatIsGoneReportsNothingMore)
{
    const GraphFile file = parsed(lampGraph(R"("/hw/lamp": {"delayMs": 10})"));
    auto reportsAfterDestruction = std::make_shared<int>(0);
    auto destroyed = std::make_shared<bool>(false);
    CMReply<QVariant> write;
    {
        SimulatedPlatform platform(file, Answering::AsTheFileSays,
                                   [reportsAfterDestruction, destroyed](PlatformCall::Step, const PlatformCall&) {
                                       if (*destroyed)
                                           ++*reportsAfterDestruction;
                                   });
        write = CMRootWorker::instance()->setData(CMPath("/hw/lamp"), "power", QVariant(true), CMReply<QVariant>());
        EXPECT_FALSE(write.isFinished());
    }
    *destroyed = true;
    // Well past the delay the platform had for the call.
    bool waited = false;
    QTimer::singleShot(60, [&waited] { waited = true; });
    ASSERT_TRUE(waitUntil([&waited] { return waited; }));

    EXPECT_EQ(*reportsAfterDestruction, 0);
}
