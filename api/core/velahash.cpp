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
        return stream << value.toString();
    }
}

std::ostream& operator<<(std::ostream& stream, const VelaHash& hash)
{
    writeVariantHash(stream, hash);
    return stream;
}
