// vela-power monitor: a running vela-powerd's events as they happen (it
// subscribes at its org.vela.Power1.Monitor interface), printed as
// vela-power run prints a run's timeline, or as JSON, one event per line, as
// run's events file holds them. SIGINT or SIGTERM ends it with 0; the
// service leaving the bus ends it with 1.

#include "clientcommand.h"
#include "eventswriter.h"
#include "exitcodes.h"
#include "runevent.h"
#include "stopsignals.h"
#include "timeline.h"
#include "verbs.h"

#include <QCoreApplication>
#include <QDBusServiceWatcher>

#include <iostream>

namespace {

const char* const serviceName = "org.vela.Power1";
const char* const monitorPath = "/org/vela/Power1/Monitor";
const char* const monitorInterface = "org.vela.Power1.Monitor";

// Takes the service's Event signals and prints each.
class EventPrinter : public QObject
{
    Q_OBJECT

public:
    explicit EventPrinter(bool json)
        : m_json(json)
        , m_timeline(std::cout)
    {
    }

public slots:
    void take(qlonglong timeUs, const QString& kind, const QString& subject, const QString& detail)
    {
        RunEvent event;
        event.timeUs = timeUs;
        event.subject = subject;
        event.detail = detail;
        if (!RunEvent::kindOfName(kind, &event.kind)) {
            // A kind of a newer service: shown as it came.
            event.kind = RunEvent::Kind::Log;
            event.detail = kind + QStringLiteral(": ") + detail;
        }
        if (m_json)
            std::cout << EventsWriter::line(event).toStdString() << std::endl;
        else
            m_timeline.print(event);
    }

private:
    bool m_json;
    Timeline m_timeline;
};

} // namespace

int verbMonitor(const QStringList& arguments)
{
    ClientCommand command(QStringLiteral("monitor"), QString(),
                          QStringLiteral("Shows a running vela-powerd's events as they happen, as 'vela-power run' "
                                         "shows a run, until SIGINT or SIGTERM."));
    int exitCode = 0;
    if (!command.parse(arguments, &exitCode))
        return exitCode;
    if (!command.line().parser().positionalArguments().isEmpty())
        return command.line().usageError(QStringLiteral("monitor takes no arguments"));
    ServiceClient* client = command.connect(&exitCode);
    if (!client)
        return exitCode;
    const QDBusMessage running = client->properties();
    if (running.type() == QDBusMessage::ErrorMessage)
        return command.fail(client->failure(running));

    EventPrinter printer(command.isJson());
    QDBusConnection connection = client->connection();
    if (!connection.connect(QLatin1String(serviceName), QLatin1String(monitorPath), QLatin1String(monitorInterface),
                            QStringLiteral("Event"), &printer, SLOT(take(qlonglong, QString, QString, QString))))
        return command.fail(QStringLiteral("cannot watch %1's events: %2")
                                .arg(QLatin1String(serviceName), connection.lastError().message()));
    int endCode = ExitCodes::Success;
    QDBusServiceWatcher gone(QLatin1String(serviceName), connection, QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(&gone, &QDBusServiceWatcher::serviceUnregistered, [&command, client, &endCode]() {
        endCode = command.fail(QStringLiteral("%1 left %2").arg(QLatin1String(serviceName), client->busDescription()));
        QCoreApplication::quit();
    });
    StopSignals stop;
    QObject::connect(&stop, &StopSignals::stopRequested, []() { QCoreApplication::quit(); });
    const QDBusMessage subscribed = ServiceClient::waitFor(connection.asyncCall(
        QDBusMessage::createMethodCall(QLatin1String(serviceName), QLatin1String(monitorPath),
                                       QLatin1String(monitorInterface), QStringLiteral("Subscribe")),
        ServiceClient::questionTimeoutMs));
    if (subscribed.type() == QDBusMessage::ErrorMessage)
        return command.fail(client->failure(subscribed));
    std::cerr << command.line().invocation().toStdString() << ": watching " << serviceName << " on "
              << client->busDescription().toStdString() << std::endl;
    QCoreApplication::exec();
    return endCode;
}

#include "monitor.moc"
