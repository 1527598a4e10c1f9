// A module of vela-powerd in a process of its own, for tests that kill it:
//
//   powerd_test_client ADDRESS MODULE RESOURCE ACTION MODE
//
// registers MODULE on the bus at ADDRESS and asks for ACTION on RESOURCE.
// MODE says what then:
//   answered  wait for the answer, print "answered" or "refused: ...", and
//             stay until killed;
//   queued    print "queued" once the service has taken the request (its
//             next call, answered after it, has come back), and stay;
//   vanish    once the bus has the calls, kill itself at once.
// Its first line is its unique name on the bus.

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>

#include <csignal>
#include <cstdio>

namespace {

const QString service = QStringLiteral("org.vela.Power1");
const QString path = QStringLiteral("/org/vela/Power1");
const QString manager = QStringLiteral("org.vela.Power1.Manager");

void say(const QString& line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

QDBusMessage managerCall(const QString& method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, manager, method);
    message.setArguments(arguments);
    return message;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 6) {
        std::fprintf(stderr, "usage: powerd_test_client ADDRESS MODULE RESOURCE ACTION answered|queued|vanish\n");
        return 2;
    }
    const QString& mode = arguments.at(5);
    QDBusConnection bus = QDBusConnection::connectToBus(arguments.at(1), QStringLiteral("client"));
    if (!bus.isConnected()) {
        std::fprintf(stderr, "powerd_test_client: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    say(bus.baseService());
    bus.send(managerCall(QStringLiteral("RegisterModule"), {arguments.at(2), QVariantMap()}));
    const QDBusMessage request =
        managerCall(QStringLiteral("RequestResource"), {arguments.at(3), arguments.at(4), QVariantMap()});
    if (mode == QLatin1String("vanish")) {
        bus.send(request);
        // The bus answers in order: once it has answered this, it has the
        // two calls before it.
        bus.interface()->isServiceRegistered(service);
        std::raise(SIGKILL);
    }
    auto* answer = new QDBusPendingCallWatcher(bus.asyncCall(request, 120000), &app);
    QObject::connect(answer, &QDBusPendingCallWatcher::finished, [](QDBusPendingCallWatcher* watcher) {
        say(watcher->isError() ? QStringLiteral("refused: ") + watcher->error().message() : QStringLiteral("answered"));
    });
    if (mode == QLatin1String("queued")) {
        auto* taken = new QDBusPendingCallWatcher(bus.asyncCall(managerCall(QStringLiteral("ListNodes"), {})), &app);
        QObject::connect(taken, &QDBusPendingCallWatcher::finished, [](QDBusPendingCallWatcher*) { say("queued"); });
    }
    return QCoreApplication::exec();
}
