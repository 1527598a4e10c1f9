#include "leakcheck.h"

#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define VELA_HAS_LEAK_CHECKER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELA_HAS_LEAK_CHECKER 1
#endif
#endif

#ifdef VELA_HAS_LEAK_CHECKER
#include <sanitizer/lsan_interface.h>

namespace {

bool leakDetectionTurnedOff()
{
    const char* options = std::getenv("ASAN_OPTIONS");
    return options && std::strstr(options, "detect_leaks=0");
}

} // namespace
#endif

bool LeakCheck::available()
{
#ifdef VELA_HAS_LEAK_CHECKER
    return !leakDetectionTurnedOff();
#else
    return false;
#endif
}

std::string LeakCheck::unavailableReason()
{
#ifdef VELA_HAS_LEAK_CHECKER
    return "leak detection is turned off (ASAN_OPTIONS has detect_leaks=0)";
#else
    return "the leak checker comes with the AddressSanitizer build (VELA_SANITIZE=\"address;undefined\")";
#endif
}

bool LeakCheck::leaksNow()
{
#ifdef VELA_HAS_LEAK_CHECKER
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}
