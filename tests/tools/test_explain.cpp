// vela-power explain on the shipped example and on small graphs: what the
// library did for a switch or a request (node changes, writes, revoke
// messages), why it refused one, and why a node is in its state.
//
// Nodes that do not depend on each other change in the library's own set
// order, which is not fixed from run to run: the tests fix the exact set of
// changes and the order that dependencies impose.

#include "toolrun.h"

#include <QJsonArray>
#include <QSet>

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace {

using Pairs = QList<QPair<QString, QString>>;

QJsonObject explain(const QStringList& arguments)
{
    const ToolRun run = runTool(QStringList{"explain"} + arguments + QStringList{"--format", "json"});
    EXPECT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    return run.json();
}

Pairs transitions(const QJsonObject& change)
{
    Pairs list;
    for (const QJsonValue& value : change.value("transitions").toArray())
        list.append(qMakePair(value.toObject().value("node").toString(), value.toObject().value("state").toString()));
    return list;
}

QStringList writes(const QJsonObject& change)
{
    QStringList list;
    for (const QJsonValue& value : change.value("writes").toArray()) {
        const QJsonObject write = value.toObject();
        list.append(write.value("path").toString() + " " + write.value("key").toString() + " = "
                    + write.value("value").toString());
    }
    return list;
}

// "module at path: resources" for each revoke message of one side.
QStringList revokes(const QJsonObject& change, const char* side)
{
    QStringList list;
    for (const QJsonValue& value : change.value("revoke").toObject().value(side).toArray()) {
        const QJsonObject revoke = value.toObject();
        QStringList resources;
        for (const QJsonValue& resource : revoke.value("resources").toArray())
            resources.append(resource.toString());
        list.append(revoke.value("module").toString() + " at " + revoke.value("path").toString() + ": "
                    + resources.join(", "));
    }
    return list;
}

QStringList strings(const QJsonValue& value)
{
    QStringList list;
    for (const QJsonValue& item : value.toArray())
        list.append(item.toString());
    return list;
}

QJsonObject nodeAfter(const QJsonObject& change, const QString& name)
{
    for (const QJsonValue& value : change.value("nodes").toArray()) {
        if (value.toObject().value("node").toString() == name)
            return value.toObject();
    }
    return QJsonObject();
}

template <typename T>
QSet<T> asSet(const QList<T>& list)
{
    return QSet<T>(list.begin(), list.end());
}

void expectBefore(const Pairs& list, const QPair<QString, QString>& first, const QPair<QString, QString>& second)
{
    EXPECT_LT(list.indexOf(first), list.indexOf(second))
        << first.first.toStdString() << " must change before " << second.first.toStdString();
}

} // namespace

namespace {

// A switch away from the state the shipped example's requests leave: active
// enabled, wifi used by connectivity.
struct SwitchAfterScenario {
    const char* target;
    QSet<QPair<QString, QString>> transitions;
    QSet<QString> writes;
};

void PrintTo(const SwitchAfterScenario& row, std::ostream* out)
{
    *out << row.target;
}

const SwitchAfterScenario kSwitchesAfterScenario[] = {
    {"standby",
     {{"active", "disabled"}, {"wifi", "disabled"}, {"standby", "enabled"}, {"touch", "disabled"},
      {"display", "disabled"}, {"backlight", "disabled"}},
     {"/hw/wifi radio = false", "/hw/touch power = false", "/hw/display power = false", "/hw/backlight level = 0"}},
    // The storage has no disable write: it goes off without one.
    {"off",
     {{"active", "disabled"}, {"off", "enabled"}, {"wifi", "disabled"}, {"storage", "disabled"},
      {"touch", "disabled"}, {"display", "disabled"}, {"backlight", "disabled"}},
     {"/hw/wifi radio = false", "/hw/touch power = false", "/hw/display power = false", "/hw/backlight level = 0"}},
};

class ExplainSwitchAfterScenario : public ::testing::TestWithParam<SwitchAfterScenario>
{
};

} // namespace

