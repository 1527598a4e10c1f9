// HardwarePlatform: the library's set-data writes carried to a graph's
// controls. A temporary folder of attribute files stands in for sysfs.

#include "hardwareplatform.h"

#include "capturingappender.h"
#include "eventloop.h"
#include "privatebus.h"

#include "graphfile.h"
#include "powergraph.h"
#include "requestdriver.h"

#include "PowerHandler.h"

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

GraphFile parsed(const QString& json)
{
    GraphFile file;
    GraphFile::Failure failure;
    EXPECT_TRUE(GraphFile::parse(json.toUtf8(), QStringLiteral("device.json"), &file, &failure))
        << failure.message().toStdString();
    return file;
}

// A lamp whose brightness is written to `control`'s path /hw/lamp.
QString lampGraph(const QString& control)
{
    return QStringLiteral(R"({"modules": [{"name": "reader"}],
  "resources": [{"name": "lamp",
    "enable": {"path": "/hw/lamp", "key": "brightness", "value": 80},
    "disable": {"path": "/hw/lamp", "key": "brightness", "value": 0}}],
  "controls": {"/hw/lamp": %1}})")
        .arg(control);
}

QString sysfsControl(const QString& directory)
{
    return QStringLiteral(R"({"sysfs": "%1"})").arg(directory);
}

QString fileText(const QString& fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QStringLiteral("(unreadable)");
}

// The graph on a HardwarePlatform, with every call it reports kept in order.
struct Device {
    explicit Device(const QString& json)
        : file(parsed(json))
        , platform(file,
                   [this](PlatformCall::Step step, const PlatformCall& call) {
                       steps.append({step, call});
                   })
        , graph(file)
    {
        graph.registerWith(handler);
    }

    CMReply<QVariant> ask(VelaPowerModuleActions::Enum action)
    {
        Scenario::Request request;
        request.kind = Scenario::Request::Resource;
        request.name = QStringLiteral("lamp");
        request.module = QStringLiteral("reader");
        request.action = action;
        return RequestDriver::sendTo(handler, graph, request);
    }

    GraphFile file;
    QList<QPair<PlatformCall::Step, PlatformCall>> steps;
    HardwarePlatform platform;
    PowerGraph graph;
    PowerHandler handler;
};

bool answered(const CMReply<QVariant>& reply)
{
    return waitUntil([&reply]() { return reply.isFinished(); }, 20000);
}

} // namespace

TEST(HardwarePlatform, ServesAGraphWhoseWrittenPathsAllHaveControls)
{
    QString problem;
    EXPECT_TRUE(HardwarePlatform::canServe(parsed(lampGraph(sysfsControl("/sys/class/leds/lamp"))), &problem));
    EXPECT_TRUE(HardwarePlatform::canServe(parsed(lampGraph(R"({"log": true})")), &problem));
    EXPECT_TRUE(problem.isEmpty()) << problem.toStdString();
}

TEST(HardwarePlatform, RefusesAGraphWithAWrittenPathWithoutControlNamingPathAndResource)
{
    QString problem;
    const GraphFile file = parsed(QStringLiteral(R"({"resources": [{"name": "fan",
      "enable": {"path": "/hw/fan", "key": "on", "value": 1}}], "controls": {}})"));
    EXPECT_FALSE(HardwarePlatform::canServe(file, &problem));
    EXPECT_EQ(problem.toStdString(), "resource fan writes /hw/fan, which has no control");
}

