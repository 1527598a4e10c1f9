#include "velapowerenums.h"

#include <QHash>
#include <QReadLocker>
#include <QReadWriteLock>
#include <QWriteLocker>

namespace {

QString unknownText(int value)
{
    return QStringLiteral("unknown(%1)").arg(value);
}

template <std::size_t N>
QString nameOf(const char* const (&names)[N], int value)
{
    if (value >= 0 && static_cast<std::size_t>(value) < N)
        return QString::fromLatin1(names[value]);
    return unknownText(value);
}

// Value <-> name table of one opaque enumeration (targets or resources).
class NameRegistry
{
public:
    NameRegistry(const char* fallbackPrefix, std::initializer_list<std::pair<int, const char*>> builtIn)
        : m_fallbackPrefix(QString::fromLatin1(fallbackPrefix))
    {
        for (const auto& entry : builtIn)
            insertLocked(entry.first, QString::fromLatin1(entry.second));
    }

    QString name(int value) const
    {
        QReadLocker locker(&m_lock);
        const auto found = m_names.constFind(value);
        if (found != m_names.constEnd())
            return found.value();
        return m_fallbackPrefix + QString::number(value);
    }

    bool registerName(int value, const QString& name)
    {
        if (name.isEmpty())
            return false;
        QWriteLocker locker(&m_lock);
        const auto owner = m_values.constFind(name);
        if (owner != m_values.constEnd() && owner.value() != value)
            return false;
        m_values.remove(m_names.value(value));
        insertLocked(value, name);
        return true;
    }

    bool value(const QString& name, int* value) const
    {
        QReadLocker locker(&m_lock);
        const auto found = m_values.constFind(name);
        if (found == m_values.constEnd())
            return false;
        *value = found.value();
        return true;
    }

private:
    void insertLocked(int value, const QString& name)
    {
        m_names.insert(value, name);
        m_values.insert(name, value);
    }

    const QString m_fallbackPrefix;
    mutable QReadWriteLock m_lock;
    QHash<int, QString> m_names;
    QHash<QString, int> m_values;
};

NameRegistry& targetNames()
{
    static NameRegistry registry("target",
                                 {{0, "off"}, {1, "suspend"}, {2, "standby"}, {3, "active"}, {4, "performance"}});
    return registry;
}

NameRegistry& resourceNames()
{
    static NameRegistry registry("resource", {{0, "display"},
                                              {1, "backlight"},
                                              {2, "audio"},
                                              {3, "network"},
                                              {4, "wifi"},
                                              {5, "bluetooth"},
                                              {6, "storage"},
                                              {7, "usb"},
                                              {8, "camera"},
                                              {9, "gpu"},
                                              {10, "cpuPerformance"},
                                              {11, "sensors"}});
    return registry;
}

} // namespace

QString VelaPowerNodeStates::toString(Enum state)
{
    static const char* const names[] = {"initial", "enabling", "enabled", "disabling", "disabled"};
    return nameOf(names, state);
}

QString VelaPowerModuleActions::toString(Enum action)
{
    static const char* const names[] = {"hold", "use", "release"};
    return nameOf(names, action);
}

bool VelaPowerModuleActions::fromString(const QString& text, Enum* action)
{
    for (Enum candidate : {hold, use, release}) {
        if (toString(candidate) == text) {
            *action = candidate;
            return true;
        }
    }
    return false;
}

QString VelaPowerManagerMessageTypes::toString(Enum type)
{
    static const char* const names[] = {"revoke", "postRevoke"};
    return nameOf(names, type);
}

QString VelaPowerManagerTargets::toString(Enum target)
{
    return targetNames().name(target);
}

bool VelaPowerManagerTargets::registerName(Enum target, const QString& name)
{
    return targetNames().registerName(target, name);
}

bool VelaPowerManagerTargets::fromString(const QString& name, Enum* target)
{
    int value = 0;
    if (!targetNames().value(name, &value))
        return false;
    *target = static_cast<Enum>(value);
    return true;
}

QString VelaPowerManagerResources::toString(Enum resource)
{
    return resourceNames().name(resource);
}

bool VelaPowerManagerResources::registerName(Enum resource, const QString& name)
{
    return resourceNames().registerName(resource, name);
}

bool VelaPowerManagerResources::fromString(const QString& name, Enum* resource)
{
    int value = 0;
    if (!resourceNames().value(name, &value))
        return false;
    *resource = static_cast<Enum>(value);
    return true;
}

QString VelaPowerManagerName()
{
    return QStringLiteral("PowerManager");
}
