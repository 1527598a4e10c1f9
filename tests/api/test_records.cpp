// The power manager's records, enumerations, names, object paths, set-data
// requests and the keyed value map underneath them.

#include "cmpath.h"
#include "cmrequest.h"
#include "dbglog.h"
#include "velahash.h"
#include "velalist.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerresourcerequest.h"
#include "velapowermanagerrevokemessage.h"
#include "velapowermanagertarget.h"

#include <QHash>
#include <QMetaType>
#include <QSet>
#include <QStringList>
#include <QVariant>

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace {

template <typename T>
std::string streamed(const T& value)
{
    std::ostringstream out;
    out << value;
    return out.str();
}

// Every built-in value of a target or resource enumeration from `first` to
// `last` has its own non-empty name, which parses back to the value.
template <typename Holder>
void expectBuiltInNamesRoundTrip(typename Holder::Enum first, typename Holder::Enum last, int expectedNames)
{
    QSet<QString> names;
    for (int value = first; value <= last; ++value) {
        const auto named = static_cast<typename Holder::Enum>(value);
        const QString name = Holder::toString(named);
        EXPECT_FALSE(name.isEmpty()) << value;
        names.insert(name);
        auto parsed = static_cast<typename Holder::Enum>(-1);
        ASSERT_TRUE(Holder::fromString(name, &parsed)) << name.toStdString();
        EXPECT_EQ(parsed, named);
    }
    EXPECT_EQ(names.size(), expectedNames);
}

} // namespace

// --- Enumerations -------------------------------------------------------------

TEST(Enumerations, NodeStateValues)
{
    EXPECT_EQ(static_cast<int>(VelaPowerNodeStates::initial), 0);
    EXPECT_EQ(static_cast<int>(VelaPowerNodeStates::enabling), 1);
    EXPECT_EQ(static_cast<int>(VelaPowerNodeStates::enabled), 2);
    EXPECT_EQ(static_cast<int>(VelaPowerNodeStates::disabling), 3);
    EXPECT_EQ(static_cast<int>(VelaPowerNodeStates::disabled), 4);
}

TEST(Enumerations, ModuleActionValues)
{
    EXPECT_EQ(static_cast<int>(VelaPowerModuleActions::hold), 0);
    EXPECT_EQ(static_cast<int>(VelaPowerModuleActions::use), 1);
    EXPECT_EQ(static_cast<int>(VelaPowerModuleActions::release), 2);
}

TEST(Enumerations, MessageTypeValues)
{
    EXPECT_EQ(static_cast<int>(VelaPowerManagerMessageTypes::revoke), 0);
    EXPECT_EQ(static_cast<int>(VelaPowerManagerMessageTypes::postRevoke), 1);
}

TEST(Enumerations, NodeStateTexts)
{
    EXPECT_EQ(VelaPowerNodeStates::toString(VelaPowerNodeStates::initial), QStringLiteral("initial"));
    EXPECT_EQ(VelaPowerNodeStates::toString(VelaPowerNodeStates::enabling), QStringLiteral("enabling"));
    EXPECT_EQ(VelaPowerNodeStates::toString(VelaPowerNodeStates::enabled), QStringLiteral("enabled"));
    EXPECT_EQ(VelaPowerNodeStates::toString(VelaPowerNodeStates::disabling), QStringLiteral("disabling"));
    EXPECT_EQ(VelaPowerNodeStates::toString(VelaPowerNodeStates::disabled), QStringLiteral("disabled"));
    EXPECT_EQ(VelaPowerNodeStates::toString(static_cast<VelaPowerNodeStates::Enum>(9)), QStringLiteral("unknown(9)"));
    EXPECT_EQ(VelaPowerNodeStates::toString(static_cast<VelaPowerNodeStates::Enum>(-1)),
              QStringLiteral("unknown(-1)"));
}

