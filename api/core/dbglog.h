#ifndef VELA_DBGLOG_H
#define VELA_DBGLOG_H

#include "vela_api_export.h"

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <QString>

#include <ostream>
#include <sstream>
#include <string>

/*
 * Logging helpers shared by the platform API and the power handler.
 *
 * Everything logs to one log4cplus logger, "PowerManager", obtained when
 * libvela_api is loaded. Each record carries the source file (relative to the
 * source tree), the line, and the full signature of the logging function as
 * GCC's __PRETTY_FUNCTION__ spells it; a message is only built when its level
 * is enabled for the logger.
 */

namespace vela {
/// The "PowerManager" logger. Valid from the moment the library is loaded.
VELA_API_EXPORT log4cplus::Logger& powerManagerLogger();
} // namespace vela

/**
 * The text placed between "Enter "/"Leave " and ": " in entry and leave
 * lines: the logger name in brackets followed by the function's qualified
 * name with empty parentheses, without return type, parameter list or
 * qualifiers. "bool PowerNode::isEnabled() const" with "PowerManager" gives
 * "[PowerManager] PowerNode::isEnabled()", so an entry line reads
 * "Enter [PowerManager] PowerNode::isEnabled(): A disabled". Parameters are
 * left out on purpose: the record's function field already carries the full
 * signature, and the short form keeps entry lines readable.
 */
VELA_API_EXPORT std::string dbglog_scopedFunction(const std::string& signature, const std::string& loggerName);

/// How names and other Qt strings reach the log: UTF-8 text.
VELA_API_EXPORT std::ostream& operator<<(std::ostream& stream, const QString& text);

namespace vela {
namespace detail {
/// Builds and writes one record. Kept out of line so that the stream lives
/// only while a record is written: the functions that log keep small stack
/// frames, which matters for the ones that recurse along dependency chains.
template <typename Build>
__attribute__((noinline)) void logBuilt(log4cplus::Logger& logger, log4cplus::LogLevel level, const Build& build,
                                        const char* file, int line, const char* function)
{
    std::ostringstream stream;
    build(stream);
    logger.forcedLog(level, stream.str(), file, line, function);
}
} // namespace detail
} // namespace vela

// Records whose source line is part of the log contract name that line
// explicitly (a named constant beside the statement), so that the number
// stays put when the file around it is edited.
#define VELA_LOG_AT_LINE(level, line, message)                                                          \
    do {                                                                                                \
        log4cplus::Logger& vela_logger_ = ::vela::powerManagerLogger();                                 \
        if (vela_logger_.isEnabledFor(level))                                                           \
            ::vela::detail::logBuilt(                                                                   \
                vela_logger_, level, [&](std::ostream& vela_stream_) { vela_stream_ << message; },      \
                __FILE__, (line), __PRETTY_FUNCTION__);                                                 \
    } while (false)

#define VELA_LOG_AT(level, message) VELA_LOG_AT_LINE(level, __LINE__, message)

#define VELA_TRACE(message) VELA_LOG_AT(log4cplus::TRACE_LOG_LEVEL, message)
#define VELA_DEBUG(message) VELA_LOG_AT(log4cplus::DEBUG_LOG_LEVEL, message)
#define VELA_INFO(message) VELA_LOG_AT(log4cplus::INFO_LOG_LEVEL, message)
#define VELA_ERROR(message) VELA_LOG_AT(log4cplus::ERROR_LOG_LEVEL, message)
#define VELA_FATAL(message) VELA_LOG_AT(log4cplus::FATAL_LOG_LEVEL, message)

#define VELA_TRACE_AT(line, message) VELA_LOG_AT_LINE(log4cplus::TRACE_LOG_LEVEL, line, message)
#define VELA_DEBUG_AT(line, message) VELA_LOG_AT_LINE(log4cplus::DEBUG_LOG_LEVEL, line, message)
#define VELA_INFO_AT(line, message) VELA_LOG_AT_LINE(log4cplus::INFO_LOG_LEVEL, line, message)
#define VELA_ERROR_AT(line, message) VELA_LOG_AT_LINE(log4cplus::ERROR_LOG_LEVEL, line, message)
#define VELA_FATAL_AT(line, message) VELA_LOG_AT_LINE(log4cplus::FATAL_LOG_LEVEL, line, message)

// Entry and leave lines: "Enter "/"Leave " + scoped text + ": " + tail.
#define VELA_TRACE_ENTER(signature, tail) \
    VELA_TRACE("Enter " << dbglog_scopedFunction(signature, "PowerManager") << ": " << tail)
#define VELA_TRACE_LEAVE(signature, tail) \
    VELA_TRACE("Leave " << dbglog_scopedFunction(signature, "PowerManager") << ": " << tail)
#define VELA_TRACE_ENTER_AT(line, signature, tail) \
    VELA_TRACE_AT(line, "Enter " << dbglog_scopedFunction(signature, "PowerManager") << ": " << tail)
#define VELA_TRACE_LEAVE_AT(line, signature, tail) \
    VELA_TRACE_AT(line, "Leave " << dbglog_scopedFunction(signature, "PowerManager") << ": " << tail)

#endif
