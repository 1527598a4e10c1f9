#include "graphfile.h"

#include <gtest/gtest.h>

namespace {

GraphFile parsed(const char* json)
{
    GraphFile graph;
    QString error;
    EXPECT_TRUE(GraphFile::parse(QByteArray(json), &graph, &error)) << error.toStdString();
    return graph;
}

QString refusal(const char* json)
{
    GraphFile graph;
    QString error;
    EXPECT_FALSE(GraphFile::parse(QByteArray(json), &graph, &error));
    return error;
}

} // namespace

TEST(GraphFile, BuiltInNamesKeepTheirPlatformValues)
{
    const GraphFile graph = parsed(R"({"resources": [{"name": "audio"}], "targets": [{"name": "standby"}]})");
    ASSERT_EQ(graph.resources.size(), 1);
    EXPECT_EQ(graph.resources.at(0).value, VelaPowerManagerResources::audio);
    EXPECT_EQ(graph.targets.at(0).value, VelaPowerManagerTargets::standby);
}

TEST(GraphFile, NewNamesGetFreeValuesAndBecomeTheEnumerationsText)
{
    const GraphFile graph = parsed(R"({"resources": [{"name": "heater"}, {"name": "fan", "value": 4242}]})");
    EXPECT_EQ(VelaPowerManagerResources::toString(graph.resources.at(0).value), QStringLiteral("heater"));
    EXPECT_GE(static_cast<int>(graph.resources.at(0).value), 1000);
    EXPECT_EQ(static_cast<int>(graph.resources.at(1).value), 4242);
    EXPECT_EQ(VelaPowerManagerResources::toString(graph.resources.at(1).value), QStringLiteral("fan"));
}

TEST(GraphFile, ReadsWritesModulesTimeoutsAndRequests)
{
    const GraphFile graph = parsed(R"({
        "modules": [{"name": "media", "revokePath": "/m/r"}],
        "resources": [{"name": "audio", "timeoutMs": 0, "modules": {"media": "use"},
                       "enable": {"path": "/hw/a", "key": "on", "value": true}}],
        "platform": {"/hw/a": {"delayMs": 5}, "/m/r": {"error": "busy"}, "/x": "never"},
        "requests": [{"resource": "audio", "module": "media", "action": "release", "atMs": 7}]})");
    const GraphFile::Resource& audio = graph.resources.at(0);
    EXPECT_EQ(audio.timeoutMs, 0);
    EXPECT_TRUE(audio.enable.present);
    EXPECT_FALSE(audio.disable.present);
    EXPECT_EQ(audio.enable.path, QStringLiteral("/hw/a"));
    EXPECT_EQ(audio.enable.value, QVariant(true));
    ASSERT_EQ(audio.modules.size(), 1);
    EXPECT_EQ(audio.modules.at(0).second, VelaPowerModuleActions::use);
    EXPECT_EQ(graph.modules.at(0).revokePath, QStringLiteral("/m/r"));
    EXPECT_TRUE(graph.modules.at(0).postRevokePath.isEmpty());
    EXPECT_EQ(graph.platform.value("/hw/a").kind, GraphFile::Answer::Delayed);
    EXPECT_EQ(graph.platform.value("/hw/a").delayMs, 5);
    EXPECT_EQ(graph.platform.value("/m/r").kind, GraphFile::Answer::Error);
    EXPECT_EQ(graph.platform.value("/x").kind, GraphFile::Answer::Never);
    ASSERT_EQ(graph.requests.size(), 1);
    EXPECT_EQ(graph.requests.at(0).action, VelaPowerModuleActions::release);
    EXPECT_EQ(graph.requests.at(0).atMs, 7);
}

TEST(GraphFile, RefusalsNameThePlaceInTheFile)
{
    EXPECT_TRUE(refusal("[1, 2]").contains("one JSON object"));
    EXPECT_TRUE(refusal("{").startsWith("invalid JSON at offset"));
    EXPECT_EQ(refusal(R"({"resources": [{"name": "a"}, {"name": "a"}]})"),
              QStringLiteral("resources[1].name: resource \"a\" is listed twice"));
    EXPECT_EQ(refusal(R"({"resources": [{"name": "a", "timeoutMs": -1}]})"),
              QStringLiteral("resources[0].timeoutMs: expected an integer >= 0"));
    EXPECT_EQ(refusal(R"({"targets": [{"name": "t", "reachable": ["u"]}]})"),
              QStringLiteral("targets[0].reachable[0]: unknown target \"u\""));
    EXPECT_EQ(refusal(R"({"requests": [{"target": "t", "resource": "r"}]})"),
              QStringLiteral("requests[0]: give exactly one of \"target\" and \"resource\""));
    EXPECT_EQ(refusal(R"({"platform": {"/p": "sometimes"}})").left(11), QStringLiteral("platform./p"));
    EXPECT_EQ(refusal(R"({"resources": [{"name": "a", "enable": {"path": "/p", "key": "k"}}]})"),
              QStringLiteral("resources[0].enable: missing \"value\""));
}

TEST(GraphFile, TwoValuesCannotShareOneName)
{
    EXPECT_EQ(refusal(R"({"resources": [{"name": "wifi", "value": 77}]})"),
              QStringLiteral("resources[0].name: the name \"wifi\" already stands for another value"));
}
