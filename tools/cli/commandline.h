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
    // A command of vela-power ("run": "vela-power run").
    CommandLine(const QString& command, const QString& positionalUsage, const QString& description);
    // How a program of its own is called ("vela-powerd").
    struct Invocation {
        QString text;
    };
    CommandLine(const Invocation& invocation, const QString& positionalUsage, const QString& description);

    // An option that takes a value: --name <valueName>.
    static QCommandLineOption valueOption(const char* name, const char* description, const char* valueName);

    QCommandLineParser& parser();
    // The table of exit codes the help ends with; vela-power's by default.
    void setExitCodes(const QString& table) { m_exitCodes = table; }
    // Adds --format text|json; parse() then refuses any other value.
    void addFormatOption();
    bool isJson() const;
    // `arguments` starts with the command's name. False when the command
    // should stop with `*exitCode`.
    bool parse(const QStringList& arguments, int* exitCode);
    // The same for a command that takes exactly one graph file, returned in
    // `*graphFile`.
    bool parseWithOneGraph(const QStringList& arguments, int* exitCode, QString* graphFile);
    // "vela-power run", "vela-powerd": how messages start.
    const QString& invocation() const { return m_invocation; }
    // Reports a command-line error and returns the exit code for it.
    int usageError(const QString& message) const;
    QString helpText() const;

private:
    QString m_invocation;
    QString m_exitCodes;
    QString m_positionalUsage;
    QString m_description;
    QCommandLineParser m_parser;
    QCommandLineOption m_format;
    bool m_hasFormat = false;
};

#endif
