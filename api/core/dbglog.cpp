#include "dbglog.h"

#include <QByteArray>

namespace vela {

log4cplus::Logger& powerManagerLogger()
{
    static log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("PowerManager"));
    return logger;
}

namespace {
// Obtains the logger while the library is being loaded, so that the first
// log call of a service never pays for the logger's creation.
const struct LoggerAtLoad {
    LoggerAtLoad() { powerManagerLogger(); }
} loggerAtLoad;
} // namespace

} // namespace vela

namespace {

// Index of the '(' that opens the parameter list: the first one outside
// template brackets.
std::string::size_type parameterListStart(const std::string& signature)
{
    int depth = 0;
    for (std::string::size_type i = 0; i < signature.size(); ++i) {
        const char c = signature[i];
        if (c == '<')
            ++depth;
        else if (c == '>')
            --depth;
        else if (c == '(' && depth == 0)
            return i;
    }
    return std::string::npos;
}

// Start of the qualified name: just after the last space outside template
// brackets that precedes the parameter list (the return type ends there).
std::string::size_type qualifiedNameStart(const std::string& signature, std::string::size_type end)
{
    int depth = 0;
    std::string::size_type start = 0;
    for (std::string::size_type i = 0; i < end; ++i) {
        const char c = signature[i];
        if (c == '<')
            ++depth;
        else if (c == '>')
            --depth;
        else if (c == ' ' && depth == 0)
            start = i + 1;
    }
    return start;
}

} // namespace

std::string dbglog_scopedFunction(const std::string& signature, const std::string& loggerName)
{
    const std::string::size_type open = parameterListStart(signature);
    const std::string::size_type end = open == std::string::npos ? signature.size() : open;
    const std::string::size_type start = qualifiedNameStart(signature, end);
    return "[" + loggerName + "] " + signature.substr(start, end - start) + "()";
}

std::ostream& operator<<(std::ostream& stream, const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    return stream.write(utf8.constData(), utf8.size());
}
