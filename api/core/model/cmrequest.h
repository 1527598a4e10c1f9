#ifndef VELA_CMREQUEST_H
#define VELA_CMREQUEST_H

#include "cmpath.h"
#include "vela_api_export.h"

#include <QExplicitlySharedDataPointer>
#include <QString>
#include <QVariant>

class CMSetDataRequestData;

/**
 * A prepared write of one value: a path, a key and a value.
 *
 * Explicitly shared and nullable: copies share one data object (a change
 * through one copy is seen by all), and a default-constructed request is
 * null. Reading a null request is a programming error ("m_d"), and so is
 * changing one ("d()").
 */
class VELA_API_EXPORT CMSetDataRequest
{
public:
    /// A null request.
    CMSetDataRequest();
    /// A request to write `value` under `key` at `path`.
    CMSetDataRequest(const CMPath& path, const QString& key, const QVariant& value);
    /// Another handle on the data of `other`.
    CMSetDataRequest(const CMSetDataRequest& other);
    /// Makes this handle share the data of `other`.
    CMSetDataRequest& operator=(const CMSetDataRequest& other);
    ~CMSetDataRequest();

    /// True for a default-constructed request.
    bool isNull() const;
    /// Same shared data (or both null).
    bool operator==(const CMSetDataRequest& other) const;
    /// Different shared data.
    bool operator!=(const CMSetDataRequest& other) const { return !(*this == other); }

    /// The path written to.
    CMPath path() const;
    /// The key written.
    QString key() const;
    /// The value written.
    QVariant value() const;

    /// Changes the path, for every copy.
    void setPath(const CMPath& path);
    /// Changes the key, for every copy.
    void setKey(const QString& key);
    /// Changes the value, for every copy.
    void setValue(const QVariant& value);

private:
    CMSetDataRequestData* d();
    const CMSetDataRequestData* constData() const;

    QExplicitlySharedDataPointer<CMSetDataRequestData> m_d;
};

#endif
