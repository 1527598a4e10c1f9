#ifndef VELA_VELAASSERT_H
#define VELA_VELAASSERT_H

#include "vela_api_export.h"

#include <string>

/**
 * Assertions of the platform and the power handler.
 *
 * They mark programming errors of the code that uses the library (a wrong
 * node kind registered, a transition asked for in the opposite direction
 * while one runs, a null handle read) and therefore stay active in every
 * build type: Q_ASSERT compiles to nothing with QT_NO_DEBUG and must not be
 * relied on. On failure the assertion text is written to stderr as
 *   ASSERT: "\<text\>" in file \<file\>, line \<line\>
 * (and to the "PowerManager" logger at FATAL when that level is enabled),
 * then the process aborts. An assertion that names where it was raised
 * (Q_ASSERT_X style) is written as
 *   ASSERT failure in <where>: "<text>", file <file>, line <line>
 */
namespace vela {
/// Reports a failed assertion with its text, file and line, then aborts.
[[noreturn]] VELA_API_EXPORT void assertFailed(const char* text, const char* file, int line);
/// Reports a failed assertion with its text, file and line, then aborts.
[[noreturn]] VELA_API_EXPORT void assertFailed(const std::string& text, const char* file, int line);
[[noreturn]] VELA_API_EXPORT void assertFailedIn(const char* where, const char* text, const char* file, int line);
}

// The condition's own spelling is the assertion text.
#define VELA_ASSERT(cond) \
    ((cond) ? static_cast<void>(0) : ::vela::assertFailed(#cond, __FILE__, __LINE__))

// For assertions whose text is fixed by the platform and differs from the
// expression that checks it (for example "!isEmpty()" guarding a queue).
#define VELA_ASSERT_TEXT(cond, text) \
    ((cond) ? static_cast<void>(0) : ::vela::assertFailed((text), __FILE__, __LINE__))

// For assertions whose source line is part of the documented contract: the
// line is a named constant beside the statement and does not follow edits.
#define VELA_ASSERT_TEXT_AT(cond, text, line) \
    ((cond) ? static_cast<void>(0) : ::vela::assertFailed((text), __FILE__, (line)))

// For assertions that name where they were raised and whose file and line
// are part of the documented contract (named constants beside the statement).
#define VELA_ASSERT_X_AT(cond, where, text, file, line) \
    ((cond) ? static_cast<void>(0) : ::vela::assertFailedIn((where), (text), (file), (line)))

#endif