TEST(HardwarePlatform, SysfsWriteLeavesTheValueInTheAttributeFileAndAnswersTheLibrary)
{
    QTemporaryDir sysfs;
    ASSERT_TRUE(sysfs.isValid());
    const QString attribute = sysfs.filePath(QStringLiteral("brightness"));
    QFile created(attribute);
    ASSERT_TRUE(created.open(QIODevice::WriteOnly));
    created.close();
    Device device(lampGraph(sysfsControl(sysfs.path())));

    const CMReply<QVariant> on = device.ask(VelaPowerModuleActions::use);
    ASSERT_TRUE(answered(on));
    EXPECT_FALSE(on.error().isError()) << on.error().message().toString().toStdString();
    EXPECT_EQ(fileText(attribute), QStringLiteral("80"));
    EXPECT_TRUE(device.graph.resource(QStringLiteral("lamp"))->isEnabled());

    const CMReply<QVariant> off = device.ask(VelaPowerModuleActions::release);
    ASSERT_TRUE(answered(off));
    EXPECT_EQ(fileText(attribute), QStringLiteral("0"));

    ASSERT_EQ(device.steps.size(), 4);
    EXPECT_EQ(device.steps.at(0).first, PlatformCall::Arrived);
    EXPECT_FALSE(device.steps.at(0).second.answeredAtOnce);
    EXPECT_EQ(device.steps.at(0).second.resource, QStringLiteral("lamp"));
    EXPECT_EQ(device.steps.at(0).second.key, QStringLiteral("brightness"));
    EXPECT_EQ(device.steps.at(1).first, PlatformCall::Answered);
    EXPECT_EQ(device.steps.at(2).first, PlatformCall::Arrived);
    EXPECT_EQ(device.steps.at(3).first, PlatformCall::Answered);
}

TEST(HardwarePlatform, FailedWriteNamesTheFileAndTheSystemsReasonAndTheLibraryLogsIt)
{
    QTemporaryDir sysfs;
    ASSERT_TRUE(sysfs.isValid());
    // No attribute file: the driver has no such attribute.
    Device device(lampGraph(sysfsControl(sysfs.path())));
    LogCapture log;

    const CMReply<QVariant> on = device.ask(VelaPowerModuleActions::use);
    ASSERT_TRUE(answered(on));

    const std::string reason =
        sysfs.filePath(QStringLiteral("brightness")).toStdString() + ": No such file or directory";
    ASSERT_EQ(device.steps.size(), 2);
    EXPECT_EQ(device.steps.at(1).first, PlatformCall::Failed);
    EXPECT_EQ(device.steps.at(1).second.error.toStdString(), reason);
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, "lamp failed to enable Message: " + reason), 1) << log.dump();
    // The library goes on with its transition, as it does for any failed write.
    EXPECT_TRUE(device.graph.resource(QStringLiteral("lamp"))->isEnabled());
}

