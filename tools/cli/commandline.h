#ifndef VELA_CLI_COMMANDLINE_H
#define VELA_CLI_COMMANDLINE_H

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

    // An option that takes a value: --name <valueName>.
    static QCommandLineOption valueOption(const char* name, const char* description, const char* valueName);

    QCommandLineParser& parser();
    // Adds --format text|json; parse() then refuses any other value.
    void addFormatOption();
    bool isJson() const;
    // `arguments` starts with the command's name. False when the command
    // should stop with `*exitCode`.
    bool parse(const QStringList& arguments, int* exitCode);
    // The same for a command that takes exactly one graph file, returned in
    // `*graphFile`.
    bool parseWithOneGraph(const QStringList& arguments, int* exitCode, QString* graphFile);
    // "run", "verify", ...: the command's name, as messages start with it.
    const QString& command() const { return m_command; }
    // Reports a command-line error and returns the exit code for it.
    int usageError(const QString& message) const;
    QString helpText() const;

private:
    QString m_command;
    QString m_positionalUsage;
    QString m_description;
    QCommandLineParser m_parser;
    QCommandLineOption m_format;
    bool m_hasFormat = false;
};

#endif
