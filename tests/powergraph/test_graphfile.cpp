// The host program's JSON loader: what a file may hold, the defaults of what
// it leaves out, and the refusals, each naming the place in the file.

#include "graphfile.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <ostream>

namespace {

const QString kFileName = QStringLiteral("graph.json");

GraphFile parsed(const QByteArray& json)
{
    GraphFile graph;
    GraphFile::Failure failure;
    EXPECT_TRUE(GraphFile::parse(json, kFileName, &graph, &failure)) << failure.message().toStdString();
    return graph;
}

GraphFile::Failure refused(const QByteArray& json)
{
    GraphFile graph;
    GraphFile::Failure failure;
    EXPECT_FALSE(GraphFile::parse(json, kFileName, &graph, &failure)) << json.toStdString();
    EXPECT_FALSE(failure.what.isEmpty()) << json.toStdString();
    return failure;
}

QStringList names(const GraphFile::ReferenceList& list)
{
    QStringList result;
    for (const GraphFile::Reference& reference : list)
        result.append(reference.name);
    return result;
}

// Where and what, without the file's name and place (checked on their own).
QString refusal(const QByteArray& json)
{
    const GraphFile::Failure failure = refused(json);
    return failure.where.isEmpty() ? failure.what : failure.where + ": " + failure.what;
}

} // namespace

// --- Accepted files ------------------------------------------------------------

TEST(GraphFile, BuiltInNamesKeepTheirPlatformValues)
{
    const GraphFile graph = parsed(R"({"resources": [{"name": "audio"}], "targets": [{"name": "standby"}]})");
    ASSERT_EQ(graph.resources.size(), 1);
    ASSERT_EQ(graph.targets.size(), 1);
    EXPECT_EQ(graph.resources.at(0).value, VelaPowerManagerResources::audio);
    EXPECT_EQ(graph.targets.at(0).value, VelaPowerManagerTargets::standby);
}

TEST(GraphFile, NewNamesGetFreeValuesAndBecomeTheEnumerationsText)
{
    const GraphFile graph = parsed(R"({"resources": [{"name": "heater"}, {"name": "fan", "value": 4242}]})");
    ASSERT_EQ(graph.resources.size(), 2);
    EXPECT_EQ(VelaPowerManagerResources::toString(graph.resources.at(0).value), QStringLiteral("heater"));
    EXPECT_GE(static_cast<int>(graph.resources.at(0).value), 1000);
    EXPECT_EQ(static_cast<int>(graph.resources.at(1).value), 4242);
    EXPECT_EQ(VelaPowerManagerResources::toString(graph.resources.at(1).value), QStringLiteral("fan"));
}

TEST(GraphFile, NewNamesInOneFileGetDistinctValuesForResourcesAndTargets)
{
    const GraphFile graph = parsed(R"({"resources": [{"name": "kettle"}, {"name": "toaster"}],
                                       "targets": [{"name": "breakfast"}, {"name": "nap"}]})");
    ASSERT_EQ(graph.resources.size(), 2);
    ASSERT_EQ(graph.targets.size(), 2);
    EXPECT_NE(graph.resources.at(0).value, graph.resources.at(1).value);
    EXPECT_NE(graph.targets.at(0).value, graph.targets.at(1).value);
    EXPECT_EQ(VelaPowerManagerResources::toString(graph.resources.at(1).value), QStringLiteral("toaster"));
    EXPECT_EQ(VelaPowerManagerTargets::toString(graph.targets.at(0).value), QStringLiteral("breakfast"));
    EXPECT_EQ(VelaPowerManagerTargets::toString(graph.targets.at(1).value), QStringLiteral("nap"));
}

TEST(GraphFile, EmptyObjectIsAnEmptyGraph)
{
    const GraphFile graph = parsed("{}");
    EXPECT_TRUE(graph.modules.isEmpty());
    EXPECT_TRUE(graph.resources.isEmpty());
    EXPECT_TRUE(graph.targets.isEmpty());
    EXPECT_TRUE(graph.platform.isEmpty());
    EXPECT_TRUE(graph.requests.isEmpty());
}

TEST(GraphFile, ParsingReplacesWhatTheGraphHeldBefore)
{
    GraphFile graph;
    GraphFile::Failure failure;
    ASSERT_TRUE(GraphFile::parse(R"({"modules": [{"name": "one"}], "resources": [{"name": "audio"}]})", kFileName,
                                 &graph, &failure))
        << failure.message().toStdString();
    ASSERT_TRUE(GraphFile::parse(R"({"modules": [{"name": "two"}]})", kFileName, &graph, &failure))
        << failure.message().toStdString();
    ASSERT_EQ(graph.modules.size(), 1);
    EXPECT_EQ(graph.modules.at(0).name, QStringLiteral("two"));
    EXPECT_TRUE(graph.resources.isEmpty());
}

