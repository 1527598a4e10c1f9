#ifndef VELA_VELAHASH_H
#define VELA_VELAHASH_H

#include "vela_api_export.h"

#include <QHash>
#include <QString>
#include <QVariant>

#include <ostream>

/**
 * The platform's keyed value map: the storage of every API record and the
 * argument map of an invoked operation. A record is empty when the map holds
 * no entry at all.
 */
class VELA_API_EXPORT VelaHash : public QHash<QString, QVariant>
{
public:
    VelaHash() = default;
    /// A map holding the entries of `other`.
    VelaHash(const QHash<QString, QVariant>& other) : QHash<QString, QVariant>(other) {}
};

/**
 * Log form of a map: "{key: value, ...}" with the keys sorted, so that the
 * same record always prints the same line. Nested maps and lists print
 * recursively; other values print as their string conversion.
 */
VELA_API_EXPORT std::ostream& operator<<(std::ostream& stream, const VelaHash& hash);
VELA_API_EXPORT std::ostream& operator<<(std::ostream& stream, const QVariant& value);

#endif
