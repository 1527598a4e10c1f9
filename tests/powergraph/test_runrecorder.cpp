// The record of a run: typed events in the order they happened, and spans on
// the tracks of the request queue, the nodes and the modules, fed by the
// library's log, by the platform's calls and by the requests sent. The
// graph runs on the real library, with a stand-in platform written here that
// reports its calls as the simulated one does, and on a clock the tests move
// by hand.

#include "graphfile.h"
#include "platformcall.h"
#include "powergraph.h"
#include "requestdriver.h"
#include "runevent.h"
#include "runrecorder.h"

#include "eventloop.h"

#include "PowerHandler.h"
#include "PowerNode.h"

#include "cmerror.h"
#include "cmpath.h"
#include "cmreply.h"
#include "cmrootworker.h"
#include "dbglog.h"
#include "velahash.h"
#include "velapowerenums.h"
#include "velapowermanagerrevokemessage.h"

#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Kind = RunEvent::Kind;
using Span = RunRecorder::Span;
using Track = RunRecorder::Track;

std::string str(const QString& text)
{
    return text.toStdString();
}

/*
 * A graph file running on the library, recorded. The stand-in platform
 * serves every path the file writes to: it names the call (CallOwners),
 * reports its arrival to the recorder and answers at once, keeps it for the
 * test to answer or refuse later, or never answers it (reported as
 * ignored), as set for every path or per path. The clock is the caller's, or
 * one the test moves by hand (nowUs).
 */
class RecordedGraph
{
public:
    enum class Answer { AtOnce, Later, Never };
    struct Held {
        PlatformCall call;
        CMReply<QVariant> reply;
        QVariant value;
    };

    // On a clock the test moves by hand, every path answered as `answer`
    // unless answerAt() says otherwise.
    explicit RecordedGraph(const QByteArray& json, Answer answer = Answer::AtOnce)
        : RecordedGraph(json, [this] { return nowUs; })
    {
        m_answerElsewhere = answer;
    }

    RecordedGraph(const QByteArray& json, RunRecorder::Clock clock)
    {
        GraphFile::Failure failure;
        if (!GraphFile::parse(json, QStringLiteral("recorded.json"), &m_file, &failure)) {
            m_failure = failure.message();
            return;
        }
        m_owners = std::make_unique<CallOwners>(m_file);
        m_graph = std::make_unique<PowerGraph>(m_file);
        m_recorder = std::make_unique<RunRecorder>(m_file, std::move(clock),
                                                   [this](const RunEvent& event) { m_heard.append(event); });
        m_handler = std::make_unique<PowerHandler>();
        m_graph->registerWith(*m_handler);
        m_recorder->watchStates(*m_graph);
        m_driver = std::make_unique<RequestDriver>(*m_handler, *m_graph, m_recorder.get());
        for (const GraphFile::Resource& resource : m_file.resources) {
            for (const GraphFile::Write* write : {&resource.enable, &resource.disable}) {
                if (write->present && !m_paths.contains(write->path))
                    serveWrites(write->path);
            }
        }
    }

    ~RecordedGraph()
    {
        if (!m_handler)
            return;
        // What still waits is answered (and whatever follows, at once), so
        // that the queue drains while the nodes exist.
        m_finishing = true;
        for (int round = 0; round < 100 && !m_held.isEmpty(); ++round) {
            while (!m_held.isEmpty())
                answer(0);
            drainEvents();
        }
        waitUntil([this] { return m_handler->pendingRequests() == 0; }, 5000);
        drainEvents();
        m_driver.reset();
        m_handler.reset();
        m_recorder.reset();
        m_graph.reset();
        CMRootWorker* root = CMRootWorker::instance();
        for (const QString& path : qAsConst(m_paths))
            root->unregisterSetDataHandler(CMPath(path));
    }

    bool valid() const { return m_failure.isEmpty() && m_handler; }
    QString failure() const { return m_failure; }

    void answerAt(const QString& path, Answer answer) { m_answers.insert(path, answer); }
    // The path is served by no one: the library's write fails at once.
    void leaveUnserved(const QString& path)
    {
        CMRootWorker::instance()->unregisterSetDataHandler(CMPath(path));
        m_paths.remove(path);
    }

    // Moves the hand clock to `atUs` and sends the request then.
    int sendAt(qint64 atUs, const QString& resource, const QString& module, VelaPowerModuleActions::Enum action)
    {
        nowUs = atUs;
        return send(resource, module, action);
    }

    int send(const QString& resource, const QString& module, VelaPowerModuleActions::Enum action)
    {
        Scenario::Request request;
        request.kind = Scenario::Request::Resource;
        request.name = resource;
        request.module = module;
        request.action = action;
        return m_driver->send(request,
                              [this](const RequestDriver::Answer& answer) { m_requestAnswers.append(answer); });
    }

    // Drives the event loop until `count` requests have been answered.
    bool answered(int count)
    {
        return waitUntil([this, count] { return m_requestAnswers.size() >= count; });
    }

    // The keeper claims `resource` and then releases it, each request
    // answered before the next is sent; false when an answer did not come.
    bool claimedAndReleased(const QString& resource)
    {
        const int before = m_requestAnswers.size();
        send(resource, QStringLiteral("keeper"), VelaPowerModuleActions::use);
        if (!answered(before + 1))
            return false;
        send(resource, QStringLiteral("keeper"), VelaPowerModuleActions::release);
        return answered(before + 2);
    }

    // Drives the event loop until exactly `count` writes wait for the test.
    bool holding(int count)
    {
        return waitUntil([this, count] { return m_held.size() == count; });
    }

