#include "trstring.h"

#include "dbglog.h"

namespace {
QString trStringToString(const TrString& text)
{
    return text.toString();
}
TrString stringToTrString(const QString& text)
{
    return TrString(text);
}

// Registered at load time so that every QVariant carrying a TrString can be
// named, compared and converted from the first reply on.
const struct TrStringRegistration {
    TrStringRegistration()
    {
        qRegisterMetaType<TrString>("TrString");
        QMetaType::registerConverter<TrString, QString>(&trStringToString);
        QMetaType::registerConverter<QString, TrString>(&stringToTrString);
    }
} trStringRegistration;
} // namespace

TrString::operator QVariant() const
{
    return QVariant::fromValue(*this);
}

std::ostream& operator<<(std::ostream& stream, const TrString& text)
{
    return stream << text.toString();
}
