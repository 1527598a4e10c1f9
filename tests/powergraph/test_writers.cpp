// The writers of a recorded run, the snapshot and the verifier, in process:
// a small recorder filled by hand (no library, no platform) and small graphs
// parsed from text.

#include "chartwriter.h"
#include "eventswriter.h"
#include "graphfile.h"
#include "graphverifier.h"
#include "runrecorder.h"
#include "snapshot.h"
#include "timeline.h"
#include "tracewriter.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QXmlStreamReader>

#include <gtest/gtest.h>

#include <sstream>

namespace {

GraphFile parsed(const char* json)
{
    GraphFile file;
    GraphFile::Failure failure;
    EXPECT_TRUE(GraphFile::parse(QByteArray(json), QStringLiteral("writers.json"), &file, &failure,
                                 GraphFile::Naming::CheckOnly))
        << failure.message().toStdString();
    return file;
}

const char* const lampGraph = R"({"modules": [{"name": "reader", "revokePath": "/reader/revoke"}],
  "resources": [{"name": "lamp", "enable": {"path": "/hw/lamp", "key": "on", "value": true}}]})";

// A run of one request whose write is answered 30 ms later, on a clock the
// test sets.
struct RecordedRun {
    RecordedRun()
        : file(parsed(lampGraph))
        , recorder(
              file, [this]() { return nowUs; }, [this](const RunEvent& event) { published.append(event); })
    {
        recorder.requestSent(1, QStringLiteral("resource lamp use by reader"));
        PlatformCall write = PlatformCall::write(QStringLiteral("/hw/lamp"), QStringLiteral("on"), true);
        write.resource = QStringLiteral("lamp");
        recorder.platformCall(PlatformCall::Arrived, write);
        nowUs = 30000;
        recorder.platformCall(PlatformCall::Answered, write);
        recorder.add(RunEvent::Kind::Signal, QStringLiteral("targetChanged"), QStringLiteral("on"));
        recorder.requestAnswered(1, QStringLiteral("done"), false);
        recorder.finish();
    }

    GraphFile file;
    qint64 nowUs = 0;
    QVector<RunEvent> published;
    RunRecorder recorder;
};

} // namespace

TEST(Timeline, LinesGiveTheTimeTheKindAndTheText)
{
    RecordedRun run;
    std::ostringstream out;
    Timeline timeline(out, Timeline::Flushing::WhenFull);
    for (const RunEvent& event : run.published)
        timeline.print(event);
    EXPECT_EQ(out.str(), "[     0 ms] request   #1 resource lamp use by reader\n"
                         "[     0 ms] write     /hw/lamp on = true\n"
                         "[    30 ms] answered  /hw/lamp on = true\n"
                         "[    30 ms] signal    targetChanged on\n"
                         "[    30 ms] answer    #1 done\n");
    // One text, whether printed or asked for.
    EXPECT_EQ(Timeline::line(run.published.at(1)), QStringLiteral("[     0 ms] write     /hw/lamp on = true"));
}

TEST(EventsWriter, OneJsonObjectPerEventWithTimeKindSubjectAndDetail)
{
    RecordedRun run;
    const QList<QByteArray> lines = EventsWriter::write(run.recorder).split('\n');
    ASSERT_EQ(lines.size(), 6);
    EXPECT_TRUE(lines.last().isEmpty());
    const QJsonObject answered = QJsonDocument::fromJson(lines.at(2)).object();
    EXPECT_EQ(answered.value(QStringLiteral("time")).toInt(), 30000);
    EXPECT_EQ(answered.value(QStringLiteral("kind")).toString(), QStringLiteral("answered"));
    EXPECT_EQ(answered.value(QStringLiteral("subject")).toString(), QStringLiteral("/hw/lamp"));
    EXPECT_EQ(answered.value(QStringLiteral("detail")).toString(), QStringLiteral("on = true"));
}

