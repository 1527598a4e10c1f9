#include "dbusnames.h"

#include <QStringList>

namespace {

constexpr int longestName = 255;

bool isAsciiLetter(QChar c)
{
    return (c >= QLatin1Char('a') && c <= QLatin1Char('z')) || (c >= QLatin1Char('A') && c <= QLatin1Char('Z'));
}

bool isAsciiDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

// The elements of a dotted name: at least two, none empty, each of letters,
// digits, '_' and (when allowed) '-', not starting with a digit unless
// allowed.
QString dottedNameProblem(const QString& name, bool hyphens, bool leadingDigits)
{
    if (name.isEmpty())
        return QStringLiteral("empty");
    if (name.size() > longestName)
        return QStringLiteral("longer than %1 characters").arg(longestName);
    const QStringList elements = name.split(QLatin1Char('.'));
    if (elements.size() < 2)
        return QStringLiteral("needs at least two elements separated by '.'");
    for (const QString& element : elements) {
        if (element.isEmpty())
            return QStringLiteral("has an empty element");
        if (!leadingDigits && isAsciiDigit(element.at(0)))
            return QStringLiteral("has an element starting with a digit (%1)").arg(element);
        for (const QChar c : element) {
            if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != QLatin1Char('_') && !(hyphens && c == QLatin1Char('-')))
                return QStringLiteral("has the character '%1', which D-Bus does not allow there").arg(c);
        }
    }
    return QString();
}

} // namespace

QString DBusNames::busProblem(const QString& bus)
{
    if (bus == QLatin1String("system") || bus == QLatin1String("session"))
        return QString();
    // An address is a transport, a colon and its key=value pairs.
    const int colon = bus.indexOf(QLatin1Char(':'));
    if (colon <= 0)
        return QStringLiteral("is neither \"system\", \"session\" nor a bus address (such as unix:path=/run/bus)");
    return QString();
}

QString DBusNames::serviceProblem(const QString& name)
{
    if (name.startsWith(QLatin1Char(':')))
        return dottedNameProblem(name.mid(1), true, true);
    return dottedNameProblem(name, true, false);
}

QString DBusNames::objectPathProblem(const QString& path)
{
    if (path == QLatin1String("/"))
        return QString();
    if (!path.startsWith(QLatin1Char('/')))
        return QStringLiteral("does not start with '/'");
    if (path.endsWith(QLatin1Char('/')))
        return QStringLiteral("ends with '/'");
    for (const QString& element : path.mid(1).split(QLatin1Char('/'))) {
        if (element.isEmpty())
            return QStringLiteral("has an empty element ('//')");
        for (const QChar c : element) {
            if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != QLatin1Char('_'))
                return QStringLiteral("has the character '%1', which D-Bus does not allow in a path").arg(c);
        }
    }
    return QString();
}

QString DBusNames::interfaceProblem(const QString& name)
{
    return dottedNameProblem(name, false, false);
}
