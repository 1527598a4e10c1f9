// Cost of the two queries a request's resolution runs on a node's whole
// dependency graph: orderedDependencies(2, true) and
// isStateReachable(2, module, true), asked of the top node of
//  - a ladder of diamonds (each rung: top requires left and right, both
//    require the next top), depth 10, 20 and 40: 3 * depth + 1 resources and
//    2^depth paths from the top to the bottom; also depth 333 and 3,333
//    (1,000 and 10,000 resources) to set the time per node beside that of
//    the random graphs of the same sizes;
//  - a random acyclic graph of 100, 1,000 and 10,000 resources in which the
//    top reaches every node (each node has a random parent above it, plus
//    two random edges to nodes below).
// Beside ours, the definitions computed literally (tests/graph) on the
// ladders of depth 10 and 20; past that they take too long to measure.
//
// isStateReachable is asked of the top resource for state 2 (enabled) on
// behalf of module "asker"; every node also carries a module "holder" with
// action 1 (use), which never blocks. Every answer on the way is true, so
// the question descends into every required node: the literal recursion
// walks all 2^depth paths of a ladder, ours each node once.
//
// Goals: depth 40 under 1 ms, 10,000 nodes under 20 ms, cost growing
// linearly with the graph: the counter per_node is the time per call divided
// by the number of nodes. The work per node is constant; the time per node
// still grows somewhat with size as the graph and the walk's own hash sets
// outgrow the caches.

#include "../tests/graph/literal_reference.h"

#include "PowerNode.h"

#include <QCoreApplication>

#include "benchmain.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

namespace {

const QString kAsker = QStringLiteral("asker");

struct Graph {
    std::vector<std::unique_ptr<PowerResource>> nodes;
    PowerResource* top = nullptr;

    PowerResource* add()
    {
        nodes.emplace_back(
            new PowerResource(static_cast<VelaPowerManagerResources::Enum>(1000 + static_cast<int>(nodes.size()))));
        nodes.back()->addModule(QStringLiteral("holder"), VelaPowerModuleActions::use);
        return nodes.back().get();
    }
};

// Wired with the checked edge operations, as a service would.
std::unique_ptr<Graph> makeLadder(int depth)
{
    std::unique_ptr<Graph> graph(new Graph);
    PowerResource* top = graph->add();
    graph->top = top;
    for (int rung = 0; rung < depth; ++rung) {
        PowerResource* left = graph->add();
        PowerResource* right = graph->add();
        PowerResource* next = graph->add();
        top->requiresResource(left);
        top->requiresResource(right);
        left->requiresResource(next);
        right->requiresResource(next);
        top = next;
    }
    return graph;
}

// Acyclic by construction (edges only go from a lower index to a higher
// one), so both sides of each edge are stored directly: the checked
// operations would spend the set-up time on cycle checks that cannot fail.
std::unique_ptr<Graph> makeRandomDag(int size)
{
    std::unique_ptr<Graph> graph(new Graph);
    std::mt19937 rng(static_cast<std::mt19937::result_type>(size));
    for (int i = 0; i < size; ++i)
        graph->add();
    auto link = [&graph](int from, int to) {
        graph->nodes[from]->addRequiredNode(graph->nodes[to].get());
        graph->nodes[to]->addRequiredByNode(graph->nodes[from].get());
    };
    for (int i = 1; i < size; ++i)
        link(std::uniform_int_distribution<int>(0, i - 1)(rng), i);
    for (int i = 0; i + 1 < size; ++i) {
        for (int k = 0; k < 2; ++k)
            link(i, std::uniform_int_distribution<int>(i + 1, size - 1)(rng));
    }
    graph->top = graph->nodes.front().get();
    return graph;
}

void report(benchmark::State& state, const Graph& graph)
{
    const double nodes = static_cast<double>(graph.nodes.size());
    state.counters["nodes"] = nodes;
    state.counters["per_node"] =
        benchmark::Counter(nodes, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void checkOrdered(benchmark::State& state, const Graph& graph)
{
    const int expected = static_cast<int>(graph.nodes.size()) - 1;
    if (graph.top->orderedDependencies(VelaPowerNodeStates::enabled, true).size() != expected)
        state.SkipWithError("the top does not reach every node");
}

using MakeGraph = std::unique_ptr<Graph> (*)(int);

void BM_OrderedDependencies(benchmark::State& state, MakeGraph make)
{
    const std::unique_ptr<Graph> graph = make(static_cast<int>(state.range(0)));
    checkOrdered(state, *graph);
    for (auto _ : state)
        benchmark::DoNotOptimize(graph->top->orderedDependencies(VelaPowerNodeStates::enabled, true));
    report(state, *graph);
}

void BM_IsStateReachable(benchmark::State& state, MakeGraph make)
{
    const std::unique_ptr<Graph> graph = make(static_cast<int>(state.range(0)));
    if (!graph->top->isStateReachable(VelaPowerNodeStates::enabled, kAsker, true))
        state.SkipWithError("expected the top to be reachable");
    for (auto _ : state)
        benchmark::DoNotOptimize(graph->top->isStateReachable(VelaPowerNodeStates::enabled, kAsker, true));
    report(state, *graph);
}

void BM_LadderOrderedDependenciesLiteral(benchmark::State& state)
{
    const std::unique_ptr<Graph> graph = makeLadder(static_cast<int>(state.range(0)));
    LiteralGraph literal(static_cast<int>(graph->nodes.size()));
    if (literal.orderedDependencies(graph->top, VelaPowerNodeStates::enabled, true)
        != graph->top->orderedDependencies(VelaPowerNodeStates::enabled, true))
        state.SkipWithError("the literal result differs");
    for (auto _ : state)
        benchmark::DoNotOptimize(literal.orderedDependencies(graph->top, VelaPowerNodeStates::enabled, true));
    report(state, *graph);
}

void BM_LadderIsStateReachableLiteral(benchmark::State& state)
{
    const std::unique_ptr<Graph> graph = makeLadder(static_cast<int>(state.range(0)));
    LiteralGraph literal(static_cast<int>(graph->nodes.size()));
    if (!literal.isStateReachable(graph->top, VelaPowerNodeStates::enabled, kAsker, true))
        state.SkipWithError("expected the top to be reachable");
    for (auto _ : state)
        benchmark::DoNotOptimize(literal.isStateReachable(graph->top, VelaPowerNodeStates::enabled, kAsker, true));
    report(state, *graph);
}

BENCHMARK_CAPTURE(BM_OrderedDependencies, Ladder, makeLadder)
    ->Arg(10)
    ->Arg(20)
    ->Arg(40)
    ->Arg(333)
    ->Arg(3333)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LadderOrderedDependenciesLiteral)->Arg(10)->Arg(20)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_IsStateReachable, Ladder, makeLadder)
    ->Arg(10)
    ->Arg(20)
    ->Arg(40)
    ->Arg(333)
    ->Arg(3333)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LadderIsStateReachableLiteral)->Arg(10)->Arg(20)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_OrderedDependencies, Random, makeRandomDag)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_IsStateReachable, Random, makeRandomDag)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    return runBenchmarks(argc, argv, vela::powerManagerLogger().getLogLevel());
}
