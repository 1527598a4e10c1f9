// The two transitions that must never be asked for while the opposite one
// runs: each stops the process with its assertion text.

#include "switchingfixture.h"

using namespace switching;

namespace {

using TransitionTableDeathTest = SwitchingTest;

// The stderr line of a failed assertion in the node's source, with the
// regular-expression metacharacters of the file name escaped.
// The line is the documented one of each assertion.
std::string assertionLine(const std::string& text, int line)
{
    return "ASSERT: \"" + text + "\" in file modules/powerManager/powerHandler/PowerNode\\.cpp, line "
        + std::to_string(line) + "([^0-9]|$)";
}

} // namespace

TEST_F(TransitionTableDeathTest, EnableWhileDisablingStopsTheProcess)
{
    // The disable write is never answered, so the node stays disabling.
    TestResource* node = makeResource(Answer::AtOnce, Answer::Never);
    node->disable();
    ASSERT_EQ(node->state(), VelaPowerNodeStates::disabling);

    EXPECT_DEATH(node->enable(), assertionLine("m_state != VelaPowerNodeStates::disabling", documentedLine::enableWhileDisabling));
}

TEST_F(TransitionTableDeathTest, EnableWhileDisablingStopsTheProcessAlsoWhenClaimed)
{
    // A claim does not change the answer to enable() while disabling.
    TestResource* node = makeResource(Answer::AtOnce, Answer::Never);
    node->disable();
    ASSERT_EQ(node->state(), VelaPowerNodeStates::disabling);

    EXPECT_DEATH(node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::use),
                 assertionLine("m_state != VelaPowerNodeStates::disabling", documentedLine::enableWhileDisabling));
}

TEST_F(TransitionTableDeathTest, DisableWhileEnablingWithoutClaimOrHolderStopsTheProcess)
{
    // Enabled directly (no module, no holder); the write is never answered.
    TestResource* node = makeResource(Answer::Never, Answer::AtOnce);
    node->enable();
    ASSERT_EQ(node->state(), VelaPowerNodeStates::enabling);
    ASSERT_TRUE(node->lockedBy().isEmpty());

    EXPECT_DEATH(node->disable(), assertionLine("m_state != VelaPowerNodeStates::enabling", documentedLine::disableWhileEnabling));
}

TEST_F(TransitionTableDeathTest, ReleaseOfTheLastClaimWhileEnablingStopsTheProcess)
{
    TestResource* node = makeResource(Answer::Never, Answer::AtOnce);
    node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::use);
    ASSERT_EQ(node->state(), VelaPowerNodeStates::enabling);

    EXPECT_DEATH(node->setModuleAction(QStringLiteral("display-service"), VelaPowerModuleActions::release),
                 assertionLine("m_state != VelaPowerNodeStates::enabling", documentedLine::disableWhileEnabling));
}