TEST(Enumerations, ModuleActionTextsAndParsing)
{
    EXPECT_EQ(VelaPowerModuleActions::toString(VelaPowerModuleActions::hold), QStringLiteral("hold"));
    EXPECT_EQ(VelaPowerModuleActions::toString(VelaPowerModuleActions::use), QStringLiteral("use"));
    EXPECT_EQ(VelaPowerModuleActions::toString(VelaPowerModuleActions::release), QStringLiteral("release"));
    EXPECT_EQ(VelaPowerModuleActions::toString(static_cast<VelaPowerModuleActions::Enum>(3)),
              QStringLiteral("unknown(3)"));

    for (VelaPowerModuleActions::Enum action :
         {VelaPowerModuleActions::hold, VelaPowerModuleActions::use, VelaPowerModuleActions::release}) {
        VelaPowerModuleActions::Enum parsed = static_cast<VelaPowerModuleActions::Enum>(-1);
        EXPECT_TRUE(VelaPowerModuleActions::fromString(VelaPowerModuleActions::toString(action), &parsed));
        EXPECT_EQ(parsed, action);
    }
    VelaPowerModuleActions::Enum untouched = VelaPowerModuleActions::use;
    EXPECT_FALSE(VelaPowerModuleActions::fromString(QStringLiteral("grab"), &untouched));
    EXPECT_FALSE(VelaPowerModuleActions::fromString(QString(), &untouched));
    EXPECT_EQ(untouched, VelaPowerModuleActions::use);
}

TEST(Enumerations, MessageTypeTexts)
{
    EXPECT_EQ(VelaPowerManagerMessageTypes::toString(VelaPowerManagerMessageTypes::revoke), QStringLiteral("revoke"));
    EXPECT_EQ(VelaPowerManagerMessageTypes::toString(VelaPowerManagerMessageTypes::postRevoke),
              QStringLiteral("postRevoke"));
}

TEST(Enumerations, BuiltInTargetNamesRoundTrip)
{
    expectBuiltInNamesRoundTrip<VelaPowerManagerTargets>(VelaPowerManagerTargets::off,
                                                         VelaPowerManagerTargets::performance, 5);
    EXPECT_EQ(VelaPowerManagerTargets::toString(VelaPowerManagerTargets::standby), QStringLiteral("standby"));
}

TEST(Enumerations, BuiltInResourceNamesRoundTrip)
{
    expectBuiltInNamesRoundTrip<VelaPowerManagerResources>(VelaPowerManagerResources::display,
                                                           VelaPowerManagerResources::sensors, 12);
    EXPECT_EQ(VelaPowerManagerResources::toString(VelaPowerManagerResources::wifi), QStringLiteral("wifi"));
}

TEST(Enumerations, UnnamedTargetAndResourceValuesGetFallbackNames)
{
    EXPECT_EQ(VelaPowerManagerTargets::toString(static_cast<VelaPowerManagerTargets::Enum>(7001)),
              QStringLiteral("target7001"));
    EXPECT_EQ(VelaPowerManagerResources::toString(static_cast<VelaPowerManagerResources::Enum>(7002)),
              QStringLiteral("resource7002"));
    VelaPowerManagerTargets::Enum target = VelaPowerManagerTargets::active;
    EXPECT_FALSE(VelaPowerManagerTargets::fromString(QStringLiteral("no such target"), &target));
    EXPECT_EQ(target, VelaPowerManagerTargets::active);
    VelaPowerManagerResources::Enum resource = VelaPowerManagerResources::gpu;
    EXPECT_FALSE(VelaPowerManagerResources::fromString(QStringLiteral("no such resource"), &resource));
    EXPECT_EQ(resource, VelaPowerManagerResources::gpu);
}

