#include "clientcommand.h"

#include "exitcodes.h"

#include <iostream>

ClientCommand::ClientCommand(const QString& name, const QString& positionalUsage, const QString& description)
    : m_line(name, positionalUsage, description)
    , m_bus(QStringLiteral("bus"),
            QStringLiteral("The bus of the service: system (the default), session or an address."),
            QStringLiteral("bus"), QStringLiteral("system"))
{
    m_line.parser().addOption(m_bus);
    m_line.addFormatOption();
}

bool ClientCommand::parse(const QStringList& arguments, int* exitCode)
{
    return m_line.parse(arguments, exitCode);
}

ServiceClient* ClientCommand::connect(int* exitCode)
{
    m_client = std::make_unique<ServiceClient>(m_line.parser().value(m_bus));
    QString problem;
    if (m_client->connect(&problem))
        return m_client.get();
    *exitCode = fail(problem);
    return nullptr;
}

int ClientCommand::fail(const QString& problem) const
{
    std::cerr << m_line.invocation().toStdString() << ": " << problem.toStdString() << std::endl;
    return ExitCodes::Problems;
}
