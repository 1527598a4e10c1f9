#include "tracewriter.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

namespace {

constexpr int processId = 1;

const char* categoryOf(RunRecorder::Span::Kind kind)
{
    switch (kind) {
    case RunRecorder::Span::Request:
        return "request";
    case RunRecorder::Span::Transition:
        return "transition";
    case RunRecorder::Span::Write:
        return "write";
    case RunRecorder::Span::Message:
        return "message";
    }
    return "";
}

QJsonObject argumentsOf(const RunRecorder::Span& span)
{
    QJsonObject arguments;
    if (span.kind == RunRecorder::Span::Transition) {
        arguments.insert(QStringLiteral("to"), span.outcome);
        return arguments;
    }
    arguments.insert(QStringLiteral("answer"), span.outcome);
    if (!span.path.isEmpty())
        arguments.insert(QStringLiteral("path"), span.path);
    if (span.kind != RunRecorder::Span::Request)
        arguments.insert(QStringLiteral("timedOut"), span.timedOut);
    return arguments;
}

// Spans in the order they ended (the order of the timeline's answers and
// state changes), those the run's end closed last.
QVector<RunRecorder::Span> inOrderOfTheirEnds(const RunRecorder& recorder)
{
    QVector<RunRecorder::Span> spans = recorder.spans();
    const int last = recorder.events().size();
    std::stable_sort(spans.begin(), spans.end(), [last](const RunRecorder::Span& a, const RunRecorder::Span& b) {
        return (a.endEvent < 0 ? last : a.endEvent) < (b.endEvent < 0 ? last : b.endEvent);
    });
    return spans;
}

} // namespace

QByteArray TraceWriter::write(const RunRecorder& recorder, const QString& runName)
{
    QJsonArray events;
    QHash<QString, int> threads;
    events.append(metadata("process_name", 0, QStringLiteral("vela-power run ") + runName));
    for (const RunRecorder::Track& track : recorder.tracks()) {
        const int thread = threads.size() + 1;
        threads.insert(track.name, thread);
        const QString prefix = track.kind == RunRecorder::Track::Module ? QStringLiteral("module ")
                               : track.kind == RunRecorder::Track::Node ? QStringLiteral("node ")
                                                                        : QString();
        events.append(metadata("thread_name", thread, prefix + track.name));
        QJsonObject order = metadata("thread_sort_index", thread, QString());
        order.insert(QStringLiteral("args"), QJsonObject{{QStringLiteral("sort_index"), thread}});
        events.append(order);
    }
    for (const RunRecorder::Span& span : inOrderOfTheirEnds(recorder)) {
        // A span on a path no node or module owns gets a track of its own.
        if (!threads.contains(span.track)) {
            const int thread = threads.size() + 1;
            threads.insert(span.track, thread);
            events.append(metadata("thread_name", thread, span.track));
        }
        const int thread = threads.value(span.track);
        if (span.kind == RunRecorder::Span::Request) {
            events.append(spanEvent(span, thread, "b"));
            QJsonObject end = spanEvent(span, thread, "e");
            end.insert(QStringLiteral("ts"), span.endUs);
            end.insert(QStringLiteral("args"), argumentsOf(span));
            events.append(end);
        } else {
            events.append(completeSpan(span, thread));
        }
    }
    for (const RunRecorder::Event& event : recorder.events()) {
        if (event.kind != RunEvent::Kind::Signal)
            continue;
        events.append(QJsonObject{{QStringLiteral("ph"), QStringLiteral("i")},
                                  {QStringLiteral("s"), QStringLiteral("t")},
                                  {QStringLiteral("cat"), QStringLiteral("signal")},
                                  {QStringLiteral("name"), QString(event.subject + ' ' + event.detail)},
                                  {QStringLiteral("ts"), event.timeUs},
                                  {QStringLiteral("pid"), processId},
                                  {QStringLiteral("tid"), threads.value(RunRecorder::requestTrack)}});
    }
    const QJsonObject trace{{QStringLiteral("traceEvents"), events},
                            {QStringLiteral("displayTimeUnit"), QStringLiteral("ms")}};
    return QJsonDocument(trace).toJson(QJsonDocument::Indented);
}

QJsonObject TraceWriter::spanEvent(const RunRecorder::Span& span, int thread, const char* phase)
{
    return QJsonObject{{QStringLiteral("ph"), QLatin1String(phase)},
                       {QStringLiteral("cat"), QLatin1String(categoryOf(span.kind))},
                       {QStringLiteral("id"), span.id},
                       {QStringLiteral("name"), span.name},
                       {QStringLiteral("ts"), span.beginUs},
                       {QStringLiteral("pid"), processId},
                       {QStringLiteral("tid"), thread}};
}

QJsonObject TraceWriter::completeSpan(const RunRecorder::Span& span, int thread)
{
    return QJsonObject{{QStringLiteral("ph"), QStringLiteral("X")},
                       {QStringLiteral("cat"), QLatin1String(categoryOf(span.kind))},
                       {QStringLiteral("name"), span.name},
                       {QStringLiteral("ts"), span.beginUs},
                       {QStringLiteral("dur"), span.durationUs()},
                       {QStringLiteral("pid"), processId},
                       {QStringLiteral("tid"), thread},
                       {QStringLiteral("args"), argumentsOf(span)}};
}

QJsonObject TraceWriter::metadata(const char* name, int thread, const QString& value)
{
    QJsonObject event{{QStringLiteral("ph"), QStringLiteral("M")},
                      {QStringLiteral("name"), QLatin1String(name)},
                      {QStringLiteral("pid"), processId},
                      {QStringLiteral("tid"), thread}};
    if (!value.isEmpty())
        event.insert(QStringLiteral("args"), QJsonObject{{QStringLiteral("name"), value}});
    return event;
}
