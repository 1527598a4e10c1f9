// vela-power run's outputs: the trace, the events, the chart and the
// snapshot written from one record of the run; identical runs on simulated
// time; the wall clock on request; the summary's request durations.

#include "toolrun.h"

#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QXmlStreamReader>

#include <gtest/gtest.h>

namespace {

const QStringList exampleNodes{"backlight", "display", "touch",   "audio",   "wifi", "camera",
                               "storage",   "active",  "standby", "suspend", "off"};
const QStringList exampleModules{"ui", "media", "connectivity", "camera-app"};

// The example run once with every output file, in a directory of its own.
struct RecordedRun {
    QTemporaryDir directory;
    ToolRun run;

    explicit RecordedRun(const QString& graph = shippedExample(), const QStringList& extra = {})
    {
        run = runTool(QStringList{"run", "--trace", path("trace.json"), "--events", path("events.jsonl"), "--snapshot",
                                  path("snapshot.json"), "--plot", path("chart.svg")} +
                      extra + QStringList{graph});
    }
    QString path(const QString& name) const { return directory.filePath(name); }
    QByteArray read(const QString& name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QJsonArray traceEvents() const
    {
        return QJsonDocument::fromJson(read("trace.json")).object().value("traceEvents").toArray();
    }
    // The timeline's lines, without the summary after it.
    QStringList timeline() const
    {
        QStringList lines;
        for (const QByteArray& line : run.out.split('\n')) {
            if (line.startsWith('['))
                lines << QString::fromUtf8(line);
        }
        return lines;
    }
};

QHash<int, QString> threadNames(const QJsonArray& events)
{
    QHash<int, QString> names;
    for (const QJsonValue& value : events) {
        const QJsonObject event = value.toObject();
        if (event.value("ph").toString() == "M" && event.value("name").toString() == "thread_name")
            names.insert(event.value("tid").toInt(), event.value("args").toObject().value("name").toString());
    }
    return names;
}

QList<QJsonObject> spansOf(const QJsonArray& events, const QString& category)
{
    QList<QJsonObject> spans;
    for (const QJsonValue& value : events) {
        const QJsonObject event = value.toObject();
        if (event.value("ph").toString() == "X" && event.value("cat").toString() == category)
            spans << event;
    }
    return spans;
}

} // namespace

TEST(RunOutputs, TraceIsValidJsonWithOneTrackPerNodeAndModule)
{
    RecordedRun recorded;
    ASSERT_EQ(recorded.run.exitCode, 0) << recorded.run.err.toStdString();
    QJsonParseError error;
    const QJsonDocument trace = QJsonDocument::fromJson(recorded.read("trace.json"), &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
    const QJsonArray events = trace.object().value("traceEvents").toArray();
    ASSERT_FALSE(events.isEmpty());

    QStringList expected{"requests"};
    for (const QString& node : exampleNodes)
        expected << "node " + node;
    for (const QString& module : exampleModules)
        expected << "module " + module;
    QStringList tracks = threadNames(events).values();
    tracks.sort();
    expected.sort();
    EXPECT_EQ(tracks.join(", ").toStdString(), expected.join(", ").toStdString());
}

TEST(RunOutputs, EveryTraceSpanIsClosed)
{
    RecordedRun recorded;
    const QJsonArray events = recorded.traceEvents();
    QMap<QString, double> openRequests;
    int complete = 0;
    for (const QJsonValue& value : events) {
        const QJsonObject event = value.toObject();
        const QString phase = event.value("ph").toString();
        const QString key = event.value("cat").toString() + "/" + QString::number(event.value("id").toInt());
        if (phase == "X") {
            ++complete;
            EXPECT_TRUE(event.contains("dur")) << "complete span without duration";
            EXPECT_GE(event.value("dur").toDouble(-1), 0.0) << event.value("name").toString().toStdString();
        } else if (phase == "b") {
            EXPECT_FALSE(openRequests.contains(key)) << "span opened twice: " << key.toStdString();
            openRequests.insert(key, event.value("ts").toDouble());
        } else if (phase == "e") {
            ASSERT_TRUE(openRequests.contains(key)) << "span closed before it opened: " << key.toStdString();
            EXPECT_GE(event.value("ts").toDouble(), openRequests.take(key));
            EXPECT_TRUE(event.value("args").toObject().contains("answer"));
        }
    }
    EXPECT_TRUE(openRequests.isEmpty()) << "unclosed: " << openRequests.firstKey().toStdString();
    EXPECT_GT(complete, 0);
}

TEST(RunOutputs, TargetSwitchSpansFollowItsNodeChanges)
{
    // Request #6 (standby at 200 ms, done at 270 ms): the nodes'
    // transitions in the trace come in the order the timeline shows their
    // new states.
    RecordedRun recorded;
    const QStringList timeline = recorded.timeline();
    const int sent = timeline.indexOf(QRegularExpression(".*request   #6 target standby$"));
    const int answered = timeline.indexOf(QRegularExpression(".*answer    #6 done$"));
    ASSERT_GE(sent, 0);
    ASSERT_GT(answered, sent);
    QStringList changes;
    const QRegularExpression state("state     (\\S+) -> (\\S+)$");
    for (int index = sent; index < answered; ++index) {
        const QRegularExpressionMatch match = state.match(timeline.at(index));
        if (match.hasMatch())
            changes << match.captured(1) + " " + match.captured(2);
    }
    ASSERT_GE(changes.size(), 5) << timeline.join('\n').toStdString();

    const QJsonArray events = recorded.traceEvents();
    const QHash<int, QString> names = threadNames(events);
    QStringList spans;
    for (const QJsonObject& span : spansOf(events, "transition")) {
        const double end = span.value("ts").toDouble() + span.value("dur").toDouble();
        if (end >= 200000 && end <= 270000)
            spans << names.value(span.value("tid").toInt()).mid(QStringLiteral("node ").size()) + " " +
                         span.value("args").toObject().value("to").toString();
    }
    EXPECT_EQ(spans.join(", ").toStdString(), changes.join(", ").toStdString());
}

TEST(RunOutputs, TimedOutWriteSpanEndsAtItsTimeOut)
{
    // The camera's platform never answers; its writes time out after the
    // 50 ms the graph gives it.
    RecordedRun recorded;
    const QList<QJsonObject> writes = spansOf(recorded.traceEvents(), "write");
    int timedOut = 0;
    for (const QJsonObject& write : writes) {
        const QJsonObject arguments = write.value("args").toObject();
        if (!arguments.value("timedOut").toBool())
            continue;
        ++timedOut;
        EXPECT_EQ(arguments.value("path").toString(), "/hw/camera");
        EXPECT_EQ(write.value("dur").toDouble(), 50000.0);
        EXPECT_EQ(arguments.value("answer").toString(), "The operation timed out");
    }
    EXPECT_EQ(timedOut, 3);
}

TEST(RunOutputs, EventsFileMatchesTheTimelineLineByLine)
{
    RecordedRun recorded;
    const QStringList timeline = recorded.timeline();
    const QList<QByteArray> lines = recorded.read("events.jsonl").split('\n');
    ASSERT_EQ(lines.size(), timeline.size() + 1) << "one line per event and a final end of line";
    EXPECT_TRUE(lines.last().isEmpty());
    for (int index = 0; index < timeline.size(); ++index) {
        QJsonParseError error;
        const QJsonObject event = QJsonDocument::fromJson(lines.at(index), &error).object();
        ASSERT_EQ(error.error, QJsonParseError::NoError) << "line " << index + 1;
        const QString subject = event.value("subject").toString();
        const QString detail = event.value("detail").toString();
        const QString kind = event.value("kind").toString();
        const QString text = kind == "state"     ? subject + " -> " + detail
                             : subject.isEmpty() ? detail
                                                 : subject + " " + detail;
        const QString expected = QStringLiteral("[%1 ms] %2%3")
                                     .arg(static_cast<qint64>(event.value("time").toDouble()) / 1000, 6)
                                     .arg(kind, -10)
                                     .arg(text);
        EXPECT_EQ(expected, timeline.at(index)) << "line " << index + 1;
    }
}

TEST(RunOutputs, SnapshotFileIsTheFinalStateOfAllNodes)
{
    RecordedRun recorded;
    const QJsonObject snapshot = QJsonDocument::fromJson(recorded.read("snapshot.json")).object();
    QStringList nodes = snapshot.value("resources").toObject().keys() + snapshot.value("targets").toObject().keys();
    QStringList expected = exampleNodes;
    nodes.sort();
    expected.sort();
    EXPECT_EQ(nodes.join(", ").toStdString(), expected.join(", ").toStdString());
    EXPECT_EQ(snapshot.value("targets").toObject().value("active").toObject().value("isEnabled"), true);
    EXPECT_TRUE(recorded.run.out.contains("Final state of all nodes:\n" + recorded.read("snapshot.json")));
}

TEST(RunOutputs, ChartIsValidSvgWithOneRowPerNode)
{
    RecordedRun recorded;
    QXmlStreamReader svg(recorded.read("chart.svg"));
    QStringList nodeRows;
    int requestRows = 0;
    int marks = 0;
    while (!svg.atEnd()) {
        if (svg.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QString kind = svg.attributes().value("class").toString();
        if (svg.name() == QLatin1String("g") && kind == "node")
            nodeRows << svg.attributes().value("data-name").toString();
        requestRows += kind == "request" ? 1 : 0;
        marks += kind == "mark timed-out-write" ? 1 : 0;
    }
    ASSERT_FALSE(svg.hasError()) << svg.errorString().toStdString() << " at line " << svg.lineNumber();
    EXPECT_EQ(nodeRows.join(", ").toStdString(), exampleNodes.join(", ").toStdString());
    EXPECT_EQ(requestRows, 8);
    EXPECT_EQ(marks, 3);
}

TEST(RunOutputs, ChartRendersWithRsvgConvert)
{
    VELA_REQUIRE_DRAWING_PROGRAM("rsvg-convert");
    const QString converter = QStandardPaths::findExecutable("rsvg-convert");
    RecordedRun recorded;
    QProcess convert;
    convert.start(converter, {"-o", recorded.path("chart.png"), recorded.path("chart.svg")});
    ASSERT_TRUE(convert.waitForFinished(60000));
    EXPECT_EQ(convert.exitCode(), 0) << convert.readAllStandardError().toStdString();
    EXPECT_TRUE(QFile(recorded.path("chart.png")).size() > 0);
}

TEST(RunOutputs, TwoRunsOfTheExampleAreIdentical)
{
    RecordedRun first;
    RecordedRun second;
    ASSERT_EQ(first.run.exitCode, 0);
    EXPECT_EQ(first.run.out, second.run.out);
    for (const QString name : {"trace.json", "events.jsonl", "snapshot.json", "chart.svg"}) {
        EXPECT_FALSE(first.read(name).isEmpty()) << name.toStdString();
        EXPECT_EQ(first.read(name), second.read(name)) << name.toStdString();
    }
}

TEST(RunOutputs, NeverAnsweredWriteTimesOutAtExactlyFiveSecondsOfSimulatedTime)
{
    // Wall time is bounded by the test's CTest time-out, far below 5 s.
    const ToolRun run = runTool({"run", dataFile("run/never_answered_write.json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains("[     0 ms] write     /hw/lamp on = true\n")) << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("[  5000 ms] error     lamp failed to enable Message: The operation timed out\n"))
        << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("1 set-data writes failed, 1 of them timed out\n"));
}

TEST(RunOutputs, RealTimeStillRunsTheExample)
{
    const ToolRun run = runTool({"run", "--real-time", shippedExample()});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains("8 of 8 requests answered, 7 succeeded\n")) << run.out.toStdString();
    // On the wall clock the camera's time-out is 50 ms or a little more.
    const QRegularExpression timeOut("\\[ +(\\d+) ms\\] error     camera failed to disable");
    const QRegularExpressionMatch match = timeOut.match(QString::fromUtf8(run.out));
    ASSERT_TRUE(match.hasMatch());
    EXPECT_GE(match.captured(1).toInt(), 50);
}

TEST(RunOutputs, RevokeMessageWithThreeResourcesNamesAllThree)
{
    const ToolRun run = runTool({"run", dataFile("run/revoke_three_resources.json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains("message   /modules/player/revoke {messageType: 0, moduleName: player, "
                                 "revokeResources: [codec, amplifier, speaker]}\n"))
        << run.out.toStdString();
}

TEST(RunOutputs, SummaryGivesEachRequestsDurationAndLongestWait)
{
    const ToolRun run = runTool({"run", shippedExample()});
    EXPECT_TRUE(run.out.contains("  #4 resource camera use by camera-app: done after 130 ms; waited longest on the "
                                 "write to /hw/camera (camera, 50 ms, timed out)\n"))
        << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("  #5 target suspend: failed after 0 ms; no write or revoke message\n"));
    EXPECT_TRUE(run.out.contains("  #8 resource wifi use by connectivity: done after 30 ms; waited longest on the "
                                 "write to /hw/wifi (wifi, 30 ms)\n"));
}