TEST_P(ExplainSwitchAfterScenario, GivesTheChangesWritesAndRevokeRecipients)
{
    const SwitchAfterScenario& row = GetParam();
    const QJsonObject change = explain({shippedExample(), "--to", row.target});
    EXPECT_EQ(change.value("after").toString(), QStringLiteral("after the file's requests"));
    EXPECT_TRUE(change.value("allowed").toBool());
    EXPECT_EQ(change.value("answer").toString(), QStringLiteral("done"));
    const Pairs changes = transitions(change);
    EXPECT_EQ(changes.size(), row.transitions.size());
    EXPECT_EQ(asSet(changes), row.transitions);
    expectBefore(changes, {"display", "disabled"}, {"backlight", "disabled"});
    const QStringList written = writes(change);
    EXPECT_EQ(written.size(), row.writes.size());
    EXPECT_EQ(asSet(written), row.writes);
    EXPECT_LT(written.indexOf("/hw/display power = false"), written.indexOf("/hw/backlight level = 0"));
    EXPECT_EQ(revokes(change, "before"), QStringList{"connectivity at /modules/connectivity/revoke: wifi"});
    EXPECT_EQ(revokes(change, "after"), QStringList{"connectivity at /modules/connectivity/postRevoke: wifi"});
    EXPECT_EQ(nodeAfter(change, "wifi").value("actions").toObject(), (QJsonObject{{"connectivity", "release"}}));
    EXPECT_EQ(nodeAfter(change, row.target).value("actions").toObject(), (QJsonObject{{"PowerManager", "hold"}}));
    EXPECT_EQ(nodeAfter(change, "active").value("actions").toObject(), (QJsonObject{{"PowerManager", "release"}}));
    EXPECT_EQ(change.value("nodes").toArray().size(), row.transitions.size());
}

INSTANTIATE_TEST_SUITE_P(ShippedExample, ExplainSwitchAfterScenario, ::testing::ValuesIn(kSwitchesAfterScenario),
                         [](const ::testing::TestParamInfo<SwitchAfterScenario>& info) {
                             return std::string(info.param.target);
                         });

TEST(Explain, SwitchFromStandbyToActiveEnablesWhatDisplayRequiresFirst)
{
    const QJsonObject change = explain({shippedExample(), "--from", "standby", "--to", "active"});
    EXPECT_EQ(change.value("after").toString(), QStringLiteral("from standby"));
    EXPECT_TRUE(change.value("allowed").toBool());
    const Pairs changes = transitions(change);
    EXPECT_EQ(asSet(changes), (QSet<QPair<QString, QString>>{{"standby", "disabled"},
                                                             {"touch", "enabled"},
                                                             {"backlight", "enabled"},
                                                             {"display", "enabled"},
                                                             {"active", "enabled"}}));
    expectBefore(changes, {"backlight", "enabled"}, {"display", "enabled"});
    expectBefore(changes, {"display", "enabled"}, {"active", "enabled"});
    EXPECT_TRUE(revokes(change, "before").isEmpty());
    EXPECT_TRUE(revokes(change, "after").isEmpty());
}

TEST(Explain, RefusedSwitchSaysWhichReachableListLeavesItOut)
{
    const QJsonObject change = explain({shippedExample(), "--to", "suspend"});
    EXPECT_FALSE(change.value("allowed").toBool());
    EXPECT_EQ(change.value("answer").toString(), QStringLiteral("Failed to resolve dependencies"));
    EXPECT_EQ(change.value("reason").toString(),
              QStringLiteral("active is enabled and its reachable list (standby, off) leaves out suspend"));
    EXPECT_TRUE(transitions(change).isEmpty());
    EXPECT_TRUE(writes(change).isEmpty());
    EXPECT_TRUE(change.value("nodes").toArray().isEmpty());
    EXPECT_TRUE(revokes(change, "before").isEmpty());
}

TEST(Explain, RefusedSwitchInTextNamesTheLibrarysAnswerAndTheReason)
{
    const ToolRun run = runTool({"explain", shippedExample(), "--to", "suspend"});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith("switch to suspend (after the file's requests): refused\n"
                                   "  the library answers: Failed to resolve dependencies\n"
                                   "  because: active is enabled and its reachable list (standby, off) leaves out "
                                   "suspend\n"))
        << run.out.toStdString();
}

TEST(Explain, ResourceRequest)
{
    const QJsonObject change =
        explain({shippedExample(), "--from", "active", "--resource", "audio", "--module", "media", "--action", "use"});
    EXPECT_EQ(change.value("question").toString(), QStringLiteral("media use audio"));
    EXPECT_TRUE(change.value("allowed").toBool());
    EXPECT_EQ(transitions(change), (Pairs{{"audio", "enabled"}}));
    EXPECT_EQ(writes(change), QStringList{"/hw/codec power = on"});
    const QJsonArray nodes = change.value("nodes").toArray();
    ASSERT_EQ(nodes.size(), 1);
    EXPECT_EQ(nodes.at(0).toObject(), (QJsonObject{{"node", "audio"},
                                                   {"state", "enabled"},
                                                   {"actions", QJsonObject{{"media", "use"}}}}));
    EXPECT_TRUE(revokes(change, "before").isEmpty());
    EXPECT_TRUE(revokes(change, "after").isEmpty());
}

