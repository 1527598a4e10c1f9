// Reachability questions on chains far deeper than a call stack could follow,
// and subclasses that answer for themselves in the middle of such a chain:
// the question still calls each node's virtual in the order of the rule and
// takes a subclass's own answer.

#include "graph_test_helpers.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

namespace {

using S = VelaPowerNodeStates;
using A = VelaPowerModuleActions;

const QString kAsker = QStringLiteral("asker");
constexpr int kDeep = 200000;

// A resource that counts how it is asked, and either answers for itself or
// leaves the answer to PowerResource.
struct CountingResource : PowerResource {
    using PowerResource::PowerResource;

    bool isStateReachable(const VelaPowerNodeStates::Enum& state, const QString& module,
                          const bool& recursive) const override
    {
        ++asked;
        if (ownAnswer)
            return *ownAnswer;
        return PowerResource::isStateReachable(state, module, recursive);
    }

    mutable int asked = 0;
    std::optional<bool> ownAnswer;
};

class DeepReachability : public ::testing::Test
{
protected:
    // chain[i] requires chain[i + 1], both sides stored directly (the
    // wiring checks have their own tests). `counting` places a counting
    // resource at that index.
    void makeChain(int length, int counting = -1)
    {
        for (int i = 0; i < length; ++i) {
            const auto value = resourceValue(20000 + i);
            if (i == counting) {
                m_counting = new CountingResource(value);
                m_chain.emplace_back(m_counting);
            } else {
                m_chain.emplace_back(new PowerResource(value));
            }
        }
        for (std::size_t i = 0; i + 1 < m_chain.size(); ++i) {
            m_chain[i]->addRequiredNode(m_chain[i + 1].get());
            m_chain[i + 1]->addRequiredByNode(m_chain[i].get());
        }
    }

    PowerNode* top() const { return m_chain.front().get(); }
    PowerNode* bottom() const { return m_chain.back().get(); }

    std::vector<std::unique_ptr<PowerNode>> m_chain;
    CountingResource* m_counting = nullptr;
};

} // namespace

TEST_F(DeepReachability, EnablingTheTopAsksTheWholeChain)
{
    makeChain(kDeep);
    EXPECT_TRUE(top()->isStateReachable(S::enabled, kAsker, true));
}

TEST_F(DeepReachability, DisablingTheBottomIsRefusedByAHoldAtTheTop)
{
    makeChain(kDeep);
    EXPECT_TRUE(bottom()->isStateReachable(S::disabled, kAsker, true));
    top()->addModule(QStringLiteral("holder"), A::hold);
    EXPECT_FALSE(bottom()->isStateReachable(S::disabled, kAsker, true));
    // The holder itself is not refused by its own hold.
    EXPECT_TRUE(bottom()->isStateReachable(S::disabled, QStringLiteral("holder"), true));
}

TEST_F(DeepReachability, ASubclassThatAnswersForItselfIsAskedOnceAndItsAnswerCounts)
{
    makeChain(kDeep, kDeep / 2);
    m_counting->ownAnswer = false;
    EXPECT_FALSE(top()->isStateReachable(S::enabled, kAsker, true));
    EXPECT_EQ(m_counting->asked, 1);

    m_counting->asked = 0;
    m_counting->ownAnswer = true;
    // What lies beyond it is not asked: it answered for itself, so a hold at
    // the top no longer refuses disabling the bottom.
    top()->addModule(QStringLiteral("holder"), A::hold);
    EXPECT_TRUE(bottom()->isStateReachable(S::disabled, kAsker, true));
    EXPECT_EQ(m_counting->asked, 1);
}

TEST_F(DeepReachability, ASubclassThatDefersToItsBaseGetsTheRuleOfItsBase)
{
    makeChain(kDeep, kDeep / 2);
    // A hold below the counting resource refuses disabling from the bottom
    // up to it, and so from the top.
    m_chain[static_cast<std::size_t>(kDeep / 2 - 1)]->addModule(QStringLiteral("holder"), A::hold);
    EXPECT_FALSE(bottom()->isStateReachable(S::disabled, kAsker, true));
    EXPECT_EQ(m_counting->asked, 1);

    m_counting->asked = 0;
    EXPECT_TRUE(top()->isStateReachable(S::enabled, kAsker, true));
    EXPECT_EQ(m_counting->asked, 1);
}
