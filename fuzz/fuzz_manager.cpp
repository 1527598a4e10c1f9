// libFuzzer target: vela-powerd's D-Bus interface, the service object in this
// process on a private bus of the fuzzer's own. Clients in this process, each
// on a connection of its own, make the calls the input picks (good and bad
// names, wrong argument types, claims for several modules, bursts past the
// limits), answer their revoke messages at once, with an error or never, and
// some vanish. Once everything is quiet:
//  - every call of a connection that is still there has its answer, and
//    every error is one the interface documents;
//  - every call the service answered later (a request) was answered exactly
//    once, and none is still owed an answer;
//  - no module of a connection that vanished keeps a hold or a use.
// A broken rule aborts with what broke it.

#include "fuzzclient.h"
#include "fuzzinput.h"

#include "graphfile.h"
#include "hardwareplatform.h"
#include "powergraph.h"
#include "powermanagerservice.h"

#include "PowerHandler.h"
#include "PowerNode.h"
#include "dbglog.h"

#include <log4cplus/nullappender.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDeadlineTimer>
#include <QFile>
#include <QHash>
#include <QSet>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int watchdogMs = 30000;
constexpr int mostCalls = 300;

// A lamp, a fan, and a radio that needs the lamp, all on log controls;
// "media" is a module of the file, registered before any client comes.
const char graphText[] = R"({"modules": [{"name": "media"}],
  "resources": [
    {"name": "lamp", "enable": {"path": "/hw/lamp", "key": "on", "value": 1},
                     "disable": {"path": "/hw/lamp", "key": "on", "value": 0}},
    {"name": "fan", "enable": {"path": "/hw/fan", "key": "on", "value": 1},
                    "disable": {"path": "/hw/fan", "key": "on", "value": 0}},
    {"name": "radio", "requires": ["lamp"], "modules": {"media": "release"},
     "enable": {"path": "/hw/radio", "key": "on", "value": 1},
     "disable": {"path": "/hw/radio", "key": "on", "value": 0}}],
  "targets": [
    {"name": "on", "enables": ["lamp", "fan"], "reachable": ["standby", "off"]},
    {"name": "standby", "disables": ["fan", "radio"], "reachable": ["on", "off"]},
    {"name": "off", "disables": ["lamp", "fan", "radio"], "reachable": ["on"]}],
  "controls": {"/hw/lamp": {"log": true}, "/hw/fan": {"log": true}, "/hw/radio": {"log": true}}})";

const QStringList moduleNames{
    QStringLiteral("m0"),           QStringLiteral("m1"),      QStringLiteral("m2"), QStringLiteral("media"), QString(),
    QString(300, QLatin1Char('m')), QStringLiteral("tab\tbed")};
const QStringList targetNames{QStringLiteral("on"), QStringLiteral("standby"), QStringLiteral("off"),
                              QStringLiteral("nowhere"), QString()};
const QStringList resourceNames{QStringLiteral("lamp"), QStringLiteral("fan"), QStringLiteral("radio"),
                                QStringLiteral("ghost")};
const QStringList actionNames{QStringLiteral("hold"), QStringLiteral("use"), QStringLiteral("release"),
                              QStringLiteral("take")};

// Every error the interface answers with.
const QSet<QString> documentedErrors{
    QStringLiteral("org.vela.Power1.Error.UnknownTarget"), QStringLiteral("org.vela.Power1.Error.UnknownResource"),
    QStringLiteral("org.vela.Power1.Error.UnknownModule"), QStringLiteral("org.vela.Power1.Error.NotRegistered"),
    QStringLiteral("org.vela.Power1.Error.NotOwner"), QStringLiteral("org.vela.Power1.Error.InvalidAction"),
    QStringLiteral("org.vela.Power1.Error.Refused"), QStringLiteral("org.vela.Power1.Error.Stopping"),
    QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"), QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
    QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded"),
    // A call whose arguments match no method.
    QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod")};

[[noreturn]] void broken(const QString& rule)
{
    std::fprintf(stderr, "fuzz_manager: %s\n", qPrintable(rule));
    std::abort();
}

template <typename Condition>
void waitFor(Condition condition, const char* what)
{
    const QDeadlineTimer watchdog(watchdogMs);
    while (!condition()) {
        if (watchdog.hasExpired())
            broken(QStringLiteral("not quiet after %1 ms: %2").arg(watchdogMs).arg(QLatin1String(what)));
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
    }
}

/*
 * The fuzzer's own dbus-daemon, started once: it dies with the fuzzer
 * (PR_SET_PDEATHSIG), whatever ends it.
 */
class FuzzBus
{
public:
    bool start()
    {
        char folder[] = "/tmp/fuzz-manager-XXXXXX";
        if (!::mkdtemp(folder))
            return false;
        m_socket = QString::fromLocal8Bit(folder) + QStringLiteral("/bus");
        const QByteArray address = "--address=unix:path=" + QFile::encodeName(m_socket);
        const pid_t child = ::fork();
        if (child < 0)
            return false;
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", address.constData(),
                     static_cast<char*>(nullptr));
            ::_exit(127);
        }
        // Up once its socket takes a connection.
        for (int attempt = 0; attempt < 1000; ++attempt) {
            struct stat status {
            };
            if (::stat(QFile::encodeName(m_socket).constData(), &status) == 0 &&
                FuzzClient(this->address(), FuzzClient::AtOnce).isConnected())
                return true;
            ::usleep(10000);
        }
        return false;
    }

    QString address() const { return QStringLiteral("unix:path=") + m_socket; }