TEST(TraceWriter, SpansBecomeTraceEventsOnTheirTracks)
{
    RecordedRun run;
    const QJsonObject trace = QJsonDocument::fromJson(TraceWriter::write(run.recorder, QStringLiteral("run"))).object();
    const QJsonArray events = trace.value(QStringLiteral("traceEvents")).toArray();
    QJsonObject write;
    QJsonObject signal;
    for (const QJsonValue& value : events) {
        const QJsonObject event = value.toObject();
        if (event.value(QStringLiteral("cat")).toString() == QLatin1String("write"))
            write = event;
        if (event.value(QStringLiteral("cat")).toString() == QLatin1String("signal"))
            signal = event;
    }
    ASSERT_FALSE(write.isEmpty()) << QJsonDocument(trace).toJson().toStdString();
    EXPECT_EQ(write.value(QStringLiteral("ts")).toInt(), 0);
    EXPECT_EQ(write.value(QStringLiteral("dur")).toInt(), 30000);
    EXPECT_EQ(write.value(QStringLiteral("args")).toObject().value(QStringLiteral("path")).toString(),
              QStringLiteral("/hw/lamp"));
    EXPECT_EQ(signal.value(QStringLiteral("name")).toString(), QStringLiteral("targetChanged on"));
    EXPECT_EQ(signal.value(QStringLiteral("ts")).toInt(), 30000);
}

TEST(ChartWriter, DrawsAValidSvgWithARowPerRequestAndPerTrack)
{
    RecordedRun run;
    QXmlStreamReader svg(ChartWriter::write(run.recorder, QStringLiteral("run")));
    QStringList rows;
    while (!svg.atEnd()) {
        if (svg.readNext() == QXmlStreamReader::StartElement && svg.name() == QLatin1String("g"))
            rows.append(svg.attributes().value(QStringLiteral("data-name")).toString());
    }
    EXPECT_FALSE(svg.hasError()) << svg.errorString().toStdString();
    EXPECT_TRUE(rows.contains(QStringLiteral("#1 resource lamp use by reader"))) << rows.join(',').toStdString();
    EXPECT_TRUE(rows.contains(QStringLiteral("lamp"))) << rows.join(',').toStdString();
    EXPECT_TRUE(rows.contains(QStringLiteral("reader"))) << rows.join(',').toStdString();
}

TEST(GraphSnapshot, WrittenAndReadBackKeepStatesAndClaims)
{
    const QVariantHash nodes{
        {QStringLiteral("resources"),
         QVariantHash{{QStringLiteral("lamp"),
                       QVariantHash{{QStringLiteral("isEnabled"), true},
                                    {QStringLiteral("actions"),
                                     QVariantHash{{QStringLiteral("reader"), QStringLiteral("use")},
                                                  {QStringLiteral("other"), QStringLiteral("release")}}}}}}},
        {QStringLiteral("targets"), QVariantHash()}};
    GraphSnapshot snapshot;
    QString problem;
    ASSERT_TRUE(GraphSnapshot::read(GraphSnapshot::json(nodes), &snapshot, &problem)) << problem.toStdString();
    ASSERT_TRUE(snapshot.resources.contains(QStringLiteral("lamp")));
    EXPECT_TRUE(snapshot.resources.value(QStringLiteral("lamp")).enabled);
    // A module that released a node no longer claims it.
    EXPECT_EQ(snapshot.resources.value(QStringLiteral("lamp")).claims,
              (QMap<QString, QString>{{QStringLiteral("reader"), QStringLiteral("use")}}));
    EXPECT_FALSE(GraphSnapshot::read("[]", &snapshot, &problem));
    EXPECT_EQ(problem.toStdString(), "a snapshot is an object with \"targets\" and \"resources\" objects");
}

TEST(GraphVerifier, FindingsComeInFileOrderAndErrorLinesNameTheirPlace)
{
    const GraphFile file = parsed(R"({"resources": [
    {"name": "a", "requires": ["b"]},
    {"name": "b", "requires": ["a"]},
    {"name": "c", "requires": ["c"]}]})");
    const GraphVerifier verifier(file);
    QStringList codes;
    for (const Finding& finding : verifier.findings())
        codes.append(finding.code);
    EXPECT_EQ(codes, (QStringList{QStringLiteral("cycle"), QStringLiteral("self-edge")}));
    const QStringList lines = verifier.errorLines(QStringLiteral("g.json"));
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(lines.at(0).startsWith(QStringLiteral("g.json:3:32: error: cycle: "))) << lines.at(0).toStdString();
    EXPECT_TRUE(lines.at(1).startsWith(QStringLiteral("g.json:4:32: error: self-edge: "))) << lines.at(1).toStdString();
}
