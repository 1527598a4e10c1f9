#include "runevent.h"

namespace {

// By kind, in the order of the enumeration.
const char* const kindNames[] = {
    "request", "answer", "reason", "signal", "write", "message", "answered", "fails",
    "ignored", "state",  "error",  "fatal",  "log",   "skipped", "snapshot",
};
static_assert(sizeof kindNames / sizeof kindNames[0] == static_cast<int>(RunEvent::Kind::Snapshot) + 1,
              "every kind of event has a name");

} // namespace

const char* RunEvent::kindText(Kind kind)
{
    return kindNames[static_cast<int>(kind)];
}

QString RunEvent::kindName(Kind kind)
{
    return QString::fromLatin1(kindText(kind));
}

bool RunEvent::kindOfName(const QString& name, Kind* kind)
{
    for (int index = 0; index <= static_cast<int>(Kind::Snapshot); ++index) {
        if (name == QLatin1String(kindNames[index])) {
            *kind = static_cast<Kind>(index);
            return true;
        }
    }
    return false;
}
