#include "chartwriter.h"

#include <QXmlStreamWriter>

#include <algorithm>
#include <cmath>

namespace {

constexpr int labelWidth = 180;
constexpr int plotWidth = 900;
constexpr int rowHeight = 18;
constexpr int margin = 10;
constexpr int titleHeight = 30;
constexpr int axisHeight = 30;
constexpr int legendHeight = 24;
// Spans of no length (a write answered at once) still get a visible bar.
constexpr double minimumBarWidth = 2.0;

const char* colourOf(const RunRecorder::Span& span)
{
    if (span.kind == RunRecorder::Span::Request)
        return span.failed ? "#e9a3a3" : "#9ec5e8";
    if (span.kind == RunRecorder::Span::Transition)
        return span.name == QLatin1String("enabling") ? "#7cc47c" : "#f0a860";
    if (span.kind == RunRecorder::Span::Message)
        return "#5b6ee1";
    return span.failed ? "#d62728" : "#999999";
}

QString number(double value)
{
    return QString::number(value, 'f', 1);
}

// 1, 2 or 5 times a power of ten, giving about ten ticks over `totalMs`.
double tickStepMs(double totalMs)
{
    const double rough = totalMs / 10.0;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    for (double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= rough)
            return factor * power;
    }
    return 10.0 * power;
}

void rect(QXmlStreamWriter& svg, double x, double y, double width, double height, const char* fill)
{
    svg.writeEmptyElement(QStringLiteral("rect"));
    svg.writeAttribute(QStringLiteral("x"), number(x));
    svg.writeAttribute(QStringLiteral("y"), number(y));
    svg.writeAttribute(QStringLiteral("width"), number(width));
    svg.writeAttribute(QStringLiteral("height"), number(height));
    svg.writeAttribute(QStringLiteral("fill"), QLatin1String(fill));
}

void text(QXmlStreamWriter& svg, double x, double y, const QString& content, const char* anchor = "start")
{
    svg.writeStartElement(QStringLiteral("text"));
    svg.writeAttribute(QStringLiteral("x"), number(x));
    svg.writeAttribute(QStringLiteral("y"), number(y));
    svg.writeAttribute(QStringLiteral("text-anchor"), QLatin1String(anchor));
    svg.writeCharacters(content);
    svg.writeEndElement();
}

void title(QXmlStreamWriter& svg, const QString& content)
{
    svg.writeTextElement(QStringLiteral("title"), content);
}

// A mark for a failed write (a cross) or a revoke message (a diamond).
void mark(QXmlStreamWriter& svg, double x, double middle, bool cross, const char* colour)
{
    const double r = rowHeight / 3.0;
    svg.writeEmptyElement(QStringLiteral("path"));
    if (cross) {
        svg.writeAttribute(QStringLiteral("d"),
                           QStringLiteral("M%1 %2 L%3 %4 M%1 %4 L%3 %2")
                               .arg(number(x - r), number(middle - r), number(x + r), number(middle + r)));
        svg.writeAttribute(QStringLiteral("stroke"), QLatin1String(colour));
        svg.writeAttribute(QStringLiteral("stroke-width"), QStringLiteral("2"));
    } else {
        svg.writeAttribute(QStringLiteral("d"), QStringLiteral("M%1 %2 L%3 %4 L%1 %5 L%6 %4 Z")
                                                    .arg(number(x), number(middle - r), number(x + r), number(middle),
                                                         number(middle + r), number(x - r)));
        svg.writeAttribute(QStringLiteral("fill"), QLatin1String(colour));
    }
}

} // namespace

struct ChartWriter::Scale {
    double totalUs = 1000.0;

    double x(qint64 timeUs) const { return labelWidth + plotWidth * static_cast<double>(timeUs) / totalUs; }
};

