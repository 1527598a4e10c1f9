// vela-power's command line: help for the program and each command, the
// exit-code table, and command-line errors, which exit with the code for
// invalid input (never with a code that means something else).

#include "toolrun.h"

#include <QFile>
#include <QRegularExpression>
#include <QStringList>

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

namespace {

// The manual page with roff's escaped hyphens read as plain ones.
QString manualPageText()
{
    QFile page(QStringLiteral(VELA_MANUAL_PAGE));
    if (!page.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(page.readAll()).replace(QStringLiteral("\\-"), QStringLiteral("-"));
}

// The options a help text lists (its "--name" and "-x," forms), Qt's own
// --help-all included.
QStringList optionsIn(const QByteArray& help)
{
    QStringList options;
    const QRegularExpression option(QStringLiteral("(?:^|[\\s,])(--[a-z][a-z-]*|-[a-z](?=,))"));
    for (auto it = option.globalMatch(QString::fromUtf8(help)); it.hasNext();)
        options << it.next().captured(1);
    options.removeDuplicates();
    return options;
}

} // namespace

// The manual page is written by hand: it must keep up with the program's
// own help, command by command, option by option, and with its exit codes.
TEST(CommandLine, ManualPageDescribesEveryCommandOptionAndExitCode)
{
    const QString page = manualPageText();
    ASSERT_FALSE(page.isEmpty()) << VELA_MANUAL_PAGE;
    const ToolRun help = runTool({"--help"});
    ASSERT_TRUE(help.finishedNormally);
    const QRegularExpression commandLine(QStringLiteral("^  ([a-z]+)  "), QRegularExpression::MultilineOption);
    const QString commandsPart =
        QString::fromUtf8(help.out).section(QStringLiteral("Commands:"), 1).section(QStringLiteral("Options:"), 0, 0);
    QStringList commands;
    for (auto it = commandLine.globalMatch(commandsPart); it.hasNext();)
        commands << it.next().captured(1);
#ifdef VELA_POWER_CLIENT_COMMANDS
    EXPECT_EQ(commands, (QStringList{"run", "verify", "explain", "dot", "status", "request", "claim", "monitor"}));
#else
    EXPECT_EQ(commands, (QStringList{"run", "verify", "explain", "dot"}));
#endif
    for (const QString& command : commands) {
        EXPECT_TRUE(page.contains(QStringLiteral(".SS \"") + command + QLatin1Char(' '))) << command.toStdString();
        const ToolRun commandHelp = runTool({command, "--help"});
        ASSERT_TRUE(commandHelp.finishedNormally);
        const QStringList options = optionsIn(commandHelp.out);
        EXPECT_GE(options.size(), 3) << command.toStdString();
        for (const QString& option : options) {
            const QRegularExpression whole(QRegularExpression::escape(option) + QStringLiteral("(?![a-z-])"));
            EXPECT_TRUE(page.contains(whole)) << command.toStdString() << ": " << option.toStdString();
        }
    }
    const QRegularExpression exitCode(QStringLiteral("^  ([0-9]+)  "), QRegularExpression::MultilineOption);
    const QString codesPart = QString::fromUtf8(help.out).section(QStringLiteral("Exit codes:"), 1);
    int codes = 0;
    for (auto it = exitCode.globalMatch(codesPart); it.hasNext(); ++codes) {
        const QString code = it.next().captured(1);
        EXPECT_TRUE(page.contains(QStringLiteral(".B ") + code + QLatin1Char('\n'))) << code.toStdString();
    }
    EXPECT_EQ(codes, 5);
}
