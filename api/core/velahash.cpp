#include "velahash.h"

#include "dbglog.h"

#include <QStringList>
#include <QVariantList>

#include <algorithm>

namespace {

void writeVariantHash(std::ostream& stream, const QVariantHash& hash)
{
    QStringList keys = hash.keys();
    std::sort(keys.begin(), keys.end());
    stream << '{';
    bool first = true;
    for (const QString& key : qAsConst(keys)) {
        if (!first)
            stream << ", ";
        first = false;
        stream << key << ": " << hash.value(key);
    }
    stream << '}';
}

void writeVariantList(std::ostream& stream, const QVariantList& list)
{
    stream << '[';
    bool first = true;
    for (const QVariant& value : list) {
        if (!first)
            stream << ", ";
        first = false;
        stream << value;
    }
    stream << ']';
}

// Strings and byte arrays convert to lists too (a string list of one), so
// they are tested first: they are text, not containers.
bool isText(const QVariant& value)
{
    return value.userType() == QMetaType::QString || value.userType() == QMetaType::QByteArray;
}

// Any other container a variant may carry (QStringList, QList<int>, QMap or
// QHash of registered types...) is written element by element: toString()
// knows only a few of them and gives "" for a string list of two or more.
std::ostream& writeOtherVariant(std::ostream& stream, const QVariant& value)
{
    if (!isText(value) && value.canConvert<QVariantList>()) {
        writeVariantList(stream, value.value<QVariantList>());
        return stream;
    }
    if (!isText(value) && value.canConvert<QVariantHash>()) {
        writeVariantHash(stream, value.value<QVariantHash>());
        return stream;
    }
    return stream << value.toString();
}

} // namespace

std::ostream& operator<<(std::ostream& stream, const QVariant& value)
{
    switch (static_cast<QMetaType::Type>(value.userType())) {
    case QMetaType::QVariantHash:
        writeVariantHash(stream, value.toHash());
        return stream;
    case QMetaType::QVariantList:
        writeVariantList(stream, value.toList());
        return stream;
    case QMetaType::QVariantMap: {
        const QVariantMap map = value.toMap();
        writeVariantHash(stream, QVariantHash(map.begin(), map.end()));
        return stream;
    }
    default:
        if (!value.isValid())
            return stream << "<invalid>";
        return writeOtherVariant(stream, value);
    }
}

std::ostream& operator<<(std::ostream& stream, const VelaHash& hash)
{
    writeVariantHash(stream, hash);
    return stream;
}
