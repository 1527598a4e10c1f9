#include "switchingfixture.h"

namespace switching {

// Values outside the platform's own lists, so each node gets a fresh
// "resource<N>" / "target<N>" name.
int SwitchingTest::s_nextResource = 1000;
int SwitchingTest::s_nextTarget = 1000;

const Direction kEnabling{"Enable",
                          &PowerNode::enable,
                          &PowerNode::disable,
                          VelaPowerNodeStates::enabling,
                          VelaPowerNodeStates::enabled,
                          VelaPowerNodeStates::disabled,
                          &TestResource::enableReply,
                          &SwitchingTest::enablePath,
                          "enable",
                          kEnableSignature,
                          " already enabled or enable was already requested...",
                          kEnableActionContinuation,
                          documentedLine::enableAlreadyRequested,
                          documentedLine::enableActionFailed,
                          documentedLine::enabledState,
                          documentedLine::enableWhileDisabling};

const Direction kDisabling{"Disable",
                           &PowerNode::disable,
                           &PowerNode::enable,
                           VelaPowerNodeStates::disabling,
                           VelaPowerNodeStates::disabled,
                           VelaPowerNodeStates::enabled,
                           &TestResource::disableReply,
                           &SwitchingTest::disablePath,
                           "disable",
                           kDisableSignature,
                           " already disabled or disable was already requested...",
                           kDisableActionContinuation,
                           documentedLine::disableAlreadyRequested,
                           documentedLine::disableActionFailed,
                           documentedLine::disabledState,
                           documentedLine::disableWhileEnabling};

} // namespace switching