QByteArray ChartWriter::write(const RunRecorder& recorder, const QString& runName)
{
    Scale scale;
    for (const RunRecorder::Span& span : recorder.spans())
        scale.totalUs = std::max(scale.totalUs, static_cast<double>(span.endUs));
    for (const RunRecorder::Event& event : recorder.events())
        scale.totalUs = std::max(scale.totalUs, static_cast<double>(event.timeUs));

    int requests = 0;
    for (const RunRecorder::Span& span : recorder.spans())
        requests += span.kind == RunRecorder::Span::Request ? 1 : 0;
    const int rows = requests + recorder.tracks().size() - 1;
    const int plotHeight = rows * rowHeight;
    const int width = labelWidth + plotWidth + 2 * margin;
    const int height = titleHeight + plotHeight + axisHeight + legendHeight + 2 * margin;

    QByteArray bytes;
    QXmlStreamWriter svg(&bytes);
    svg.setAutoFormatting(true);
    svg.writeStartDocument();
    svg.writeStartElement(QStringLiteral("svg"));
    svg.writeDefaultNamespace(QStringLiteral("http://www.w3.org/2000/svg"));
    svg.writeAttribute(QStringLiteral("width"), QString::number(width));
    svg.writeAttribute(QStringLiteral("height"), QString::number(height));
    svg.writeAttribute(QStringLiteral("viewBox"), QStringLiteral("0 0 %1 %2").arg(width).arg(height));
    svg.writeAttribute(QStringLiteral("font-family"), QStringLiteral("sans-serif"));
    svg.writeAttribute(QStringLiteral("font-size"), QStringLiteral("11"));
    rect(svg, 0, 0, width, height, "#ffffff");
    text(svg, margin, margin + 14, QStringLiteral("vela-power run ") + runName);

    int top = margin + titleHeight;
    text(svg, labelWidth - 6, top + 13, QStringLiteral("requests"), "end");
    writeRequests(svg, recorder, scale, &top);
    writeTracks(svg, recorder, scale, &top);
    writeAxis(svg, scale, margin + titleHeight, top);
    writeLegend(svg, top + axisHeight);
    svg.writeEndElement();
    svg.writeEndDocument();
    return bytes;
}

void ChartWriter::writeRequests(QXmlStreamWriter& svg, const RunRecorder& recorder, const Scale& scale, int* top)
{
    for (const RunRecorder::Span& span : recorder.spans()) {
        if (span.kind != RunRecorder::Span::Request)
            continue;
        svg.writeStartElement(QStringLiteral("g"));
        svg.writeAttribute(QStringLiteral("class"), QStringLiteral("request"));
        svg.writeAttribute(QStringLiteral("data-name"), span.name);
        rect(svg, labelWidth, *top, plotWidth, rowHeight, "#f4f7fb");
        writeSpan(svg, span, scale, *top);
        const double end = std::max(scale.x(span.endUs), scale.x(span.beginUs) + minimumBarWidth);
        // The label follows the bar unless it would leave the chart.
        if (end + 200 < labelWidth + plotWidth)
            text(svg, end + 4, *top + 13, span.name + " (" + span.outcome + ")");
        else
            text(svg, scale.x(span.beginUs) - 4, *top + 13, span.name + " (" + span.outcome + ")", "end");
        svg.writeEndElement();
        *top += rowHeight;
    }
}

void ChartWriter::writeTracks(QXmlStreamWriter& svg, const RunRecorder& recorder, const Scale& scale, int* top)
{
    int row = 0;
    for (const RunRecorder::Track& track : recorder.tracks()) {
        if (track.kind == RunRecorder::Track::Requests)
            continue;
        const bool isNode = track.kind == RunRecorder::Track::Node;
        svg.writeStartElement(QStringLiteral("g"));
        svg.writeAttribute(QStringLiteral("class"), isNode ? QStringLiteral("node") : QStringLiteral("module"));
        svg.writeAttribute(QStringLiteral("data-name"), track.name);
        rect(svg, margin, *top, labelWidth + plotWidth - margin, rowHeight, row++ % 2 ? "#f7f7f7" : "#ffffff");
        text(svg, labelWidth - 6, *top + 13, (isNode ? QString() : QStringLiteral("module ")) + track.name, "end");
        for (const RunRecorder::Span& span : recorder.spans()) {
            if (span.track == track.name)
                writeSpan(svg, span, scale, *top);
        }
        svg.writeEndElement();
        *top += rowHeight;
    }
}

