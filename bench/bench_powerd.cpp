// vela-powerd on a private bus, in figures: the round trip of a bare call
// (Peer.Ping, answered by the service's bus library) against RequestResource
// on a resource whose control is a log line and on one whose control is a
// sysfs attribute file (p50 and p99 of 2,000 calls each), pipelined requests
// per second, the time from exec to the name owned with the shipped example
// and with a graph of 5,000 resources, and the resident memory after start:
// in all, in pages of files (the libraries' code and data) and in anonymous
// pages (the heap), against the same for the smallest Qt program that owns a
// name on the bus (this program with --floor), the floor of any Qt service.
//
//   build/bench/bench_powerd [CALLS]              (default 2000)

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

const QString service = QStringLiteral("org.vela.Power1");
const QString path = QStringLiteral("/org/vela/Power1");
const QString manager = QStringLiteral("org.vela.Power1.Manager");

bool writeFile(const QString& fileName, const QByteArray& bytes)
{
    QFile file(fileName);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QByteArray wideGraph(int resources)
{
    QByteArray json = "{ \"modules\": [ { \"name\": \"bench\" } ], \"resources\": [\n";
    QByteArray controls;
    for (int index = 0; index < resources; ++index) {
        const QByteArray name = "r" + QByteArray::number(index);
        json += "{ \"name\": \"" + name + "\", \"enable\": { \"path\": \"/hw/" + name +
                "\", \"key\": \"on\", \"value\": true } }" + (index + 1 < resources ? ",\n" : "\n");
        controls += "\"/hw/" + name + "\": { \"log\": true }" + (index + 1 < resources ? ", " : "");
    }
    return json + "], \"controls\": { " + controls + " } }\n";
}

QByteArray benchGraph(const QString& sysfs)
{
    return QStringLiteral(R"({"modules": [{"name": "bench"}],
  "resources": [
    {"name": "logged", "enable": {"path": "/hw/logged", "key": "on", "value": 1},
                       "disable": {"path": "/hw/logged", "key": "on", "value": 0}},
    {"name": "attribute", "enable": {"path": "/hw/attribute", "key": "brightness", "value": 80},
                          "disable": {"path": "/hw/attribute", "key": "brightness", "value": 0}}],
  "controls": {"/hw/logged": {"log": true}, "/hw/attribute": {"sysfs": "%1"}}})")
        .arg(sysfs)
        .toUtf8();
}

struct Service {
    QProcess process;
    qint64 startUs = -1;
};

// Starts vela-powerd on `address` with `graph` and returns the microseconds
// from exec to the name owned (-1 when it never was).
qint64 startService(Service* started, const QString& address, const QString& graph, QDBusConnection& watcher)
{
    QElapsedTimer clock;
    clock.start();
    // Its log (a line per request at INFO) would be timed with it.
    started->process.setStandardErrorFile(QProcess::nullDevice());
    started->process.start(QStringLiteral(VELA_POWERD_PROGRAM), {QStringLiteral("--bus"), address, graph});
    while (clock.elapsed() < 30000) {
        if (watcher.interface()->isServiceRegistered(service).value())
            return started->startUs = clock.nsecsElapsed() / 1000;
        if (started->process.state() == QProcess::NotRunning)
            return -1;
    }
    return -1;
}

void stopService(Service* running, QDBusConnection& watcher)
{
    running->process.terminate();
    running->process.waitForFinished(30000);
    while (watcher.interface()->isServiceRegistered(service).value())
        QThread::msleep(1);
}

// A figure of /proc/PID/status in kB ("VmRSS", "RssFile", "RssAnon").
qint64 statusKb(qint64 pid, const QByteArray& field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').constFirst().toLongLong();
    }
    return -1;
}

void printResident(const char* what, qint64 pid)
{
    std::printf("  resident memory after start, %-18s %8lld kB (%lld kB of files, %lld kB anonymous)\n", what,
                static_cast<long long>(statusKb(pid, "VmRSS")), static_cast<long long>(statusKb(pid, "RssFile")),
                static_cast<long long>(statusKb(pid, "RssAnon")));
}

// The smallest Qt program that owns a name on the bus at `address`.
int floorProgram(const QString& address)
{
    QDBusConnection bus = QDBusConnection::connectToBus(address, QStringLiteral("floor"));
    if (!bus.registerService(QStringLiteral("org.vela.Floor")))
        return 1;
    return QCoreApplication::exec();
}

// This program as the floor, measured once it owns its name.
void printFloor(const QString& address, QDBusConnection& client)
{
    QProcess floor;
    floor.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--floor"), address});
    if (!floor.waitForStarted(30000))
        return;
    while (!client.interface()->isServiceRegistered(QStringLiteral("org.vela.Floor")).value())
        QThread::msleep(1);
    printResident("a bare Qt service", floor.processId());
    floor.kill();
    floor.waitForFinished(30000);
}

struct Percentiles {
    double p50 = 0;
    double p99 = 0;
};

Percentiles percentiles(std::vector<double> us)
{
    std::sort(us.begin(), us.end());
    return {us[us.size() / 2], us[us.size() * 99 / 100]};
}

