#ifndef VELA_TESTS_GRAPH_TEST_HELPERS_H
#define VELA_TESTS_GRAPH_TEST_HELPERS_H

#include "capturingappender.h"
#include "graph_test_nodes.h"

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

/*
 * Shared pieces of the graph tests: where the edge refusals are logged from
 * and what they say, checks on the captured log and on a node's edges, and
 * the small graphs that several tests start from.
 *
 * The checks return ::testing::AssertionResult, so a failure is reported at
 * the line of the EXPECT/ASSERT that used them.
 */

// The source file and the functions that the refusal lines name.
inline constexpr const char* kNodeSource = "modules/powerManager/powerHandler/PowerNode.cpp";
inline constexpr const char* kNodeRequires = "virtual void PowerNode::requiresNode(PowerNode*)";
inline constexpr const char* kNodeRequiredBy = "virtual void PowerNode::requiredByNode(PowerNode*)";
inline constexpr const char* kTargetRequires = "virtual void PowerTarget::requiresNode(PowerNode*)";
inline constexpr const char* kTargetRequiredBy = "virtual void PowerTarget::requiredByNode(PowerNode*)";

// The four refusal lines, for the names of the two nodes involved.
inline std::string cycleRequireRefusal(const std::string& node, const std::string& other)
{
    return "Tried to make power node " + node + " require node " + other
        + ", but that would have caused a cyclic dependency.";
}

inline std::string cycleRequiredByRefusal(const std::string& node, const std::string& other)
{
    return "Tried to make power node " + node + " be required by node " + other
        + ", but that would have caused a cyclic dependency.";
}

inline std::string targetEnableRefusal(const std::string& target, const std::string& node)
{
    return "Tried to make power target " + target + " enable node " + node + ", but it already disables that node.";
}

inline std::string targetDisableRefusal(const std::string& target, const std::string& node)
{
    return "Tried to make power target " + target + " disable node " + node + ", but it already enables that node.";
}

// The log holds no event at all.
inline ::testing::AssertionResult loggedNothing(const LogCapture& log)
{
    if (log.events().empty())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected no log event, got\n" << log.dump();
}

// The log holds exactly one event: an ERROR with this text, from the node
// source and `function`.
inline ::testing::AssertionResult loggedOnlyRefusal(const LogCapture& log, const std::string& message,
                                                    const std::string& function)
{
    const std::vector<CapturedEvent> events = log.events();
    if (events.size() != 1u)
        return ::testing::AssertionFailure() << "expected one refusal, got " << events.size() << " events\n"
                                             << log.dump();
    const CapturedEvent& event = events[0];
    if (event.level != log4cplus::ERROR_LOG_LEVEL || event.message != message || event.file != kNodeSource
        || event.line <= 0 || event.function != function) {
        return ::testing::AssertionFailure() << "expected ERROR \"" << message << "\" from " << function << " in "
                                             << kNodeSource << ", got level " << event.level << " \""
                                             << event.message << "\" from " << event.function << " in " << event.file
                                             << " line " << event.line;
    }
    return ::testing::AssertionSuccess();
}

// A node's two direct edge sets at one moment.
struct EdgeSnapshot {
    const PowerNode* node;
    QSet<PowerNode*> required;
    QSet<PowerNode*> requiredBy;
};

inline std::vector<EdgeSnapshot> snapshotEdges(std::initializer_list<const PowerNode*> nodes)
{
    std::vector<EdgeSnapshot> snapshots;
    for (const PowerNode* node : nodes)
        snapshots.push_back(EdgeSnapshot{node, node->requiredNodes(false), node->requiredByNodes(false)});
    return snapshots;
}

// Every node of the snapshots still has the edges it had then.
inline ::testing::AssertionResult edgesUnchanged(const std::vector<EdgeSnapshot>& snapshots)
{
    for (const EdgeSnapshot& before : snapshots) {
        const QSet<PowerNode*> required = before.node->requiredNodes(false);
        const QSet<PowerNode*> requiredBy = before.node->requiredByNodes(false);
        if (required != before.required || requiredBy != before.requiredBy) {
            return ::testing::AssertionFailure()
                << before.node->name().toStdString() << " changed from required " << namesOf(before.required)
                << " required-by " << namesOf(before.requiredBy) << " to required " << namesOf(required)
                << " required-by " << namesOf(requiredBy);
        }
    }
    return ::testing::AssertionSuccess();
}

// Runs `wiring` with the log captured: it must log nothing at all.
inline ::testing::AssertionResult wiredSilently(const std::function<void()>& wiring)
{
    LogCapture log;
    wiring();
    return loggedNothing(log);
}

// Runs `wiring` with the log captured: it must log only the refusal (one
// ERROR with `message` from `function`) and leave the edges of every node in
// `untouched` as they were.
inline ::testing::AssertionResult refusedWithoutChange(std::initializer_list<const PowerNode*> untouched,
                                                       const std::function<void()>& wiring,
                                                       const std::string& message, const std::string& function)
{
    const std::vector<EdgeSnapshot> before = snapshotEdges(untouched);
    LogCapture log;
    wiring();
    const ::testing::AssertionResult logged = loggedOnlyRefusal(log, message, function);
    if (!logged)
        return logged;
    return edgesUnchanged(before);
}

// Three resources in a chain: a requires b, b requires z.
struct ResourceChain {
    ResourceChain()
    {
        a.requiresResource(&b);
        b.requiresResource(&z);
    }
    TestResource a{VelaPowerManagerResources::display};
    TestResource b{VelaPowerManagerResources::backlight};
    TestResource z{VelaPowerManagerResources::sensors};
};

// A target t wired through its shorthands: it enables the resource `on`,
// disables the resource `off` and disables the target `other`.
struct WiredTarget {
    WiredTarget() { wire(); }
    void wire()
    {
        t.enables(&on);
        t.disables(&off);
        t.disables(&other);
    }
    PowerTarget t{VelaPowerManagerTargets::active};
    PowerTarget other{VelaPowerManagerTargets::off};
    PowerResource on{VelaPowerManagerResources::display};
    PowerResource off{VelaPowerManagerResources::audio};
};

// A ladder of diamonds: the top requires a left and a right node, both of
// which require the next top, `rungs` times. A node low down is reached along
// many paths. Resource values start at `firstValue`.
struct DiamondLadder {
    DiamondLadder(int rungs, int firstValue)
    {
        auto make = [this, firstValue]() {
            nodes.emplace_back(new TestResource(resourceValue(firstValue + static_cast<int>(nodes.size()))));
            return nodes.back().get();
        };
        TestResource* top = make();
        root = top;
        for (int rung = 0; rung < rungs; ++rung) {
            TestResource *left = make(), *right = make(), *next = make();
            top->requiresResource(left);
            top->requiresResource(right);
            left->requiresResource(next);
            right->requiresResource(next);
            top = next;
        }
        bottom = top;
    }
    std::vector<std::unique_ptr<TestResource>> nodes;
    TestResource* root = nullptr;
    TestResource* bottom = nullptr;
};

#endif
