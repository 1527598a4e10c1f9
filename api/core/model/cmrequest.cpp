#include "cmrequest.h"

#include "velaassert.h"

#include <QSharedData>

class CMSetDataRequestData : public QSharedData
{
public:
    CMPath path;
    QString key;
    QVariant value;
};

CMSetDataRequest::CMSetDataRequest() = default;

CMSetDataRequest::CMSetDataRequest(const CMPath& path, const QString& key, const QVariant& value)
    : m_d(new CMSetDataRequestData)
{
    m_d->path = path;
    m_d->key = key;
    m_d->value = value;
}

CMSetDataRequest::CMSetDataRequest(const CMSetDataRequest& other) = default;
CMSetDataRequest& CMSetDataRequest::operator=(const CMSetDataRequest& other) = default;
CMSetDataRequest::~CMSetDataRequest() = default;

bool CMSetDataRequest::isNull() const
{
    return !m_d;
}

bool CMSetDataRequest::operator==(const CMSetDataRequest& other) const
{
    return m_d == other.m_d;
}

const CMSetDataRequestData* CMSetDataRequest::constData() const
{
    VELA_ASSERT(m_d);
    return m_d.constData();
}

CMSetDataRequestData* CMSetDataRequest::d()
{
    CMSetDataRequestData* data = m_d.data();
    VELA_ASSERT_TEXT(data, "d()");
    return data;
}

CMPath CMSetDataRequest::path() const
{
    return constData()->path;
}

QString CMSetDataRequest::key() const
{
    return constData()->key;
}

QVariant CMSetDataRequest::value() const
{
    return constData()->value;
}

void CMSetDataRequest::setPath(const CMPath& path)
{
    d()->path = path;
}

void CMSetDataRequest::setKey(const QString& key)
{
    d()->key = key;
}

void CMSetDataRequest::setValue(const QVariant& value)
{
    d()->value = value;
}
