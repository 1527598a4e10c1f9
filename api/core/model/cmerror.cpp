#include "cmerror.h"

CMError::CMError(const QString& name, const TrString& message)
{
    insert(Name(), name);
    insert(Message(), QVariant::fromValue(message));
    insert(Title(), QVariant::fromValue(TrString(DefaultTitle())));
}

CMError::CMError(const TrString& message)
    : CMError(DefaultName(), message)
{
}

QString CMError::Name()
{
    return QStringLiteral("name");
}

QString CMError::Message()
{
    return QStringLiteral("message");
}

QString CMError::Title()
{
    return QStringLiteral("title");
}

QString CMError::DefaultName()
{
    return QStringLiteral("org.vela.Error.Failed");
}

QString CMError::DefaultTitle()
{
    return QStringLiteral("Error");
}

bool CMError::isError() const
{
    return !value(Name()).toString().isEmpty();
}

QString CMError::name() const
{
    return value(Name()).toString();
}

TrString CMError::message() const
{
    return value(Message()).value<TrString>();
}

TrString CMError::title() const
{
    return value(Title()).value<TrString>();
}