TEST(HardwarePlatform, WriteThatTheDriverHoldsDoesNotStallTheEventLoop)
{
    QTemporaryDir sysfs;
    ASSERT_TRUE(sysfs.isValid());
    // A FIFO stands in for a driver that is slow to take a write: opening it
    // for writing waits until someone opens it for reading.
    const QString attribute = sysfs.filePath(QStringLiteral("brightness"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(attribute).constData(), 0600), 0);
    Device device(lampGraph(sysfsControl(sysfs.path())));

    const CMReply<QVariant> on = device.ask(VelaPowerModuleActions::use);
    bool timerRan = false;
    QTimer::singleShot(0, [&timerRan]() { timerRan = true; });
    ASSERT_TRUE(waitUntil([&timerRan]() { return timerRan; }, 20000));
    EXPECT_FALSE(on.isFinished()) << "the write cannot have been taken: nobody reads the FIFO yet";

    const int reader = ::open(QFile::encodeName(attribute).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    ASSERT_TRUE(answered(on));
    char taken[8] = {};
    const ssize_t count = ::read(reader, taken, sizeof taken);
    ::close(reader);
    EXPECT_EQ(std::string(taken, count > 0 ? static_cast<size_t>(count) : 0), "80");
    EXPECT_FALSE(on.error().isError());
}

TEST(HardwarePlatform, LogControlAnswersAtOnceAndWritesNothing)
{
    Device device(lampGraph(R"({"log": true})"));

    const CMReply<QVariant> on = device.ask(VelaPowerModuleActions::use);
    ASSERT_TRUE(answered(on));

    ASSERT_EQ(device.steps.size(), 1);
    EXPECT_EQ(device.steps.at(0).first, PlatformCall::Arrived);
    EXPECT_TRUE(device.steps.at(0).second.answeredAtOnce);
    EXPECT_EQ(device.steps.at(0).second.value.toInt(), 80);
    EXPECT_TRUE(device.graph.resource(QStringLiteral("lamp"))->isEnabled());
}

TEST(HardwarePlatform, PlatformThatGoesWhileADriverHoldsAWriteNeitherWaitsNorTakesItsAnswer)
{
    QTemporaryDir sysfs;
    ASSERT_TRUE(sysfs.isValid());
    const QString attribute = sysfs.filePath(QStringLiteral("brightness"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(attribute).constData(), 0600), 0);
    CMReply<QVariant> on;
    {
        Device device(lampGraph(sysfsControl(sysfs.path())));
        on = device.ask(VelaPowerModuleActions::use);
        ASSERT_EQ(device.steps.size(), 1);
        // Gone while the write waits for a reader: a destructor that waited
        // would never return.
    }
    const int reader = ::open(QFile::encodeName(attribute).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    char taken[8] = {};
    ASSERT_TRUE(waitUntil([reader, &taken]() { return ::read(reader, taken, sizeof taken) > 0; }, 20000));
    ::close(reader);
    for (int round = 0; round < 10; ++round)
        QCoreApplication::processEvents();
    EXPECT_FALSE(on.isFinished()) << "the answer of a platform that went is dropped";
}

namespace {

// The object of a D-Bus control: it takes Properties.Set calls, notes each
// ("org.example.Lamp1 brightness=80 (int)"), and answers it, or refuses it
// with `error` when one is given.
class PropertyOwner : public QDBusVirtualObject
{
public:
    explicit PropertyOwner(QString error = QString())
        : m_error(std::move(error))
    {
    }

    QString introspect(const QString&) const override { return QString(); }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        if (message.interface() != QLatin1String("org.freedesktop.DBus.Properties") ||
            message.member() != QLatin1String("Set"))
            return false;
        const QVariantList arguments = message.arguments();
        const QVariant value = arguments.value(2).value<QDBusVariant>().variant();
        sets.append(QStringLiteral("%1 %2=%3 (%4)")
                        .arg(arguments.value(0).toString(), arguments.value(1).toString(), value.toString(),
                             QLatin1String(value.typeName())));
        connection.send(m_error.isEmpty() ? message.createReply()
                                          : message.createErrorReply(m_error, QStringLiteral("the lamp is stuck")));
        return true;
    }

    QStringList sets;

private:
    QString m_error;
};

QString dbusControl(const QString& bus, const QString& service)
{
    return QStringLiteral(R"({"dbus": {"bus": "%1", "service": "%2", "path": "/org/example/Lamp1",
                                       "interface": "org.example.Lamp1"}})")
        .arg(bus, service);
}

// A private bus with the lamp's object on it as org.example.Lamp1.
struct LampOnABus {
    bool start(PropertyOwner* owner)
    {
        if (!bus.start())
            return false;
        QDBusConnection connection = bus.connect(QStringLiteral("lamp"));
        return connection.registerVirtualObject(QStringLiteral("/org/example/Lamp1"), owner) &&
               connection.registerService(QStringLiteral("org.example.Lamp1"));
    }

    PrivateBus bus;
};

} // namespace

TEST(HardwarePlatform, DBusControlSetsThePropertyOfItsObjectAndAnswersTheLibrary)
{
    PropertyOwner owner;
    LampOnABus lamp;
    ASSERT_TRUE(lamp.start(&owner)) << "dbus-daemon (Debian's dbus-daemon package) is needed";
    Device device(lampGraph(dbusControl(lamp.bus.address(), QStringLiteral("org.example.Lamp1"))));

    const CMReply<QVariant> on = device.ask(VelaPowerModuleActions::use);
    ASSERT_TRUE(answered(on));
    const CMReply<QVariant> off = device.ask(VelaPowerModuleActions::release);
    ASSERT_TRUE(answered(off));

    EXPECT_FALSE(on.error().isError()) << on.error().message().toString().toStdString();
    EXPECT_FALSE(off.error().isError()) << off.error().message().toString().toStdString();
    EXPECT_EQ(owner.sets, (QStringList{QStringLiteral("org.example.Lamp1 brightness=80 (int)"),
                                       QStringLiteral("org.example.Lamp1 brightness=0 (int)")}));
    ASSERT_EQ(device.steps.size(), 4);
    EXPECT_EQ(device.steps.at(0).first, PlatformCall::Arrived);
    EXPECT_FALSE(device.steps.at(0).second.answeredAtOnce);
    EXPECT_EQ(device.steps.at(1).first, PlatformCall::Answered);
    EXPECT_EQ(device.steps.at(3).first, PlatformCall::Answered);
}