// A bar for a request or transition; a mark for a revoke message or a failed
// write; nothing for a write that went well (the transition around it shows).
void ChartWriter::writeSpan(QXmlStreamWriter& svg, const RunRecorder::Span& span, const Scale& scale, int top)
{
    const double begin = scale.x(span.beginUs);
    const double middle = top + rowHeight / 2.0;
    const QString tooltip = QStringLiteral("%1 %2: %3 ms to %4 ms, %5")
                                .arg(span.track, span.name)
                                .arg(number(span.beginUs / 1000.0), number(span.endUs / 1000.0), span.outcome);
    if (span.kind == RunRecorder::Span::Request || span.kind == RunRecorder::Span::Transition) {
        const double width = std::max(scale.x(span.endUs) - begin, minimumBarWidth);
        svg.writeStartElement(QStringLiteral("rect"));
        svg.writeAttribute(QStringLiteral("class"), span.kind == RunRecorder::Span::Request
                                                        ? QStringLiteral("request-span")
                                                        : QStringLiteral("bar ") + span.name);
        svg.writeAttribute(QStringLiteral("x"), number(begin));
        svg.writeAttribute(QStringLiteral("y"), number(top + 3));
        svg.writeAttribute(QStringLiteral("width"), number(width));
        svg.writeAttribute(QStringLiteral("height"), number(rowHeight - 6));
        svg.writeAttribute(QStringLiteral("fill"), QLatin1String(colourOf(span)));
        title(svg, tooltip);
        svg.writeEndElement();
        return;
    }
    if (span.kind == RunRecorder::Span::Write && !span.failed)
        return;
    svg.writeStartElement(QStringLiteral("g"));
    svg.writeAttribute(QStringLiteral("class"), span.kind == RunRecorder::Span::Message ? QStringLiteral("mark message")
                                                : span.timedOut ? QStringLiteral("mark timed-out-write")
                                                                : QStringLiteral("mark failed-write"));
    title(svg, tooltip);
    // A dashed line from the call to its answer or failure, then the mark:
    // a diamond where a message arrived, a cross where a write failed.
    const double end = scale.x(span.endUs);
    svg.writeEmptyElement(QStringLiteral("line"));
    svg.writeAttribute(QStringLiteral("x1"), number(begin));
    svg.writeAttribute(QStringLiteral("x2"), number(end));
    svg.writeAttribute(QStringLiteral("y1"), number(middle));
    svg.writeAttribute(QStringLiteral("y2"), number(middle));
    svg.writeAttribute(QStringLiteral("stroke"), QLatin1String(colourOf(span)));
    svg.writeAttribute(QStringLiteral("stroke-dasharray"), QStringLiteral("3 2"));
    if (span.kind == RunRecorder::Span::Message)
        mark(svg, begin, middle, false, colourOf(span));
    else
        mark(svg, end, middle, true, colourOf(span));
    svg.writeEndElement();
}

void ChartWriter::writeAxis(QXmlStreamWriter& svg, const Scale& scale, int plotTop, int plotBottom)
{
    svg.writeStartElement(QStringLiteral("g"));
    svg.writeAttribute(QStringLiteral("class"), QStringLiteral("axis"));
    const double totalMs = scale.totalUs / 1000.0;
    const double step = tickStepMs(totalMs);
    for (double ms = 0; ms <= totalMs + step / 1000.0; ms += step) {
        const double x = scale.x(static_cast<qint64>(std::llround(ms * 1000.0)));
        svg.writeEmptyElement(QStringLiteral("line"));
        svg.writeAttribute(QStringLiteral("x1"), number(x));
        svg.writeAttribute(QStringLiteral("x2"), number(x));
        svg.writeAttribute(QStringLiteral("y1"), number(plotTop));
        svg.writeAttribute(QStringLiteral("y2"), number(plotBottom + 4));
        svg.writeAttribute(QStringLiteral("stroke"), QStringLiteral("#cccccc"));
        text(svg, x, plotBottom + 16, QString::number(ms, 'g', 10) + " ms", "middle");
    }
    svg.writeEndElement();
}

void ChartWriter::writeLegend(QXmlStreamWriter& svg, int top)
{
    svg.writeStartElement(QStringLiteral("g"));
    svg.writeAttribute(QStringLiteral("class"), QStringLiteral("legend"));
    double x = labelWidth;
    const double middle = top + rowHeight / 2.0;
    const struct {
        const char* colour;
        const char* label;
        int shape; // 0 bar, 1 cross, 2 diamond
    } entries[] = {{"#9ec5e8", "request", 0},
                   {"#7cc47c", "enabling", 0},
                   {"#f0a860", "disabling", 0},
                   {"#d62728", "failed or timed-out write", 1},
                   {"#5b6ee1", "revoke message", 2}};
    for (const auto& entry : entries) {
        if (entry.shape == 0)
            rect(svg, x, top + 3, 18, rowHeight - 6, entry.colour);
        else
            mark(svg, x + 9, middle, entry.shape == 1, entry.colour);
        text(svg, x + 24, top + 13, QLatin1String(entry.label));
        x += 40 + 7 * static_cast<double>(qstrlen(entry.label));
    }
    svg.writeEndElement();
}