TEST(GraphFile, ReadsWritesModulesTimeoutsAndRequests)
{
    const GraphFile graph = parsed(R"({
        "modules": [{"name": "media", "revokePath": "/m/r"}],
        "resources": [{"name": "audio", "timeoutMs": 0, "modules": {"media": "use"},
                       "enable": {"path": "/hw/a", "key": "on", "value": true}}],
        "platform": {"/hw/a": {"delayMs": 5}, "/m/r": {"error": "busy"}, "/x": "never"},
        "requests": [{"resource": "audio", "module": "media", "action": "release", "atMs": 7}]})");
    ASSERT_EQ(graph.resources.size(), 1);
    const GraphFile::Resource& audio = graph.resources.at(0);
    EXPECT_EQ(audio.timeoutMs, 0);
    EXPECT_TRUE(audio.enable.present);
    EXPECT_FALSE(audio.disable.present);
    EXPECT_EQ(audio.enable.path, QStringLiteral("/hw/a"));
    EXPECT_EQ(audio.enable.key, QStringLiteral("on"));
    EXPECT_EQ(audio.enable.value, QVariant(true));
    ASSERT_EQ(audio.modules.size(), 1);
    EXPECT_EQ(audio.modules.at(0).module, QStringLiteral("media"));
    EXPECT_EQ(audio.modules.at(0).action, VelaPowerModuleActions::use);
    ASSERT_EQ(graph.modules.size(), 1);
    EXPECT_EQ(graph.modules.at(0).name, QStringLiteral("media"));
    EXPECT_EQ(graph.modules.at(0).revokePath, QStringLiteral("/m/r"));
    EXPECT_TRUE(graph.modules.at(0).postRevokePath.isEmpty());
    EXPECT_EQ(graph.platform.size(), 3);
    EXPECT_EQ(graph.platform.value("/hw/a").kind, GraphFile::Answer::Delayed);
    EXPECT_EQ(graph.platform.value("/hw/a").delayMs, 5);
    EXPECT_EQ(graph.platform.value("/m/r").kind, GraphFile::Answer::Error);
    EXPECT_EQ(graph.platform.value("/m/r").error, QStringLiteral("busy"));
    EXPECT_EQ(graph.platform.value("/x").kind, GraphFile::Answer::Never);
    ASSERT_EQ(graph.requests.size(), 1);
    EXPECT_EQ(graph.requests.at(0).kind, GraphFile::Request::Resource);
    EXPECT_EQ(graph.requests.at(0).name, QStringLiteral("audio"));
    EXPECT_EQ(graph.requests.at(0).module, QStringLiteral("media"));
    EXPECT_EQ(graph.requests.at(0).action, VelaPowerModuleActions::release);
    EXPECT_EQ(graph.requests.at(0).atMs, 7);
}

TEST(GraphFile, LeftOutFieldsTakeTheirDefaults)
{
    const GraphFile graph = parsed(R"({
        "modules": [{"name": "media"}],
        "resources": [{"name": "audio"}],
        "targets": [{"name": "standby"}],
        "requests": [{"target": "standby"}]})");
    ASSERT_EQ(graph.modules.size(), 1);
    EXPECT_TRUE(graph.modules.at(0).revokePath.isEmpty());
    EXPECT_TRUE(graph.modules.at(0).postRevokePath.isEmpty());
    ASSERT_EQ(graph.resources.size(), 1);
    const GraphFile::Resource& audio = graph.resources.at(0);
    EXPECT_EQ(audio.timeoutMs, 5000);
    EXPECT_FALSE(audio.enable.present);
    EXPECT_FALSE(audio.disable.present);
    EXPECT_TRUE(audio.required.isEmpty());
    EXPECT_TRUE(audio.modules.isEmpty());
    ASSERT_EQ(graph.targets.size(), 1);
    const GraphFile::Target& standby = graph.targets.at(0);
    EXPECT_TRUE(standby.enables.isEmpty());
    EXPECT_TRUE(standby.disables.isEmpty());
    EXPECT_TRUE(standby.reachable.isEmpty());
    EXPECT_FALSE(standby.reachableGiven);
    ASSERT_EQ(graph.requests.size(), 1);
    const GraphFile::Request& request = graph.requests.at(0);
    EXPECT_EQ(request.kind, GraphFile::Request::Target);
    EXPECT_EQ(request.name, QStringLiteral("standby"));
    EXPECT_TRUE(request.module.isEmpty());
    EXPECT_EQ(request.atMs, 0);
}