    const Held& held(int index) const { return m_held.at(index); }
    // Answers held call `index` with success, as the platform reports it.
    void answer(int index)
    {
        const Held held = m_held.takeAt(index);
        m_recorder->platformCall(PlatformCall::Answered, held.call);
        held.reply.setValue(held.value);
    }
    Held take(int index) { return m_held.takeAt(index); }

    const GraphFile& file() const { return m_file; }
    RunRecorder& recorder() { return *m_recorder; }
    const PowerGraph& graph() const { return *m_graph; }
    PowerHandler& handler() { return *m_handler; }
    RequestDriver& driver() { return *m_driver; }
    const QVector<RunEvent>& heard() const { return m_heard; }
    const QList<RequestDriver::Answer>& answers() const { return m_requestAnswers; }

    // The hand clock's time, in microseconds, when the test moves it.
    qint64 nowUs = 0;

private:
    void serveWrites(const QString& path)
    {
        m_paths.insert(path);
        CMRootWorker::instance()->registerSetDataHandler(
            CMPath(path), [this](const CMPath& at, const QString& key, const QVariant& value, CMReply<QVariant> reply) {
                PlatformCall call = PlatformCall::write(at.toString(), key, value);
                m_owners->name(&call);
                const Answer answer = m_finishing ? Answer::AtOnce : m_answers.value(at.toString(), m_answerElsewhere);
                call.answeredAtOnce = answer == Answer::AtOnce;
                m_recorder->platformCall(PlatformCall::Arrived, call);
                switch (answer) {
                case Answer::AtOnce:
                    reply.setValue(value);
                    break;
                case Answer::Later:
                    m_held.append(Held{call, reply, value});
                    break;
                case Answer::Never:
                    m_recorder->platformCall(PlatformCall::Ignored, call);
                    break;
                }
            });
    }

    GraphFile m_file;
    QString m_failure;
    std::unique_ptr<CallOwners> m_owners;
    std::unique_ptr<PowerGraph> m_graph;
    std::unique_ptr<RunRecorder> m_recorder;
    std::unique_ptr<PowerHandler> m_handler;
    std::unique_ptr<RequestDriver> m_driver;
    QSet<QString> m_paths;
    QHash<QString, Answer> m_answers;
    Answer m_answerElsewhere = Answer::AtOnce;
    QList<Held> m_held;
    QVector<RunEvent> m_heard;
    QList<RequestDriver::Answer> m_requestAnswers;
    bool m_finishing = false;
};

// A resource entry whose enable and disable write `true` / `false` under
// "power" at /<name>.
QByteArray resourceEntry(const QString& name, const QStringList& required = {}, int timeoutMs = -1)
{
    QString entry = QStringLiteral("{\"name\": \"%1\", ").arg(name);
    if (!required.isEmpty())
        entry += QStringLiteral("\"requires\": [\"%1\"], ").arg(required.join(QStringLiteral("\", \"")));
    if (timeoutMs >= 0)
        entry += QStringLiteral("\"timeoutMs\": %1, ").arg(timeoutMs);
    entry += QStringLiteral("\"enable\": {\"path\": \"/%1\", \"key\": \"power\", \"value\": true}, "
                            "\"disable\": {\"path\": \"/%1\", \"key\": \"power\", \"value\": false}}")
                 .arg(name);
    return entry.toUtf8();
}

QByteArray graphOf(const QList<QByteArray>& resources, const QByteArray& rest = QByteArray())
{
    QByteArray json = "{\"modules\": [{\"name\": \"keeper\"}], \"resources\": [";
    for (int i = 0; i < resources.size(); ++i)
        json += (i ? ", " : "") + resources.at(i);
    json += "]";
    if (!rest.isEmpty())
        json += ", " + rest;
    return json + "}";
}

// A clock that moves one microsecond every time it is read: every event gets
// a time of its own.
class TickingClock
{
public:
    RunRecorder::Clock clock()
    {
        return [this]() { return ++now; };
    }
    qint64 now = 0;
};

std::vector<const Span*> spansOf(const RunRecorder& recorder, Span::Kind kind, const QString& track)
{
    std::vector<const Span*> found;
    for (const Span& span : recorder.spans()) {
        if (span.kind == kind && span.track == track)
            found.push_back(&span);
    }
    return found;
}

int countOf(const RunRecorder& recorder, Kind kind)
{
    int count = 0;
    for (const RunEvent& event : recorder.events())
        count += event.kind == kind ? 1 : 0;
    return count;
}

// A transition span as "enabling 100..400 enabled".
std::string transitionText(const Span& span)
{
    return str(span.name) + " " + std::to_string(span.beginUs) + ".." + std::to_string(span.endUs) + " " +
           str(span.outcome);
}

std::vector<std::string> transitionsOf(const RunRecorder& recorder, const QString& node)
{
    std::vector<std::string> texts;
    for (const Span* span : spansOf(recorder, Span::Transition, node))
        texts.push_back(transitionText(*span));
    return texts;
}

// The span ended at the state event of its node, in the state it names.
::testing::AssertionResult endsAtItsStateEvent(const RunRecorder& recorder, const Span& span)
{
    if (span.endEvent < 0 || span.endEvent >= recorder.events().size())
        return ::testing::AssertionFailure() << "span " << span.id << " has no end event";
    const RunEvent& event = recorder.events().at(span.endEvent);
    if (event.kind != Kind::State || event.subject != span.track || event.detail != span.outcome)
        return ::testing::AssertionFailure() << "span " << span.id << " ends at " << str(RunEvent::kindName(event.kind))
                                             << " " << str(event.subject) << " " << str(event.detail);
    if (event.endsSpan != span.id)
        return ::testing::AssertionFailure() << "the state event names span " << event.endsSpan;
    return ::testing::AssertionSuccess();
}

