#ifndef VELA_CMERROR_H
#define VELA_CMERROR_H

#include "trstring.h"
#include "vela_api_export.h"

#include <QHash>
#include <QString>
#include <QVariant>

/*
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
    CMError(const QHash<QString, QVariant>& entries) : QHash<QString, QVariant>(entries) {}
    // Name and message; the title is DefaultTitle().
    CMError(const QString& name, const TrString& message);
    // Message alone; the name is DefaultName() and the title DefaultTitle().
    explicit CMError(const TrString& message);

    static QString Name();
    static QString Message();
    static QString Title();
    static QString DefaultName();
    static QString DefaultTitle();

    bool isError() const;
    QString name() const;
    // The TrString under Message(); empty when absent or not convertible.
    TrString message() const;
    TrString title() const;
};

#endif
