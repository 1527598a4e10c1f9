#ifndef VELA_TRSTRING_H
#define VELA_TRSTRING_H

#include "vela_api_export.h"

#include <QMetaType>
#include <QString>
#include <QVariant>

#include <ostream>

/**
 * The platform's translatable string: the text of error messages and titles.
 * Registered as the meta-type "TrString" so that it can be read back out of
 * a QVariant; it converts to QString (and a QString converts to it) through
 * the meta-type system, so QVariant::toString() works on it.
 */
class VELA_API_EXPORT TrString
{
public:
    TrString() = default;
    /// A string with the given text.
    TrString(const QString& text) : m_text(text) {}
    /// A string with the given UTF-8 text.
    TrString(const char* text) : m_text(QString::fromUtf8(text)) {}

    /// The text.
    QString toString() const { return m_text; }
    /// True for an empty text.
    bool isEmpty() const { return m_text.isEmpty(); }
    /// The string as a QVariant of the "TrString" meta-type.
    operator QVariant() const;

    /// Same text.
    bool operator==(const TrString& other) const { return m_text == other.m_text; }
    /// Different text.
    bool operator!=(const TrString& other) const { return m_text != other.m_text; }

private:
    QString m_text;
};

Q_DECLARE_METATYPE(TrString)

VELA_API_EXPORT std::ostream& operator<<(std::ostream& stream, const TrString& text);

#endif
