#ifndef VELA_TESTS_LEAKCHECK_H
#define VELA_TESTS_LEAKCHECK_H

#include <string>

/*
 * LeakSanitizer on demand. In an AddressSanitizer build the leak checker
 * normally looks only once, when the program exits, and then reports every
 * leak of the whole run without saying which test made it. Here a test asks
 * at the moment it expects nothing to be left: the checker scans the heap
 * for blocks that nothing reachable points to any more, prints each leak's
 * allocation stack, and the test fails.
 */
class LeakCheck
{
public:
    // Whether the checker can look: an AddressSanitizer build whose leak
    // detection was not turned off (ASAN_OPTIONS=detect_leaks=0).
    static bool available();
    // Why it cannot, for the skip message.
    static std::string unavailableReason();
    // True when the heap holds unreachable blocks now (reported on stderr).
    static bool leaksNow();
};

#endif
