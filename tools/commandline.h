#ifndef VELA_TOOLS_COMMANDLINE_H
#define VELA_TOOLS_COMMANDLINE_H

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

/*
 * The options of one vela-power command. parse() handles --help and every
 * command-line error the same way for all commands:
 *
 *   CommandLine line("verify", "GRAPH...", "Checks graph files without running them.");
 *   line.parser().addOption(strictOption);
 *   int exitCode = 0;
 *   if (!line.parse(arguments, &exitCode))
 *       return exitCode;   // help shown (0) or error reported (2)
 */
class CommandLine
{
public:
    CommandLine(const QString& command, const QString& positionalUsage, const QString& description);

    QCommandLineParser& parser();
    // `arguments` starts with the command's name. False when the command
    // should stop with `*exitCode`.
    bool parse(const QStringList& arguments, int* exitCode);
    // Reports a command-line error and returns the exit code for it.
    int usageError(const QString& message) const;
    QString helpText() const;

private:
    QString m_command;
    QString m_positionalUsage;
    QString m_description;
    QCommandLineParser m_parser;
};

#endif
