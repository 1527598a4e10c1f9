#ifndef VELA_VELALIST_H
#define VELA_VELALIST_H

#include <QList>
#include <QVariant>
#include <QVariantList>

#include <initializer_list>

/**
 * The platform's list template: a QList of T that also converts to and from
 * the QVariantList in which records store it. Enumerations travel as their
 * integer values so that every peer can read them without knowing the type.
 */
template <typename T>
class VelaList : public QList<T>
{
public:
    VelaList() = default;
    /// A list of the given values.
    VelaList(std::initializer_list<T> values) : QList<T>(values) {}
    /// A list holding the elements of `other`.
    VelaList(const QList<T>& other) : QList<T>(other) {}

    /// The record form: one QVariant per element, enumerations as integers.
    QVariantList toVariantList() const
    {
        QVariantList result;
        result.reserve(this->size());
        for (const T& value : *this)
            result.append(toVariant(value));
        return result;
    }

    /// The list stored in a record's QVariantList (the reverse of toVariantList()).
    static VelaList<T> fromVariantList(const QVariantList& list)
    {
        VelaList<T> result;
        result.reserve(list.size());
        for (const QVariant& value : list)
            result.append(fromVariant(value));
        return result;
    }

private:
    template <typename U = T>
    static typename std::enable_if<std::is_enum<U>::value, QVariant>::type toVariant(const U& value)
    {
        return QVariant(static_cast<int>(value));
    }
    template <typename U = T>
    static typename std::enable_if<!std::is_enum<U>::value, QVariant>::type toVariant(const U& value)
    {
        return QVariant::fromValue(value);
    }
    template <typename U = T>
    static typename std::enable_if<std::is_enum<U>::value, U>::type fromVariant(const QVariant& value)
    {
        return static_cast<U>(value.toInt());
    }
    template <typename U = T>
    static typename std::enable_if<!std::is_enum<U>::value, U>::type fromVariant(const QVariant& value)
    {
        return value.value<U>();
    }
};

#endif
