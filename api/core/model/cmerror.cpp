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
    // Most errors are empty maps (every successful reply): no lookup at all.
    if (isEmpty())
        return false;
    const auto name = constFind(Name());
    if (name == cend())
        return false;
    // A name stored as a string is read in place instead of being converted.
    if (name->userType() == QMetaType::QString)
        return !static_cast<const QString*>(name->constData())->isEmpty();
    return !name->toString().isEmpty();
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
