// vela-power-sim: runs a power graph and a scenario from a JSON file against
// a simulated platform, and shows what happened: a timeline of requests,
// signals, revoke messages, writes and node states, then the final snapshot
// of all nodes.

#include "graphfile.h"
#include "simulatedplatform.h"
#include "timeline.h"

#include "PowerHandler.h"
#include "PowerNode.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <iostream>
#include <memory>
#include <vector>

namespace {

constexpr int exitInvalidInput = 2;
constexpr int exitUnanswered = 1;

// The nodes of the graph; the service owns them for as long as the handler.
class PowerGraph
{
public:
    explicit PowerGraph(const GraphFile& file)
    {
        for (const GraphFile::Resource& entry : file.resources)
            m_resources.insert(entry.name, makeResource(entry));
        for (const GraphFile::Target& entry : file.targets)
            m_targets.insert(entry.name, makeTarget(entry));
        // Edges after all nodes exist; refused edges are logged by the nodes.
        for (const GraphFile::Resource& entry : file.resources) {
            for (const QString& required : entry.required)
                m_resources.value(entry.name)->requiresResource(m_resources.value(required));
        }
        for (const GraphFile::Target& entry : file.targets) {
            PowerTarget* target = m_targets.value(entry.name);
            for (const QString& name : entry.enables)
                target->enables(m_resources.value(name));
            for (const QString& name : entry.disables)
                target->disables(m_resources.value(name));
            if (entry.reachableGiven) {
                QList<const PowerTarget*> reachable;
                for (const QString& name : entry.reachable)
                    reachable.append(m_targets.value(name));
                target->setReachableTargets(reachable);
            }
        }
    }

    void registerWith(PowerHandler& handler, const GraphFile& file)
    {
        // The power manager acts as a module for every target request.
        handler.registerModule(VelaPowerManagerModuleRegister(VelaPowerManagerName(), CMPath(), CMPath()));
        for (const GraphFile::Module& module : file.modules)
            handler.registerModule(
                VelaPowerManagerModuleRegister(module.name, CMPath(module.revokePath), CMPath(module.postRevokePath)));
        for (const GraphFile::Resource& entry : file.resources)
            handler.registerResource(m_resources.value(entry.name));
        for (const GraphFile::Target& entry : file.targets)
            handler.registerTarget(m_targets.value(entry.name));
    }

    PowerResource* resource(const QString& name) const { return m_resources.value(name); }

private:
    PowerResource* makeResource(const GraphFile::Resource& entry)
    {
        auto* resource = new PowerResource(entry.value, entry.timeoutMs);
        m_owned.emplace_back(resource);
        if (entry.enable.present)
            resource->setOnEnableActionRequest(CMSetDataRequest(CMPath(entry.enable.path), entry.enable.key, entry.enable.value));
        if (entry.disable.present)
            resource->setOnDisableActionRequest(
                CMSetDataRequest(CMPath(entry.disable.path), entry.disable.key, entry.disable.value));
        for (const auto& module : entry.modules)
            resource->addModule(module.first, module.second);
        return resource;
    }

    PowerTarget* makeTarget(const GraphFile::Target& entry)
    {
        auto* target = new PowerTarget(entry.value);
        m_owned.emplace_back(target);
        return target;
    }

    std::vector<std::unique_ptr<PowerNode>> m_owned;
    QHash<QString, PowerResource*> m_resources;
    QHash<QString, PowerTarget*> m_targets;
};

QString describe(const GraphFile::Request& request)
{
    if (request.kind == GraphFile::Request::Target)
        return "target " + request.name;
    return "resource " + request.name + " " + VelaPowerModuleActions::toString(request.action) + " by " +
           request.module;
}

// Issues the file's requests at their times and counts the answers.
class Scenario
{
public:
    Scenario(const GraphFile& file, PowerHandler& handler, Timeline& timeline)
        : m_file(file)
        , m_handler(handler)
        , m_timeline(timeline)
    {
        QObject::connect(&handler, &PowerHandler::nextTargetChanged, [&timeline](const VelaPowerManagerTarget& t) {
            timeline.add("signal", "nextTargetChanged " + VelaPowerManagerTargets::toString(t.target()));
        });
        QObject::connect(&handler, &PowerHandler::targetChanged, [&timeline](const VelaPowerManagerTarget& t) {
            timeline.add("signal", "targetChanged " + VelaPowerManagerTargets::toString(t.target()));
        });
    }

