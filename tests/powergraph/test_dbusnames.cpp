// The D-Bus naming rules a graph file's D-Bus controls are checked against.

#include "dbusnames.h"

#include <gtest/gtest.h>

TEST(DBusNames, BusIsSystemSessionOrAnAddress)
{
    EXPECT_EQ(DBusNames::busProblem(QStringLiteral("system")), QString());
    EXPECT_EQ(DBusNames::busProblem(QStringLiteral("session")), QString());
    EXPECT_EQ(DBusNames::busProblem(QStringLiteral("unix:path=/run/dbus/system_bus_socket")), QString());
    EXPECT_FALSE(DBusNames::busProblem(QStringLiteral("System")).isEmpty());
    EXPECT_FALSE(DBusNames::busProblem(QStringLiteral(":path=/x")).isEmpty());
}

TEST(DBusNames, ServiceNamesFollowTheBusNameRules)
{
    for (const char* valid : {"org.vela.Power1", "org.example.back-light", "a._b", ":1.42", ":1.0"})
        EXPECT_EQ(DBusNames::serviceProblem(QLatin1String(valid)), QString()) << valid;
    for (const char* invalid :
         {"", "power", "org..vela", "org.vela.", "1org.vela", "org.9vela", "org.vela/Power", "org.vela.Pöwer"})
        EXPECT_FALSE(DBusNames::serviceProblem(QString::fromUtf8(invalid)).isEmpty()) << invalid;
    EXPECT_FALSE(DBusNames::serviceProblem(QStringLiteral("a.") + QString(255, QLatin1Char('b'))).isEmpty());
}

TEST(DBusNames, ObjectPathsAreSlashSeparatedElementsOfLettersDigitsAndUnderscores)
{
    for (const char* valid : {"/", "/org/vela/Power1", "/a_b/c9"})
        EXPECT_EQ(DBusNames::objectPathProblem(QLatin1String(valid)), QString()) << valid;
    for (const char* invalid : {"", "org/vela", "/org/vela/", "/org//vela", "/org/vela-power", "/org/vela.Power"})
        EXPECT_FALSE(DBusNames::objectPathProblem(QLatin1String(invalid)).isEmpty()) << invalid;
}

TEST(DBusNames, InterfacesAreDottedNamesWithoutHyphens)
{
    for (const char* valid : {"org.vela.Power1.Manager", "a.b", "org.freedesktop.DBus.Properties"})
        EXPECT_EQ(DBusNames::interfaceProblem(QLatin1String(valid)), QString()) << valid;
    for (const char* invalid : {"", "Manager", "org.vela-power.Manager", "org.1vela", "org.vela."})
        EXPECT_FALSE(DBusNames::interfaceProblem(QLatin1String(invalid)).isEmpty()) << invalid;
}
