// Sending a graph's requests: the request driver's numbering, counts and what
// it tells the run recorder (the request, the handler's signals, the answer
// and, beside a refusal, its reason), and the scenario runner that sends a
// file's requests at their times on a simulated run.

#include "graphfile.h"
#include "requestdriver.h"
#include "runevent.h"
#include "runrecorder.h"
#include "scenariorunner.h"
#include "simulatedplatform.h"
#include "simulatedrun.h"
#include "simulatedtimedispatcher.h"

#include "eventloop.h"
#include "scenariorequests.h"
#include "simulatedclockthread.h"

#include "PowerHandler.h"
#include "PowerNode.h"

#include "velapowerenums.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using Kind = RunEvent::Kind;
using Answering = SimulatedPlatform::Answering;

std::string str(const QString& text)
{
    return text.toStdString();
}

/*
 * Two resources and three targets: day switches the lamp on and may be
 * followed by evening only; evening switches the lamp off; night switches
 * both off and may follow evening. The keeper is the one module declared.
 */
const QByteArray kHouse = R"({
    "modules": [{"name": "keeper"}],
    "resources": [
        {"name": "lamp", "enable": {"path": "/hw/lamp", "key": "power", "value": true},
                         "disable": {"path": "/hw/lamp", "key": "power", "value": false}},
        {"name": "fan", "enable": {"path": "/hw/fan", "key": "power", "value": true},
                        "disable": {"path": "/hw/fan", "key": "power", "value": false}}],
    "targets": [
        {"name": "day", "enables": ["lamp"], "reachable": ["evening"]},
        {"name": "evening", "disables": ["lamp"], "reachable": ["day", "night"]},
        {"name": "night", "disables": ["lamp", "fan"], "reachable": ["day"]}]})";

GraphFile parsed(const QByteArray& json)
{
    GraphFile file;
    GraphFile::Failure failure;
    EXPECT_TRUE(GraphFile::parse(json, QStringLiteral("house.json"), &file, &failure)) << str(failure.message());
    return file;
}

// kHouse with a "requests" list (and a "platform" entry when given).
QByteArray houseWith(const QByteArray& requests, const QByteArray& platform = QByteArray())
{
    QByteArray json = kHouse;
    json.chop(1);
    json += ", \"requests\": " + requests;
    if (!platform.isEmpty())
        json += ", \"platform\": " + platform;
    return json + "}";
}

// "request #1 target day" for each event.
std::vector<std::string> eventTexts(const RunRecorder& recorder)
{
    std::vector<std::string> texts;
    for (const RunEvent& event : recorder.events())
        texts.push_back(str(RunEvent::kindName(event.kind)) + " " + str(event.subject) + " " + str(event.detail));
    return texts;
}

// The events of the given kinds, as eventTexts() writes them.
std::vector<std::string> eventTexts(const RunRecorder& recorder, std::initializer_list<Kind> kinds)
{
    std::vector<std::string> texts;
    for (const RunEvent& event : recorder.events()) {
        for (Kind kind : kinds) {
            if (event.kind == kind)
                texts.push_back(str(RunEvent::kindName(event.kind)) + " " + str(event.subject) + " " +
                                str(event.detail));
        }
    }
    return texts;
}

std::string dump(const RunRecorder& recorder)
{
    std::string text;
    for (const std::string& line : eventTexts(recorder))
        text += "  " + line + "\n";
    return text;
}

/*
 * A recorded simulated run of a file, its answers collected. The recorder
 * is made first and goes last. It keeps its own copy of the file, so that a
 * test can make it straight from parsed().
 */
class DrivenRun
{
public:
    DrivenRun(const GraphFile& graphFile, Answering answering, RunRecorder::Clock clock)
        : file(graphFile)
        , recorder(file, std::move(clock), [](const RunEvent&) {})
        , run(file, recorder, answering)
    {
    }

    // On a clock the test moves by hand: the recorder reads nowUs.
    DrivenRun(const GraphFile& graphFile, Answering answering)
        : DrivenRun(graphFile, answering, [this] { return nowUs; })
    {
    }

    ~DrivenRun()
    {
        for (int round = 0; round < 100 && !run.platform().pending().isEmpty(); ++round) {
            while (!run.platform().pending().isEmpty())
                run.platform().answer(0);
            drainEvents();
        }
    }

