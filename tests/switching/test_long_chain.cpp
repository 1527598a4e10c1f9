// A long required chain enables and disables completely on the main
// thread's default stack: locking runs depth-first through the whole chain
// before the top's enable() returns, and everything after that is carried
// by the reply model's drain loop.

#include "switchingfixture.h"

using namespace switching;

namespace {

#ifdef VELA_SANITIZED_BUILD
constexpr int kChainLength = 2000;
#else
constexpr int kChainLength = 10000;
#endif

class LongChain : public SwitchingTest
{
protected:
    // chain[i] requires chain[i + 1]. Wired one side at a time: the checked
    // wiring walks the chain for cycles on every edge.
    std::vector<TestResource*> makeChain(Answer answer)
    {
        std::vector<TestResource*> chain;
        chain.reserve(kChainLength);
        for (int i = 0; i < kChainLength; ++i) {
            TestResource* node = makeResource();
            if (answer != Answer::NoRequest) {
                node->setOnEnableActionRequest(CMSetDataRequest(CMPath(kPath), QStringLiteral("powered"), true));
                node->setOnDisableActionRequest(CMSetDataRequest(CMPath(kPath), QStringLiteral("powered"), false));
            }
            chain.push_back(node);
        }
        handle(kPath, answer);
        for (int i = 0; i + 1 < kChainLength; ++i) {
            chain[i]->addRequiredNode(chain[i + 1]);
            chain[i + 1]->addRequiredByNode(chain[i]);
        }
        return chain;
    }

    // Enables the top, checks every node, disables the top, checks again.
    void switchOnAndOff(const std::vector<TestResource*>& chain, int expectedWrites)
    {
        LogCapture problems(log4cplus::WARN_LOG_LEVEL);

        const CMReply<void> on = chain.front()->enable();
        ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }, 60000));
        int enabled = 0;
        int wronglyLocked = 0;
        for (int i = 0; i < kChainLength; ++i) {
            enabled += chain[i]->state() == VelaPowerNodeStates::enabled ? 1 : 0;
            const QSet<PowerNode*> expected =
                i == 0 ? QSet<PowerNode*>() : QSet<PowerNode*>{chain[static_cast<std::size_t>(i) - 1]};
            wronglyLocked += chain[i]->lockedBy() == expected ? 0 : 1;
        }
        EXPECT_EQ(enabled, kChainLength);
        EXPECT_EQ(wronglyLocked, 0);
        EXPECT_EQ(writesTo(kPath), expectedWrites);

        const CMReply<void> off = chain.front()->disable();
        ASSERT_TRUE(waitUntil([&] { return off.isFinished(); }, 60000));
        int disabled = 0;
        int stillLocked = 0;
        for (TestResource* node : chain) {
            disabled += node->state() == VelaPowerNodeStates::disabled ? 1 : 0;
            stillLocked += node->lockedBy().isEmpty() ? 0 : 1;
        }
        EXPECT_EQ(disabled, kChainLength);
        EXPECT_EQ(stillLocked, 0);
        EXPECT_EQ(writesTo(kPath), 2 * expectedWrites);
        EXPECT_TRUE(problems.events().empty()) << problems.dump().substr(0, 2000);
    }

    const QString kPath = QStringLiteral("/switching/chain/power");
};

} // namespace

TEST_F(LongChain, ChainWithWritesAnsweredAtOnceEnablesAndDisablesCompletely)
{
    const std::vector<TestResource*> chain = makeChain(Answer::AtOnce);
    switchOnAndOff(chain, kChainLength);
}

TEST_F(LongChain, ChainWithoutRequestsEnablesAndDisablesCompletely)
{
    const std::vector<TestResource*> chain = makeChain(Answer::NoRequest);
    switchOnAndOff(chain, 0);
}

TEST_F(LongChain, ChainWithWritesAnsweredLaterEnablesAndDisablesCompletely)
{
    const std::vector<TestResource*> chain = makeChain(Answer::Later);
    switchOnAndOff(chain, kChainLength);
}

TEST_F(LongChain, ChainSwitchesAgainAfterAFullCycle)
{
    const std::vector<TestResource*> chain = makeChain(Answer::AtOnce);
    switchOnAndOff(chain, kChainLength);
    m_writes.clear();
    switchOnAndOff(chain, kChainLength);
}