TEST(Explain, RequestFromAnUndeclaredModuleIsRefusedWithTheReason)
{
    const QJsonObject change = explain(
        {dataFile("findings/unregistered_module.json"), "--resource", "audio", "--module", "media", "--action", "use"});
    EXPECT_FALSE(change.value("allowed").toBool());
    EXPECT_EQ(change.value("answer").toString(), QStringLiteral("Cannot add request for requested resource"));
    EXPECT_EQ(change.value("reason").toString(),
              QStringLiteral("module media is not registered: the file does not declare it in \"modules\""));
}

TEST(Explain, HoldBlocksASwitchUntilAnEnabledTargetListsIt)
{
    const QString file = dataFile("findings/blocked_target.json");
    const QJsonObject blocked = explain({file, "--to", "quiet"});
    EXPECT_FALSE(blocked.value("allowed").toBool());
    EXPECT_EQ(blocked.value("reason").toString(),
              QStringLiteral("media holds audio with hold, and quiet disables codec, which audio requires; no "
                             "enabled target lists quiet as reachable, which would override the hold"));

    const QJsonObject allowed = explain({file, "--from", "active", "--to", "quiet"});
    EXPECT_TRUE(allowed.value("allowed").toBool());
    const Pairs changes = transitions(allowed);
    EXPECT_EQ(asSet(changes), (QSet<QPair<QString, QString>>{{"active", "disabled"},
                                                             {"quiet", "enabled"},
                                                             {"audio", "disabled"},
                                                             {"codec", "disabled"}}));
    expectBefore(changes, {"audio", "disabled"}, {"codec", "disabled"});
    EXPECT_EQ(writes(allowed), QStringList{"/hw/codec on = false"});
    // Told before and after, at the only path the module gives.
    EXPECT_EQ(revokes(allowed, "before"), QStringList{"media at /media/revoke: audio"});
    EXPECT_TRUE(revokes(allowed, "after").isEmpty());
    EXPECT_EQ(nodeAfter(allowed, "audio").value("actions").toObject(), (QJsonObject{{"media", "release"}}));
}

TEST(Explain, WhyANodeIsEnabled)
{
    const QJsonObject node = explain({shippedExample(), "--node", "backlight"});
    EXPECT_EQ(node.value("kind").toString(), QStringLiteral("resource"));
    EXPECT_EQ(node.value("state").toString(), QStringLiteral("enabled"));
    EXPECT_TRUE(node.value("claims").toObject().isEmpty());
    EXPECT_EQ(strings(node.value("lockedBy")), QStringList{"display"});
    EXPECT_EQ(node.value("requiredBy").toArray(),
              (QJsonArray{QJsonObject{{"node", "display"}, {"state", "enabled"}}}));
    EXPECT_TRUE(strings(node.value("enabledBy")).isEmpty());
    EXPECT_EQ(strings(node.value("enabledThroughRequires")), QStringList{"active"});
    EXPECT_TRUE(strings(node.value("disabledBy")).isEmpty());
    EXPECT_TRUE(strings(node.value("disabledThroughRequires")).isEmpty());
}

TEST(Explain, WhyANodeIsDisabledWithItsClaims)
{
    const QJsonObject node = explain({shippedExample(), "--node", "audio"});
    EXPECT_EQ(node.value("state").toString(), QStringLiteral("disabled"));
    EXPECT_EQ(node.value("claims").toObject(), (QJsonObject{{"media", "release"}}));
    EXPECT_TRUE(strings(node.value("lockedBy")).isEmpty());
    EXPECT_EQ(strings(node.value("disabledBy")), (QStringList{"standby", "suspend", "off"}));
}

TEST(Explain, InitialIsNotDisabled)
{
    const QJsonObject node = explain({shippedExample(), "--from", "standby", "--node", "off"});
    EXPECT_EQ(node.value("kind").toString(), QStringLiteral("target"));
    EXPECT_EQ(node.value("state").toString(), QStringLiteral("initial"));
    EXPECT_EQ(strings(node.value("disabledBy")), (QStringList{"active", "standby", "suspend"}));
    const ToolRun text = runTool({"explain", shippedExample(), "--from", "standby", "--node", "off"});
    EXPECT_TRUE(text.out.contains("  initial: never switched yet (not the same as disabled)\n")) << text.out.toStdString();
}
