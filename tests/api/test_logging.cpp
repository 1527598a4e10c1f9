// The "PowerManager" log: scoped function names of entry and leave lines,
// what each record carries, lazy message building and the stream operators.

#include "capturingappender.h"
#include "cmpath.h"
#include "dbglog.h"
#include "trstring.h"
#include "velahash.h"

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <QString>

#include <gtest/gtest.h>

#include <sstream>

namespace {

// Counts how often it is written to a stream: a message that is never built
// never writes it.
struct StreamProbe {
    int* writes;
};

std::ostream& operator<<(std::ostream& stream, const StreamProbe& probe)
{
    ++*probe.writes;
    return stream << "probe";
}

template <typename T>
std::string streamed(const T& value)
{
    std::ostringstream out;
    out << value;
    return out.str();
}

std::string scoped(const char* signature)
{
    return dbglog_scopedFunction(signature, "PowerManager");
}

} // namespace

// --- dbglog_scopedFunction ------------------------------------------------------

TEST(ScopedFunction, ConstMemberFunction)
{
    EXPECT_EQ(scoped("bool PowerNode::isEnabled() const"), "[PowerManager] PowerNode::isEnabled()");
}

TEST(ScopedFunction, TemplateReturnTypeWithSpaces)
{
    EXPECT_EQ(scoped("CMReply<QList<CMVoidReply> > Foo::bar(int)"), "[PowerManager] Foo::bar()");
    EXPECT_EQ(scoped("QList<QPair<PowerNode*, VelaPowerNodeStates::Enum> > PowerNode::orderedDependencies(const "
                     "VelaPowerNodeStates::Enum&, const bool&) const"),
              "[PowerManager] PowerNode::orderedDependencies()");
    EXPECT_EQ(scoped("QHash<QString, QVariant> PowerHandler::listNodes() const"),
              "[PowerManager] PowerHandler::listNodes()");
}

TEST(ScopedFunction, ConstructorsAndDestructorsWithoutReturnType)
{
    EXPECT_EQ(scoped("PowerNode::PowerNode(VelaPowerManagerResources::Enum)"), "[PowerManager] PowerNode::PowerNode()");
    EXPECT_EQ(scoped("PowerHandler::PowerHandler(QObject*)"), "[PowerManager] PowerHandler::PowerHandler()");
    EXPECT_EQ(scoped("PowerNode::~PowerNode()"), "[PowerManager] PowerNode::~PowerNode()");
}

TEST(ScopedFunction, QualifiersAndPointerReturnTypes)
{
    EXPECT_EQ(scoped("virtual void PowerResource::onEnableAction()"), "[PowerManager] PowerResource::onEnableAction()");
    EXPECT_EQ(scoped("static QSharedPointer<PowerNodeRequest> PowerNodeRequest::create(PowerNode*, const QString&, "
                     "VelaPowerModuleActions::Enum)"),
              "[PowerManager] PowerNodeRequest::create()");
    EXPECT_EQ(scoped("PowerNode* PowerHandler::findNode(int) const"), "[PowerManager] PowerHandler::findNode()");
    EXPECT_EQ(scoped("const QList<PowerNode*>& PowerNode::requiredNodes() const"),
              "[PowerManager] PowerNode::requiredNodes()");
    EXPECT_EQ(scoped("void freeFunction()"), "[PowerManager] freeFunction()");
}

TEST(ScopedFunction, TemplateClassMemberKeepsItsArguments)
{
    EXPECT_EQ(scoped("void Holder<T>::store(const T&) [with T = int]"), "[PowerManager] Holder<T>::store()");
    EXPECT_EQ(scoped("void ns::Box<std::pair<int, int> >::open()"), "[PowerManager] ns::Box<std::pair<int, int> >::open()");
}

TEST(ScopedFunction, LambdaSignatureNamesTheEnclosingFunction)
{
    EXPECT_EQ(scoped("PowerNode::enable()::<lambda(const CMReply<QList<CMVoidReply> >&)> mutable"),
              "[PowerManager] PowerNode::enable()");
}

TEST(ScopedFunction, UsesTheGivenLoggerName)
{
    EXPECT_EQ(dbglog_scopedFunction("int Other::run()", "Other"), "[Other] Other::run()");
}

// --- Records ----------------------------------------------------------------------

TEST(Logging, LoggerIsNamedPowerManager)
{
    EXPECT_EQ(vela::powerManagerLogger().getName(), LOG4CPLUS_TEXT("PowerManager"));
    EXPECT_EQ(&vela::powerManagerLogger(), &vela::powerManagerLogger());
}

