#ifndef VELA_CMERROR_H
#define VELA_CMERROR_H

#include "trstring.h"
#include "vela_api_export.h"

#include <QHash>
#include <QString>
#include <QVariant>

/**
 * The error of a reply: a key/value map with three well-known keys, Name(),
 * Message() and Title().
 *
 * A reply has failed exactly when the value under Name(), read as a string,
 * is not empty. isError() is that test and the only one: an error map without
 * entries, or with a message or title but an empty name, is a success.
 */
class VELA_API_EXPORT CMError : public QHash<QString, QVariant>
{
public:
    CMError() = default;
    /// An error holding exactly `entries`.
    CMError(const QHash<QString, QVariant>& entries) : QHash<QString, QVariant>(entries) {}
    /// Name and message; the title is DefaultTitle().
    CMError(const QString& name, const TrString& message);
    /// Message alone; the name is DefaultName() and the title DefaultTitle().
    explicit CMError(const TrString& message);

    /// The key of the error's name; a non-empty name means failure.
    static QString Name();
    /// The key of the error's message (a TrString).
    static QString Message();
    /// The key of the error's title (a TrString).
    static QString Title();
    /// The name given when only a message is.
    static QString DefaultName();
    /// The title given by the constructors that take a message.
    static QString DefaultTitle();

    /// True when the value under Name(), read as a string, is not empty: the one test of failure.
    bool isError() const;
    /// The value under Name(), as a string; empty for a success.
    QString name() const;
    /// The TrString under Message(); empty when absent or not convertible.
    TrString message() const;
    /// The TrString under Title(); empty when absent or not convertible.
    TrString title() const;
};

#endif
