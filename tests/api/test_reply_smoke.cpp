#include "capturingappender.h"
#include "cmreply.h"
#include "dbglog.h"
#include "eventloop.h"

#include <gtest/gtest.h>

TEST(ReplySmoke, ChainOfWatchersRunsInOrderAfterFinish)
{
    CMReply<QVariant> reply;
    QList<int> order;
    reply.onFinished([&](const CMReply<QVariant>& r) { order << r.value().toInt(); });
    reply.onFinished([&](const CMReply<QVariant>&) { order << 2; });
    EXPECT_TRUE(order.isEmpty());
    reply.setValue(1);
    EXPECT_EQ(order, (QList<int>{1, 2}));
}

TEST(ReplySmoke, LogRecordCarriesPrettyFunction)
{
    LogCapture capture;
    VELA_DEBUG("hello " << QStringLiteral("world"));
    const auto events = capture.withMessage("hello world");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].function, "virtual void ReplySmoke_LogRecordCarriesPrettyFunction_Test::TestBody()");
    EXPECT_EQ(events[0].file, "tests/api/test_reply_smoke.cpp");
}