std::string eventsText(const RunRecorder& recorder)
{
    std::string text;
    for (const RunEvent& event : recorder.events())
        text += "  " + std::to_string(event.timeUs) + " " + str(RunEvent::kindName(event.kind)) + " " +
                str(event.subject) + " " + str(event.detail) + "\n";
    return text;
}

// A write span as "/lamp power = true 70..70 done", followed by "(failed)"
// or "(failed, timed out)" when it is marked so: where it wrote what, when,
// and how it ended, so that one comparison checks them all.
std::string writeText(const Span& span)
{
    std::string text = str(span.path) + " " + str(span.name) + " " + std::to_string(span.beginUs) + ".." +
                       std::to_string(span.endUs) + " " + str(span.outcome);
    if (span.failed && span.timedOut)
        text += " (failed, timed out)";
    else if (span.failed)
        text += " (failed)";
    else if (span.timedOut)
        text += " (timed out)";
    return text;
}

// The event that ended `span`, as "write /lamp power = true": its kind, and
// its subject and detail where it has them; "no end event" when none did.
std::string endEventText(const RunRecorder& recorder, const Span& span)
{
    if (span.endEvent < 0 || span.endEvent >= recorder.events().size())
        return "no end event";
    const RunEvent& event = recorder.events().at(span.endEvent);
    std::string text = str(RunEvent::kindName(event.kind));
    for (const QString& part : {event.subject, event.detail}) {
        if (!part.isEmpty())
            text += " " + str(part);
    }
    return text;
}

// The one write span on `node`'s track; null, with a failure that lists the
// events, when there is not exactly one. The write tests all look at a
// single write this way.
const Span* onlyWriteSpan(const RunRecorder& recorder, const QString& node)
{
    const std::vector<const Span*> writes = spansOf(recorder, Span::Write, node);
    if (writes.size() == 1)
        return writes.front();
    ADD_FAILURE() << writes.size() << " write spans on " << str(node) << ", not one\n" << eventsText(recorder);
    return nullptr;
}

// `node` switched on and then off: an enabling span that ends enabled, then
// a disabling span that ends disabled, each taking time and ending at its
// node's state event. The tests of a claim and its release check every node
// of the graph this way.
::testing::AssertionResult switchedOnThenOff(const RunRecorder& recorder, const QString& node)
{
    const std::vector<const Span*> spans = spansOf(recorder, Span::Transition, node);
    if (spans.size() != 2u)
        return ::testing::AssertionFailure() << str(node) << " has " << spans.size() << " transition spans, not 2\n"
                                             << eventsText(recorder);
    const Span& on = *spans.at(0);
    const Span& off = *spans.at(1);
    if (on.name != QLatin1String("enabling") || on.outcome != QLatin1String("enabled") ||
        off.name != QLatin1String("disabling") || off.outcome != QLatin1String("disabled"))
        return ::testing::AssertionFailure()
               << str(node) << ": " << transitionText(on) << ", then " << transitionText(off);
    for (const Span* span : spans) {
        if (span->beginUs >= span->endUs)
            return ::testing::AssertionFailure() << str(node) << " " << transitionText(*span) << " takes no time";
        ::testing::AssertionResult ended = endsAtItsStateEvent(recorder, *span);
        if (!ended)
            return ended << " (" << str(node) << ")";
    }
    if (on.endUs >= off.beginUs)
        return ::testing::AssertionFailure()
               << str(node) << " was switched off before it was on: " << transitionText(on) << ", then "
               << transitionText(off);
    return ::testing::AssertionSuccess();
}

} // namespace

// --- Events and tracks ------------------------------------------------------------

TEST(RunEventKinds, EveryKindHasTheNameTheTimelineAndTheEventsFileUse)
{
    const std::vector<std::pair<Kind, const char*>> names = {
        {Kind::Request, "request"}, {Kind::Answer, "answer"},   {Kind::Reason, "reason"},     {Kind::Signal, "signal"},
        {Kind::Write, "write"},     {Kind::Message, "message"}, {Kind::Answered, "answered"}, {Kind::Fails, "fails"},
        {Kind::Ignored, "ignored"}, {Kind::State, "state"},     {Kind::Error, "error"},       {Kind::Fatal, "fatal"},
        {Kind::Log, "log"},         {Kind::Skipped, "skipped"}, {Kind::Snapshot, "snapshot"},
    };
    QSet<QString> distinct;
    for (const auto& entry : names) {
        EXPECT_EQ(str(RunEvent::kindName(entry.first)), entry.second);
        distinct.insert(RunEvent::kindName(entry.first));
    }
    EXPECT_EQ(distinct.size(), static_cast<int>(names.size()));
}

TEST(RunRecorderTracks, RequestQueueThenResourcesTargetsAndModulesInTheFilesOrder)
{
    RecordedGraph run(R"({"modules": [{"name": "zeta module"}, {"name": "alpha module"}],
                          "resources": [{"name": "speaker"}, {"name": "amplifier"}, {"name": "radio"}],
                          "targets": [{"name": "listening"}, {"name": "asleep"}]})");
    ASSERT_TRUE(run.valid()) << str(run.failure());

    QStringList names;
    QList<int> kinds;
    for (const Track& track : run.recorder().tracks()) {
        names << track.name;
        kinds << track.kind;
    }
    EXPECT_EQ(str(names.join(", ")),
              "requests, speaker, amplifier, radio, listening, asleep, zeta module, alpha module");
    EXPECT_EQ(kinds, QList<int>({Track::Requests, Track::Node, Track::Node, Track::Node, Track::Node, Track::Node,
                                 Track::Module, Track::Module}));
    EXPECT_EQ(str(RunRecorder::requestTrack), "requests");
    EXPECT_TRUE(run.recorder().events().isEmpty());
    EXPECT_TRUE(run.recorder().spans().isEmpty());
}

