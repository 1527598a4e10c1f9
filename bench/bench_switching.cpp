// Cost of switching a power graph on and off: one enable of the top and one
// disable of the top per iteration, every resource action being a set-data
// write that the root worker answers at once. The nodes are built once per
// run: the disable brings every node back to "disabled", from which the next
// enable starts again.
//
// Reported per run: items_per_second counts node transitions (each node is
// switched on and off once per iteration), "per_node" is the time of one
// node transition (seconds, so "850n" reads 850 ns), and the BigO rows fit
// the per-iteration time against the node count.
//
// The "PowerManager" logger is set to INFO, as a service runs it: the DEBUG
// lines of every transition are not built. The "_debugLog" variant keeps
// DEBUG on, with a null appender, to show what the log lines cost.

#include "PowerNode.h"
#include "cmrootworker.h"
#include "dbglog.h"
#include "velapowerenums.h"

#include <QCoreApplication>
#include <QVariant>

#include "benchmain.h"

#include <benchmark/benchmark.h>
#include <log4cplus/nullappender.h>

#include <memory>
#include <random>
#include <vector>

namespace {

const CMPath kPowerPath(QStringLiteral("/bench/power"));

// The platform: every write is answered at once with success.
void answerWritesAtOnce()
{
    CMRootWorker::instance()->registerSetDataHandler(
        kPowerPath,
        [](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) { reply.setValue(QVariant(true)); });
}

class Graph
{
public:
    PowerNode* top() const { return m_top; }
    int size() const { return static_cast<int>(m_nodes.size()); }

    bool allIn(VelaPowerNodeStates::Enum state) const
    {
        for (const auto& node : m_nodes) {
            if (node->state() != state)
                return false;
        }
        return true;
    }

    // A chain: node i requires node i + 1; the top is node 0.
    static std::unique_ptr<Graph> chain(int length)
    {
        auto graph = std::make_unique<Graph>();
        for (int i = 0; i < length; ++i)
            graph->addResource(i);
        for (int i = 0; i + 1 < length; ++i)
            link(graph->m_nodes[i].get(), graph->m_nodes[i + 1].get());
        graph->m_top = graph->m_nodes.front().get();
        return graph;
    }

    // A random DAG: each resource requires up to three resources of higher
    // index (so no cycle), picked with a fixed seed; one target requires
    // every resource that nothing else requires, and is the top.
    static std::unique_ptr<Graph> randomDag(int resources)
    {
        auto graph = std::make_unique<Graph>();
        for (int i = 0; i < resources; ++i)
            graph->addResource(i);
        std::mt19937 random(20240601u);
        for (int i = 0; i + 1 < resources; ++i) {
            std::uniform_int_distribution<int> edges(0, 3);
            std::uniform_int_distribution<int> later(i + 1, resources - 1);
            for (int e = edges(random); e > 0; --e) {
                PowerNode* from = graph->m_nodes[i].get();
                PowerNode* to = graph->m_nodes[later(random)].get();
                if (!from->requiredNodes(false).contains(to))
                    link(from, to);
            }
        }
        auto* target = new PowerTarget(static_cast<VelaPowerManagerTargets::Enum>(100));
        for (const auto& node : graph->m_nodes) {
            if (node->requiredByNodes(false).isEmpty())
                target->addRequiredNode(node.get());
        }
        graph->m_nodes.emplace_back(target);
        graph->m_top = target;
        return graph;
    }

private:
    // Wired one side at a time: the checked wiring searches the graph for a
    // cycle on every edge, which is set-up cost and not measured here.
    static void link(PowerNode* from, PowerNode* to)
    {
        from->addRequiredNode(to);
        to->addRequiredByNode(from);
    }

    void addResource(int index)
    {
        auto* node = new PowerResource(static_cast<VelaPowerManagerResources::Enum>(1000 + index));
        node->setOnEnableActionRequest(CMSetDataRequest(kPowerPath, QStringLiteral("powered"), true));
        node->setOnDisableActionRequest(CMSetDataRequest(kPowerPath, QStringLiteral("powered"), false));
        m_nodes.emplace_back(node);
    }

    std::vector<std::unique_ptr<PowerNode>> m_nodes;
    PowerNode* m_top = nullptr;
};

void waitFor(const CMVoidReply& reply)
{
    while (!reply.isFinished())
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
}

void switchOnAndOff(benchmark::State& state, Graph& graph)
{
    for (auto _ : state) {
        waitFor(graph.top()->enable());
        waitFor(graph.top()->disable());
    }
    if (!graph.allIn(VelaPowerNodeStates::disabled))
        state.SkipWithError("not every node ended disabled");
    const double transitions = 2.0 * graph.size();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * transitions));
    state.counters["nodes"] = graph.size();
    state.counters["per_node"] =
        benchmark::Counter(transitions, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.SetComplexityN(graph.size());
}

// Checks once, before timing, that the graph switches completely.
bool switchesCompletely(Graph& graph)
{
    waitFor(graph.top()->enable());
    const bool on = graph.allIn(VelaPowerNodeStates::enabled);
    waitFor(graph.top()->disable());
    return on && graph.allIn(VelaPowerNodeStates::disabled);
}

void runOn(benchmark::State& state, std::unique_ptr<Graph> graph)
{
    answerWritesAtOnce();
    if (!switchesCompletely(*graph)) {
        state.SkipWithError("the graph did not switch completely");
        for (auto _ : state) {
        }
        return;
    }
    switchOnAndOff(state, *graph);
    CMRootWorker::instance()->clearHandlers();
}

void BM_RandomDag(benchmark::State& state)
{
    runOn(state, Graph::randomDag(static_cast<int>(state.range(0))));
}

void BM_Chain(benchmark::State& state)
{
    runOn(state, Graph::chain(static_cast<int>(state.range(0))));
}

// The chain with DEBUG lines built and handed to a null appender.
void BM_Chain_debugLog(benchmark::State& state)
{
    log4cplus::Logger& logger = vela::powerManagerLogger();
    log4cplus::SharedAppenderPtr sink(new log4cplus::NullAppender);
    logger.addAppender(sink);
    logger.setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
    runOn(state, Graph::chain(static_cast<int>(state.range(0))));
    logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
    logger.removeAppender(sink);
}

BENCHMARK(BM_RandomDag)->Arg(1000)->Arg(3000)->Arg(10000)->Arg(30000)->Arg(100000)->Unit(benchmark::kMicrosecond)->Complexity(benchmark::oN);
BENCHMARK(BM_Chain)->Arg(1000)->Arg(3000)->Arg(10000)->Arg(30000)->Arg(100000)->Unit(benchmark::kMicrosecond)->Complexity(benchmark::oN);
BENCHMARK(BM_Chain_debugLog)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    return runBenchmarks(argc, argv, log4cplus::INFO_LOG_LEVEL);
}