TEST(Enumerations, RegisteredTargetNameIsUsedAndParsed)
{
    const auto lab = static_cast<VelaPowerManagerTargets::Enum>(5101);
    ASSERT_TRUE(VelaPowerManagerTargets::registerName(lab, QStringLiteral("labBench")));
    EXPECT_EQ(VelaPowerManagerTargets::toString(lab), QStringLiteral("labBench"));
    VelaPowerManagerTargets::Enum parsed = VelaPowerManagerTargets::off;
    ASSERT_TRUE(VelaPowerManagerTargets::fromString(QStringLiteral("labBench"), &parsed));
    EXPECT_EQ(parsed, lab);
    // Registering the same name for the same value again is harmless.
    EXPECT_TRUE(VelaPowerManagerTargets::registerName(lab, QStringLiteral("labBench")));
}

TEST(Enumerations, TargetNameTakenByAnotherValueIsRefused)
{
    const auto first = static_cast<VelaPowerManagerTargets::Enum>(5201);
    const auto second = static_cast<VelaPowerManagerTargets::Enum>(5202);
    ASSERT_TRUE(VelaPowerManagerTargets::registerName(first, QStringLiteral("uniqueTarget5201")));
    EXPECT_FALSE(VelaPowerManagerTargets::registerName(second, QStringLiteral("uniqueTarget5201")));
    EXPECT_EQ(VelaPowerManagerTargets::toString(second), QStringLiteral("target5202"));
    VelaPowerManagerTargets::Enum parsed = VelaPowerManagerTargets::off;
    ASSERT_TRUE(VelaPowerManagerTargets::fromString(QStringLiteral("uniqueTarget5201"), &parsed));
    EXPECT_EQ(parsed, first);
    // A built-in name belongs to its built-in value.
    EXPECT_FALSE(VelaPowerManagerTargets::registerName(second, QStringLiteral("suspend")));
}

TEST(Enumerations, EmptyTargetNameIsRefused)
{
    const auto value = static_cast<VelaPowerManagerTargets::Enum>(5301);
    EXPECT_FALSE(VelaPowerManagerTargets::registerName(value, QString()));
    EXPECT_EQ(VelaPowerManagerTargets::toString(value), QStringLiteral("target5301"));
}

TEST(Enumerations, RenamingATargetFreesItsOldName)
{
    const auto value = static_cast<VelaPowerManagerTargets::Enum>(5401);
    const auto other = static_cast<VelaPowerManagerTargets::Enum>(5402);
    ASSERT_TRUE(VelaPowerManagerTargets::registerName(value, QStringLiteral("oldName5401")));
    ASSERT_TRUE(VelaPowerManagerTargets::registerName(value, QStringLiteral("newName5401")));
    EXPECT_EQ(VelaPowerManagerTargets::toString(value), QStringLiteral("newName5401"));
    VelaPowerManagerTargets::Enum parsed = VelaPowerManagerTargets::off;
    EXPECT_FALSE(VelaPowerManagerTargets::fromString(QStringLiteral("oldName5401"), &parsed));
    EXPECT_TRUE(VelaPowerManagerTargets::registerName(other, QStringLiteral("oldName5401")));
    // Hand the name back so that a repeated run starts from the same registry.
    EXPECT_TRUE(VelaPowerManagerTargets::registerName(other, QStringLiteral("otherName5402")));
}

TEST(Enumerations, RegisteredResourceNameIsUsedAndParsed)
{
    const auto fan = static_cast<VelaPowerManagerResources::Enum>(6101);
    const auto other = static_cast<VelaPowerManagerResources::Enum>(6102);
    ASSERT_TRUE(VelaPowerManagerResources::registerName(fan, QStringLiteral("fan6101")));
    EXPECT_EQ(VelaPowerManagerResources::toString(fan), QStringLiteral("fan6101"));
    VelaPowerManagerResources::Enum parsed = VelaPowerManagerResources::display;
    ASSERT_TRUE(VelaPowerManagerResources::fromString(QStringLiteral("fan6101"), &parsed));
    EXPECT_EQ(parsed, fan);
    EXPECT_FALSE(VelaPowerManagerResources::registerName(other, QStringLiteral("fan6101")));
    EXPECT_FALSE(VelaPowerManagerResources::registerName(other, QString()));
    EXPECT_FALSE(VelaPowerManagerResources::registerName(other, QStringLiteral("camera")));
    EXPECT_EQ(VelaPowerManagerResources::toString(other), QStringLiteral("resource6102"));
}