TEST(GraphFile, EdgesReachableTargetsAndStartingActionsAreReadInOrder)
{
    const GraphFile graph = parsed(R"({
        "resources": [{"name": "audio"}, {"name": "display"},
                      {"name": "speaker", "requires": ["audio", "display"],
                       "modules": {"media": "hold", "phone": "release"},
                       "disable": {"path": "/hw/s", "key": "on", "value": 0}}],
        "targets": [{"name": "standby", "enables": ["audio"], "disables": ["display", "speaker"],
                     "reachable": []},
                    {"name": "active", "reachable": ["standby", "active"]}]})");
    ASSERT_EQ(graph.resources.size(), 3);
    const GraphFile::Resource& speaker = graph.resources.at(2);
    EXPECT_EQ(names(speaker.required), (QStringList{"audio", "display"}));
    ASSERT_EQ(speaker.modules.size(), 2);
    EXPECT_EQ(speaker.modules.at(0).module, QStringLiteral("media"));
    EXPECT_EQ(speaker.modules.at(0).action, VelaPowerModuleActions::hold);
    EXPECT_EQ(speaker.modules.at(1).module, QStringLiteral("phone"));
    EXPECT_EQ(speaker.modules.at(1).action, VelaPowerModuleActions::release);
    EXPECT_TRUE(speaker.disable.present);
    EXPECT_EQ(speaker.disable.path, QStringLiteral("/hw/s"));
    EXPECT_EQ(speaker.disable.value.toInt(), 0);
    ASSERT_EQ(graph.targets.size(), 2);
    EXPECT_EQ(names(graph.targets.at(0).enables), (QStringList{"audio"}));
    EXPECT_EQ(names(graph.targets.at(0).disables), (QStringList{"display", "speaker"}));
    // An empty list given is not the same as no list.
    EXPECT_TRUE(graph.targets.at(0).reachableGiven);
    EXPECT_TRUE(graph.targets.at(0).reachable.isEmpty());
    EXPECT_TRUE(graph.targets.at(1).reachableGiven);
    EXPECT_EQ(names(graph.targets.at(1).reachable), (QStringList{"standby", "active"}));
}

TEST(GraphFile, EveryFormOfPlatformAnswerIsRead)
{
    const GraphFile graph = parsed(R"({"platform": {
        "/now": "immediate", "/never": "never", "/absent": "absent",
        "/late": {"delayMs": 0}, "/slowError": {"error": "busy", "delayMs": 3}}})");
    ASSERT_EQ(graph.platform.size(), 5);
    EXPECT_EQ(graph.platform.value("/now").kind, GraphFile::Answer::Immediate);
    EXPECT_EQ(graph.platform.value("/never").kind, GraphFile::Answer::Never);
    EXPECT_EQ(graph.platform.value("/absent").kind, GraphFile::Answer::Absent);
    EXPECT_EQ(graph.platform.value("/late").kind, GraphFile::Answer::Delayed);
    EXPECT_EQ(graph.platform.value("/late").delayMs, 0);
    EXPECT_EQ(graph.platform.value("/slowError").kind, GraphFile::Answer::Error);
    EXPECT_EQ(graph.platform.value("/slowError").error, QStringLiteral("busy"));
    EXPECT_EQ(graph.platform.value("/slowError").delayMs, 3);
}

TEST(GraphFile, EveryActionNameIsReadForRequests)
{
    const GraphFile graph = parsed(R"({"resources": [{"name": "audio"}], "requests": [
        {"resource": "audio", "module": "m", "action": "hold"},
        {"resource": "audio", "module": "m", "action": "use"},
        {"resource": "audio", "module": "m", "action": "release"}]})");
    ASSERT_EQ(graph.requests.size(), 3);
    EXPECT_EQ(graph.requests.at(0).action, VelaPowerModuleActions::hold);
    EXPECT_EQ(graph.requests.at(1).action, VelaPowerModuleActions::use);
    EXPECT_EQ(graph.requests.at(2).action, VelaPowerModuleActions::release);
}

// --- Refusals --------------------------------------------------------------------
//
// The names of the enumerations are shared by the whole program: a name given
// with an explicit value is used by one test only.

