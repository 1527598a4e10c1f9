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
//
// The wiring benchmarks (BM_Wire*) time the checked edge operations as a
// service or the graph loader calls them: a chain of resources stated top
// down (file order) and bottom up (reverse order), a random acyclic graph
// whose resources are listed in random order, and targets that each enable a
// few resources and are paired the way the handler pairs them at
// registration (each new target disables every target before it, and each of
// those disables it). The counter per_edge is the time per edge operation.
// After the run the program prints the wiring goals: each shape's largest
// graph under one second, and a time per edge that grows at most twofold from
// the smallest graph to the largest.

#include "../tests/graph/literal_reference.h"

#include "PowerNode.h"

#include <QCoreApplication>

#include "recordingreporter.h"

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <random>
#include <string>
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

// --- Wiring ------------------------------------------------------------------

struct Wiring {
    std::vector<std::unique_ptr<PowerResource>> resources;
    std::vector<std::unique_ptr<PowerTarget>> targets;
    long edges = 0;

    explicit Wiring(int resourceCount, int targetCount = 0)
    {
        for (int i = 0; i < resourceCount; ++i)
            resources.emplace_back(new PowerResource(static_cast<VelaPowerManagerResources::Enum>(1000 + i)));
        for (int i = 0; i < targetCount; ++i)
            targets.emplace_back(new PowerTarget(static_cast<VelaPowerManagerTargets::Enum>(1000 + i)));
    }
    // Stores the edge on both sides without the checks: the storage cost
    // alone, as a reference for the checked operations.
    void store(int from, int to)
    {
        resources[static_cast<std::size_t>(from)]->addRequiredNode(resources[static_cast<std::size_t>(to)].get());
        resources[static_cast<std::size_t>(to)]->addRequiredByNode(resources[static_cast<std::size_t>(from)].get());
        ++edges;
    }
    void requires(int from, int to)
    {
        resources[static_cast<std::size_t>(from)]->requiresResource(resources[static_cast<std::size_t>(to)].get());
        ++edges;
    }
};

enum class ChainOrder { File, Reverse };

// Resource i requires resource i + 1, stated by `edge` (checked or stored).
void wireChain(Wiring& wiring, ChainOrder order, void (Wiring::*edge)(int, int) = &Wiring::requires)
{
    const int n = static_cast<int>(wiring.resources.size());
    for (int step = 0; step + 1 < n; ++step) {
        const int i = order == ChainOrder::File ? step : n - 2 - step;
        (wiring.*edge)(i, i + 1);
    }
}

// Resource i has rank i; each requires up to three resources of lower rank.
// The file lists the resources in random order, each with its requirements.
void wireRandomDag(Wiring& wiring)
{
    const int n = static_cast<int>(wiring.resources.size());
    std::mt19937 rng(static_cast<std::mt19937::result_type>(n));
    std::vector<int> fileOrder(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        fileOrder[static_cast<std::size_t>(i)] = i;
    std::shuffle(fileOrder.begin(), fileOrder.end(), rng);
    for (int resource : fileOrder) {
        if (resource == 0)
            continue;
        const int count = std::uniform_int_distribution<int>(1, 3)(rng);
        for (int k = 0; k < count; ++k)
            wiring.requires(resource, std::uniform_int_distribution<int>(0, resource - 1)(rng));
    }
}

// The resources form chains of ten; each target enables three resources and
// is then paired with every target registered before it.
void wireTargets(Wiring& wiring)
{
    const int n = static_cast<int>(wiring.resources.size());
    for (int i = 0; i + 1 < n; ++i) {
        if ((i + 1) % 10 != 0)
            wiring.requires(i, i + 1);
    }
    std::mt19937 rng(static_cast<std::mt19937::result_type>(n));
    for (std::size_t t = 0; t < wiring.targets.size(); ++t) {
        PowerTarget* target = wiring.targets[t].get();
        for (int k = 0; k < 3; ++k) {
            target->enables(wiring.resources[static_cast<std::size_t>(std::uniform_int_distribution<int>(0, n - 1)(rng))].get());
            ++wiring.edges;
        }
        for (std::size_t r = 0; r < t; ++r) {
            wiring.targets[r]->disables(target);
            target->disables(wiring.targets[r].get());
            wiring.edges += 2;
        }
    }
}

// One untimed wiring of the same graph comes first: it brings the memory the
// graph needs into the process (see keepTheHeapBetweenIterations()), so that
// a large graph, which runs only one or two timed iterations, is not timed
// faulting in its pages while a small one runs thousands in memory it holds.
template <typename Wire>
void timeWiring(benchmark::State& state, int resources, int targets, Wire wire)
{
    {
        Wiring warmUp(resources, targets);
        wire(warmUp);
    }
    long edges = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto wiring = std::make_unique<Wiring>(resources, targets);
        state.ResumeTiming();
        wire(*wiring);
        edges = wiring->edges;
        state.PauseTiming();
        wiring.reset();
        state.ResumeTiming();
    }
    state.counters["nodes"] = resources + targets;
    state.counters["edges"] = static_cast<double>(edges);
    state.counters["per_edge"] = benchmark::Counter(static_cast<double>(edges),
                                                    benchmark::Counter::kIsIterationInvariantRate
                                                        | benchmark::Counter::kInvert);
    state.SetComplexityN(resources + targets);
}

