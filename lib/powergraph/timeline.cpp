#include "timeline.h"

Timeline::Timeline(std::ostream& out)
    : m_out(out)
{
}

void Timeline::print(const RunRecorder::Event& event)
{
    m_out << line(event).toStdString() << '\n';
    m_out.flush();
}

QString Timeline::line(const RunRecorder::Event& event)
{
    return QStringLiteral("[%1 ms] %2%3").arg(event.timeUs / 1000, 6).arg(RunEvent::kindName(event.kind), -10).arg(text(event));
}

QString Timeline::text(const RunRecorder::Event& event)
{
    if (event.kind == RunEvent::Kind::State)
        return event.subject + " -> " + event.detail;
    if (event.subject.isEmpty())
        return event.detail;
    return event.subject + ' ' + event.detail;
}