private:
    QString m_socket;
};

FuzzBus& fuzzBus()
{
    static FuzzBus bus;
    return bus;
}

/*
 * One run: the clients, the calls the input picks, and the checks once all
 * is quiet.
 */
class ManagerRun
{
public:
    ManagerRun(FuzzInput& input, const QString& service)
        : m_input(input)
        , m_service(service)
    {
        const int clients = m_input.between(1, 4);
        for (int index = 0; index < clients; ++index) {
            const auto answer = static_cast<FuzzClient::RevokeAnswer>(m_input.pick(3));
            m_clients.push_back(std::make_unique<FuzzClient>(fuzzBus().address(), answer));
            if (!m_clients.back()->isConnected())
                broken(QStringLiteral("a client cannot connect to the fuzzer's bus"));
        }
    }

    void play()
    {
        int calls = 0;
        while (!m_input.exhausted() && calls < mostCalls) {
            FuzzClient& client = *m_clients[static_cast<size_t>(m_input.pick(static_cast<int>(m_clients.size())))];
            calls += step(client);
        }
    }

    // Waits until every call is answered and the service's queue is empty.
    void settle(const PowerManagerService& service, const PowerHandler& handler)
    {
        waitFor([this]() { return everyLiveCallAnswered(); }, "a call of a live connection has no answer");
        // One connection for the whole process, as QtDBus wants it.
        static QDBusConnection observer =
            QDBusConnection::connectToBus(fuzzBus().address(), QStringLiteral("observer"));
        // Once the bus says a vanished client has no owner, every call of
        // that client is in the service's queue, ahead of a call the
        // observer makes now: when the observer's first call is answered,
        // the service has taken them all. What the service asked the bus
        // while taking them (who the caller is, whether it is still there)
        // is answered ahead of the observer's second call: when that one is
        // answered, the service knows every vanished client has gone, and
        // has queued the release of its claims.
        for (const auto& client : m_clients) {
            if (client->gone())
                waitFor([&]() { return !observer.interface()->isServiceRegistered(client->uniqueName()).value(); },
                        "a vanished connection still has its name");
        }
        for (int round = 0; round < 2; ++round) {
            QDBusPendingCall barrier = observer.asyncCall(
                QDBusMessage::createMethodCall(m_service, QLatin1String(PowerManagerService::objectPath),
                                               QStringLiteral("org.vela.Power1.Manager"), QStringLiteral("ListNodes")));
            waitFor([&barrier]() { return barrier.isFinished(); }, "the observer's call has no answer");
        }
        waitFor([&]() { return service.waitingCalls() == 0 && handler.pendingRequests() == 0; },
                "the service still owes answers, or the handler's queue is not empty");
    }