void BM_WireChain(benchmark::State& state, ChainOrder order)
{
    timeWiring(state, static_cast<int>(state.range(0)), 0, [order](Wiring& w) { wireChain(w, order); });
}

// The same chain stored without checks: what the edge sets cost by
// themselves (allocation of each set and its entries).
void BM_StoreChain(benchmark::State& state, ChainOrder order)
{
    timeWiring(state, static_cast<int>(state.range(0)), 0, [order](Wiring& w) { wireChain(w, order, &Wiring::store); });
}

void BM_WireRandomDag(benchmark::State& state)
{
    timeWiring(state, static_cast<int>(state.range(0)), 0, wireRandomDag);
}

// range(0) targets with 2.5 times as many resources.
void BM_WireTargets(benchmark::State& state)
{
    const int targets = static_cast<int>(state.range(0));
    timeWiring(state, targets * 5 / 2, targets, wireTargets);
}

BENCHMARK_CAPTURE(BM_WireChain, FileOrder, ChainOrder::File)
    ->Arg(1000)->Arg(3000)->Arg(10000)->Arg(30000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_WireChain, ReverseOrder, ChainOrder::Reverse)
    ->Arg(1000)->Arg(3000)->Arg(10000)->Arg(30000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_StoreChain, FileOrder, ChainOrder::File)
    ->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_StoreChain, ReverseOrder, ChainOrder::Reverse)
    ->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WireRandomDag)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WireTargets)->Arg(100)->Arg(300)->Arg(1000)->Arg(2000)->Unit(benchmark::kMillisecond);

} // namespace

// The wiring goals for one shape: the largest graph wired in under a second,
// and a time per edge that stays nearly flat from the smallest graph to the
// largest (at most twice).
void printWiringGoal(const benchsupport::RecordingReporter& reporter, const std::string& name, const char* what,
                     int smallest, int largest)
{
    const std::string small = name + "/" + std::to_string(smallest);
    const std::string large = name + "/" + std::to_string(largest);
    const double seconds = reporter.cpuNanoseconds(large) / 1e9;
    const double smallPerEdge = reporter.counter(small, "per_edge");
    const double largePerEdge = reporter.counter(large, "per_edge");
    if (seconds <= 0 || smallPerEdge <= 0 || largePerEdge <= 0)
        return;
    const double growth = largePerEdge / smallPerEdge;
    std::printf("%s: %.3f s CPU (goal under 1 s: %s); per edge %.0f ns at %d, %.0f ns at %d, %.2fx (goal at most 2x: "
                "%s)\n",
                what, seconds, seconds < 1.0 ? "met" : "not met", smallPerEdge * 1e9, smallest, largePerEdge * 1e9,
                largest, growth, growth <= 2.0 ? "met" : "not met");
}

// The checked chain beside the same chain stored without checks, per edge at
// 100,000 resources: the difference is what the checks add.
void printCheckShare(const benchsupport::RecordingReporter& reporter, const std::string& order)
{
    const double checked = reporter.counter("BM_WireChain/" + order + "/100000", "per_edge");
    const double stored = reporter.counter("BM_StoreChain/" + order + "/100000", "per_edge");
    if (checked > 0 && stored > 0)
        std::printf("  chain in %s at 100,000: %.0f ns per edge checked, %.0f ns stored without checks\n",
                    order.c_str(), checked * 1e9, stored * 1e9);
}

/*
 * Each wiring benchmark builds a graph of up to some hundred megabytes and
 * destroys it between iterations. With glibc's default policy, freeing it
 * gives the top of the heap back to the kernel whenever more than 128 KiB
 * are free there, so from about 10,000 nodes on every iteration faults its
 * pages in again and takes the allocator's slow paths: a step of ten times
 * the time per edge that the wiring code has no part in (a chain of 100,000
 * in file order: 126 ms with the default policy, 17 ms without the trim).
 * The heap is kept instead, so that every size measures wiring in memory
 * the process already holds; large blocks come from the heap too, since a
 * block of its own mapping goes back to the kernel as soon as it is freed.
 */
void keepTheHeapBetweenIterations()
{
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    mallopt(M_MMAP_THRESHOLD, 64 * 1024 * 1024);
}

int main(int argc, char** argv)
{
    keepTheHeapBetweenIterations();
    QCoreApplication app(argc, argv);
    return benchsupport::runWithReporter(argc, argv, [](const benchsupport::RecordingReporter& reporter) {
        std::printf("\n");
        printWiringGoal(reporter, "BM_WireChain/FileOrder", "Wiring a chain of 100,000 resources in file order", 1000,
                        100000);
        printWiringGoal(reporter, "BM_WireChain/ReverseOrder", "Wiring a chain of 100,000 resources in reverse order",
                        1000, 100000);
        printCheckShare(reporter, "FileOrder");
        printCheckShare(reporter, "ReverseOrder");
        printWiringGoal(reporter, "BM_WireRandomDag", "Wiring a random DAG of 100,000 resources", 1000, 100000);
        printWiringGoal(reporter, "BM_WireTargets", "Wiring and pairing 2,000 targets with 5,000 resources", 100,
                        2000);
    });
}