TEST(RunRecorderEvents, AddedEventIsTypedTimedAndHandedToTheListener)
{
    RecordedGraph run(graphOf({resourceEntry("lamp")}));
    ASSERT_TRUE(run.valid()) << str(run.failure());

    run.nowUs = 4200;
    run.recorder().add(Kind::Snapshot, QString(), QStringLiteral("{\"resources\": {}}"));

    ASSERT_EQ(run.recorder().events().size(), 1);
    const RunEvent& event = run.recorder().events().first();
    EXPECT_EQ(event.kind, Kind::Snapshot);
    EXPECT_EQ(event.timeUs, 4200);
    EXPECT_TRUE(event.subject.isEmpty());
    EXPECT_EQ(str(event.detail), "{\"resources\": {}}");
    EXPECT_EQ(event.beginsSpan, 0);
    EXPECT_EQ(event.endsSpan, 0);
    ASSERT_EQ(run.heard().size(), 1);
    EXPECT_EQ(run.heard().first().detail, event.detail);
    EXPECT_EQ(run.recorder().nowUs(), 4200);
}

// --- Requests ---------------------------------------------------------------------

TEST(RunRecorderRequests, RequestSpanRunsFromSentToAnswered)
{
    RecordedGraph run(graphOf({resourceEntry("lamp")}), RecordedGraph::Answer::Later);
    ASSERT_TRUE(run.valid()) << str(run.failure());

    EXPECT_EQ(run.sendAt(10, "lamp", "keeper", VelaPowerModuleActions::use), 1);
    ASSERT_TRUE(run.holding(1));
    EXPECT_EQ(run.recorder().requestsSent(), 1);
    EXPECT_EQ(run.recorder().requestsAnswered(), 0);
    run.nowUs = 25;
    run.answer(0);
    ASSERT_TRUE(run.answered(1));

    const Span* span = run.recorder().requestSpan(1);
    ASSERT_NE(span, nullptr);
    EXPECT_EQ(span->kind, Span::Request);
    EXPECT_EQ(span->track, RunRecorder::requestTrack);
    EXPECT_EQ(str(span->name), "#1 resource lamp use by keeper");
    EXPECT_EQ(span->beginUs, 10);
    EXPECT_EQ(span->endUs, 25);
    EXPECT_EQ(str(span->outcome), "done");
    EXPECT_FALSE(span->failed);
    EXPECT_EQ(run.recorder().requestSpan(2), nullptr);
    EXPECT_EQ(run.recorder().requestsAnswered(), 1);

    const QVector<RunEvent>& events = run.recorder().events();
    ASSERT_FALSE(events.isEmpty());
    EXPECT_EQ(events.first().kind, Kind::Request);
    EXPECT_EQ(str(events.first().subject), "#1");
    EXPECT_EQ(str(events.first().detail), "resource lamp use by keeper");
    EXPECT_EQ(events.first().beginsSpan, span->id);
    ASSERT_GE(span->endEvent, 0);
    const RunEvent& answer = events.at(span->endEvent);
    EXPECT_EQ(answer.kind, Kind::Answer);
    EXPECT_EQ(str(answer.subject), "#1");
    EXPECT_EQ(str(answer.detail), "done");
    EXPECT_EQ(answer.endsSpan, span->id);
}

TEST(RunRecorderRequests, FailedAnswerMarksTheRequestSpanFailed)
{
    RecordedGraph run(graphOf({resourceEntry("lamp")}));
    ASSERT_TRUE(run.valid()) << str(run.failure());

    run.nowUs = 3;
    run.recorder().requestSent(9, QStringLiteral("resource lamp use by stranger"));
    run.nowUs = 8;
    run.recorder().requestAnswered(9, QStringLiteral("failed: Cannot add request for requested resource"), true);

    const Span* span = run.recorder().requestSpan(9);
    ASSERT_NE(span, nullptr);
    EXPECT_EQ(str(span->name), "#9 resource lamp use by stranger");
    EXPECT_EQ(span->beginUs, 3);
    EXPECT_EQ(span->endUs, 8);
    EXPECT_TRUE(span->failed);
    EXPECT_EQ(str(span->outcome), "failed: Cannot add request for requested resource");
}

// --- Keeping only what is open (a service's recorder) ------------------------------

namespace {

QStringList eventTexts(const QVector<RunEvent>& events)
{
    QStringList texts;
    for (const RunEvent& event : events)
        texts.append(QStringLiteral("%1 %2 %3 %4 begins %5 ends %6")
                         .arg(event.timeUs)
                         .arg(RunEvent::kindName(event.kind), event.subject, event.detail)
                         .arg(event.beginsSpan)
                         .arg(event.endsSpan));
    return texts;
}

// The keeper uses the lamp and releases it, each write answered later by
// the test; what the listener heard.
QStringList useAndRelease(bool keepOnlyWhatIsOpen, QStringList* keptAfterEach)
{
    RecordedGraph run(graphOf({resourceEntry("lamp")}), RecordedGraph::Answer::Later);
    if (!run.valid())
        return {};
    if (keepOnlyWhatIsOpen)
        run.recorder().keepOnlyWhatIsOpen();
    int number = 0;
    for (VelaPowerModuleActions::Enum action : {VelaPowerModuleActions::use, VelaPowerModuleActions::release}) {
        run.sendAt(10 * ++number, QStringLiteral("lamp"), QStringLiteral("keeper"), action);
        if (!run.holding(1))
            return {};
        keptAfterEach->append(QStringLiteral("open: %1 events").arg(run.recorder().events().size()));
        run.nowUs += 5;
        run.answer(0);
        if (!run.answered(number))
            return {};
        keptAfterEach->append(QStringLiteral("answered: %1 events, %2 spans, %3 sent")
                                  .arg(run.recorder().events().size())
                                  .arg(run.recorder().spans().size())
                                  .arg(run.recorder().requestsSent()));
    }
    return eventTexts(run.heard());
}

} // namespace

