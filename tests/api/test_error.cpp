// CMError (the one success test of every reply) and TrString.

#include "cmerror.h"
#include "cmreply.h"
#include "dbglog.h"
#include "trstring.h"
#include "velahash.h"

#include <QMetaType>
#include <QVariant>

#include <gtest/gtest.h>

#include <sstream>

TEST(Error, KeyNamesAndDefaultsAreDistinctAndNotEmpty)
{
    EXPECT_FALSE(CMError::Name().isEmpty());
    EXPECT_FALSE(CMError::Message().isEmpty());
    EXPECT_FALSE(CMError::Title().isEmpty());
    EXPECT_NE(CMError::Name(), CMError::Message());
    EXPECT_NE(CMError::Name(), CMError::Title());
    EXPECT_NE(CMError::Message(), CMError::Title());
    EXPECT_FALSE(CMError::DefaultName().isEmpty());
    EXPECT_FALSE(CMError::DefaultTitle().isEmpty());
}

TEST(Error, NameAndMessageConstructorFillsNameMessageAndDefaultTitle)
{
    const CMError error(QStringLiteral("Error"), TrString("something broke"));
    EXPECT_EQ(error.size(), 3);
    EXPECT_EQ(error.value(CMError::Name()).toString(), QStringLiteral("Error"));
    EXPECT_EQ(error.value(CMError::Message()).userType(), qMetaTypeId<TrString>());
    EXPECT_EQ(error.value(CMError::Title()).userType(), qMetaTypeId<TrString>());
    EXPECT_EQ(error.message().toString(), QStringLiteral("something broke"));
    EXPECT_EQ(error.title().toString(), CMError::DefaultTitle());
    EXPECT_EQ(error.name(), QStringLiteral("Error"));
    EXPECT_TRUE(error.isError());
}

TEST(Error, MessageOnlyConstructorUsesDefaultNameAndTitle)
{
    const CMError error{TrString("timed out")};
    EXPECT_EQ(error.name(), CMError::DefaultName());
    EXPECT_EQ(error.title().toString(), CMError::DefaultTitle());
    EXPECT_EQ(error.message().toString(), QStringLiteral("timed out"));
    EXPECT_TRUE(error.isError());
}

TEST(Error, EmptyMapIsSuccess)
{
    const CMError error;
    EXPECT_TRUE(error.isEmpty());
    EXPECT_FALSE(error.isError());
    EXPECT_TRUE(error.name().isEmpty());
}

TEST(Error, EmptyNameWithMessageOrTitleIsSuccess)
{
    CMError messageOnly;
    messageOnly.insert(CMError::Message(), QVariant::fromValue(TrString("just a message")));
    EXPECT_FALSE(messageOnly.isError());

    CMError titleOnly;
    titleOnly.insert(CMError::Title(), QVariant::fromValue(TrString("just a title")));
    EXPECT_FALSE(titleOnly.isError());

    CMError explicitEmptyName(QString(), TrString("message with an empty name"));
    EXPECT_FALSE(explicitEmptyName.isError());
    EXPECT_EQ(explicitEmptyName.message().toString(), QStringLiteral("message with an empty name"));
}

TEST(Error, ReplyFinishedWithNamelessErrorIsSuccessful)
{
    CMReply<QVariant> reply;
    CMError nameless;
    nameless.insert(CMError::Message(), QVariant::fromValue(TrString("informational")));
    nameless.insert(CMError::Title(), QVariant::fromValue(TrString("note")));
    reply.setError(nameless);
    EXPECT_TRUE(reply.isFinished());
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(reply.error().message().toString(), QStringLiteral("informational"));
}

TEST(Error, NameIsReadAsString)
{
    CMError numeric;
    numeric.insert(CMError::Name(), 17);
    EXPECT_TRUE(numeric.isError());
    EXPECT_EQ(numeric.name(), QStringLiteral("17"));

    CMError invalid;
    invalid.insert(CMError::Name(), QVariant());
    EXPECT_FALSE(invalid.isError());

    CMError trName;
    trName.insert(CMError::Name(), QVariant::fromValue(TrString("org.test.AsTrString")));
    EXPECT_TRUE(trName.isError());
    EXPECT_EQ(trName.name(), QStringLiteral("org.test.AsTrString"));
}

TEST(Error, MissingOrUnconvertibleMessageReadsAsEmptyTrString)
{
    const CMError missing(QHash<QString, QVariant>{{CMError::Name(), QStringLiteral("org.test.NoMessage")}});
    EXPECT_TRUE(missing.isError());
    EXPECT_TRUE(missing.message().isEmpty());
    EXPECT_TRUE(missing.title().isEmpty());

    CMError unconvertible;
    unconvertible.insert(CMError::Message(), QVariantList{1, 2});
    EXPECT_TRUE(unconvertible.message().isEmpty());
}

TEST(Error, MessageStoredAsPlainStringIsReadBack)
{
    CMError error;
    error.insert(CMError::Message(), QStringLiteral("plain text"));
    EXPECT_EQ(error.message().toString(), QStringLiteral("plain text"));
}

TEST(Error, BuiltFromAMapKeepsEveryEntry)
{
    QHash<QString, QVariant> entries{{CMError::Name(), QStringLiteral("org.test.Mapped")},
                                     {QStringLiteral("detail"), 5}};
    const CMError error(entries);
    EXPECT_EQ(error.size(), 2);
    EXPECT_EQ(error.name(), QStringLiteral("org.test.Mapped"));
    EXPECT_EQ(error.value(QStringLiteral("detail")).toInt(), 5);
}

TEST(Error, ReplyReturnsTheStoredErrorUnchanged)
{
    CMReply<void> reply;
    CMError error(QStringLiteral("org.test.Stored"), TrString("stored"));
    error.insert(QStringLiteral("extra"), true);
    reply.setError(error);
    EXPECT_EQ(reply.error(), error);
}

// --- TrString ---------------------------------------------------------------

TEST(TrString, IsRegisteredUnderItsName)
{
    const int id = qMetaTypeId<TrString>();
    EXPECT_EQ(QMetaType::type("TrString"), id);
    EXPECT_STREQ(QMetaType::typeName(id), "TrString");
}

TEST(TrString, BuiltFromQStringAndCharPointer)
{
    const TrString fromQString(QStringLiteral("grüß"));
    const TrString fromChars("grüß");
    EXPECT_EQ(fromQString, fromChars);
    EXPECT_EQ(fromQString.toString(), QStringLiteral("grüß"));
    EXPECT_TRUE(TrString().isEmpty());
    EXPECT_FALSE(fromChars.isEmpty());
    EXPECT_NE(fromChars, TrString("other"));
}

TEST(TrString, RoundTripsThroughQVariant)
{
    const QVariant variant = TrString("carried");
    EXPECT_EQ(variant.userType(), qMetaTypeId<TrString>());
    EXPECT_EQ(variant.value<TrString>().toString(), QStringLiteral("carried"));
    EXPECT_EQ(variant.toString(), QStringLiteral("carried"));
    EXPECT_TRUE(variant.canConvert<QString>());
    EXPECT_EQ(QVariant(QStringLiteral("from string")).value<TrString>().toString(), QStringLiteral("from string"));
}

TEST(TrString, StreamsItsText)
{
    std::ostringstream out;
    out << TrString("stream me");
    EXPECT_EQ(out.str(), "stream me");
}