TEST(GraphFile, RefusalsNameThePlaceInTheFile)
{
    EXPECT_TRUE(refusal("[1, 2]").contains("one JSON object"));
    EXPECT_TRUE(refusal("{").startsWith("invalid JSON: "));
    EXPECT_EQ(refusal(R"({"resources": [{"name": "a"}, {"name": "a"}]})"),
              QStringLiteral("resources[1].name: resource \"a\" is listed twice"));
    EXPECT_EQ(refusal(R"({"resources": [{"name": "a", "timeoutMs": -1}]})"),
              QStringLiteral("resources[0].timeoutMs: expected an integer from 0 to 2147483647"));
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

namespace {

struct RefusedFile {
    const char* what;
    const char* json;
    const char* message;
};

void PrintTo(const RefusedFile& file, std::ostream* out)
{
    *out << file.what;
}

class GraphFileRefusal : public ::testing::TestWithParam<RefusedFile>
{
};

const RefusedFile kRefusedFiles[] = {
    {"NotAnObject", "[]", "the file must hold one JSON object"},
    {"UnknownTopLevelKey", R"({"nodes": []})",
     "unknown key \"nodes\" (expected one of: modules, resources, targets, controls, platform, requests)"},
    {"ControlsThatAreNoObject", R"({"controls": []})", "controls: expected an object"},
    {"ControlOfNoKind", R"({"controls": {"/p": {}}})",
     "controls./p: give exactly one of \"sysfs\", \"dbus\" and \"log\""},
    {"ControlOfTwoKinds", R"({"controls": {"/p": {"log": true, "sysfs": "/sys/x"}}})",
     "controls./p: give exactly one of \"sysfs\", \"dbus\" and \"log\""},
    {"ControlOfAnUnknownKind", R"({"controls": {"/p": {"gpio": 3}}})",
     "controls./p: unknown key \"gpio\" (expected one of: sysfs, dbus, log)"},
    {"LogControlThatIsNotTrue", R"({"controls": {"/p": {"log": false}}})", "controls./p.log: expected true"},
    {"SysfsControlThatIsNoText", R"({"controls": {"/p": {"sysfs": 1}}})",
     "controls./p.sysfs: expected a non-empty string"},
    {"DBusControlWithoutService", R"({"controls": {"/p": {"dbus": {"path": "/o", "interface": "a.b"}}}})",
     "controls./p.dbus: missing \"service\""},
    {"DBusControlWithAnUnknownKey",
     R"({"controls": {"/p": {"dbus": {"service": "a.b", "path": "/o", "interface": "a.b", "member": "x"}}}})",
     "controls./p.dbus: unknown key \"member\" (expected one of: bus, service, path, interface)"},
    {"UnknownKeyInATarget", R"({"targets": [{"name": "t", "enabled": []}]})",
     "targets[0]: unknown key \"enabled\" (expected one of: name, value, enables, disables, reachable)"},
    {"UnknownKeyInAWrite",
     R"({"resources": [{"name": "a", "enable": {"path": "/p", "key": "k", "value": 1, "x": 0}}]})",
     "resources[0].enable: unknown key \"x\" (expected one of: path, key, value)"},
    {"ListThatIsNoArray", R"({"modules": {}})", "modules: expected an array"},
    {"EntryThatIsNoObject", R"({"resources": [1]})", "resources[0]: expected an object"},
    {"ModuleWithoutName", R"({"modules": [{"revokePath": "/r"}]})", "modules[0]: missing \"name\""},
    {"ModuleWithAnEmptyName", R"({"modules": [{"name": ""}]})", "modules[0].name: expected a non-empty string"},
    {"ModuleWithANumberForName", R"({"modules": [{"name": 3}]})", "modules[0].name: expected a non-empty string"},
    {"RevokePathThatIsNoString", R"({"modules": [{"name": "m", "revokePath": 1}]})",
     "modules[0].revokePath: expected a non-empty string"},
    {"ModuleListedTwice", R"({"modules": [{"name": "m"}, {"name": "m"}]})",
     "modules[1].name: module \"m\" is listed twice"},
    {"TargetListedTwice", R"({"targets": [{"name": "t"}, {"name": "t"}]})",
     "targets[1].name: target \"t\" is listed twice"},
    {"ValueUsedTwice", R"({"resources": [{"name": "twiceA", "value": 4100}, {"name": "twiceB", "value": 4100}]})",
     "resources[1].value: value 4100 is used twice"},
    {"NegativeValue", R"({"targets": [{"name": "t", "value": -2}]})",
     "targets[0].value: expected an integer from 0 to 2147483647"},
    {"FractionalTimeout", R"({"resources": [{"name": "a", "timeoutMs": 1.5}]})",
     "resources[0].timeoutMs: expected an integer from 0 to 2147483647"},
    {"TimeoutAsText", R"({"resources": [{"name": "a", "timeoutMs": "5"}]})",
     "resources[0].timeoutMs: expected an integer from 0 to 2147483647"},
    {"TimeoutBeyondTheIntegerRange", R"({"resources": [{"name": "a", "timeoutMs": 1e10}]})",
     "resources[0].timeoutMs: expected an integer from 0 to 2147483647"},
    {"WriteThatIsNoObject", R"({"resources": [{"name": "a", "disable": "/p"}]})",
     "resources[0].disable: expected an object"},
    {"WriteWithoutPath", R"({"resources": [{"name": "a", "enable": {"key": "k", "value": 1}}]})",
     "resources[0].enable: missing \"path\""},
    {"WriteWithoutKey", R"({"resources": [{"name": "a", "enable": {"path": "/p", "value": 1}}]})",
     "resources[0].enable: missing \"key\""},
    {"RequirementsThatAreNoArray", R"({"resources": [{"name": "a", "requires": "b"}]})",
     "resources[0].requires: expected an array"},
    {"RequirementThatIsNoName", R"({"resources": [{"name": "a", "requires": [1]}]})",
     "resources[0].requires[0]: expected a non-empty string"},
    {"UnknownRequirement", R"({"resources": [{"name": "a"}, {"name": "b", "requires": ["a", "c"]}]})",
     "resources[1].requires[1]: unknown resource \"c\""},
    {"StartingActionsThatAreNoObject", R"({"resources": [{"name": "a", "modules": ["m"]}]})",
     "resources[0].modules: expected an object"},
    {"UnknownStartingAction", R"({"resources": [{"name": "a", "modules": {"m": "grab"}}]})",
     "resources[0].modules.m: expected one of \"hold\", \"use\", \"release\""},
    {"TargetEnablingAnUnknownResource", R"({"targets": [{"name": "t", "enables": ["x"]}]})",
     "targets[0].enables[0]: unknown resource \"x\""},
    {"TargetDisablingAnUnknownResource",
     R"({"resources": [{"name": "a"}], "targets": [{"name": "t", "disables": ["a", "x"]}]})",
     "targets[0].disables[1]: unknown resource \"x\""},
    {"PlatformThatIsNoObject", R"({"platform": []})", "platform: expected an object"},
    {"UnknownAnswerWord", R"({"platform": {"/p": "sometimes"}})",
     "platform./p: expected \"immediate\", \"never\", \"absent\", {\"delayMs\": n} or {\"error\": \"text\"}"},
    {"AnswerWithoutDelayOrError", R"({"platform": {"/p": {}}})", "platform./p: missing \"delayMs\" or \"error\""},
    {"AnswerWithANegativeDelay", R"({"platform": {"/p": {"delayMs": -1}}})",
     "platform./p.delayMs: expected an integer from 0 to 2147483647"},
    {"AnswerWithAnEmptyError", R"({"platform": {"/p": {"error": ""}}})",
     "platform./p.error: expected a non-empty string"},
    {"AnswerWithAnUnknownKey", R"({"platform": {"/p": {"delay": 1}}})",
     "platform./p: unknown key \"delay\" (expected one of: delayMs, error)"},
    {"RequestNamingNeither", R"({"requests": [{"atMs": 1}]})",
     "requests[0]: give exactly one of \"target\" and \"resource\""},
    {"ResourceRequestWithoutModule",
     R"({"resources": [{"name": "a"}], "requests": [{"resource": "a", "action": "use"}]})",
     "requests[0]: missing \"module\""},
    {"ResourceRequestWithoutAction",
     R"({"resources": [{"name": "a"}], "requests": [{"resource": "a", "module": "m"}]})",
     "requests[0].action: expected one of \"hold\", \"use\", \"release\""},
    {"RequestAtANegativeTime", R"({"targets": [{"name": "t"}], "requests": [{"target": "t", "atMs": -3}]})",
     "requests[0].atMs: expected an integer from 0 to 2147483647"},
};

} // namespace

TEST_P(GraphFileRefusal, NamesThePlaceAndWhatIsWrongThere)
{
    EXPECT_EQ(refusal(GetParam().json).toStdString(), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(Refused, GraphFileRefusal, ::testing::ValuesIn(kRefusedFiles),
                         [](const ::testing::TestParamInfo<RefusedFile>& info) { return info.param.what; });

TEST(GraphFile, RequestsForNodesTheFileDoesNotDefineAreRefused)
{
    // The place names the request and the field that holds the name.
    const QString target = refusal(R"({"targets": [{"name": "t"}], "requests": [{"target": "u"}]})");
    EXPECT_EQ(target, QStringLiteral("requests[0].target: unknown target \"u\""));
    const QString resource = refusal(R"({"resources": [{"name": "a"}], "requests": [{"target": "t"}]})");
    EXPECT_TRUE(resource.startsWith("requests[0].target")) << resource.toStdString();
    const QString unknownResource = refusal(
        R"({"resources": [{"name": "a"}], "requests": [{"resource": "a", "module": "m", "action": "use"},
                                                       {"resource": "b", "module": "m", "action": "use"}]})");
    EXPECT_EQ(unknownResource, QStringLiteral("requests[1].resource: unknown resource \"b\""));
}

TEST(GraphFile, RefusedFileGivesNoNames)
{
    refusal(R"({"resources": [{"name": "kettle"}], "targets": [{"name": "brewing", "value": 77}],
               "requests": [{"target": "nowhere"}]})");
    VelaPowerManagerResources::Enum resource;
    VelaPowerManagerTargets::Enum target;
    EXPECT_FALSE(VelaPowerManagerResources::fromString(QStringLiteral("kettle"), &resource));
    EXPECT_FALSE(VelaPowerManagerTargets::fromString(QStringLiteral("brewing"), &target));
    EXPECT_EQ(VelaPowerManagerTargets::toString(static_cast<VelaPowerManagerTargets::Enum>(77)),
              QStringLiteral("target77"));
}

