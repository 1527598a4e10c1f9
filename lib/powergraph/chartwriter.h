#ifndef VELA_POWERGRAPH_CHARTWRITER_H
#define VELA_POWERGRAPH_CHARTWRITER_H

#include "runrecorder.h"

#include <QByteArray>
#include <QString>

class QXmlStreamWriter;

/*
 * A recorded run as an SVG chart in the spirit of a boot chart: time runs
 * left to right on a labelled axis; the requests are spans at the top, one
 * lane each; below them one row per node with a bar for each time it was
 * enabling or disabling and a mark for each write that failed or timed out;
 * then one row per module with a mark for each revoke message it got.
 *
 * Rows are groups with a class ("request", "node", "module") and the name
 * in a data-name attribute, so that a program can find them again.
 *
 *   QByteArray svg = ChartWriter::write(recorder, "handheld.json");
 */
class ChartWriter
{
public:
    static QByteArray write(const RunRecorder& recorder, const QString& runName);

private:
    struct Scale;

    static void writeRequests(QXmlStreamWriter& svg, const RunRecorder& recorder, const Scale& scale, int* top);
    static void writeTracks(QXmlStreamWriter& svg, const RunRecorder& recorder, const Scale& scale, int* top);
    static void writeSpan(QXmlStreamWriter& svg, const RunRecorder::Span& span, const Scale& scale, int top);
    static void writeAxis(QXmlStreamWriter& svg, const Scale& scale, int top, int height);
    static void writeLegend(QXmlStreamWriter& svg, int top);
};

#endif