TEST(RunRecorderKeepingOnlyWhatIsOpen, LetsGoOfWhatIsPublishedAndEndedAndTellsTheListenerTheSame)
{
    QStringList keeping;
    const QStringList heardByKeeping = useAndRelease(false, &keeping);
    QStringList streaming;
    const QStringList heardByStreaming = useAndRelease(true, &streaming);

    ASSERT_FALSE(heardByKeeping.isEmpty());
    EXPECT_EQ(heardByStreaming, heardByKeeping) << "the same events, spans numbered on";
    ASSERT_EQ(streaming.size(), 4);
    EXPECT_EQ(streaming.at(0), QStringLiteral("open: 0 events")) << "published events go at once";
    EXPECT_EQ(streaming.at(1), QStringLiteral("answered: 0 events, 0 spans, 1 sent"));
    EXPECT_EQ(streaming.at(3), QStringLiteral("answered: 0 events, 0 spans, 2 sent"));
    EXPECT_NE(keeping.at(3), QStringLiteral("answered: 0 events, 0 spans, 2 sent")) << "a run keeps all";
}

// --- Writes -----------------------------------------------------------------------

TEST(RunRecorderWrites, WriteAnsweredAtOnceEndsItsSpanAtOnceAsDone)
{
    RecordedGraph run(graphOf({resourceEntry("lamp")}));
    ASSERT_TRUE(run.valid()) << str(run.failure());

    run.sendAt(70, "lamp", "keeper", VelaPowerModuleActions::use);
    ASSERT_TRUE(run.answered(1));

    const Span* write = onlyWriteSpan(run.recorder(), "lamp");
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(writeText(*write), "/lamp power = true 70..70 done");
    ASSERT_EQ(endEventText(run.recorder(), *write), "write /lamp power = true");
    const RunEvent& event = run.recorder().events().at(write->endEvent);
    EXPECT_EQ(event.beginsSpan, write->id);
    EXPECT_EQ(event.endsSpan, write->id);
}

TEST(RunRecorderWrites, WriteAnsweredLaterEndsAtTheAnswer)
{
    RecordedGraph run(graphOf({resourceEntry("lamp")}), RecordedGraph::Answer::Later);
    ASSERT_TRUE(run.valid()) << str(run.failure());

    run.sendAt(100, "lamp", "keeper", VelaPowerModuleActions::use);
    ASSERT_TRUE(run.holding(1));
    const Span* open = onlyWriteSpan(run.recorder(), "lamp");
    ASSERT_NE(open, nullptr);
    EXPECT_TRUE(open->isOpen());
    run.nowUs = 250;
    run.answer(0);
    ASSERT_TRUE(run.answered(1));

    const Span* write = onlyWriteSpan(run.recorder(), "lamp");
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(writeText(*write), "/lamp power = true 100..250 done");
    EXPECT_EQ(write->durationUs(), 150);
    ASSERT_EQ(endEventText(run.recorder(), *write), "answered /lamp power = true");
    EXPECT_EQ(run.recorder().events().at(write->endEvent).timeUs, 250);
}

TEST(RunRecorderWrites, RefusedWriteEndsAtTheLibrarysFailedActionRecordWithTheError)
{
    RecordedGraph run(graphOf({resourceEntry("lamp")}), RecordedGraph::Answer::Later);
    ASSERT_TRUE(run.valid()) << str(run.failure());

    run.sendAt(100, "lamp", "keeper", VelaPowerModuleActions::use);
    ASSERT_TRUE(run.holding(1));
    RecordedGraph::Held held = run.take(0);
    held.call.error = QStringLiteral("bus is busy");
    run.nowUs = 300;
    run.recorder().platformCall(PlatformCall::Failed, held.call);
    run.nowUs = 310;
    held.reply.setError(CMError(TrString(QStringLiteral("bus is busy"))));
    ASSERT_TRUE(run.answered(1));

    const Span* write = onlyWriteSpan(run.recorder(), "lamp");
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(writeText(*write), "/lamp power = true 100..310 bus is busy (failed)");
    EXPECT_EQ(endEventText(run.recorder(), *write), "error lamp failed to enable Message: bus is busy");
    // The platform's refusal is an event of its own, before it.
    EXPECT_EQ(countOf(run.recorder(), Kind::Fails), 1);
    EXPECT_EQ(countOf(run.recorder(), Kind::Fatal), 1);
    for (const RunEvent& event : run.recorder().events()) {
        if (event.kind == Kind::Fails) {
            EXPECT_EQ(event.timeUs, 300);
            EXPECT_EQ(str(event.detail), "power = true: bus is busy");
            EXPECT_EQ(event.endsSpan, 0);
        }
        if (event.kind == Kind::Fatal) {
            EXPECT_EQ(str(event.detail), "Failed to enable resource lamp, error: bus is busy");
        }
    }
}