TEST(GraphFile, ValuesBeyondTheIntegerRangeAreRefused)
{
    EXPECT_EQ(refusal(R"({"resources": [{"name": "a", "timeoutMs": 3000000000}]})"),
              QStringLiteral("resources[0].timeoutMs: expected an integer from 0 to 2147483647"));
    EXPECT_EQ(refusal(R"({"resources": [{"name": "a", "timeoutMs": 2.5}]})"),
              QStringLiteral("resources[0].timeoutMs: expected an integer from 0 to 2147483647"));
}

TEST(GraphFile, ResourceRequestsMayNameModulesTheFileDoesNotList)
{
    // Left to the handler, which refuses them: a scenario can show that refusal.
    const GraphFile graph = parsed(R"({"modules": [{"name": "media"}], "resources": [{"name": "audio"}],
        "requests": [{"resource": "audio", "module": "camera-app", "action": "use"}]})");
    ASSERT_EQ(graph.requests.size(), 1);
    EXPECT_EQ(graph.requests.at(0).module, QStringLiteral("camera-app"));
}

// --- Files --------------------------------------------------------------------------

TEST(GraphFile, LoadReadsAFile)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString name = dir.filePath("graph.json");
    QFile file(name);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(R"({"modules": [{"name": "media"}], "resources": [{"name": "audio"}]})");
    file.close();

    GraphFile graph;
    GraphFile::Failure failure;
    ASSERT_TRUE(GraphFile::load(name, &graph, &failure)) << failure.message().toStdString();
    ASSERT_EQ(graph.modules.size(), 1);
    EXPECT_EQ(graph.modules.at(0).name, QStringLiteral("media"));
    ASSERT_EQ(graph.resources.size(), 1);
    EXPECT_EQ(graph.resources.at(0).value, VelaPowerManagerResources::audio);
}