TEST(Enumerations, TargetAndResourceNamesAreSeparate)
{
    const auto target = static_cast<VelaPowerManagerTargets::Enum>(6201);
    const auto resource = static_cast<VelaPowerManagerResources::Enum>(6201);
    EXPECT_TRUE(VelaPowerManagerTargets::registerName(target, QStringLiteral("shared6201")));
    EXPECT_TRUE(VelaPowerManagerResources::registerName(resource, QStringLiteral("shared6201")));
}

TEST(Enumerations, PowerManagerModuleName)
{
    EXPECT_FALSE(VelaPowerManagerName().isEmpty());
    EXPECT_EQ(VelaPowerManagerName(), QStringLiteral("PowerManager"));
}

// --- Records ------------------------------------------------------------------

TEST(Records, TargetAccessorsSetterAndEmptiness)
{
    VelaPowerManagerTarget empty;
    EXPECT_TRUE(empty.isEmpty());

    const VelaPowerManagerTarget standby(VelaPowerManagerTargets::standby);
    EXPECT_FALSE(standby.isEmpty());
    EXPECT_EQ(standby.target(), VelaPowerManagerTargets::standby);

    VelaPowerManagerTarget& chained = empty.setTarget(VelaPowerManagerTargets::off);
    EXPECT_EQ(&chained, &empty);
    EXPECT_FALSE(empty.isEmpty());
    EXPECT_EQ(empty.target(), VelaPowerManagerTargets::off);

    const VelaPowerManagerTarget copy(static_cast<const QHash<QString, QVariant>&>(standby));
    EXPECT_EQ(copy.target(), VelaPowerManagerTargets::standby);
}

TEST(Records, TargetIsAMetaTypeRegisteredUnderItsName)
{
    const int id = qMetaTypeId<VelaPowerManagerTarget>();
    EXPECT_EQ(QMetaType::type("VelaPowerManagerTarget"), id);
    EXPECT_STREQ(QMetaType::typeName(id), "VelaPowerManagerTarget");

    const VelaPowerManagerTarget target(VelaPowerManagerTargets::performance);
    const QVariant carried = QVariant::fromValue(target);
    EXPECT_EQ(carried.userType(), id);
    EXPECT_EQ(carried.value<VelaPowerManagerTarget>().target(), VelaPowerManagerTargets::performance);

    // Queued signal arguments are copied through the meta-type system by name.
    void* copy = QMetaType::create(QMetaType::type("VelaPowerManagerTarget"), &target);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(static_cast<VelaPowerManagerTarget*>(copy)->target(), VelaPowerManagerTargets::performance);
    QMetaType::destroy(id, copy);
}

TEST(Records, ResourceRequestAccessorsSettersAndEmptiness)
{
    VelaPowerManagerResourceRequest empty;
    EXPECT_TRUE(empty.isEmpty());

    const VelaPowerManagerResourceRequest request(VelaPowerManagerResources::audio, QStringLiteral("media"),
                                                  VelaPowerModuleActions::use);
    EXPECT_FALSE(request.isEmpty());
    EXPECT_EQ(request.resource(), VelaPowerManagerResources::audio);
    EXPECT_EQ(request.moduleName(), QStringLiteral("media"));
    EXPECT_EQ(request.action(), VelaPowerModuleActions::use);

    VelaPowerManagerResourceRequest& chained = empty.setResource(VelaPowerManagerResources::camera)
                                                   .setModuleName(QStringLiteral("vision"))
                                                   .setAction(VelaPowerModuleActions::release);
    EXPECT_EQ(&chained, &empty);
    EXPECT_EQ(empty.resource(), VelaPowerManagerResources::camera);
    EXPECT_EQ(empty.moduleName(), QStringLiteral("vision"));
    EXPECT_EQ(empty.action(), VelaPowerModuleActions::release);

    const VelaPowerManagerResourceRequest fromMap(static_cast<const QHash<QString, QVariant>&>(request));
    EXPECT_EQ(fromMap.moduleName(), QStringLiteral("media"));
    EXPECT_EQ(fromMap.action(), VelaPowerModuleActions::use);
}

