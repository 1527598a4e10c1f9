// A minimal power-manager service: builds a small graph in code, answers the
// set-data writes and revoke messages through the stand-alone root worker,
// requests a target and a resource, and prints the node snapshot.

#include "PowerHandler.h"
#include "PowerNode.h"

#include "cmrootworker.h"
#include "dbglog.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <log4cplus/configurator.h>

#include <iostream>

namespace {

void simulateModule(const QString& module)
{
    CMRootWorker* root = CMRootWorker::instance();
    root->registerSetDataHandler(CMPath(QStringLiteral("/modules/%1/power").arg(module)),
                                 [module](const CMPath&, const QString& key, const QVariant& value,
                                          CMReply<QVariant> reply) {
                                     std::cout << "  write " << module << "." << key << " = "
                                               << value.toString() << std::endl;
                                     reply.setValue(value);
                                 });
    for (const char* kind : {"revoke", "postRevoke"}) {
        root->registerInvokeHandler(CMPath(QStringLiteral("/modules/%1/%2").arg(module, QLatin1String(kind))),
                                    [module](const CMPath& path, const VelaHash& message, CMReply<QVariant> reply) {
                                        std::cout << "  " << path << " <- " << message << std::endl;
                                        reply.setValue(QVariant());
                                    });
    }
}

CMSetDataRequest write(const QString& module, bool on)
{
    return CMSetDataRequest(CMPath(QStringLiteral("/modules/%1/power").arg(module)), QStringLiteral("enabled"), on);
}

VelaPowerManagerModuleRegister registration(const QString& module)
{
    return VelaPowerManagerModuleRegister(module, CMPath(QStringLiteral("/modules/%1/revoke").arg(module)),
                                          CMPath(QStringLiteral("/modules/%1/postRevoke").arg(module)));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    log4cplus::BasicConfigurator config;
    config.configure();
    vela::powerManagerLogger().setLogLevel(log4cplus::INFO_LOG_LEVEL);

    simulateModule(QStringLiteral("display"));
    simulateModule(QStringLiteral("audio"));

    PowerResource display(VelaPowerManagerResources::display);
    PowerResource backlight(VelaPowerManagerResources::backlight);
    PowerResource audio(VelaPowerManagerResources::audio);
    display.setOnEnableActionRequest(write(QStringLiteral("display"), true));
    display.setOnDisableActionRequest(write(QStringLiteral("display"), false));
    backlight.setOnEnableActionRequest(write(QStringLiteral("display"), true));
    audio.setOnEnableActionRequest(write(QStringLiteral("audio"), true));
    audio.setOnDisableActionRequest(write(QStringLiteral("audio"), false));
    display.requiresResource(&backlight);

    PowerTarget active(VelaPowerManagerTargets::active);
    PowerTarget standby(VelaPowerManagerTargets::standby);
    active.enables(&display);
    standby.disables(&display);
    standby.disables(&audio);
    active.setReachableTargets({&standby});
    standby.setReachableTargets({&active});

    PowerHandler handler;
    handler.registerModule(registration(VelaPowerManagerName()));
    handler.registerModule(registration(QStringLiteral("display")));
    handler.registerModule(registration(QStringLiteral("audio")));
    for (PowerResource* resource : {&display, &backlight, &audio})
        handler.registerResource(resource);
    handler.registerTarget(&active);
    handler.registerTarget(&standby);

    QObject::connect(&handler, &PowerHandler::targetChanged, [](const VelaPowerManagerTarget& target) {
        std::cout << "targetChanged: " << VelaPowerManagerTargets::toString(target.target()) << std::endl;
    });

    int answered = 0;
    auto report = [&answered](const char* what) {
        return [&answered, what](const CMReply<QVariant>& reply) {
            const CMError error = reply.error();
            std::cout << what << ": " << (error.isError() ? error.message().toString() : QStringLiteral("done"))
                      << std::endl;
            ++answered;
            if (answered == 3)
                QCoreApplication::quit();
        };
    };

    CMReply<QVariant> toActive, useAudio, toStandby;
    toActive.onFinished(report("request target active"));
    useAudio.onFinished(report("audio uses audio"));
    toStandby.onFinished(report("request target standby"));
    handler.requestTarget(VelaPowerManagerTarget(VelaPowerManagerTargets::active), toActive);
    handler.requestResource(VelaPowerManagerResourceRequest(VelaPowerManagerResources::audio, QStringLiteral("audio"),
                                                            VelaPowerModuleActions::use),
                            useAudio);
    handler.requestTarget(VelaPowerManagerTarget(VelaPowerManagerTargets::standby), toStandby);

    QTimer::singleShot(5000, &app, &QCoreApplication::quit);
    if (answered < 3)
        app.exec();

    const QJsonDocument snapshot(QJsonObject::fromVariantHash(handler.listNodes()));
    std::cout << snapshot.toJson(QJsonDocument::Indented).toStdString();
    return answered == 3 ? 0 : 1;
}