    int send(const Scenario::Request& request, int number = 0)
    {
        return run.driver().send(
            request, [this](const RequestDriver::Answer& answer) { answers.append(answer); }, number);
    }

    bool answered(int count)
    {
        return waitUntil([this, count] { return answers.size() >= count; });
    }

    RequestDriver& driver() { return run.driver(); }
    SimulatedPlatform& platform() { return run.platform(); }
    const PowerGraph& graph() const { return run.graph(); }
    PowerHandler& handler() { return run.handler(); }

    const GraphFile file;
    // Made before the recorder and the run, which read it from the start.
    qint64 nowUs = 0;
    RunRecorder recorder;
    SimulatedRun run;
    QList<RequestDriver::Answer> answers;
};

RunRecorder::Clock clockOf(const SimulatedTimeDispatcher& clock)
{
    return [&clock] { return clock.elapsedMs() * 1000; };
}

} // namespace

// --- The driver -------------------------------------------------------------------

TEST(RequestDriver, RequestsAreNumberedFromOneUnlessTheCallerGivesANumber)
{
    DrivenRun run(parsed(kHouse), Answering::AtOnce);

    EXPECT_EQ(run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use)), 1);
    EXPECT_EQ(run.send(resourceRequest("fan", "keeper", VelaPowerModuleActions::use)), 2);
    EXPECT_EQ(run.send(resourceRequest("fan", "keeper", VelaPowerModuleActions::release), 7), 7);
    EXPECT_EQ(run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::release)), 4);
    ASSERT_TRUE(run.answered(4));

    EXPECT_EQ(eventTexts(run.recorder, {Kind::Request}),
              (std::vector<std::string>{
                  "request #1 resource lamp use by keeper", "request #2 resource fan use by keeper",
                  "request #7 resource fan release by keeper", "request #4 resource lamp release by keeper"}));
    QList<int> numbers;
    for (const RequestDriver::Answer& answer : run.answers)
        numbers << answer.number;
    EXPECT_EQ(numbers, QList<int>({1, 2, 7, 4}));
    ASSERT_NE(run.recorder.requestSpan(7), nullptr);
    EXPECT_EQ(str(run.recorder.requestSpan(7)->name), "#7 resource fan release by keeper");
}

TEST(RequestDriver, CountsWhatWasSentAnsweredAndSucceeded)
{
    DrivenRun run(parsed(kHouse), Answering::ByCaller);

    run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));
    run.send(resourceRequest("lamp", "stranger", VelaPowerModuleActions::use));
    drainEvents();
    // The refusal is answered at once; the claim waits for its write.
    EXPECT_EQ(run.driver().sent(), 2);
    EXPECT_EQ(run.driver().answered(), 1);
    EXPECT_EQ(run.driver().succeeded(), 0);
    ASSERT_EQ(run.platform().pending().size(), 1);
    run.platform().answer(0);
    ASSERT_TRUE(run.answered(2));

    EXPECT_EQ(run.driver().sent(), 2);
    EXPECT_EQ(run.driver().answered(), 2);
    EXPECT_EQ(run.driver().succeeded(), 1);
}

TEST(RequestDriver, AnswersAreRecordedAsDoneOrFailedWithTheLibrarysMessage)
{
    DrivenRun run(parsed(kHouse), Answering::AtOnce);

    run.nowUs = 1000;
    run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));
    run.nowUs = 2000;
    run.send(resourceRequest("lamp", "stranger", VelaPowerModuleActions::use));
    ASSERT_TRUE(run.answered(2));

    EXPECT_EQ(
        eventTexts(run.recorder, {Kind::Answer}),
        (std::vector<std::string>{"answer #1 done", "answer #2 failed: Cannot add request for requested resource"}))
        << dump(run.recorder);
    ASSERT_EQ(run.answers.size(), 2);
    EXPECT_TRUE(run.answers.at(0).succeeded);
    EXPECT_TRUE(run.answers.at(0).error.isEmpty());
    EXPECT_TRUE(run.answers.at(0).reason.isEmpty());
    EXPECT_FALSE(run.answers.at(1).succeeded);
    EXPECT_EQ(str(run.answers.at(1).error), "Cannot add request for requested resource");
    const RunRecorder::Span* refused = run.recorder.requestSpan(2);
    ASSERT_NE(refused, nullptr);
    EXPECT_TRUE(refused->failed);
    EXPECT_EQ(refused->beginUs, 2000);
    EXPECT_EQ(refused->endUs, 2000);
    EXPECT_FALSE(run.recorder.requestSpan(1)->failed);
}