TEST(Records, ModuleRegisterAccessorsSettersAndEmptiness)
{
    VelaPowerManagerModuleRegister empty;
    EXPECT_TRUE(empty.isEmpty());

    const VelaPowerManagerModuleRegister module(QStringLiteral("display"), CMPath("/display/revoke"),
                                                CMPath("/display/postRevoke"));
    EXPECT_FALSE(module.isEmpty());
    EXPECT_EQ(module.moduleName(), QStringLiteral("display"));
    EXPECT_EQ(module.revokeResourcesPath(), CMPath("/display/revoke"));
    EXPECT_EQ(module.postRevokeResourcesPath(), CMPath("/display/postRevoke"));

    VelaPowerManagerModuleRegister& chained = empty.setModuleName(QStringLiteral("audio"))
                                                  .setRevokeResourcesPath(CMPath("/audio/revoke"))
                                                  .setPostRevokeResourcesPath(CMPath());
    EXPECT_EQ(&chained, &empty);
    EXPECT_EQ(empty.moduleName(), QStringLiteral("audio"));
    EXPECT_EQ(empty.revokeResourcesPath().toString(), QStringLiteral("/audio/revoke"));
    EXPECT_TRUE(empty.postRevokeResourcesPath().isEmpty());
}

TEST(Records, ModuleRegisterWithoutPathsHasEmptyPaths)
{
    VelaPowerManagerModuleRegister module;
    module.setModuleName(QStringLiteral("quiet"));
    EXPECT_FALSE(module.isEmpty());
    EXPECT_TRUE(module.revokeResourcesPath().isEmpty());
    EXPECT_TRUE(module.postRevokeResourcesPath().isEmpty());
}

TEST(Records, RevokeMessageBuiltFromEmptyMapAndChainedSetters)
{
    VelaPowerManagerRevokeMessage message{QHash<QString, QVariant>()};
    EXPECT_TRUE(message.isEmpty());
    EXPECT_TRUE(message.revokeResources().isEmpty());

    const VelaList<VelaPowerManagerResources::Enum> revoked{VelaPowerManagerResources::audio,
                                                           VelaPowerManagerResources::bluetooth};
    VelaPowerManagerRevokeMessage& chained = message.setModuleName(QStringLiteral("media"))
                                                 .setMessageType(VelaPowerManagerMessageTypes::postRevoke)
                                                 .setRevokeResources(revoked);
    EXPECT_EQ(&chained, &message);
    EXPECT_FALSE(message.isEmpty());
    EXPECT_EQ(message.moduleName(), QStringLiteral("media"));
    EXPECT_EQ(message.messageType(), VelaPowerManagerMessageTypes::postRevoke);
    EXPECT_EQ(message.revokeResources(), revoked);
}

TEST(Records, RevokeMessageStoresResourcesAsIntegers)
{
    VelaPowerManagerRevokeMessage message{QHash<QString, QVariant>()};
    message.setRevokeResources({VelaPowerManagerResources::audio, VelaPowerManagerResources::bluetooth});
    ASSERT_EQ(message.size(), 1);
    const QVariant stored = message.constBegin().value();
    ASSERT_EQ(stored.userType(), static_cast<int>(QMetaType::QVariantList));
    const QVariantList list = stored.toList();
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list.at(0).userType(), static_cast<int>(QMetaType::Int));
    EXPECT_EQ(list.at(0).toInt(), 2);
    EXPECT_EQ(list.at(1).toInt(), 5);
}

