#include "requeststream.h"

#include "fuzzedgraph.h"

#include "PowerHandler.h"

#include "cmerror.h"
#include "velapowerenums.h"
#include "velapowermanagerresourcerequest.h"
#include "velapowermanagertarget.h"

namespace {

constexpr int maxWishes = 16;
// Values that no node of a fuzzed graph carries.
constexpr int unknownNode = 99;

} // namespace

RequestStream::RequestStream(FuzzInput& input, const FuzzedGraph& graph, PowerHandler& handler)
    : m_input(input)
    , m_graph(graph)
    , m_handler(handler)
    , m_budget(input.between(1, maxWishes))
{
    QObject::connect(&m_handler, &PowerHandler::nextTargetChanged, &m_context,
                     [this](const VelaPowerManagerTarget&) { maybeIssueNested(); });
}

bool RequestStream::issueNext()
{
    if (m_budget <= 0)
        return false;
    --m_budget;
    m_callers.push_back(Caller{});
    const size_t index = m_callers.size() - 1;
    Caller& caller = m_callers.back();
    caller.reply.onFinished([this, index](const CMReply<QVariant>&) { onAnswered(index); });
    // A graph without targets still gets target wishes: they are refused.
    if (m_input.oneIn(3))
        issueTarget(caller);
    else
        issueResource(caller);
    return true;
}

void RequestStream::issueTarget(Caller& caller)
{
    const int count = static_cast<int>(m_graph.targets().size());
    const int choice = m_input.pick(count + 2);
    if (choice == count + 1) {
        describe(caller, "target (empty record)");
        m_handler.requestTarget(VelaPowerManagerTarget(), caller.reply);
        return;
    }
    const int value = choice < count ? static_cast<int>(m_graph.targets()[choice]->target()) : unknownNode;
    describe(caller, "target " + std::to_string(value));
    m_handler.requestTarget(VelaPowerManagerTarget(static_cast<VelaPowerManagerTargets::Enum>(value)), caller.reply);
}

void RequestStream::issueResource(Caller& caller)
{
    const int count = static_cast<int>(m_graph.resources().size());
    const int choice = m_input.pick(count + 2);
    if (choice == count + 1) {
        describe(caller, "resource (empty record)");
        m_handler.requestResource(VelaPowerManagerResourceRequest(), caller.reply);
        return;
    }
    const int value = choice < count ? static_cast<int>(m_graph.resources()[choice]->resource()) : unknownNode;
    // The graph's modules, the power manager itself, or one nobody registered.
    const QStringList& modules = m_graph.modules();
    const int moduleChoice = m_input.pick(modules.size() + 2);
    const QString module = moduleChoice < modules.size()
        ? modules.at(moduleChoice)
        : (moduleChoice == modules.size() ? VelaPowerManagerName() : QStringLiteral("stranger"));
    const auto action = static_cast<VelaPowerModuleActions::Enum>(m_input.pick(3));
    describe(caller, "resource " + std::to_string(value) + " " + module.toStdString() + " " +
                         VelaPowerModuleActions::toString(action).toStdString());
    m_handler.requestResource(
        VelaPowerManagerResourceRequest(static_cast<VelaPowerManagerResources::Enum>(value), module, action),
        caller.reply);
}

void RequestStream::describe(Caller& caller, const std::string& wish)
{
    caller.wish = wish;
    FuzzInput::trace("wish #" + std::to_string(m_callers.size()) + ": " + wish);
}

void RequestStream::onAnswered(size_t index)
{
    const CMError error = m_callers[index].reply.error();
    FuzzInput::trace("answer #" + std::to_string(index + 1) + ": " +
                     (error.isError() ? "error " + error.message().toString().toStdString() : std::string("ok")));
    ++m_callers[index].answers;
    ++m_answers;
    maybeIssueNested();
}

void RequestStream::maybeIssueNested()
{
    if (m_input.oneIn(4))
        issueNext();
}

const std::deque<RequestStream::Caller>& RequestStream::callers() const
{
    return m_callers;
}

int RequestStream::answers() const
{
    return m_answers;
}