TEST(RequestDriver, ListenerHearsTheAnswerAfterTheRecorderHasItAndItsReason)
{
    DrivenRun run(parsed(kHouse), Answering::AtOnce);
    std::vector<std::string> recordedWhenHeard;

    run.driver().send(resourceRequest("fan", "ghost", VelaPowerModuleActions::hold),
                      [&](const RequestDriver::Answer&) { recordedWhenHeard = eventTexts(run.recorder); });
    ASSERT_TRUE(waitUntil([&] { return !recordedWhenHeard.empty(); }));

    ASSERT_GE(recordedWhenHeard.size(), 2u);
    EXPECT_EQ(recordedWhenHeard.at(recordedWhenHeard.size() - 2),
              "answer #1 failed: Cannot add request for requested resource");
    EXPECT_EQ(recordedWhenHeard.back().substr(0, 10), "reason #1 ");
    EXPECT_EQ(run.recorder.requestsAnswered(), 1);
}

TEST(RequestDriver, UndeclaredModuleGetsItsReasonBesideTheRefusal)
{
    DrivenRun run(parsed(kHouse), Answering::AtOnce);

    run.send(resourceRequest("fan", "ghost", VelaPowerModuleActions::hold));
    ASSERT_TRUE(run.answered(1));

    const std::string reason = "module ghost is not registered: the file does not declare it in \"modules\"";
    EXPECT_EQ(str(run.answers.first().reason), reason);
    EXPECT_EQ(eventTexts(run.recorder, {Kind::Request, Kind::Answer, Kind::Reason}),
              (std::vector<std::string>{"request #1 resource fan hold by ghost",
                                        "answer #1 failed: Cannot add request for requested resource",
                                        "reason #1 " + reason}))
        << dump(run.recorder);
    // Beside the answer: the very next event.
    const QVector<RunEvent>& events = run.recorder.events();
    for (int i = 0; i < events.size(); ++i) {
        if (events.at(i).kind == Kind::Answer) {
            ASSERT_LT(i + 1, events.size());
            EXPECT_EQ(events.at(i + 1).kind, Kind::Reason);
        }
    }
}

TEST(RequestDriver, TargetNotReachableFromTheEnabledTargetGetsItsReasonBesideTheRefusal)
{
    DrivenRun run(parsed(kHouse), Answering::AtOnce);

    run.send(targetRequest("day"));
    run.send(targetRequest("night"));
    ASSERT_TRUE(run.answered(2));

    EXPECT_TRUE(run.answers.at(0).succeeded);
    EXPECT_FALSE(run.answers.at(1).succeeded);
    EXPECT_EQ(str(run.answers.at(1).error), "Failed to resolve dependencies");
    const std::string reason = "day is enabled and its reachable list (evening) leaves out night";
    EXPECT_EQ(str(run.answers.at(1).reason), reason);
    EXPECT_EQ(eventTexts(run.recorder, {Kind::Answer, Kind::Reason}),
              (std::vector<std::string>{"answer #1 done", "answer #2 failed: Failed to resolve dependencies",
                                        "reason #2 " + reason}))
        << dump(run.recorder);
}

TEST(RequestDriver, HandlerSignalsAreRecordedWithTheirNameAndTarget)
{
    DrivenRun run(parsed(kHouse), Answering::AtOnce);

    run.send(targetRequest("day"));
    run.send(targetRequest("night"));
    run.send(targetRequest("evening"));
    ASSERT_TRUE(run.answered(3));

    // A refused target is pursued but never reached.
    EXPECT_EQ(eventTexts(run.recorder, {Kind::Request, Kind::Signal, Kind::Answer}),
              (std::vector<std::string>{
                  "request #1 target day", "signal nextTargetChanged day", "signal targetChanged day", "answer #1 done",
                  "request #2 target night", "signal nextTargetChanged night",
                  "answer #2 failed: Failed to resolve dependencies", "request #3 target evening",
                  "signal nextTargetChanged evening", "signal targetChanged evening", "answer #3 done"}))
        << dump(run.recorder);
}