TEST(GraphFile, LoadRefusalsStartWithTheFileName)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString broken = dir.filePath("broken.json");
    QFile file(broken);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(R"({"resources": [{"name": "a", "timeoutMs": -1}]})");
    file.close();

    GraphFile graph;
    GraphFile::Failure failure;
    EXPECT_FALSE(GraphFile::load(broken, &graph, &failure));
    EXPECT_EQ(failure.message(), broken + ":1:43: resources[0].timeoutMs: expected an integer from 0 to 2147483647");

    const QString missing = dir.filePath("missing.json");
    EXPECT_FALSE(GraphFile::load(missing, &graph, &failure));
    const QString error = failure.message();
    EXPECT_TRUE(error.startsWith(missing + ": ")) << error.toStdString();
    EXPECT_GT(error.size(), missing.size() + 2) << "no reason given";
}

// --- Strictness: places, duplicate keys, names, ranges -------------------------

TEST(GraphFileStrict, EveryRefusalCarriesFileLineAndColumn)
{
    const GraphFile::Failure failure = refused("{ \"resources\": [\n"
                                               "    { \"name\": \"display\" },\n"
                                               "    { \"name\": \"backlight\", \"requires\": [\"lamp\"] } ] }\n");
    EXPECT_EQ(failure.place.line, 3);
    EXPECT_EQ(failure.place.column, 41);
    EXPECT_EQ(failure.message(),
              QStringLiteral("graph.json:3:41: resources[1].requires[0]: unknown resource \"lamp\""));
}

TEST(GraphFileStrict, InvalidJsonGivesLineAndColumnNotAnOffset)
{
    const GraphFile::Failure failure = refused("{ \"resources\": [\n  { \"name\": \"a\" },\n  ]\n}");
    EXPECT_EQ(failure.place.line, 3);
    EXPECT_EQ(failure.place.column, 3);
    EXPECT_TRUE(failure.what.startsWith("invalid JSON: ")) << failure.what.toStdString();
}

TEST(GraphFileStrict, ColumnsCountCharactersNotBytes)
{
    EXPECT_EQ(refused(R"({"resources": [{"name": "é", "timeoutMs": -1}]})").place.column, 43);
}

TEST(GraphFileStrict, DuplicateKeyAtTheTopIsRefused)
{
    const GraphFile::Failure failure = refused("{ \"modules\": [ { \"name\": \"ui\" } ],\n"
                                               "  \"modules\": [] }");
    EXPECT_EQ(failure.message(),
              QStringLiteral("graph.json:2:3: duplicate key \"modules\" (first given at line 1, column 3)"));
}

TEST(GraphFileStrict, DuplicateKeyInsideAnEntryIsRefused)
{
    const GraphFile::Failure failure =
        refused("{ \"modules\": [\n"
                "    { \"name\": \"ui\", \"revokePath\": \"/x\", \"revokePath\": \"/y\" } ] }");
    EXPECT_EQ(failure.message(),
              QStringLiteral("graph.json:2:41: duplicate key \"revokePath\" (first given at line 2, column 21)"));
}

TEST(GraphFileStrict, DuplicatePlatformPathIsRefused)
{
    EXPECT_EQ(refused(R"({"platform": {"/hw/a": "never", "/hw/a": "immediate"}})").message(),
              QStringLiteral("graph.json:1:33: duplicate key \"/hw/a\" (first given at line 1, column 15)"));
}

TEST(GraphFileStrict, DuplicateKeyInALargeObjectIsFound)
{
    QByteArray json = "{\"platform\": {";
    for (int i = 0; i < 100; ++i)
        json += "\"/p" + QByteArray::number(i) + "\": \"never\", ";
    json += "\"/p7\": \"never\"}}";
    EXPECT_TRUE(refused(json).what.startsWith("duplicate key \"/p7\"")) << refused(json).what.toStdString();
}

TEST(GraphFileStrict, NewlineInANameIsRefusedAndShownEscaped)
{
    const GraphFile::Failure failure = refused(R"({"resources": [{"name": "a\nb"}]})");
    EXPECT_EQ(failure.message(),
              QStringLiteral("graph.json:1:25: resources[0].name: \"a\\nb\": character \\n at position 2 is not "
                             "printable"));
}