TEST(Records, RevokeMessageStreamsAsSortedMap)
{
    VelaPowerManagerRevokeMessage message{QHash<QString, QVariant>()};
    message.setModuleName(QStringLiteral("media"))
        .setMessageType(VelaPowerManagerMessageTypes::revoke)
        .setRevokeResources({VelaPowerManagerResources::audio, VelaPowerManagerResources::bluetooth});
    const std::string text = streamed(message);
    EXPECT_EQ(text.front(), '{');
    EXPECT_EQ(text.back(), '}');
    EXPECT_NE(text.find("media"), std::string::npos) << text;
    EXPECT_NE(text.find("[2, 5]"), std::string::npos) << text;
    // Its fields print in the order of their sorted keys, whatever the keys are.
    QStringList keys = message.keys();
    std::sort(keys.begin(), keys.end());
    ASSERT_EQ(keys.size(), 3);
    std::size_t previous = 0;
    for (const QString& key : qAsConst(keys)) {
        const std::size_t position = text.find(key.toStdString() + ": ");
        ASSERT_NE(position, std::string::npos) << key.toStdString() << " in " << text;
        EXPECT_GT(position, previous) << key.toStdString() << " in " << text;
        previous = position;
    }
}

// --- VelaHash and VelaList ------------------------------------------------------

TEST(VelaHash, BuiltFromQHashAndEmptiness)
{
    EXPECT_TRUE(VelaHash().isEmpty());
    const VelaHash hash(QHash<QString, QVariant>{{QStringLiteral("a"), 1}});
    EXPECT_FALSE(hash.isEmpty());
    EXPECT_EQ(hash.value(QStringLiteral("a")).toInt(), 1);
}

TEST(VelaHash, StreamsKeysSortedWithNestedValues)
{
    const VelaHash hash(QHash<QString, QVariant>{
        {QStringLiteral("zeta"), 26},
        {QStringLiteral("alpha"), QStringLiteral("first")},
        {QStringLiteral("nested"), QVariantHash{{QStringLiteral("y"), true}, {QStringLiteral("x"), 1.5}}},
        {QStringLiteral("list"), QVariantList{1, QStringLiteral("two"), QVariantList{3}}},
        {QStringLiteral("map"), QVariantMap{{QStringLiteral("k"), QStringLiteral("v")}}},
        {QStringLiteral("invalid"), QVariant()},
    });
    EXPECT_EQ(streamed(hash),
              "{alpha: first, invalid: <invalid>, list: [1, two, [3]], map: {k: v}, nested: {x: 1.5, y: true}, "
              "zeta: 26}");
}

TEST(VelaHash, EmptyMapStreamsAsBraces)
{
    EXPECT_EQ(streamed(VelaHash()), "{}");
}

TEST(VelaHash, VariantStreamOperator)
{
    EXPECT_EQ(streamed(QVariant(QStringLiteral("text"))), "text");
    EXPECT_EQ(streamed(QVariant(42)), "42");
    EXPECT_EQ(streamed(QVariant()), "<invalid>");
    EXPECT_EQ(streamed(QVariant(QVariantList())), "[]");
}

TEST(VelaList, EnumerationsTravelAsIntegers)
{
    const VelaList<VelaPowerManagerResources::Enum> list{VelaPowerManagerResources::usb,
                                                        VelaPowerManagerResources::display};
    const QVariantList variants = list.toVariantList();
    ASSERT_EQ(variants.size(), 2);
    EXPECT_EQ(variants.at(0).userType(), static_cast<int>(QMetaType::Int));
    EXPECT_EQ(variants.at(0).toInt(), 7);
    EXPECT_EQ(variants.at(1).toInt(), 0);
    EXPECT_EQ(VelaList<VelaPowerManagerResources::Enum>::fromVariantList(variants), list);
}

TEST(VelaList, OtherValuesTravelAsThemselves)
{
    const VelaList<QString> list{QStringLiteral("a"), QStringLiteral("b")};
    const QVariantList variants = list.toVariantList();
    EXPECT_EQ(variants, (QVariantList{QStringLiteral("a"), QStringLiteral("b")}));
    EXPECT_EQ(VelaList<QString>::fromVariantList(variants), list);
    EXPECT_TRUE(VelaList<int>().toVariantList().isEmpty());
}