    void check(const PowerGraph& graph, quint64 callsHeld, const QHash<quint64, int>& answersByCall) const
    {
        for (quint64 number = 1; number <= callsHeld; ++number) {
            if (answersByCall.value(number) != 1)
                fail(graph, QStringLiteral("request call %1 was answered %2 times")
                                .arg(number)
                                .arg(answersByCall.value(number)));
        }
        QSet<QString> liveModules;
        for (const auto& client : m_clients) {
            if (client->gone())
                continue;
            for (int index = 0; index < client->calls(); ++index) {
                const FuzzClient::Answer answer = client->answer(index);
                if (!answer.finished)
                    fail(graph,
                         QStringLiteral("%1 of %2 has no answer").arg(client->method(index), client->uniqueName()));
                if (!answer.errorName.isEmpty() && !documentedErrors.contains(answer.errorName))
                    fail(graph,
                         QStringLiteral("%1 of %2 got the undocumented error %3: %4")
                             .arg(client->method(index), client->uniqueName(), answer.errorName, answer.errorMessage));
                if (client->method(index) == QLatin1String("RegisterModule") && answer.errorName.isEmpty())
                    liveModules.insert(client->firstArgument(index));
            }
        }
        for (const QString& module : moduleNames) {
            if (liveModules.contains(module))
                continue;
            for (const GraphSpec::Resource& resource : graph.description().resources) {
                if (graph.resource(resource.name)->moduleAction(module) != VelaPowerModuleActions::release)
                    fail(graph, QStringLiteral("module %1, whose connection vanished, still claims %2")
                                    .arg(module, resource.name));
            }
        }
    }

private:
    void send(FuzzClient& client, const QString& method, const QVariantList& arguments)
    {
        QStringList shown;
        for (const QVariant& argument : arguments)
            shown.append(argument.userType() == QMetaType::QVariantMap
                             ? QStringLiteral("{%1}").arg(describeMap(argument.toMap()))
                             : argument.toString().left(20));
        tell(client, QStringLiteral("%1(%2)").arg(method, shown.join(QStringLiteral(", "))));
        client.call(m_service, method, arguments);
    }

    QString pickFrom(const QStringList& names) { return names.at(m_input.pick(names.size())); }

    QVariantMap registrationOptions()
    {
        switch (m_input.pick(5)) {
        case 1:
            return {{QStringLiteral("revokePath"), QStringLiteral("/m/revoke")}};
        case 2:
            return {{QStringLiteral("revokePath"), QStringLiteral("/m/revoke")},
                    {QStringLiteral("postRevokePath"), QStringLiteral("/m/after")}};
        case 3:
            return {{QStringLiteral("revokePath"), QStringLiteral("not a path")}};
        case 4:
            return {{QStringLiteral("colour"), 1}};
        default:
            return {};
        }
    }

    QVariantMap requestOptions()
    {
        if (!m_input.oneIn(3))
            return {};
        return {{QStringLiteral("module"), pickFrom(moduleNames)}};
    }

    // Makes one move of `client`; how many calls it made.
    int step(FuzzClient& client)
    {
        const int move = m_input.pick(10);
        if (client.gone() && move != 8)
            return 0;
        switch (move) {
        case 0:
            send(client, QStringLiteral("RegisterModule"), {pickFrom(moduleNames), registrationOptions()});
            return 1;
        case 1:
            send(client, QStringLiteral("RequestTarget"), {pickFrom(targetNames)});
            return 1;
        case 2:
        case 3:
            send(client, QStringLiteral("RequestResource"),
                 {pickFrom(resourceNames), pickFrom(actionNames), requestOptions()});
            return 1;
        case 4:
            send(client, QStringLiteral("ListNodes"), {});
            return 1;
        case 5:
            send(client, QStringLiteral("GetNodeInfo"), {pickFrom(resourceNames + targetNames)});
            return 1;
        case 6:
            return sendWrongTypes(client);
        case 7:
            return burst(client);
        case 8:
            m_story.append(QStringLiteral("events processed"));
            QCoreApplication::processEvents(QEventLoop::AllEvents);
            return 0;
        default:
            tell(client, QStringLiteral("vanishes; its answers so far: %1").arg(answersOf(client)));
            client.vanish();
            return 0;
        }
    }

    int sendWrongTypes(FuzzClient& client)
    {
        switch (m_input.pick(3)) {
        case 1:
            send(client, QStringLiteral("RequestResource"), {QStringLiteral("lamp"), QStringLiteral("use")});
            break;
        case 2:
            send(client, QStringLiteral("RegisterModule"), {QStringLiteral("m0"), QStringLiteral("options")});
            break;
        default:
            send(client, QStringLiteral("RequestTarget"), {42});
            break;
        }
        return 1;
    }

    // More requests than one connection may have waiting.
    int burst(FuzzClient& client)
    {
        const int count = PowerManagerService::mostQueuedPerConnection + 2;
        const QString action = pickFrom(actionNames);
        for (int index = 0; index < count; ++index)
            send(client, QStringLiteral("RequestResource"), {QStringLiteral("fan"), action, requestOptions()});
        return count;
    }