TEST(RequestDriver, AnswersArrivingAfterIgnoreLaterAnswersAreNeitherRecordedNorPassedOn)
{
    DrivenRun run(parsed(kHouse), Answering::ByCaller);

    run.send(resourceRequest("lamp", "keeper", VelaPowerModuleActions::use));
    drainEvents();
    ASSERT_EQ(run.platform().pending().size(), 1);
    run.driver().ignoreLaterAnswers();
    run.platform().answer(0);
    drainEvents();

    EXPECT_EQ(run.graph().node("lamp")->state(), VelaPowerNodeStates::enabled);
    EXPECT_EQ(run.handler().pendingRequests(), 0);
    EXPECT_TRUE(run.answers.isEmpty());
    EXPECT_EQ(run.driver().answered(), 0);
    EXPECT_EQ(run.driver().sent(), 1);
    EXPECT_TRUE(eventTexts(run.recorder, {Kind::Answer}).empty()) << dump(run.recorder);
    EXPECT_EQ(run.recorder.requestsAnswered(), 0);
    ASSERT_NE(run.recorder.requestSpan(1), nullptr);
    EXPECT_TRUE(run.recorder.requestSpan(1)->isOpen());
}

TEST(RequestDriver, WithoutARecorderItOnlySendsAndCounts)
{
    DrivenRun run(parsed(kHouse), Answering::AtOnce);
    RequestDriver quiet(run.handler(), run.graph(), nullptr);
    QList<RequestDriver::Answer> heard;

    EXPECT_EQ(quiet.send(resourceRequest("fan", "keeper", VelaPowerModuleActions::use),
                         [&](const RequestDriver::Answer& answer) { heard << answer; }),
              1);
    EXPECT_EQ(quiet.send(resourceRequest("fan", "ghost", VelaPowerModuleActions::use),
                         [&](const RequestDriver::Answer& answer) { heard << answer; }),
              2);
    ASSERT_TRUE(waitUntil([&] { return heard.size() == 2; }));

    EXPECT_EQ(quiet.sent(), 2);
    EXPECT_EQ(quiet.answered(), 2);
    EXPECT_EQ(quiet.succeeded(), 1);
    EXPECT_EQ(str(heard.at(1).reason), "module ghost is not registered: the file does not declare it in \"modules\"");
    EXPECT_TRUE(eventTexts(run.recorder, {Kind::Request, Kind::Answer, Kind::Reason}).empty()) << dump(run.recorder);
}

// --- The scenario runner --------------------------------------------------------------

TEST(ScenarioRunner, ListsTheRequestsNotSentYetWithTheirDueTimes)
{
    const GraphFile file = parsed(houseWith(R"([{"target": "day", "atMs": 50},
                                                {"resource": "fan", "module": "keeper", "action": "use"},
                                                {"target": "evening", "atMs": 120}])"));
    DrivenRun run(file, Answering::AtOnce);
    ScenarioRunner scenario(file.requests, run.driver(), run.recorder);

    EXPECT_EQ(scenario.requestCount(), 3);
    EXPECT_EQ(scenario.sent(), 0);
    EXPECT_FALSE(scenario.allAnswered());
    EXPECT_TRUE(scenario.unanswered().isEmpty());
    EXPECT_EQ(str(scenario.unsent().join("\n")), "#1 target day (due at 50 ms)\n"
                                                 "#2 resource fan use by keeper (due at 0 ms)\n"
                                                 "#3 target evening (due at 120 ms)");
}

