// Required chains much deeper than a call stack could follow. Enabling the top
// locks every link before its call returns, and disabling it releases the
// chain link by link; neither may grow the stack with the chain. 200,000
// links run in every build, the sanitizer builds included; 1,000,000 links
// run in the normal build under their own CTest label (`deep`).

#include "capturingappender.h"
#include "cmrootworker.h"
#include "eventloop.h"
#include "PowerNode.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

enum class Writes { None, AnsweredAtOnce, AnsweredLater };

class DeepChain : public ::testing::TestWithParam<Writes>
{
protected:
    void TearDown() override
    {
        drainEvents();
        CMRootWorker::instance()->clearHandlers();
    }

    // chain[i] requires chain[i + 1], both sides stored directly: this is
    // about switching, and the wiring checks have their own tests.
    void makeChain(int length)
    {
        const CMPath path(QStringLiteral("/switching/deep/power"));
        m_chain.reserve(static_cast<std::size_t>(length));
        for (int i = 0; i < length; ++i) {
            auto* node = new PowerResource(static_cast<VelaPowerManagerResources::Enum>(5000 + i));
            if (GetParam() != Writes::None) {
                node->setOnEnableActionRequest(CMSetDataRequest(path, QStringLiteral("powered"), true));
                node->setOnDisableActionRequest(CMSetDataRequest(path, QStringLiteral("powered"), false));
            }
            m_chain.emplace_back(node);
        }
        for (std::size_t i = 0; i + 1 < m_chain.size(); ++i) {
            m_chain[i]->addRequiredNode(m_chain[i + 1].get());
            m_chain[i + 1]->addRequiredByNode(m_chain[i].get());
        }
        const bool later = GetParam() == Writes::AnsweredLater;
        CMRootWorker::instance()->registerSetDataHandler(
            path, [this, later](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) {
                ++m_writes;
                if (!later) {
                    reply.setValue(QVariant(true));
                    return;
                }
                QMetaObject::invokeMethod(
                    QCoreApplication::instance(), [reply]() { reply.setValue(QVariant(true)); },
                    Qt::QueuedConnection);
            });
    }

    int expectedWrites() const { return GetParam() == Writes::None ? 0 : static_cast<int>(m_chain.size()); }

    // Enables the top, checks every link, disables the top, checks again.
    void switchOnAndOff()
    {
        LogCapture problems(log4cplus::WARN_LOG_LEVEL);

        const CMReply<void> on = m_chain.front()->enable();
        ASSERT_TRUE(waitUntil([&] { return on.isFinished(); }, 600000));
        int enabled = 0;
        int wronglyLocked = 0;
        for (std::size_t i = 0; i < m_chain.size(); ++i) {
            enabled += m_chain[i]->state() == VelaPowerNodeStates::enabled ? 1 : 0;
            const QSet<PowerNode*> holders = m_chain[i]->lockedBy();
            const bool rightHolder = i == 0 ? holders.isEmpty()
                                            : holders.size() == 1 && holders.contains(m_chain[i - 1].get());
            wronglyLocked += rightHolder ? 0 : 1;
        }
        EXPECT_EQ(enabled, static_cast<int>(m_chain.size()));
        EXPECT_EQ(wronglyLocked, 0);
        EXPECT_EQ(m_writes, expectedWrites());

        const CMReply<void> off = m_chain.front()->disable();
        ASSERT_TRUE(waitUntil([&] { return off.isFinished(); }, 600000));
        int disabled = 0;
        int stillLocked = 0;
        for (const auto& node : m_chain) {
            disabled += node->state() == VelaPowerNodeStates::disabled ? 1 : 0;
            stillLocked += node->lockedBy().isEmpty() ? 0 : 1;
        }
        EXPECT_EQ(disabled, static_cast<int>(m_chain.size()));
        EXPECT_EQ(stillLocked, 0);
        EXPECT_EQ(m_writes, 2 * expectedWrites());
        EXPECT_TRUE(problems.events().empty()) << problems.dump().substr(0, 2000);
    }

    std::vector<std::unique_ptr<PowerResource>> m_chain;
    int m_writes = 0;
};

std::string writesName(const ::testing::TestParamInfo<Writes>& info)
{
    switch (info.param) {
    case Writes::None:
        return "WithoutWrites";
    case Writes::AnsweredAtOnce:
        return "WritesAnsweredAtOnce";
    case Writes::AnsweredLater:
        return "WritesAnsweredLater";
    }
    return "Unknown";
}

} // namespace

#ifdef VELA_SANITIZED_BUILD
// Writes answered from the event loop take one turn of it per link, which the
// sanitizers make slow; the shorter chains of LongChain cover them there.
INSTANTIATE_TEST_SUITE_P(Each, DeepChain, ::testing::Values(Writes::None, Writes::AnsweredAtOnce), writesName);
#else
INSTANTIATE_TEST_SUITE_P(Each, DeepChain,
                         ::testing::Values(Writes::None, Writes::AnsweredAtOnce, Writes::AnsweredLater), writesName);
#endif

TEST_P(DeepChain, TwoHundredThousandLinksEnableAndDisableCompletely)
{
    makeChain(200000);
    switchOnAndOff();
}

// Run by the `deep` label only (slow, and beyond what the sanitizer builds
// need to show): --gtest_also_run_disabled_tests.
TEST_P(DeepChain, DISABLED_OneMillionLinksEnableAndDisableCompletely)
{
    makeChain(1000000);
    switchOnAndOff();
}
