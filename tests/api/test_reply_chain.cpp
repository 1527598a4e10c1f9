// Long chains of continuations that finish one another synchronously must run
// in constant stack depth: a recursive delivery would overflow the default
// stack long before the end of the chain.

#include "cmreply.h"
#include "eventloop.h"

#include <QVariant>

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

#ifdef VELA_SANITIZED_BUILD
constexpr qint64 kChainLength = 100000;
#else
constexpr qint64 kChainLength = 1000000;
#endif

} // namespace

TEST(ReplyChain, MillionSynchronousContinuationsCompleteOnTheDefaultStack)
{
    qint64 continuationsRun = 0;
    qint64 lastValue = -1;
    // Each link makes the next reply only when it runs, so at most a few
    // replies are alive at any time.
    std::function<void(const CMReply<QVariant>&)> link = [&](const CMReply<QVariant>& finished) {
        ++continuationsRun;
        const qint64 index = finished.value().toLongLong();
        lastValue = index;
        if (index + 1 < kChainLength) {
            CMReply<QVariant> next;
            next.onFinished(link);
            next.setValue(index + 1);
        }
    };

    CMReply<QVariant> first;
    first.onFinished(link);
    first.setValue(qint64(0));

    EXPECT_EQ(continuationsRun, kChainLength);
    EXPECT_EQ(lastValue, kChainLength - 1);
}

TEST(ReplyChain, PreparedChainOfVoidRepliesRunsToTheEnd)
{
    // All replies and continuations exist before the first finish; each
    // continuation finishes the following reply.
    constexpr int kLength = 100000;
    std::vector<CMReply<void>> replies(kLength);
    int continuationsRun = 0;
    for (int i = 0; i < kLength; ++i) {
        replies[static_cast<std::size_t>(i)].onFinished([&replies, &continuationsRun, i](const CMReply<void>&) {
            ++continuationsRun;
            if (i + 1 < kLength)
                replies[static_cast<std::size_t>(i + 1)].setValue();
        });
    }

    replies.front().setValue();

    EXPECT_EQ(continuationsRun, kLength);
    EXPECT_TRUE(replies.back().isFinished());
}
