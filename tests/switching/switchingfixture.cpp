#include "switchingfixture.h"

namespace switching {

// Values outside the platform's own lists, so each node gets a fresh
// "resource<N>" / "target<N>" name.
int SwitchingTest::s_nextResource = 1000;
int SwitchingTest::s_nextTarget = 1000;

} // namespace switching
