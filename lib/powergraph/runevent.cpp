#include "runevent.h"

QString RunEvent::kindName(Kind kind)
{
    switch (kind) {
    case Kind::Request:
        return QStringLiteral("request");
    case Kind::Answer:
        return QStringLiteral("answer");
    case Kind::Reason:
        return QStringLiteral("reason");
    case Kind::Signal:
        return QStringLiteral("signal");
    case Kind::Write:
        return QStringLiteral("write");
    case Kind::Message:
        return QStringLiteral("message");
    case Kind::Answered:
        return QStringLiteral("answered");
    case Kind::Fails:
        return QStringLiteral("fails");
    case Kind::Ignored:
        return QStringLiteral("ignored");
    case Kind::State:
        return QStringLiteral("state");
    case Kind::Error:
        return QStringLiteral("error");
    case Kind::Fatal:
        return QStringLiteral("fatal");
    case Kind::Log:
        return QStringLiteral("log");
    case Kind::Skipped:
        return QStringLiteral("skipped");
    case Kind::Snapshot:
        return QStringLiteral("snapshot");
    }
    return QString();
}
