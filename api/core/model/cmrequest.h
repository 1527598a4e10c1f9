#ifndef VELA_CMREQUEST_H
#define VELA_CMREQUEST_H

#include "cmpath.h"
#include "vela_api_export.h"

#include <QExplicitlySharedDataPointer>
#include <QString>
#include <QVariant>

class CMSetDataRequestData;

/*
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
    CMSetDataRequest();
    CMSetDataRequest(const CMPath& path, const QString& key, const QVariant& value);
    CMSetDataRequest(const CMSetDataRequest& other);
    CMSetDataRequest& operator=(const CMSetDataRequest& other);
    ~CMSetDataRequest();

    bool isNull() const;
    // Same shared data (or both null).
    bool operator==(const CMSetDataRequest& other) const;
    bool operator!=(const CMSetDataRequest& other) const { return !(*this == other); }

    CMPath path() const;
    QString key() const;
    QVariant value() const;

    void setPath(const CMPath& path);
    void setKey(const QString& key);
    void setValue(const QVariant& value);

private:
    CMSetDataRequestData* d();
    const CMSetDataRequestData* constData() const;

    QExplicitlySharedDataPointer<CMSetDataRequestData> m_d;
};

#endif
