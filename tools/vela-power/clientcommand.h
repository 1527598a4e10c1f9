#ifndef VELA_POWER_CLIENTCOMMAND_H
#define VELA_POWER_CLIENTCOMMAND_H

#include "commandline.h"
#include "serviceclient.h"

#include <QCommandLineOption>
#include <QString>

#include <memory>

/*
 * What the commands that talk to vela-powerd share: --bus and --format, the
 * connection, and how they end on a problem (one line on standard error,
 * exit 1).
 *
 *   ClientCommand command("status", "", "Shows ...");
 *   if (!command.parse(arguments, &exitCode))
 *       return exitCode;
 *   ServiceClient* client = command.connect(&exitCode);
 */
class ClientCommand
{
public:
    ClientCommand(const QString& name, const QString& positionalUsage, const QString& description);

    CommandLine& line() { return m_line; }
    bool isJson() const { return m_line.isJson(); }
    bool parse(const QStringList& arguments, int* exitCode);
    // The service's client on the bus asked for; null, with the problem
    // reported and `*exitCode` set, when the bus cannot be reached.
    ServiceClient* connect(int* exitCode);
    // Reports `problem` and returns the exit code for it.
    int fail(const QString& problem) const;

private:
    CommandLine m_line;
    QCommandLineOption m_bus;
    std::unique_ptr<ServiceClient> m_client;
};

#endif