TEST(HardwarePlatform, RefusedPropertyNamesTheObjectThePropertyAndTheBussErrorAndTheLibraryLogsIt)
{
    PropertyOwner owner(QStringLiteral("org.freedesktop.DBus.Error.PropertyReadOnly"));
    LampOnABus lamp;
    ASSERT_TRUE(lamp.start(&owner)) << "dbus-daemon (Debian's dbus-daemon package) is needed";
    Device device(lampGraph(dbusControl(lamp.bus.address(), QStringLiteral("org.example.Lamp1"))));
    LogCapture log;

    const CMReply<QVariant> on = device.ask(VelaPowerModuleActions::use);
    ASSERT_TRUE(answered(on));

    const std::string reason = "org.example.Lamp1 /org/example/Lamp1, property org.example.Lamp1.brightness: "
                               "org.freedesktop.DBus.Error.PropertyReadOnly: the lamp is stuck";
    ASSERT_EQ(device.steps.size(), 2);
    EXPECT_EQ(device.steps.at(1).first, PlatformCall::Failed);
    EXPECT_EQ(device.steps.at(1).second.error.toStdString(), reason);
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, "lamp failed to enable Message: " + reason), 1) << log.dump();
    EXPECT_TRUE(device.graph.resource(QStringLiteral("lamp"))->isEnabled());
}

TEST(HardwarePlatform, PropertyOfAServiceThatIsNotThereFailsWithTheBussError)
{
    PropertyOwner owner;
    LampOnABus lamp;
    ASSERT_TRUE(lamp.start(&owner)) << "dbus-daemon (Debian's dbus-daemon package) is needed";
    Device device(lampGraph(dbusControl(lamp.bus.address(), QStringLiteral("org.example.Heater1"))));

    const CMReply<QVariant> on = device.ask(VelaPowerModuleActions::use);
    ASSERT_TRUE(answered(on));

    ASSERT_EQ(device.steps.size(), 2);
    EXPECT_EQ(device.steps.at(1).first, PlatformCall::Failed);
    EXPECT_TRUE(device.steps.at(1).second.error.startsWith(
        QStringLiteral("org.example.Heater1 /org/example/Lamp1, property org.example.Lamp1.brightness: "
                       "org.freedesktop.DBus.Error.ServiceUnknown: ")))
        << device.steps.at(1).second.error.toStdString();
    EXPECT_TRUE(owner.sets.isEmpty());
}

TEST(HardwarePlatform, PropertyControlOnABusThatCannotBeReachedFailsNamingTheBus)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const QString address = QStringLiteral("unix:path=") + folder.filePath(QStringLiteral("no-bus"));
    Device device(lampGraph(dbusControl(address, QStringLiteral("org.example.Lamp1"))));

    const CMReply<QVariant> on = device.ask(VelaPowerModuleActions::use);
    ASSERT_TRUE(answered(on));

    ASSERT_EQ(device.steps.size(), 2);
    EXPECT_EQ(device.steps.at(1).first, PlatformCall::Failed);
    EXPECT_TRUE(device.steps.at(1).second.error.startsWith(
        QStringLiteral("org.example.Lamp1 /org/example/Lamp1, property org.example.Lamp1.brightness: cannot reach "
                       "the bus %1: ")
            .arg(address)))
        << device.steps.at(1).second.error.toStdString();
}