TEST(ScenarioRunner, SendsEachRequestAtItsTimeNumberedInTheFilesOrderAndSaysOnceWhenAllAreAnswered)
{
    const GraphFile file = parsed(houseWith(R"([{"target": "day", "atMs": 50},
                                                {"resource": "fan", "module": "keeper", "action": "use"},
                                                {"target": "evening", "atMs": 120}])",
                                            R"({"/hw/lamp": {"delayMs": 30}})"));
    std::vector<std::string> requests;
    std::vector<qint64> sentAtUs;
    std::vector<qint64> answeredAtUs;
    int allAnsweredCalls = -1;
    int sent = -1;
    bool allAnswered = false;
    QStringList unsent;
    QStringList unanswered;
    ASSERT_TRUE(onSimulatedClock([&](SimulatedTimeDispatcher& clock) {
        DrivenRun run(file, Answering::AsTheFileSays, clockOf(clock));
        ScenarioRunner scenario(file.requests, run.driver(), run.recorder);
        int calls = 0;
        scenario.start([&calls] { ++calls; });
        runUntil([&] { return calls > 0; });
        // Nothing more is due: a second call would come now if at all.
        QTimer::singleShot(1000, [] {});
        runUntil([&] { return clock.elapsedMs() >= 1000; });
        allAnsweredCalls = calls;
        sent = scenario.sent();
        allAnswered = scenario.allAnswered();
        unsent = scenario.unsent();
        unanswered = scenario.unanswered();
        for (const RunEvent& event : run.recorder.events()) {
            if (event.kind == Kind::Request) {
                requests.push_back(str(event.subject) + " " + str(event.detail));
                sentAtUs.push_back(event.timeUs);
            }
            if (event.kind == Kind::Answer)
                answeredAtUs.push_back(event.timeUs);
        }
    }));

    EXPECT_EQ(requests,
              (std::vector<std::string>{"#2 resource fan use by keeper", "#1 target day", "#3 target evening"}));
    EXPECT_EQ(sentAtUs, (std::vector<qint64>{0, 50000, 120000}));
    // The day's lamp answers 30 ms after it is written.
    EXPECT_EQ(answeredAtUs, (std::vector<qint64>{0, 80000, 150000}));
    EXPECT_EQ(allAnsweredCalls, 1);
    EXPECT_EQ(sent, 3);
    EXPECT_TRUE(allAnswered);
    EXPECT_TRUE(unsent.isEmpty()) << str(unsent.join("; "));
    EXPECT_TRUE(unanswered.isEmpty()) << str(unanswered.join("; "));
}

TEST(ScenarioRunner, ListsTheRequestsSentAndNotAnsweredWithTheTimeTheyWereSent)
{
    const GraphFile file = parsed(houseWith(R"([{"resource": "fan", "module": "keeper", "action": "use"},
                                                {"target": "day", "atMs": 40}])"));
    QStringList waiting;
    QStringList afterwards;
    int calls = -1;
    ASSERT_TRUE(onSimulatedClock([&](SimulatedTimeDispatcher& clock) {
        DrivenRun run(file, Answering::ByCaller, clockOf(clock));
        ScenarioRunner scenario(file.requests, run.driver(), run.recorder);
        int called = 0;
        scenario.start([&called] { ++called; });
        runUntil([&] { return scenario.sent() == 2; });
        waiting = scenario.unanswered();
        while (!scenario.allAnswered() && !run.platform().pending().isEmpty()) {
            run.platform().answer(0);
            QEventLoop().processEvents();
        }
        runUntil([&] { return scenario.allAnswered(); });
        afterwards = scenario.unanswered();
        calls = called;
    }));

    EXPECT_EQ(str(waiting.join("\n")), "#1 resource fan use by keeper (sent at 0 ms)\n"
                                       "#2 target day (sent at 40 ms)");
    EXPECT_TRUE(afterwards.isEmpty()) << str(afterwards.join("; "));
    EXPECT_EQ(calls, 1);
}

TEST(ScenarioRunner, AnswersThatAllComeInOneInstantStillCallBackOnce)
{
    // A claim, a refusal and a target, all answered before the runner's
    // timers have all fired.
    const GraphFile valid = parsed(houseWith(R"([{"resource": "fan", "module": "keeper", "action": "use"},
                                                 {"resource": "fan", "module": "ghost", "action": "use"},
                                                 {"target": "day"}])"));
    DrivenRun run(valid, Answering::AtOnce);
    ScenarioRunner scenario(valid.requests, run.driver(), run.recorder);
    int calls = 0;

    scenario.start([&calls] { ++calls; });
    ASSERT_TRUE(waitUntil([&] { return scenario.allAnswered(); }));
    drainEvents();

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(scenario.sent(), 3);
    EXPECT_EQ(run.driver().succeeded(), 2);
}

TEST(ScenarioRunnerLifetimeDeathTest, RunnerDestroyedBeforeItsRequestsAreDueSendsNothing)
{
    const GraphFile file = parsed(houseWith(R"([{"resource": "fan", "module": "keeper", "action": "use",
                                                 "atMs": 20}])"));
    // In a process of its own: a runner whose timers outlive it would touch
    // freed memory.
    EXPECT_EXIT(
        {
            DrivenRun run(file, Answering::AtOnce);
            auto scenario = std::make_unique<ScenarioRunner>(file.requests, run.driver(), run.recorder);
            scenario->start([] {});
            scenario.reset();
            bool waited = false;
            QTimer::singleShot(100, [&waited] { waited = true; });
            waitUntil([&waited] { return waited; });
            std::_Exit(run.driver().sent() == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
