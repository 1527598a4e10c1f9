#include "safetext.h"

namespace {

QString escaped(QChar character)
{
    switch (character.unicode()) {
    case '\n':
        return QStringLiteral("\\n");
    case '\t':
        return QStringLiteral("\\t");
    case '\r':
        return QStringLiteral("\\r");
    case '"':
        return QStringLiteral("\\\"");
    case '\\':
        return QStringLiteral("\\\\");
    default:
        break;
    }
    if (!character.isPrint())
        return QStringLiteral("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
    return QString(character);
}

} // namespace

QString SafeText::problem(const QString& text, int maximumLength)
{
    if (text.isEmpty())
        return QStringLiteral("expected a non-empty string");
    if (text.size() > maximumLength)
        return QStringLiteral("longer than %1 characters").arg(maximumLength);
    for (int i = 0; i < text.size(); ++i) {
        // Surrogate halves are parts of one printable character, judged whole.
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            ++i;
            continue;
        }
        if (!text.at(i).isPrint())
            return QStringLiteral("character %1 at position %2 is not printable").arg(escaped(text.at(i))).arg(i + 1);
    }
    return QString();
}

QString SafeText::quoted(const QString& text)
{
    QString shown;
    const int length = qMin(text.size(), shownLength);
    for (int i = 0; i < length; ++i) {
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            shown += text.mid(i, 2);
            ++i;
            continue;
        }
        shown += escaped(text.at(i));
    }
    if (text.size() > shownLength)
        shown += QStringLiteral("...");
    return QLatin1Char('"') + shown + QLatin1Char('"');
}