TEST(RunRecorderWrites, WriteThatReachesNoOneGetsASpanOfNoLengthAtTheFailedRecord)
{
    RecordedGraph run(graphOf({resourceEntry("lamp")}));
    ASSERT_TRUE(run.valid()) << str(run.failure());
    run.leaveUnserved("/lamp");

    run.sendAt(40, "lamp", "keeper", VelaPowerModuleActions::use);
    ASSERT_TRUE(run.answered(1));

    const Span* write = onlyWriteSpan(run.recorder(), "lamp");
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(writeText(*write), "/lamp power = true 40..40 No set-data handler registered for path: /lamp (failed)");
    ASSERT_EQ(endEventText(run.recorder(), *write),
              "error lamp failed to enable Message: No set-data handler registered for path: /lamp");
    EXPECT_EQ(run.recorder().events().at(write->endEvent).beginsSpan, write->id);
    EXPECT_EQ(countOf(run.recorder(), Kind::Write), 0);
}

TEST(RunRecorderWrites, WriteNotAnsweredInTimeIsMarkedTimedOut)
{
    RecordedGraph run(graphOf({resourceEntry("lamp", {}, 0)}), RecordedGraph::Answer::Never);
    ASSERT_TRUE(run.valid()) << str(run.failure());

    run.sendAt(5, "lamp", "keeper", VelaPowerModuleActions::use);
    run.nowUs = 9;
    ASSERT_TRUE(run.answered(1));

    const Span* write = onlyWriteSpan(run.recorder(), "lamp");
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(writeText(*write),
              "/lamp power = true 5..9 " + str(CMVoidReply::ErrorTimeout()) + " (failed, timed out)");
    EXPECT_EQ(countOf(run.recorder(), Kind::Ignored), 1);
    EXPECT_EQ(endEventText(run.recorder(), *write),
              "error lamp failed to enable Message: " + str(CMVoidReply::ErrorTimeout()));
}

// --- Revoke messages ----------------------------------------------------------------

namespace {

// The media module's revoke message for `resource`, sent to `path` and
// named as the file's call owners name it.
PlatformCall revokeCall(const GraphFile& file, const QString& path, VelaPowerManagerResources::Enum resource)
{
    VelaPowerManagerRevokeMessage message;
    message.setModuleName(QStringLiteral("media"));
    message.setMessageType(VelaPowerManagerMessageTypes::revoke);
    message.setRevokeResources(VelaList<VelaPowerManagerResources::Enum>() << resource);
    PlatformCall call = PlatformCall::revokeMessage(path, message);
    CallOwners(file).name(&call);
    return call;
}

const QByteArray kMediaGraph = R"({"modules": [{"name": "media", "revokePath": "/media/revoke",
                                                "postRevokePath": "/media/after"}],
                                   "resources": [{"name": "audio"}]})";

} // namespace

TEST(RunRecorderMessages, MessageAnsweredAtOnceIsASpanOfNoLengthOnItsModulesTrack)
{
    RecordedGraph run(kMediaGraph);
    ASSERT_TRUE(run.valid()) << str(run.failure());
    PlatformCall call = revokeCall(run.file(), QStringLiteral("/media/after"), VelaPowerManagerResources::audio);
    call.answeredAtOnce = true;

    run.nowUs = 12;
    run.recorder().platformCall(PlatformCall::Arrived, call);

    const std::vector<const Span*> spans = spansOf(run.recorder(), Span::Message, "media");
    ASSERT_EQ(spans.size(), 1u);
    EXPECT_EQ(str(spans.front()->name), "postRevoke audio");
    EXPECT_EQ(str(spans.front()->path), "/media/after");
    EXPECT_EQ(spans.front()->beginUs, 12);
    EXPECT_EQ(spans.front()->endUs, 12);
    EXPECT_EQ(str(spans.front()->outcome), "done");
    ASSERT_EQ(run.recorder().events().size(), 1);
    EXPECT_EQ(run.recorder().events().first().kind, Kind::Message);
    EXPECT_EQ(str(run.recorder().events().first().subject), "/media/after");
}

TEST(RunRecorderMessages, MessagesAnsweredLaterEndInTheOrderTheyArrived)
{
    RecordedGraph run(kMediaGraph);
    ASSERT_TRUE(run.valid()) << str(run.failure());
    const PlatformCall first =
        revokeCall(run.file(), QStringLiteral("/media/revoke"), VelaPowerManagerResources::audio);
    const PlatformCall second =
        revokeCall(run.file(), QStringLiteral("/media/revoke"), VelaPowerManagerResources::wifi);

    run.nowUs = 1;
    run.recorder().platformCall(PlatformCall::Arrived, first);
    run.nowUs = 2;
    run.recorder().platformCall(PlatformCall::Arrived, second);
    run.nowUs = 30;
    run.recorder().platformCall(PlatformCall::Answered, first);

    const std::vector<const Span*> spans = spansOf(run.recorder(), Span::Message, "media");
    ASSERT_EQ(spans.size(), 2u);
    EXPECT_EQ(str(spans.at(0)->name), "revoke audio");
    EXPECT_EQ(spans.at(0)->beginUs, 1);
    EXPECT_EQ(spans.at(0)->endUs, 30);
    EXPECT_EQ(str(spans.at(0)->outcome), "done");
    EXPECT_EQ(str(spans.at(1)->name), "revoke wifi");
    EXPECT_TRUE(spans.at(1)->isOpen());
}