    bool everyLiveCallAnswered() const
    {
        for (const auto& client : m_clients) {
            if (client->gone())
                continue;
            client->pump();
            for (int index = 0; index < client->calls(); ++index) {
                if (!client->answer(index).finished)
                    return false;
            }
        }
        return true;
    }

    static QString describeMap(const QVariantMap& map)
    {
        QStringList entries;
        for (auto entry = map.constBegin(); entry != map.constEnd(); ++entry)
            entries.append(entry.key() + QLatin1Char('=') + entry.value().toString().left(20));
        return entries.join(QStringLiteral(", "));
    }

    static QString answersOf(const FuzzClient& client)
    {
        QStringList answers;
        for (int index = 0; index < client.calls(); ++index) {
            const FuzzClient::Answer answer = client.answer(index);
            if (!answer.finished)
                answers.append(QStringLiteral("-"));
            else
                answers.append(answer.errorName.isEmpty() ? QStringLiteral("ok")
                                                          : answer.errorName.section(QLatin1Char('.'), -1));
        }
        return answers.join(QLatin1Char(' '));
    }

    void tell(const FuzzClient& client, const QString& line)
    {
        m_story.append(QStringLiteral("%1 %2").arg(client.uniqueName(), line));
    }

    // What the run did, and the claims it left, before saying what broke.
    [[noreturn]] void fail(const PowerGraph& graph, const QString& rule) const
    {
        for (const QString& line : m_story)
            std::fprintf(stderr, "  %s\n", qPrintable(line));
        for (const auto& client : m_clients)
            std::fprintf(stderr, "  %s %s: %s\n", qPrintable(client->uniqueName()), client->gone() ? "gone" : "live",
                         qPrintable(answersOf(*client)));
        for (const QString& module : moduleNames) {
            for (const GraphSpec::Resource& resource : graph.description().resources)
                std::fprintf(stderr, "  %s on %s: %s\n", qPrintable(module), qPrintable(resource.name),
                             qPrintable(VelaPowerModuleActions::toString(
                                 graph.resource(resource.name)->moduleAction(module))));
        }
        broken(rule);
    }

    FuzzInput& m_input;
    QString m_service;
    std::vector<std::unique_ptr<FuzzClient>> m_clients;
    QStringList m_story;
};

// The group of the fuzzer's own user, so that its clients may switch
// targets whoever runs it.
QString ownGroup()
{
    const group* own = ::getgrgid(::getegid());
    return own ? QString::fromLocal8Bit(own->gr_name) : QString();
}

const GraphFile& graphFile()
{
    static const GraphFile file = []() {
        GraphFile parsed;
        GraphFile::Failure failure;
        if (!GraphFile::parse(QByteArray(graphText), QStringLiteral("fuzz.json"), &parsed, &failure))
            broken(failure.message());
        return parsed;
    }();
    return file;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication application(*argc, *argv);
    log4cplus::Logger& logger = vela::powerManagerLogger();
    logger.setAdditivity(false);
    logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
    logger.setLogLevel(log4cplus::OFF_LOG_LEVEL);
    if (!fuzzBus().start()) {
        std::fprintf(stderr, "fuzz_manager: dbus-daemon (Debian's dbus-daemon package) did not start\n");
        std::exit(1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static QDBusConnection serviceBus = QDBusConnection::connectToBus(fuzzBus().address(), QStringLiteral("service"));
    FuzzInput input(data, size);
    const GraphFile& file = graphFile();
    {
        HardwarePlatform platform(file, [](PlatformCall::Step, const PlatformCall&) {});
        PowerGraph graph(file);
        PowerHandler handler;
        graph.registerWith(handler);
        PowerManagerService service(handler, graph, serviceBus, ownGroup());
        service.setRevokeTimeout(20);
        QHash<quint64, int> answersByCall;
        service.setAnswerListener([&answersByCall](quint64 number, const QDBusMessage&) { ++answersByCall[number]; });
        serviceBus.registerObject(QLatin1String(PowerManagerService::objectPath), &service,
                                  PowerManagerService::exported);
        {
            ManagerRun run(input, serviceBus.baseService());
            run.play();
            run.settle(service, handler);
            run.check(graph, service.callsHeld(), answersByCall);
        }
        serviceBus.unregisterObject(QLatin1String(PowerManagerService::objectPath));
    }
    QCoreApplication::processEvents(QEventLoop::AllEvents);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
