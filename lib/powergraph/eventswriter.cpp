#include "eventswriter.h"

#include <QJsonDocument>
#include <QJsonObject>

QByteArray EventsWriter::write(const RunRecorder& recorder)
{
    QByteArray lines;
    for (const RunRecorder::Event& event : recorder.events()) {
        lines += line(event);
        lines += '\n';
    }
    return lines;
}

QByteArray EventsWriter::line(const RunEvent& event)
{
    const QJsonObject object{{QStringLiteral("time"), event.timeUs},
                             {QStringLiteral("kind"), RunEvent::kindName(event.kind)},
                             {QStringLiteral("subject"), event.subject},
                             {QStringLiteral("detail"), event.detail}};
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}