TEST(RunRecorderMessages, RefusedMessageEndsWithTheWholeErrorOfThePlatform)
{
    RecordedGraph run(kMediaGraph);
    ASSERT_TRUE(run.valid()) << str(run.failure());
    PlatformCall call = revokeCall(run.file(), QStringLiteral("/media/revoke"), VelaPowerManagerResources::audio);

    run.nowUs = 5;
    run.recorder().platformCall(PlatformCall::Arrived, call);
    call.error = QStringLiteral("media is busy: try again later");
    run.nowUs = 6;
    run.recorder().platformCall(PlatformCall::Failed, call);

    const std::vector<const Span*> spans = spansOf(run.recorder(), Span::Message, "media");
    ASSERT_EQ(spans.size(), 1u);
    EXPECT_EQ(spans.front()->endUs, 6);
    EXPECT_TRUE(spans.front()->failed);
    EXPECT_EQ(str(spans.front()->outcome), "media is busy: try again later");
}

// --- Transitions --------------------------------------------------------------------

namespace {

// top requires middle requires bottom; the keeper claims and releases top.
QByteArray chainOfThree()
{
    return graphOf({resourceEntry("top", {"middle"}), resourceEntry("middle", {"bottom"}), resourceEntry("bottom")});
}

} // namespace

TEST(RunRecorderTransitions, ChainOnAndOffGivesEveryNodeOneEnablingAndOneDisablingSpanOpenBeforeItsState)
{
    RecordedGraph run(chainOfThree(), RecordedGraph::Answer::Later);
    ASSERT_TRUE(run.valid()) << str(run.failure());
    // Each write waits until the clock has moved on by 100.
    const auto answerEachWriteAfter100 = [&](int writes) {
        for (int i = 0; i < writes; ++i) {
            if (!run.holding(1))
                return false;
            run.nowUs += 100;
            run.answer(0);
        }
        return true;
    };

    run.sendAt(100, "top", "keeper", VelaPowerModuleActions::use);
    ASSERT_TRUE(answerEachWriteAfter100(3));
    ASSERT_TRUE(run.answered(1));
    run.sendAt(500, "top", "keeper", VelaPowerModuleActions::release);
    ASSERT_TRUE(answerEachWriteAfter100(3));
    ASSERT_TRUE(run.answered(2));

    // Enabling runs from the claim until each node's own write is answered,
    // the deepest first; disabling from each node's own write, the top first.
    EXPECT_EQ(transitionsOf(run.recorder(), "top"),
              (std::vector<std::string>{"enabling 100..400 enabled", "disabling 500..600 disabled"}))
        << eventsText(run.recorder());
    EXPECT_EQ(transitionsOf(run.recorder(), "middle"),
              (std::vector<std::string>{"enabling 100..300 enabled", "disabling 600..700 disabled"}))
        << eventsText(run.recorder());
    EXPECT_EQ(transitionsOf(run.recorder(), "bottom"),
              (std::vector<std::string>{"enabling 100..200 enabled", "disabling 700..800 disabled"}))
        << eventsText(run.recorder());
    for (const Span& span : run.recorder().spans()) {
        if (span.kind == Span::Transition) {
            EXPECT_TRUE(endsAtItsStateEvent(run.recorder(), span)) << span.id;
        }
    }
    EXPECT_EQ(run.recorder().requestSpan(1)->endUs, 400);
    EXPECT_EQ(run.recorder().requestSpan(2)->endUs, 800);
}

TEST(RunRecorderTransitions, ChainAnsweredAtOnceStillOpensEachSpanBeforeTheStateThatClosesIt)
{
    TickingClock time;
    RecordedGraph run(chainOfThree(), time.clock());
    ASSERT_TRUE(run.valid()) << str(run.failure());

    ASSERT_TRUE(run.claimedAndReleased("top"));

    for (const QString node : {"top", "middle", "bottom"})
        ASSERT_TRUE(switchedOnThenOff(run.recorder(), node));
    // The top was on its way while the nodes below it switched, and left only
    // after they were on.
    const Span* topOn = spansOf(run.recorder(), Span::Transition, "top").at(0);
    const Span* bottomOn = spansOf(run.recorder(), Span::Transition, "bottom").at(0);
    EXPECT_LE(topOn->beginUs, bottomOn->beginUs);
    EXPECT_GT(topOn->endUs, bottomOn->endUs);
    const Span* topOff = spansOf(run.recorder(), Span::Transition, "top").at(1);
    const Span* bottomOff = spansOf(run.recorder(), Span::Transition, "bottom").at(1);
    EXPECT_LT(topOff->endUs, bottomOff->beginUs);
}

TEST(RunRecorderTransitions, NodeWithTwoRequiredNodesOpensOneSpanForEachOfThemEachWay)
{
    TickingClock time;
    RecordedGraph run(graphOf({resourceEntry("hub", {"left", "right"}), resourceEntry("left"), resourceEntry("right")}),
                      time.clock());
    ASSERT_TRUE(run.valid()) << str(run.failure());

    ASSERT_TRUE(run.claimedAndReleased("hub"));

    for (const QString node : {"hub", "left", "right"})
        ASSERT_TRUE(switchedOnThenOff(run.recorder(), node));
    const std::vector<const Span*> hub = spansOf(run.recorder(), Span::Transition, "hub");
    for (const QString node : {"left", "right"}) {
        const std::vector<const Span*> spans = spansOf(run.recorder(), Span::Transition, node);
        // Switched on while the hub was on its way; off once the hub was off.
        EXPECT_LE(hub.at(0)->beginUs, spans.at(0)->beginUs) << str(node);
        EXPECT_LT(spans.at(0)->endUs, hub.at(0)->endUs) << str(node);
        EXPECT_LT(hub.at(1)->endUs, spans.at(1)->beginUs) << str(node);
    }
}

