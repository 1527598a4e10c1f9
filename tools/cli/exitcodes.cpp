#include "exitcodes.h"

namespace {

struct Entry {
    ExitCodes::Code code;
    const char* meaning;
};

const Entry entries[] = {
    {ExitCodes::Success, "success: no errors found, the run completed, or the question was answered"},
    {ExitCodes::Problems, "problems: verify found errors (or warnings with --strict), run refused a graph with "
                          "errors, requests were still unanswered at the time-out, or a picture could not "
                          "be drawn or written"},
    {ExitCodes::InvalidInput, "invalid input: a bad command line, or a file that cannot be read or is not a valid "
                              "graph file"},
    {ExitCodes::Interrupted, "run stopped by SIGINT (what happened so far is printed and written)"},
    {ExitCodes::Terminated, "run stopped by SIGTERM (likewise)"},
};

} // namespace

QString ExitCodes::table()
{
    QString text = QStringLiteral("Exit codes:\n");
    for (const Entry& entry : entries)
        text += QStringLiteral("  %1  %2\n").arg(entry.code).arg(QLatin1String(entry.meaning));
    return text;
}