// --- CMPath -----------------------------------------------------------------

TEST(CMPath, EmptinessAndText)
{
    EXPECT_TRUE(CMPath().isEmpty());
    EXPECT_TRUE(CMPath("").isEmpty());
    EXPECT_TRUE(CMPath(QString()).isEmpty());
    const CMPath path("/modules/display/power");
    EXPECT_FALSE(path.isEmpty());
    EXPECT_EQ(path.toString(), QStringLiteral("/modules/display/power"));
}

TEST(CMPath, StreamsItsText)
{
    EXPECT_EQ(streamed(CMPath("/modules/audio")), "/modules/audio");
    EXPECT_EQ(streamed(CMPath()), "");
}

TEST(CMPath, ComparesAndHashesByText)
{
    const CMPath a("/a");
    const CMPath sameAsA(QStringLiteral("/a"));
    const CMPath b("/b");
    EXPECT_EQ(a, sameAsA);
    EXPECT_NE(a, b);
    EXPECT_EQ(qHash(a), qHash(sameAsA));
    QHash<CMPath, int> byPath;
    byPath.insert(a, 1);
    byPath.insert(sameAsA, 2);
    byPath.insert(b, 3);
    EXPECT_EQ(byPath.size(), 2);
    EXPECT_EQ(byPath.value(CMPath("/a")), 2);
}

TEST(CMPath, CopiedByValue)
{
    CMPath original("/first");
    const CMPath copy = original;
    original = CMPath("/second");
    EXPECT_EQ(copy.toString(), QStringLiteral("/first"));
    const QVariant carried = QVariant::fromValue(copy);
    EXPECT_EQ(carried.value<CMPath>(), copy);
}

// --- CMSetDataRequest ---------------------------------------------------------

TEST(CMSetDataRequest, DefaultRequestIsNull)
{
    const CMSetDataRequest request;
    EXPECT_TRUE(request.isNull());
    const CMSetDataRequest copy = request;
    EXPECT_TRUE(copy.isNull());
    EXPECT_EQ(copy, request);
}

TEST(CMSetDataRequest, CarriesPathKeyAndValue)
{
    const CMSetDataRequest request(CMPath("/display/power"), QStringLiteral("enabled"), true);
    EXPECT_FALSE(request.isNull());
    EXPECT_EQ(request.path(), CMPath("/display/power"));
    EXPECT_EQ(request.key(), QStringLiteral("enabled"));
    EXPECT_EQ(request.value(), QVariant(true));
}

TEST(CMSetDataRequest, CopiesShareOneDataObject)
{
    CMSetDataRequest original(CMPath("/wifi/power"), QStringLiteral("on"), 1);
    CMSetDataRequest copy = original;
    EXPECT_EQ(copy, original);

    copy.setKey(QStringLiteral("state"));
    copy.setValue(0);
    copy.setPath(CMPath("/wifi/radio"));

    EXPECT_EQ(original.key(), QStringLiteral("state"));
    EXPECT_EQ(original.value().toInt(), 0);
    EXPECT_EQ(original.path(), CMPath("/wifi/radio"));
}

TEST(CMSetDataRequest, EqualContentsAreStillDistinctRequests)
{
    const CMSetDataRequest first(CMPath("/p"), QStringLiteral("k"), 1);
    const CMSetDataRequest second(CMPath("/p"), QStringLiteral("k"), 1);
    EXPECT_NE(first, second);
    EXPECT_NE(first, CMSetDataRequest());
}

TEST(CMSetDataRequest, AssignmentSharesAndNullAssignmentDetaches)
{
    CMSetDataRequest target;
    const CMSetDataRequest source(CMPath("/p"), QStringLiteral("k"), 1);
    target = source;
    EXPECT_FALSE(target.isNull());
    EXPECT_EQ(target, source);
    target = CMSetDataRequest();
    EXPECT_TRUE(target.isNull());
    EXPECT_EQ(source.key(), QStringLiteral("k"));
}