// --- The end of a run -------------------------------------------------------------

TEST(RunRecorderFinish, SpansStillOpenEndAtTheRunsEndAsNeverAnswered)
{
    RecordedGraph run(graphOf({resourceEntry("lamp"), resourceEntry("fan")}));
    ASSERT_TRUE(run.valid()) << str(run.failure());
    run.answerAt("/lamp", RecordedGraph::Answer::Later);

    run.sendAt(10, "fan", "keeper", VelaPowerModuleActions::use);
    ASSERT_TRUE(run.answered(1));
    run.sendAt(20, "lamp", "keeper", VelaPowerModuleActions::use);
    ASSERT_TRUE(run.holding(1));
    run.nowUs = 999;
    run.recorder().finish();

    const QString never = QStringLiteral("no answer by the end of the run");
    const Span* open = run.recorder().requestSpan(2);
    ASSERT_NE(open, nullptr);
    EXPECT_EQ(open->endUs, 999);
    EXPECT_EQ(open->outcome, never);
    EXPECT_EQ(open->endEvent, -1);
    const Span* lampWrite = onlyWriteSpan(run.recorder(), "lamp");
    ASSERT_NE(lampWrite, nullptr);
    EXPECT_EQ(lampWrite->endUs, 999);
    EXPECT_EQ(lampWrite->outcome, never);
    const std::vector<const Span*> lampOn = spansOf(run.recorder(), Span::Transition, "lamp");
    ASSERT_EQ(lampOn.size(), 1u);
    EXPECT_EQ(str(lampOn.front()->name), "enabling");
    EXPECT_EQ(lampOn.front()->beginUs, 20);
    EXPECT_EQ(lampOn.front()->outcome, never);
    // What had ended keeps its end.
    EXPECT_EQ(run.recorder().requestSpan(1)->endUs, 10);
    EXPECT_EQ(str(run.recorder().requestSpan(1)->outcome), "done");
    for (const Span& span : run.recorder().spans())
        EXPECT_FALSE(span.isOpen()) << span.id;
}

// --- Work grows with the run, not with more ----------------------------------------

namespace {

struct ChainWork {
    int events = 0;
    int spans = 0;
    int writes = 0;
    int states = 0;
    int transitionSpans = 0;
    int writeSpans = 0;
    int requestSpans = 0;
    int nodesWithOneSpanEachWay = 0;
};

// A chain of `length` resources, each requiring the next, claimed at its top
// and released, every write answered at once.
ChainWork switchChainOnAndOff(int length)
{
    QList<QByteArray> resources;
    for (int i = 0; i < length; ++i) {
        const QString name = QStringLiteral("link%1").arg(i);
        resources.append(i + 1 < length ? resourceEntry(name, {QStringLiteral("link%1").arg(i + 1)})
                                        : resourceEntry(name));
    }
    TickingClock time;
    ChainWork work;
    RecordedGraph run(graphOf(resources), time.clock());
    EXPECT_TRUE(run.valid()) << str(run.failure());
    if (!run.valid())
        return work;
    EXPECT_TRUE(run.claimedAndReleased("link0"));

    const RunRecorder& recorder = run.recorder();
    work.events = recorder.events().size();
    work.spans = recorder.spans().size();
    work.writes = countOf(recorder, Kind::Write);
    work.states = countOf(recorder, Kind::State);
    QHash<QString, QStringList> transitions;
    for (const Span& span : recorder.spans()) {
        work.transitionSpans += span.kind == Span::Transition ? 1 : 0;
        work.writeSpans += span.kind == Span::Write ? 1 : 0;
        work.requestSpans += span.kind == Span::Request ? 1 : 0;
        if (span.kind == Span::Transition && !span.isOpen())
            transitions[span.track].append(span.name + "->" + span.outcome);
    }
    for (auto it = transitions.constBegin(); it != transitions.constEnd(); ++it) {
        if (it.value() == QStringList({"enabling->enabled", "disabling->disabled"}))
            ++work.nodesWithOneSpanEachWay;
    }
    return work;
}

void expectLinearWork(const ChainWork& work, int length)
{
    // Two requests and their answers; per node one write and one state each
    // way; spans: the requests, and per node two writes and two transitions.
    EXPECT_EQ(work.writes, 2 * length);
    EXPECT_EQ(work.states, 2 * length);
    EXPECT_EQ(work.events, 4 * length + 4);
    EXPECT_EQ(work.requestSpans, 2);
    EXPECT_EQ(work.writeSpans, 2 * length);
    EXPECT_EQ(work.transitionSpans, 2 * length);
    EXPECT_EQ(work.spans, 4 * length + 2);
    EXPECT_EQ(work.nodesWithOneSpanEachWay, length);
}

} // namespace

TEST(RunRecorderScale, ChainsOfTwoAndFourThousandGiveEventsAndSpansInProportionToTheirLength)
{
    // Trace records of thousands of nodes are not wanted here.
    const log4cplus::LogLevel previous = vela::powerManagerLogger().getLogLevel();
    vela::powerManagerLogger().setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
    const ChainWork shorter = switchChainOnAndOff(2000);
    expectLinearWork(shorter, 2000);
    const ChainWork longer = switchChainOnAndOff(4000);
    expectLinearWork(longer, 4000);
    EXPECT_EQ(longer.events - 4, 2 * (shorter.events - 4));
    EXPECT_EQ(longer.spans - 2, 2 * (shorter.spans - 2));
    vela::powerManagerLogger().setLogLevel(previous);
}
