// How variants reach log lines and the host program's timeline: every list
// and map is written element by element, whatever container carries it.

#include "velahash.h"

#include <QMap>
#include <QStringList>
#include <QVariant>

#include <gtest/gtest.h>

#include <sstream>

namespace {

std::string written(const QVariant& value)
{
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

} // namespace

TEST(VariantStream, StringListOfThreeWritesEveryName)
{
    EXPECT_EQ(written(QStringList({"display", "audio", "wifi"})), "[display, audio, wifi]");
}

TEST(VariantStream, StringListOfOneIsStillAList)
{
    EXPECT_EQ(written(QStringList({"display"})), "[display]");
}

TEST(VariantStream, EmptyStringListIsAnEmptyList)
{
    EXPECT_EQ(written(QStringList()), "[]");
}

TEST(VariantStream, ListOfIntegersWritesEachValue)
{
    EXPECT_EQ(written(QVariant::fromValue(QList<int>({3, 1, 2}))), "[3, 1, 2]");
}

TEST(VariantStream, VariantListKeepsItsOrder)
{
    EXPECT_EQ(written(QVariantList({2, "b", 1})), "[2, b, 1]");
}

TEST(VariantStream, StringMapIsWrittenWithSortedKeys)
{
    QMap<QString, QString> map;
    map.insert("b", "2");
    map.insert("a", "1");
    EXPECT_EQ(written(QVariant::fromValue(map)), "{a: 1, b: 2}");
}

TEST(VariantStream, VariantMapAndHashAreWrittenWithSortedKeys)
{
    EXPECT_EQ(written(QVariantMap({{"z", 1}, {"y", QStringList({"p", "q"})}})), "{y: [p, q], z: 1}");
    EXPECT_EQ(written(QVariantHash({{"k", QVariantList({1, 2})}})), "{k: [1, 2]}");
}

TEST(VariantStream, TextStaysText)
{
    EXPECT_EQ(written(QString("a,b")), "a,b");
    EXPECT_EQ(written(QByteArray("raw")), "raw");
    EXPECT_EQ(written(42), "42");
    EXPECT_EQ(written(QVariant()), "<invalid>");
}
