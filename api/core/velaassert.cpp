#include "velaassert.h"

#include "dbglog.h"

#include <cstdio>
#include <cstdlib>

namespace vela {

void assertFailed(const std::string& text, const char* file, int line)
{
    std::fprintf(stderr, "ASSERT: \"%s\" in file %s, line %d\n", text.c_str(), file, line);
    std::fflush(stderr);
    log4cplus::Logger& logger = powerManagerLogger();
    if (logger.isEnabledFor(log4cplus::FATAL_LOG_LEVEL))
        logger.forcedLog(log4cplus::FATAL_LOG_LEVEL, "ASSERT: " + text, file, line, "vela::assertFailed");
    std::abort();
}

void assertFailedIn(const char* where, const char* text, const char* file, int line)
{
    std::fprintf(stderr, "ASSERT failure in %s: \"%s\", file %s, line %d\n", where, text, file, line);
    std::fflush(stderr);
    log4cplus::Logger& logger = powerManagerLogger();
    if (logger.isEnabledFor(log4cplus::FATAL_LOG_LEVEL))
        logger.forcedLog(log4cplus::FATAL_LOG_LEVEL,
                         std::string("ASSERT failure in ") + where + ": \"" + text + "\"", file, line,
                         "vela::assertFailedIn");
    std::abort();
}

void assertFailed(const char* text, const char* file, int line)
{
    assertFailed(std::string(text), file, line);
}

} // namespace vela
