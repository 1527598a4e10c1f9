#include "eventswriter.h"

#include <QJsonDocument>
#include <QJsonObject>

QByteArray EventsWriter::write(const RunRecorder& recorder)
{
    QByteArray lines;
    for (const RunRecorder::Event& event : recorder.events()) {
        const QJsonObject object{{QStringLiteral("time"), event.timeUs},
                                 {QStringLiteral("kind"), RunEvent::kindName(event.kind)},
                                 {QStringLiteral("subject"), event.subject},
                                 {QStringLiteral("detail"), event.detail}};
        lines += QJsonDocument(object).toJson(QJsonDocument::Compact);
        lines += '\n';
    }
    return lines;
}
