#include "commandline.h"

#include "exitcodes.h"

#include <iostream>

CommandLine::CommandLine(const QString& command, const QString& positionalUsage, const QString& description)
    : CommandLine(Invocation{QStringLiteral("vela-power ") + command}, positionalUsage, description)
{
}

CommandLine::CommandLine(const Invocation& invocation, const QString& positionalUsage, const QString& description)
    : m_invocation(invocation.text)
    , m_exitCodes(ExitCodes::table())
    , m_positionalUsage(positionalUsage)
    , m_description(description)
    , m_format(QStringLiteral("format"), QStringLiteral("Output as text or json."), QStringLiteral("text|json"),
               QStringLiteral("text"))
{
    m_parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    m_parser.addHelpOption();
}

QCommandLineParser& CommandLine::parser()
{
    return m_parser;
}

void CommandLine::addFormatOption()
{
    m_parser.addOption(m_format);
    m_hasFormat = true;
}

bool CommandLine::isJson() const
{
    return m_hasFormat && m_parser.value(m_format) == QLatin1String("json");
}

bool CommandLine::parseWithOneGraph(const QStringList& arguments, int* exitCode, QString* graphFile)
{
    if (!parse(arguments, exitCode))
        return false;
    if (m_parser.positionalArguments().size() != 1) {
        *exitCode = usageError(QStringLiteral("give exactly one graph file"));
        return false;
    }
    *graphFile = m_parser.positionalArguments().constFirst();
    return true;
}

QCommandLineOption CommandLine::valueOption(const char* name, const char* description, const char* valueName)
{
    return QCommandLineOption(QString::fromLatin1(name), QString::fromUtf8(description),
                              QString::fromLatin1(valueName));
}

bool CommandLine::parse(const QStringList& arguments, int* exitCode)
{
    // parse(), not process(): process() would exit with its own code on an
    // unknown option, one that means something else here.
    if (!m_parser.parse(arguments)) {
        *exitCode = usageError(m_parser.errorText());
        return false;
    }
    if (m_parser.isSet(QStringLiteral("help"))) {
        std::cout << helpText().toStdString();
        *exitCode = ExitCodes::Success;
        return false;
    }
    const QString format = m_hasFormat ? m_parser.value(m_format) : QStringLiteral("text");
    if (format != QLatin1String("text") && format != QLatin1String("json")) {
        *exitCode = usageError(QStringLiteral("--format takes text or json"));
        return false;
    }
    return true;
}

int CommandLine::usageError(const QString& message) const
{
    std::cerr << m_invocation.toStdString() << ": " << message.toStdString() << "\n"
              << "Try '" << m_invocation.toStdString() << " --help'." << std::endl;
    return ExitCodes::InvalidInput;
}

QString CommandLine::helpText() const
{
    // Qt's own text begins with a usage line naming the binary's path; ours
    // names the command.
    const QString qtText = m_parser.helpText();
    const QString text = qtText.mid(qtText.indexOf(QLatin1String("\n\n")) + 2);
    return QStringLiteral("Usage: %1 [options] %2\n%3\n\n").arg(m_invocation, m_positionalUsage, m_description) + text +
           QLatin1Char('\n') + m_exitCodes;
}
