// vela-power's command line: help for the program and each command, the
// exit-code table, and command-line errors, which exit with the code for
// invalid input (never with a code that means something else).

#include "toolrun.h"

#include <gtest/gtest.h>

namespace {

const char* const kExitCodeLines[] = {
    "  0  success: ",
    "  1  problems: ",
    "  2  invalid input: ",
};

void expectExitCodeTable(const QByteArray& help)
{
    EXPECT_TRUE(help.contains("Exit codes:\n")) << help.toStdString();
    for (const char* line : kExitCodeLines)
        EXPECT_TRUE(help.contains(line)) << line;
}

} // namespace

TEST(CommandLine, HelpListsEveryCommandAndTheExitCodes)
{
    const ToolRun run = runTool({"--help"});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 0);
    for (const char* command : {"  run ", "  verify ", "  explain "})
        EXPECT_TRUE(run.out.contains(command)) << command;
    expectExitCodeTable(run.out);
}

TEST(CommandLine, EachCommandHasItsOwnHelp)
{
    const QList<QPair<QString, QStringList>> commands{
        {"run", {"--timeout-ms", "--verbose", "--force"}},
        {"verify", {"--format", "--strict"}},
        {"explain", {"--to", "--from", "--resource", "--module", "--action", "--node", "--format"}},
    };
    for (const auto& command : commands) {
        const ToolRun run = runTool({command.first, "--help"});
        ASSERT_TRUE(run.finishedNormally);
        EXPECT_EQ(run.exitCode, 0);
        EXPECT_TRUE(run.out.startsWith(("Usage: vela-power " + command.first + " ").toUtf8())) << run.out.toStdString();
        for (const QString& option : command.second)
            EXPECT_TRUE(run.out.contains(option.toUtf8())) << command.first.toStdString() << " " << option.toStdString();
        expectExitCodeTable(run.out);
    }
}

TEST(CommandLine, ErrorsExitWithTheCodeForInvalidInput)
{
    const QList<QStringList> wrong{
        {},
        {"bogus"},
        {"run", "--bogus", shippedExample()},
        {"run"},
        {"run", "--timeout-ms", "0", shippedExample()},
        {"verify"},
        {"verify", "--format", "xml", shippedExample()},
        {"explain", shippedExample()},
        {"explain", shippedExample(), "--to", "active", "--node", "display"},
        {"explain", shippedExample(), "--resource", "audio", "--module", "media"},
        {"explain", shippedExample(), "--resource", "audio", "--module", "media", "--action", "grab"},
        {"explain", shippedExample(), "--to", "nowhere"},
    };
    for (const QStringList& arguments : wrong) {
        const ToolRun run = runTool(arguments);
        ASSERT_TRUE(run.finishedNormally);
        EXPECT_EQ(run.exitCode, 2) << arguments.join(' ').toStdString();
        EXPECT_FALSE(run.err.isEmpty()) << arguments.join(' ').toStdString();
    }
}