// Round trips of `calls` calls made one after another.
Percentiles roundTrips(QDBusConnection& client, int calls, const std::function<QDBusMessage(int)>& make)
{
    std::vector<double> us;
    us.reserve(static_cast<size_t>(calls));
    QElapsedTimer clock;
    for (int index = 0; index < calls; ++index) {
        const QDBusMessage message = make(index);
        clock.start();
        const QDBusMessage reply = client.call(message, QDBus::Block, 30000);
        us.push_back(static_cast<double>(clock.nsecsElapsed()) / 1000.0);
        if (reply.type() == QDBusMessage::ErrorMessage) {
            std::fprintf(stderr, "call failed: %s\n", qPrintable(reply.errorMessage()));
            break;
        }
    }
    return percentiles(us);
}

QDBusMessage requestFor(const QString& resource, int index)
{
    QDBusMessage request = QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RequestResource"));
    request.setArguments({resource, index % 2 ? QStringLiteral("release") : QStringLiteral("use"), QVariantMap()});
    return request;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc == 3 && QByteArray(argv[1]) == "--floor")
        return floorProgram(QString::fromLocal8Bit(argv[2]));
    const int calls = argc > 1 ? std::atoi(argv[1]) : 2000;
    QTemporaryDir folder;
    QProcess daemon;
    const QString address = QStringLiteral("unix:path=") + folder.filePath(QStringLiteral("bus"));
    daemon.start(QStringLiteral("dbus-daemon"),
                 {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                  QStringLiteral("--address=") + address, QStringLiteral("--print-address=1")});
    if (!daemon.waitForReadyRead(30000)) {
        std::fprintf(stderr, "dbus-daemon did not start\n");
        return 1;
    }
    QDBusConnection client = QDBusConnection::connectToBus(address, QStringLiteral("bench"));
    const QString sysfs = folder.filePath(QStringLiteral("sysfs"));

    QDir().mkpath(sysfs);
    writeFile(sysfs + QStringLiteral("/brightness"), "0");
    const QString graph = folder.filePath(QStringLiteral("bench.json"));
    const QString wide = folder.filePath(QStringLiteral("wide.json"));
    writeFile(graph, benchGraph(sysfs));
    writeFile(wide, wideGraph(5000));

    std::printf("vela-powerd on a private bus, %d calls per figure\n", calls);
    {
        Service example;
        const qint64 us = startService(&example, address, QStringLiteral(VELA_EXAMPLE_GRAPH), client);
        std::printf("  start, exec to name owned, shipped example     %8.1f ms (goal < 50 ms)\n", us / 1000.0);
        printResident("shipped example", example.process.processId());
        std::printf("    (goal < 10,240 kB)\n");
        printFloor(address, client);
        stopService(&example, client);
    }
    {
        Service large;
        const qint64 us = startService(&large, address, wide, client);
        std::printf("  start, exec to name owned, 5,000 resources     %8.1f ms (goal < 500 ms)\n", us / 1000.0);
        stopService(&large, client);
    }
    Service running;
    if (startService(&running, address, graph, client) < 0) {
        std::fprintf(stderr, "vela-powerd did not start\n");
        return 1;
    }
    QDBusMessage registration =
        QDBusMessage::createMethodCall(service, path, manager, QStringLiteral("RegisterModule"));
    registration.setArguments({QStringLiteral("bench"), QVariantMap()});
    client.call(registration);

    const Percentiles ping = roundTrips(client, calls, [](int) {
        return QDBusMessage::createMethodCall(service, path, QStringLiteral("org.freedesktop.DBus.Peer"),
                                              QStringLiteral("Ping"));
    });
    const Percentiles logged =
        roundTrips(client, calls, [](int index) { return requestFor(QStringLiteral("logged"), index); });
    const Percentiles attribute =
        roundTrips(client, calls, [](int index) { return requestFor(QStringLiteral("attribute"), index); });
    std::printf("  round trip, p50 / p99 (us):\n");
    std::printf("    Peer.Ping                                    %8.1f / %8.1f\n", ping.p50, ping.p99);
    std::printf("    RequestResource, log control                 %8.1f / %8.1f  (p50 %.2fx the ping's; goal <= 2x, "
                "p99 < 1000)\n",
                logged.p50, logged.p99, logged.p50 / ping.p50);
    std::printf("    RequestResource, sysfs control               %8.1f / %8.1f  (p50 %.2fx the ping's)\n",
                attribute.p50, attribute.p99, attribute.p50 / ping.p50);

    // Pipelined: a window of 50 calls in flight, 64 being the service's
    // limit per connection.
    const int pipelined = calls * 5;
    QElapsedTimer clock;
    clock.start();
    std::vector<QDBusPendingCall> window;
    int sent = 0;
    int failed = 0;
    while (sent < pipelined || !window.empty()) {
        while (sent < pipelined && window.size() < 50)
            window.push_back(client.asyncCall(requestFor(QStringLiteral("logged"), sent++), 30000));
        window.front().waitForFinished();
        failed += window.front().isError() ? 1 : 0;
        window.erase(window.begin());
    }
    const double seconds = static_cast<double>(clock.nsecsElapsed()) / 1e9;
    std::printf("  pipelined RequestResource, log control         %8.0f requests/s (goal >= 5,000; %d failed)\n",
                pipelined / seconds, failed);
    stopService(&running, client);
    QDBusConnection::disconnectFromBus(QStringLiteral("bench"));
    daemon.terminate();
    daemon.waitForFinished(10000);
    return 0;
}