    void start()
    {
        for (int index = 0; index < m_file.requests.size(); ++index)
            QTimer::singleShot(m_file.requests.at(index).atMs, [this, index]() { issue(index); });
    }

    bool allAnswered() const { return m_answered == m_file.requests.size(); }
    int succeeded() const { return m_succeeded; }
    int answered() const { return m_answered; }

private:
    void issue(int index)
    {
        const GraphFile::Request& request = m_file.requests.at(index);
        const int number = index + 1;
        m_timeline.add("request", QStringLiteral("#%1 %2").arg(number).arg(describe(request)));
        CMReply<QVariant> reply;
        reply.onFinished([this, number](const CMReply<QVariant>& answer) {
            const CMError error = answer.error();
            if (error.isError()) {
                m_timeline.add("answer", QStringLiteral("#%1 failed: %2").arg(number).arg(error.message().toString()));
            } else {
                ++m_succeeded;
                m_timeline.add("answer", QStringLiteral("#%1 done").arg(number));
            }
            if (++m_answered == m_file.requests.size())
                QCoreApplication::quit();
        });
        if (request.kind == GraphFile::Request::Target) {
            VelaPowerManagerTargets::Enum value;
            VelaPowerManagerTargets::fromString(request.name, &value);
            m_handler.requestTarget(VelaPowerManagerTarget(value), reply);
        } else {
            VelaPowerManagerResources::Enum value;
            VelaPowerManagerResources::fromString(request.name, &value);
            m_handler.requestResource(VelaPowerManagerResourceRequest(value, request.module, request.action), reply);
        }
    }

    const GraphFile& m_file;
    PowerHandler& m_handler;
    Timeline& m_timeline;
    int m_answered = 0;
    int m_succeeded = 0;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vela-power-sim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Runs a power graph and its requests against a simulated platform and shows what happened."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("graph"), QStringLiteral("The graph and scenario file (JSON)."));
    const QCommandLineOption timeoutOption(QStringLiteral("timeout-ms"),
                                           QStringLiteral("Give up waiting for answers after <ms> (default 60000)."),
                                           QStringLiteral("ms"), QStringLiteral("60000"));
    const QCommandLineOption verboseOption(QStringLiteral("verbose"),
                                           QStringLiteral("Also show the library's own log records."));
    parser.addOption(timeoutOption);
    parser.addOption(verboseOption);
    parser.process(app);

    if (parser.positionalArguments().size() != 1) {
        std::cerr << "usage: vela-power-sim [--timeout-ms ms] [--verbose] <graph.json>" << std::endl;
        return exitInvalidInput;
    }
    bool timeoutValid = false;
    const int timeoutMs = parser.value(timeoutOption).toInt(&timeoutValid);
    if (!timeoutValid || timeoutMs <= 0) {
        std::cerr << "vela-power-sim: --timeout-ms needs a positive number of milliseconds" << std::endl;
        return exitInvalidInput;
    }

    GraphFile file;
    QString error;
    if (!GraphFile::load(parser.positionalArguments().constFirst(), &file, &error)) {
        std::cerr << "vela-power-sim: " << error.toStdString() << std::endl;
        return exitInvalidInput;
    }

    Timeline timeline(std::cout);
    if (parser.isSet(verboseOption))
        timeline.showLibraryLog(log4cplus::TRACE_LOG_LEVEL);
    SimulatedPlatform platform(file, timeline);
    PowerGraph graph(file);
    PowerHandler handler;
    graph.registerWith(handler, file);

    Scenario scenario(file, handler, timeline);
    scenario.start();
    bool timedOut = false;
    QTimer::singleShot(timeoutMs, [&timedOut]() {
        timedOut = true;
        QCoreApplication::quit();
    });
    if (!scenario.allAnswered())
        app.exec();

    std::cout << "\nFinal state of all nodes:\n"
              << QJsonDocument(QJsonObject::fromVariantHash(handler.listNodes()))
                     .toJson(QJsonDocument::Indented)
                     .toStdString();
    std::cout << scenario.answered() << " of " << file.requests.size() << " requests answered, "
              << scenario.succeeded() << " succeeded" << std::endl;
    if (timedOut && !scenario.allAnswered()) {
        std::cerr << "vela-power-sim: gave up after " << timeoutMs << " ms with requests still unanswered"
                  << std::endl;
        return exitUnanswered;
    }
    return 0;
}
