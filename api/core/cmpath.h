#ifndef VELA_CMPATH_H
#define VELA_CMPATH_H

#include "vela_api_export.h"

#include <QHashFunctions>
#include <QMetaType>
#include <QString>

#include <ostream>

/**
 * The address of an object in the platform object tree, such as
 * "/modules/display/power". An empty path addresses nothing: no call is ever
 * made to it. Copied by value.
 */
class VELA_API_EXPORT CMPath
{
public:
    CMPath() = default;
    /// A path from its text form.
    CMPath(const QString& path) : m_path(path) {}
    /// A path from UTF-8 text.
    CMPath(const char* path) : m_path(QString::fromUtf8(path)) {}

    /// True for the empty path, which addresses nothing.
    bool isEmpty() const { return m_path.isEmpty(); }
    /// The text form, such as "/modules/display/power".
    QString toString() const { return m_path; }

    /// Same text.
    bool operator==(const CMPath& other) const { return m_path == other.m_path; }
    /// Different text.
    bool operator!=(const CMPath& other) const { return m_path != other.m_path; }

private:
    QString m_path;
};

inline uint qHash(const CMPath& path, uint seed = 0) noexcept
{
    return qHash(path.toString(), seed);
}

VELA_API_EXPORT std::ostream& operator<<(std::ostream& stream, const CMPath& path);

Q_DECLARE_METATYPE(CMPath)

#endif
