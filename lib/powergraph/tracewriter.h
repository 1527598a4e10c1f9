#ifndef VELA_POWERGRAPH_TRACEWRITER_H
#define VELA_POWERGRAPH_TRACEWRITER_H

#include "runrecorder.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

/*
 * A recorded run in the Chrome trace-event format, which Perfetto
 * (ui.perfetto.dev) and chrome://tracing open. One process named after the
 * run; one thread per track: the request queue first, then every node, then
 * every module. Requests are asynchronous spans on the queue (several are
 * open at once); node transitions, writes and revoke messages are complete
 * spans on their node's or module's track; the target signals are instant
 * events on the queue. Times are microseconds since the run started. Spans
 * come in the order they ended, which is the order of the timeline.
 *
 *   QByteArray json = TraceWriter::write(recorder, "handheld.json");
 */
class TraceWriter
{
public:
    static QByteArray write(const RunRecorder& recorder, const QString& runName);

private:
    static QJsonObject spanEvent(const RunRecorder::Span& span, int thread, const char* phase);
    static QJsonObject completeSpan(const RunRecorder::Span& span, int thread);
    static QJsonObject metadata(const char* name, int thread, const QString& value);
};

#endif
