#include "timeline.h"

#include <cstring>

Timeline::Timeline(std::ostream& out, Flushing flushing)
    : m_out(out)
    , m_flushing(flushing)
{
}

// The same text as line(), written straight to the stream: a large run
// prints hundreds of thousands of lines.
void Timeline::print(const RunRecorder::Event& event)
{
    // "[%6lld ms] %-10s", without the cost of a format.
    char prefix[64];
    char digits[24];
    int count = 0;
    for (qint64 ms = event.timeUs / 1000; count == 0 || ms > 0; ms /= 10)
        digits[count++] = static_cast<char>('0' + ms % 10);
    int length = 0;
    prefix[length++] = '[';
    for (int pad = count; pad < 6; ++pad)
        prefix[length++] = ' ';
    while (count > 0)
        prefix[length++] = digits[--count];
    for (const char* text = " ms] "; *text; ++text)
        prefix[length++] = *text;
    const char* kind = RunEvent::kindText(event.kind);
    const int kindLength = static_cast<int>(std::strlen(kind));
    std::memcpy(prefix + length, kind, static_cast<size_t>(kindLength));
    length += kindLength;
    for (int pad = kindLength; pad < 10; ++pad)
        prefix[length++] = ' ';
    m_out.write(prefix, length);
    if (event.kind == RunEvent::Kind::State || !event.subject.isEmpty()) {
        const QByteArray subject = event.subject.toUtf8();
        m_out.write(subject.constData(), subject.size());
        m_out << (event.kind == RunEvent::Kind::State ? " -> " : " ");
    }
    const QByteArray detail = event.detail.toUtf8();
    m_out.write(detail.constData(), detail.size());
    m_out << '\n';
    if (m_flushing == Flushing::EachLine)
        m_out.flush();
}

QString Timeline::line(const RunRecorder::Event& event)
{
    return QLatin1Char('[') + QString::number(event.timeUs / 1000).rightJustified(6) + QLatin1String(" ms] ") +
           RunEvent::kindName(event.kind).leftJustified(10) + text(event);
}

QString Timeline::text(const RunRecorder::Event& event)
{
    if (event.kind == RunEvent::Kind::State)
        return event.subject + " -> " + event.detail;
    if (event.subject.isEmpty())
        return event.detail;
    return event.subject + ' ' + event.detail;
}