TEST(Logging, RecordCarriesRelativeFileLineAndPrettyFunction)
{
    LogCapture capture;
    const int line = __LINE__ + 1;
    VELA_DEBUG("record " << 1);
    const auto events = capture.withMessage("record 1");
    ASSERT_EQ(events.size(), 1u) << capture.dump();
    EXPECT_EQ(events[0].level, log4cplus::DEBUG_LOG_LEVEL);
    EXPECT_EQ(events[0].file, "tests/api/test_logging.cpp");
    EXPECT_EQ(events[0].line, line);
    EXPECT_EQ(events[0].function, __PRETTY_FUNCTION__);
}

TEST(Logging, EachMacroLogsAtItsLevel)
{
    LogCapture capture;
    VELA_TRACE("at trace");
    VELA_DEBUG("at debug");
    VELA_INFO("at info");
    VELA_ERROR("at error");
    VELA_FATAL("at fatal");
    EXPECT_EQ(capture.count(log4cplus::TRACE_LOG_LEVEL, "at trace"), 1);
    EXPECT_EQ(capture.count(log4cplus::DEBUG_LOG_LEVEL, "at debug"), 1);
    EXPECT_EQ(capture.count(log4cplus::INFO_LOG_LEVEL, "at info"), 1);
    EXPECT_EQ(capture.count(log4cplus::ERROR_LOG_LEVEL, "at error"), 1);
    EXPECT_EQ(capture.count(log4cplus::FATAL_LOG_LEVEL, "at fatal"), 1);
    EXPECT_EQ(capture.events().size(), 5u);
}

TEST(Logging, RecordInsideLambdaCarriesTheLambdaSignature)
{
    LogCapture capture;
    auto continuation = [](int value) { VELA_INFO("inside " << value); };
    continuation(3);
    const auto events = capture.withMessage("inside 3");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_NE(events[0].function.find("<lambda(int)>"), std::string::npos) << events[0].function;
    EXPECT_NE(events[0].function.find("Logging_RecordInsideLambdaCarriesTheLambdaSignature_Test::TestBody()"),
              std::string::npos)
        << events[0].function;
}

TEST(Logging, EntryAndLeaveLinesEmbedTheScopedFunction)
{
    LogCapture capture;
    VELA_TRACE_ENTER("bool PowerNode::isEnabled() const", "A " << "disabled");
    VELA_TRACE_LEAVE("bool PowerNode::isEnabled() const", false);
    EXPECT_EQ(capture.count(log4cplus::TRACE_LOG_LEVEL, "Enter [PowerManager] PowerNode::isEnabled(): A disabled"), 1)
        << capture.dump();
    EXPECT_EQ(capture.count(log4cplus::TRACE_LOG_LEVEL, "Leave [PowerManager] PowerNode::isEnabled(): 0"), 1)
        << capture.dump();
}

TEST(Logging, MessageIsNotBuiltWhenTheLevelIsDisabled)
{
    int writes = 0;
    const StreamProbe probe{&writes};
    LogCapture capture(log4cplus::ERROR_LOG_LEVEL);

    VELA_TRACE("trace " << probe);
    VELA_DEBUG("debug " << probe);
    VELA_INFO("info " << probe);
    VELA_TRACE_ENTER("void Foo::bar()", probe);
    EXPECT_EQ(writes, 0);
    EXPECT_TRUE(capture.events().empty()) << capture.dump();

    VELA_ERROR("error " << probe);
    EXPECT_EQ(writes, 1);
    EXPECT_EQ(capture.count(log4cplus::ERROR_LOG_LEVEL, "error probe"), 1);
}

TEST(Logging, MessageIsBuiltOnceWhenTheLevelIsEnabled)
{
    int writes = 0;
    const StreamProbe probe{&writes};
    LogCapture capture(log4cplus::TRACE_LOG_LEVEL);
    VELA_TRACE("trace " << probe);
    EXPECT_EQ(writes, 1);
    EXPECT_EQ(capture.count(log4cplus::TRACE_LOG_LEVEL, "trace probe"), 1);
}

TEST(Logging, QStringIsWrittenAsUtf8)
{
    EXPECT_EQ(streamed(QString::fromUtf8("Grüße")), "Grüße");
    EXPECT_EQ(streamed(QString()), "");
    LogCapture capture;
    VELA_INFO("name: " << QStringLiteral("display"));
    EXPECT_EQ(capture.count(log4cplus::INFO_LOG_LEVEL, "name: display"), 1);
}

TEST(Logging, PathsMapsAndTrStringsStreamIntoRecords)
{
    LogCapture capture;
    const VelaHash hash(QHash<QString, QVariant>{{QStringLiteral("b"), 2}, {QStringLiteral("a"), 1}});
    VELA_INFO("path " << CMPath("/audio/revoke") << " args " << hash << " text " << TrString("hello"));
    EXPECT_EQ(capture.count(log4cplus::INFO_LOG_LEVEL, "path /audio/revoke args {a: 1, b: 2} text hello"), 1)
        << capture.dump();
}