TEST(GraphFileStrict, ControlCharactersAreRefusedWhereverANameIsWritten)
{
    const char* const files[] = {
        R"({"modules": [{"name": "be\u0007ll"}]})",
        R"({"resources": [{"name": "a", "modules": {"x\ny": "use"}}]})",
        R"({"resources": [{"name": "a"}], "targets": [{"name": "t", "enables": ["a\t"]}]})",
        R"({"resources": [{"name": "a"}], "requests": [{"resource": "a", "module": "m\r", "action": "use"}]})",
        R"({"platform": {"/hw/\u001b[2J": "never"}})",
        R"({"resources": [{"name": "a", "enable": {"path": "/p", "key": "on\n", "value": 1}}]})",
    };
    for (const char* json : files) {
        const GraphFile::Failure failure = refused(json);
        EXPECT_TRUE(failure.what.contains("is not printable")) << failure.message().toStdString();
        EXPECT_FALSE(failure.message().contains(QLatin1Char('\n'))) << json;
        EXPECT_FALSE(failure.message().contains(QChar(0x1b))) << json;
    }
}

TEST(GraphFileStrict, LongNamesAreRefusedAndCutInTheMessage)
{
    const QByteArray name(5 * 1024 * 1024, 'x');
    const GraphFile::Failure failure = refused("{\"resources\": [{\"name\": \"" + name + "\"}]}");
    EXPECT_EQ(failure.message(),
              QStringLiteral("graph.json:1:25: resources[0].name: \"%1...\": longer than 64 characters")
                  .arg(QString(40, QLatin1Char('x'))));
    parsed("{\"resources\": [{\"name\": \"" + QByteArray(64, 'y') + "\"}]}");
}

TEST(GraphFileStrict, UnknownNamesAreCutInTheMessage)
{
    const QByteArray name(60, 'z');
    EXPECT_EQ(refusal("{\"targets\": [{\"name\": \"t\", \"reachable\": [\"" + name + "\"]}]}"),
              QStringLiteral("targets[0].reachable[0]: unknown target \"%1...\"").arg(QString(40, QLatin1Char('z'))));
}

TEST(GraphFileStrict, NumbersOutOfRangeSayTheAllowedRange)
{
    const char* const files[] = {
        R"({"resources": [{"name": "a", "value": 2147483648}]})",
        R"({"resources": [{"name": "a", "timeoutMs": 1e300}]})",
        R"({"targets": [{"name": "t"}], "requests": [{"target": "t", "atMs": 99999999999999999999}]})",
        R"({"platform": {"/p": {"delayMs": -0.5}}})",
    };
    for (const char* json : files)
        EXPECT_TRUE(refused(json).what.endsWith("expected an integer from 0 to 2147483647")) << json;
}

TEST(GraphFileStrict, DeepNestingIsRefused)
{
    const QByteArray nested = QByteArray(100, '[') + QByteArray(100, ']');
    const GraphFile::Failure failure =
        refused(R"({"resources": [{"name": "a", "enable": {"path": "/p", "key": "k", "value": )" + nested + "}}]}");
    EXPECT_EQ(failure.what, QStringLiteral("nesting deeper than 64 levels"));
}

TEST(GraphFileStrict, DataAfterANulByteIsRefused)
{
    const GraphFile::Failure failure = refused(QByteArray("{}\0{}", 5));
    EXPECT_EQ(failure.place.column, 3);
    EXPECT_EQ(failure.what, QStringLiteral("invalid JSON: unexpected data after the document"));
}

TEST(GraphFileStrict, InvalidUtf8IsRefused)
{
    EXPECT_TRUE(refused("{\"modules\": [{\"name\": \"\xff\"}]}").what.startsWith("invalid JSON: "));
}

TEST(GraphFileStrict, NamesKeepTheirPlaces)
{
    const GraphFile graph =
        parsed("{ \"resources\": [ { \"name\": \"a\" },\n"
               "  { \"name\": \"b\", \"requires\": [\"a\"], \"modules\": { \"m\": \"use\" } } ],\n"
               "  \"requests\": [ { \"resource\": \"b\", \"module\": \"m\", \"action\": \"use\" } ] }");
    ASSERT_EQ(graph.resources.size(), 2);
    EXPECT_EQ(graph.resources.at(0).place.line, 1);
    EXPECT_EQ(graph.resources.at(0).place.column, 28);
    const GraphFile::Resource& b = graph.resources.at(1);
    EXPECT_EQ(b.place.line, 2);
    EXPECT_EQ(b.place.column, 13);
    ASSERT_EQ(b.required.size(), 1);
    EXPECT_EQ(b.required.at(0).place.column, 31);
    ASSERT_EQ(b.modules.size(), 1);
    EXPECT_EQ(b.modules.at(0).place.column, 50);
    ASSERT_EQ(graph.requests.size(), 1);
    EXPECT_EQ(graph.requests.at(0).place.line, 3);
    EXPECT_EQ(graph.requests.at(0).place.column, 31);
    EXPECT_EQ(graph.requests.at(0).modulePlace.column, 46);
}

TEST(GraphFileStrict, ATargetMayNameItselfInItsLists)
{
    // Not an unknown resource: the library drops such an edge and verify
    // says so.
    const GraphFile graph = parsed(R"({"targets": [{"name": "t", "enables": ["t"], "disables": ["t"]}]})");
    ASSERT_EQ(graph.targets.size(), 1);
    EXPECT_EQ(names(graph.targets.at(0).enables), QStringList{"t"});
    EXPECT_EQ(refusal(R"({"targets": [{"name": "t", "enables": ["u"]}, {"name": "u"}]})"),
              QStringLiteral("targets[0].enables[0]: unknown resource \"u\""));
}

// One rule for what a target's enables or disables entry stands for, read by
// the wiring, the verifier and the drawing alike.
TEST(GraphSpec, TargetEdgeEndIsTheResourceElseTheTargetItselfElseNothing)
{
    GraphSpec::Target target;
    target.name = QStringLiteral("night");
    EXPECT_EQ(GraphSpec::targetEdgeEnd(target, QStringLiteral("lamp"), true), GraphSpec::EdgeEnd::Resource);
    // A resource of the target's own name wins over the target.
    EXPECT_EQ(GraphSpec::targetEdgeEnd(target, QStringLiteral("night"), true), GraphSpec::EdgeEnd::Resource);
    EXPECT_EQ(GraphSpec::targetEdgeEnd(target, QStringLiteral("night"), false), GraphSpec::EdgeEnd::TargetItself);
    EXPECT_EQ(GraphSpec::targetEdgeEnd(target, QStringLiteral("lamp"), false), GraphSpec::EdgeEnd::Unknown);
}

TEST(GraphFile, ControlsAreReadByPathWithTheirKindAndPlace)
{
    GraphFile graph;
    GraphFile::Failure failure;
    ASSERT_TRUE(GraphFile::parse(R"({"controls": {
  "/hw/lamp": {"sysfs": "/sys/class/leds/lamp"},
  "/hw/panel": {"dbus": {"service": "org.example.Panel1", "path": "/org/example/Panel1", "interface": "org.example.Panel1"}},
  "/hw/fan": {"dbus": {"bus": "session", "service": ":1.7", "path": "/", "interface": "a.b"}},
  "/hw/dry": {"log": true}}})",
                                 QStringLiteral("controls.json"), &graph, &failure, GraphFile::Naming::CheckOnly))
        << failure.message().toStdString();
    EXPECT_TRUE(graph.controlsGiven);
    ASSERT_EQ(graph.controls.size(), 4);
    const GraphSpec::Control lamp = graph.controls.value(QStringLiteral("/hw/lamp"));
    EXPECT_EQ(lamp.kind, GraphSpec::Control::Sysfs);
    EXPECT_EQ(lamp.directory, QStringLiteral("/sys/class/leds/lamp"));
    EXPECT_EQ(lamp.place.line, 2);
    const GraphSpec::Control panel = graph.controls.value(QStringLiteral("/hw/panel"));
    EXPECT_EQ(panel.kind, GraphSpec::Control::DBus);
    EXPECT_EQ(panel.bus, QStringLiteral("system")) << "the system bus unless another is given";
    EXPECT_EQ(panel.service, QStringLiteral("org.example.Panel1"));
    EXPECT_EQ(panel.objectPath, QStringLiteral("/org/example/Panel1"));
    EXPECT_EQ(panel.interface, QStringLiteral("org.example.Panel1"));
    EXPECT_EQ(graph.controls.value(QStringLiteral("/hw/fan")).bus, QStringLiteral("session"));
    EXPECT_EQ(graph.controls.value(QStringLiteral("/hw/dry")).kind, GraphSpec::Control::Log);
}

