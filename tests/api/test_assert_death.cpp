// Programming errors stop the process with a fixed assertion text, in every
// build type.

#include "cmreply.h"
#include "cmrequest.h"
#include "velaassert.h"

#include <QVariant>

#include <gtest/gtest.h>

#include <string>

namespace {

// The stderr line of a failed assertion, as a regular expression: the text
// and the file are literal (metacharacters escaped by the caller), the line
// is any number unless given.
std::string assertLine(const std::string& escapedText, const std::string& escapedFile,
                       const std::string& line = "[0-9]+")
{
    return "ASSERT: \"" + escapedText + "\" in file " + escapedFile + ", line " + line;
}

const std::string kReplySource = "api/core/model/cmreply\\.cpp";
const std::string kRequestSource = "api/core/model/cmrequest\\.cpp";
const std::string kThisFile = "tests/api/test_assert_death\\.cpp";

// The documented record of a typed continuation on data of another type:
// its context, file and line are fixed numbers of the contract, whatever
// line of the header the statement is on.
const std::string kWrongTypeAssertion = "ASSERT failure in CMReply: \"Wrong type passed to "
                                        "CMReply::onFinished\\(\\)!\", file api/core/model/cmreply, line 689\n";

} // namespace

TEST(AssertDeathTest, TypedContinuationOnReplyOfAnotherTypeStops)
{
    EXPECT_DEATH(
        {
            CMReply<QVariant> reply;
            // A view of the QVariant reply's data as if it carried an int.
            const CMReply<int> wrongView(static_cast<const CMVoidReply&>(reply));
            wrongView.onFinished([](const CMReply<int>&) {});
            reply.setValue(1);
        },
        kWrongTypeAssertion);
}

TEST(AssertDeathTest, TypedContinuationOnFinishedReplyOfAnotherTypeStops)
{
    EXPECT_DEATH(
        {
            CMReply<void> reply;
            reply.setValue();
            const CMReply<QVariant> wrongView(static_cast<const CMVoidReply&>(reply));
            wrongView.onFinished([](const CMReply<QVariant>&) {});
        },
        kWrongTypeAssertion);
}

TEST(Assert, MatchingTypedViewDoesNotStop)
{
    // The counterpart of the two tests above: the same view on matching data
    // runs the continuation.
    CMReply<QVariant> reply;
    const CMReply<QVariant> view(static_cast<const CMVoidReply&>(reply));
    int runs = 0;
    view.onFinished([&](const CMReply<QVariant>& finished) { runs += finished.value().toInt(); });
    reply.setValue(4);
    EXPECT_EQ(runs, 4);
}

TEST(AssertDeathTest, ReadingANullSetDataRequestStops)
{
    EXPECT_DEATH(static_cast<void>(CMSetDataRequest().path()), assertLine("m_d", kRequestSource));
    EXPECT_DEATH(static_cast<void>(CMSetDataRequest().key()), assertLine("m_d", kRequestSource));
    EXPECT_DEATH(static_cast<void>(CMSetDataRequest().value()), assertLine("m_d", kRequestSource));
}

TEST(AssertDeathTest, ChangingANullSetDataRequestStops)
{
    EXPECT_DEATH(CMSetDataRequest().setPath(CMPath("/p")), assertLine("d\\(\\)", kRequestSource));
    EXPECT_DEATH(CMSetDataRequest().setKey(QStringLiteral("key")), assertLine("d\\(\\)", kRequestSource));
    EXPECT_DEATH(CMSetDataRequest().setValue(1), assertLine("d\\(\\)", kRequestSource));
}

TEST(AssertDeathTest, UsingAReplyHandleWithoutDataStops)
{
    EXPECT_DEATH(static_cast<void>(CMVoidReply().isFinished()), assertLine("m_d", kReplySource));
    EXPECT_DEATH(CMVoidReply().setError(CMError(TrString("x"))), assertLine("m_d", kReplySource));
}

TEST(AssertDeathTest, VelaAssertFiresInThisBuildType)
{
    // The test program is built like the library (RelWithDebInfo defines
    // NDEBUG and QT_NO_DEBUG); the assertion must not depend on either.
#ifdef NDEBUG
    RecordProperty("NDEBUG", "defined");
#endif
#ifdef QT_NO_DEBUG
    RecordProperty("QT_NO_DEBUG", "defined");
#endif
    volatile int value = 1;
    const int line = __LINE__ + 1;
    EXPECT_DEATH(VELA_ASSERT(value == 2), assertLine("value == 2", kThisFile, std::to_string(line)));
}

TEST(AssertDeathTest, VelaAssertTextUsesTheGivenText)
{
    volatile bool empty = true;
    EXPECT_DEATH(VELA_ASSERT_TEXT(!empty, "!isEmpty()"), assertLine("!isEmpty\\(\\)", kThisFile));
}

TEST(Assert, PassingAssertionEvaluatesItsConditionOnceAndContinues)
{
    int evaluations = 0;
    VELA_ASSERT(++evaluations == 1);
    VELA_ASSERT_TEXT(++evaluations == 2, "second");
    EXPECT_EQ(evaluations, 2);
}