TEST(GraphFile, AFileWithoutControlsSaysSo)
{
    GraphFile graph;
    GraphFile::Failure failure;
    ASSERT_TRUE(GraphFile::parse("{}", QStringLiteral("empty.json"), &graph, &failure, GraphFile::Naming::CheckOnly));
    EXPECT_FALSE(graph.controlsGiven);
    ASSERT_TRUE(GraphFile::parse(R"({"controls": {}})", QStringLiteral("empty.json"), &graph, &failure,
                                 GraphFile::Naming::CheckOnly));
    EXPECT_TRUE(graph.controlsGiven);
    EXPECT_TRUE(graph.controls.isEmpty());
}

TEST(GraphFileStrict, DuplicateKeyIsShownEscapedOnOneLine)
{
    GraphFile graph;
    GraphFile::Failure failure;
    ASSERT_FALSE(GraphFile::parse(R"({"controls": {"/a\nb": {"log": true}, "/a\nb": {"log": true}}})",
                                  QStringLiteral("graph.json"), &graph, &failure, GraphFile::Naming::CheckOnly));
    EXPECT_EQ(failure.message().toStdString(),
              "graph.json:1:39: duplicate key \"/a\\nb\" (first given at line 1, column 15)");
    EXPECT_FALSE(failure.message().contains(QLatin1Char('\n')));
}
