#include "PowerNodeGraph_p.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace {

/*
 * The walks below mark every node they reach. A Qt hash allocates one block
 * per entry, which on a graph of thousands of nodes costs more than the walk
 * itself; this open-addressing set of addresses keeps the marks in one
 * array. Keys are node addresses, possibly with a small tag in the low bits
 * (nodes are at least 8-byte aligned). The first slots live inside the set:
 * the wiring checks run once per edge and mostly touch a handful of nodes,
 * so most of them never allocate.
 */
class AddressSet
{
public:
    AddressSet() { m_inline.fill(0); }
    AddressSet(const AddressSet&) = delete;
    AddressSet& operator=(const AddressSet&) = delete;

    // Inserts the key; false when it was there already.
    bool insert(std::uintptr_t key)
    {
        if ((m_size + 1) * 2 > m_capacity)
            grow();
        return place(key);
    }
    bool contains(std::uintptr_t key) const
    {
        const std::uintptr_t* table = this->table();
        const std::size_t mask = m_capacity - 1;
        for (std::size_t i = slotOf(key, mask);; i = (i + 1) & mask) {
            if (table[i] == key)
                return true;
            if (table[i] == 0)
                return false;
        }
    }

private:
    static constexpr std::size_t kInlineSlots = 64;

    static std::size_t slotOf(std::uintptr_t key, std::size_t mask)
    {
        return static_cast<std::size_t>((key >> 3) * 0x9E3779B97F4A7C15ull >> 17) & mask;
    }
    const std::uintptr_t* table() const { return m_heap.empty() ? m_inline.data() : m_heap.data(); }
    std::uintptr_t* table() { return m_heap.empty() ? m_inline.data() : m_heap.data(); }
    bool place(std::uintptr_t key)
    {
        std::uintptr_t* table = this->table();
        const std::size_t mask = m_capacity - 1;
        for (std::size_t i = slotOf(key, mask);; i = (i + 1) & mask) {
            if (table[i] == key)
                return false;
            if (table[i] == 0) {
                table[i] = key;
                ++m_size;
                return true;
            }
        }
    }
    void grow()
    {
        const std::uintptr_t* oldTable = table();
        std::vector<std::uintptr_t> keys;
        keys.reserve(m_size);
        for (std::size_t i = 0; i < m_capacity; ++i) {
            if (oldTable[i] != 0)
                keys.push_back(oldTable[i]);
        }
        m_capacity *= 2;
        std::vector<std::uintptr_t>(m_capacity, 0).swap(m_heap);
        m_size = 0;
        for (std::uintptr_t key : keys)
            place(key);
    }

    std::array<std::uintptr_t, kInlineSlots> m_inline;
    std::vector<std::uintptr_t> m_heap;
    std::size_t m_capacity = kInlineSlots;
    std::size_t m_size = 0;
};

// A stack whose first entries live inside it, for the same reason.
template <typename T, std::size_t InlineCount>
class InlineStack
{
public:
    bool empty() const { return m_size == 0; }
    void push(T value)
    {
        if (m_size < InlineCount)
            m_inline[m_size] = value;
        else
            m_overflow.push_back(value);
        ++m_size;
    }
    T pop()
    {
        --m_size;
        if (m_size < InlineCount)
            return m_inline[m_size];
        const T value = m_overflow.back();
        m_overflow.pop_back();
        return value;
    }

private:
    std::array<T, InlineCount> m_inline;
    std::vector<T> m_overflow;
    std::size_t m_size = 0;
};

std::uintptr_t addressOf(const PowerNode* node)
{
    return reinterpret_cast<std::uintptr_t>(node);
}

} // namespace

// --- Closures ----------------------------------------------------------------

namespace {

bool isExpandable(const PowerNode* node)
{
    return node->type() != PowerNodeType::PowerTarget;
}

} // namespace

const QSet<PowerNode*>& PowerNodeGraph::edges(const PowerNode* node, Direction direction)
{
    return direction == Direction::Required ? node->m_requiredNodes : node->m_requiredByNodes;
}

// Every node reached from `root`, expanding each non-target node once.
QSet<PowerNode*> PowerNodeGraph::closure(const PowerNode* root, Direction direction)
{
    QSet<PowerNode*> result;
    AddressSet expanded;
    expanded.insert(addressOf(root));
    InlineStack<const PowerNode*, 32> pending;
    pending.push(root);
    while (!pending.empty()) {
        for (PowerNode* next : edges(pending.pop(), direction)) {
            result.insert(next);
            if (isExpandable(next) && expanded.insert(addressOf(next)))
                pending.push(next);
        }
    }
    return result;
}

// --- Wiring checks: the two-way search ----------------------------------------

namespace {

using Direction = PowerNodeGraph::Direction;

Direction opposite(Direction direction)
{
    return direction == Direction::Required ? Direction::RequiredBy : Direction::Required;
}

/*
 * Whether `wanted` is in closure(root, direction), searched from both ends:
 * a bidirectional search (I. Pohl, "Bi-directional search", Machine
 * Intelligence 6, 1971, pp. 127-140) whose two sides take turns by the work
 * each has done, as the two-way searches of incremental cycle detection do
 * (B. Haeupler, T. Kavitha, R. Mathew, S. Sen, R. E. Tarjan, "Incremental
 * cycle detection, topological ordering, and strong component maintenance",
 * ACM Transactions on Algorithms 8(1), 2012, section 2). An answer "no"
 * exhausts one side, so a check costs about twice the smaller side. Wiring
 * a chain in either order, hanging a node under or over a tree, and pairing
 * targets then cost constant time per edge, where the one-sided walk costs
 * the size of the graph built so far. No order is kept between checks.
 *
 * The forward side is the closure's own walk: the root's edges, then those
 * of every node reached that is not a target. The backward side collects
 * nodes that reach `wanted`: a node h joins from a member v when h is not a
 * target and v really stands in h's `direction` set. It finds the candidates
 * h in v's opposite set, where the two-sided wiring operations store them.
 * That list is complete only when every holder stored its other side, which
 * edges made one-sided (addRequiredNode() called on its own, a refused
 * reverse call, a target kind that reports another type) do not: so each node
 * counts the holders it has (countHolder()), and a member whose checked
 * candidates fall short of its count stops the backward side. The forward
 * side then finishes alone, as the one-sided walk would. A target's own
 * edges are one-sided by design, but a target is passed through only as the
 * root, and the forward side expands the root before anything else: every
 * node the root holds is then known to the forward side when the backward
 * side meets it.
 *
 * The counts assume that a node's type() is the same for its whole life, and
 * that edges are made through addRequiredNode() and addRequiredByNode() (which
 * every wiring operation uses): a subclass that inserts into the protected
 * edge sets itself goes uncounted.
 */
class TwoWaySearch
{
public:
    TwoWaySearch(const PowerNode* root, Direction direction, const PowerNode* wanted)
        : m_direction(direction)
    {
        m_forwardSeen.insert(addressOf(root));
        m_forwardPending.push(root);
        m_backwardSeen.insert(addressOf(wanted));
        m_backwardPending.push(wanted);
    }

    bool found()
    {
        // Ties go forward, so the root is expanded first.
        while (!m_found) {
            if (!m_backwardUsable || m_forwardWork <= m_backwardWork) {
                if (m_forwardPending.empty())
                    return false;
                expandForward(m_forwardPending.pop());
            } else {
                if (m_backwardPending.empty())
                    return false; // every node that reaches `wanted` is known
                expandBackward(m_backwardPending.pop());
            }
        }
        return true;
    }

private:
    void expandForward(const PowerNode* node)
    {
        for (PowerNode* next : PowerNodeGraph::edges(node, m_direction)) {
            ++m_forwardWork;
            if (m_backwardSeen.contains(addressOf(next))) {
                m_found = true;
                return;
            }
            if (isExpandable(next) && m_forwardSeen.insert(addressOf(next)))
                m_forwardPending.push(next);
        }
    }

    void expandBackward(const PowerNode* node)
    {
        ++m_backwardWork;
        const quint16 holders = PowerNodeGraph::holderCount(node, m_direction);
        if (holders == 0)
            return;
        if (holders == PowerNodeGraph::tooManyHolders) {
            m_backwardUsable = false;
            return;
        }
        quint16 checked = 0;
        for (PowerNode* holder : PowerNodeGraph::edges(node, opposite(m_direction))) {
            ++m_backwardWork;
            if (!isExpandable(holder) ||
                !PowerNodeGraph::edges(holder, m_direction).contains(const_cast<PowerNode*>(node)))
                continue;
            ++checked;
            if (m_forwardSeen.contains(addressOf(holder))) {
                m_found = true;
                return;
            }
            if (m_backwardSeen.insert(addressOf(holder)))
                m_backwardPending.push(holder);
        }
        if (checked != holders)
            m_backwardUsable = false;
    }

    const Direction m_direction;
    AddressSet m_forwardSeen;
    AddressSet m_backwardSeen;
    InlineStack<const PowerNode*, 32> m_forwardPending;
    InlineStack<const PowerNode*, 32> m_backwardPending;
    std::size_t m_forwardWork = 0;
    std::size_t m_backwardWork = 0;
    bool m_backwardUsable = true;
    bool m_found = false;
};

} // namespace

bool PowerNodeGraph::closureContains(const PowerNode* root, Direction direction, const PowerNode* wanted)
{
    if (edges(root, direction).contains(const_cast<PowerNode*>(wanted)))
        return true;
    // Nothing but the root can lead to a node that no node passed through
    // holds: the answer of most checks while a graph is being written.
    if (holderCount(wanted, direction) == 0)
        return false;
    return TwoWaySearch(root, direction, wanted).found();
}

bool PowerNodeGraph::insertEdge(QSet<PowerNode*>& edges, PowerNode* node)
{
    const int before = edges.size();
    edges.insert(node);
    return edges.size() != before;
}

void PowerNodeGraph::countHolder(const PowerNode* holder, quint16& holders)
{
    if (holders != tooManyHolders && isExpandable(holder))
        ++holders;
}

quint16 PowerNodeGraph::holderCount(const PowerNode* node, Direction direction)
{
    return direction == Direction::Required ? node->m_requiredHolders : node->m_requiredByHolders;
}

QList<PowerNode*> PowerNodeGraph::orderedClosure(const PowerNode* root, Direction direction)
{
    struct Frame {
        QSet<PowerNode*>::const_iterator next;
        QSet<PowerNode*>::const_iterator end;
    };
    QList<PowerNode*> result;
    AddressSet listed;
    AddressSet expanded;
    expanded.insert(addressOf(root));
    std::vector<Frame> stack;
    auto expand = [&](const PowerNode* node) {
        const QSet<PowerNode*>& children = edges(node, direction);
        for (PowerNode* child : children) {
            if (listed.insert(addressOf(child)))
                result.append(child);
        }
        stack.push_back(Frame{children.cbegin(), children.cend()});
    };
    expand(root);
    while (!stack.empty()) {
        Frame& frame = stack.back();
        if (frame.next == frame.end) {
            stack.pop_back();
            continue;
        }
        const PowerNode* child = *frame.next;
        ++frame.next;
        if (!isExpandable(child) || !expanded.insert(addressOf(child)))
            continue;
        expand(child);
    }
    return result;
}

// --- Reachability --------------------------------------------------------------

namespace {

using State = VelaPowerNodeStates::Enum;
using Rule = PowerNodeGraph::ReachabilityRule;

/*
 * One reachability question: a module, the `recursive` flag and the answers
 * given so far, shared by every node asked while it runs.
 *
 * The recursive rule asks each direct dependency, through its virtual
 * isStateReachable(), whether it may take its state, and stops at the first
 * refusal. The walk below keeps that order of questions and calls, but not
 * the nesting: it makes the virtual call itself, and when the node's own
 * implementation (one of the two rules) receives exactly the call the walk is
 * making, it hands the node back instead of descending, and the walk decides
 * it on its own stack. A subclass that answers for itself is called as before
 * and its answer is used.
 *
 * The answer for a (node, state) pair is the same wherever it is asked within
 * one question, so each pair is decided once and a ladder of diamonds costs
 * linear time. The question lives while the outermost call runs; nested calls
 * on the same thread find it through t_current.
 */
class ReachabilityQuestion
{
public:
    ReachabilityQuestion(const QString& module, bool recursive)
        : m_module(module)
        , m_recursive(recursive)
        , m_outer(t_current)
    {
        t_current = this;
    }
    ~ReachabilityQuestion() { t_current = m_outer; }
    ReachabilityQuestion(const ReachabilityQuestion&) = delete;
    ReachabilityQuestion& operator=(const ReachabilityQuestion&) = delete;

    // The question running on this thread for this module and flag, if any.
    static ReachabilityQuestion* running(const QString& module, bool recursive)
    {
        ReachabilityQuestion* current = t_current;
        if (current && current->m_recursive == recursive && current->m_module == module)
            return current;
        return nullptr;
    }

    std::optional<bool> known(const PowerNode* node, State state) const
    {
        const std::uintptr_t key = keyOf(node, state);
        if (m_reachable.contains(key))
            return true;
        if (m_unreachable.contains(key))
            return false;
        return std::nullopt;
    }

    // Whether this call is the one the walk is making; if so, the walk takes
    // the node over under `rule`.
    bool takeOver(const PowerNode* node, State state, Rule rule)
    {
        if (!m_asking || m_askedNode != node || m_askedState != state)
            return false;
        m_asking = false;
        m_handedBack = rule;
        return true;
    }

    bool decide(const PowerNode* root, State rootState, Rule rootRule);

private:
    struct Frame {
        const PowerNode* node;
        State state;
        PowerNode::DependencyList dependencies;
        int next;
    };

    // States 0 to 4 fit the low bits of an aligned node address.
    static std::uintptr_t keyOf(const PowerNode* node, State state)
    {
        return addressOf(node) | (static_cast<std::uintptr_t>(state) & 7u);
    }

    bool remember(const PowerNode* node, State state, bool reachable)
    {
        (reachable ? m_reachable : m_unreachable).insert(keyOf(node, state));
        return reachable;
    }

    std::optional<bool> open(const PowerNode* node, State state, Rule rule, std::vector<Frame>& walk);
    std::optional<bool> ask(const PowerNode* node, State state, std::vector<Frame>& walk);

    const QString m_module;
    const bool m_recursive;
    ReachabilityQuestion* const m_outer;
    AddressSet m_reachable;
    AddressSet m_unreachable;
    // The virtual call the walk is making, and how its node was handed back.
    bool m_asking = false;
    const PowerNode* m_askedNode = nullptr;
    State m_askedState = VelaPowerNodeStates::initial;
    std::optional<Rule> m_handedBack;

    static thread_local ReachabilityQuestion* t_current;
};

thread_local ReachabilityQuestion* ReachabilityQuestion::t_current = nullptr;

} // namespace

bool ReachabilityQuestion::decide(const PowerNode* root, State rootState, Rule rootRule)
{
    // A nested walk (reached through a subclass) keeps the outer walk's call.
    const bool outerAsking = m_asking;
    const PowerNode* const outerNode = m_askedNode;
    const State outerState = m_askedState;
    m_asking = false;

    std::vector<Frame> walk;
    std::optional<bool> answer = open(root, rootState, rootRule, walk);
    for (;;) {
        if (answer) {
            if (walk.empty())
                break;
            Frame& asking = walk.back();
            if (!*answer) {
                // The first refusal decides; the rest are not asked.
                remember(asking.node, asking.state, false);
                walk.pop_back();
                continue;
            }
            ++asking.next;
            answer.reset();
        }
        Frame& frame = walk.back();
        if (frame.next == frame.dependencies.size()) {
            answer = remember(frame.node, frame.state, true);
            walk.pop_back();
            continue;
        }
        const QPair<PowerNode*, State> dependency = frame.dependencies.at(frame.next);
        answer = ask(dependency.first, dependency.second, walk);
    }

    m_asking = outerAsking;
    m_askedNode = outerNode;
    m_askedState = outerState;
    return *answer;
}

// Runs `node`'s rule up to its questions to the dependencies: answers at once,
// or opens a frame that asks them.
std::optional<bool> ReachabilityQuestion::open(const PowerNode* node, State state, Rule rule,
                                               std::vector<Frame>& walk)
{
    if (rule == Rule::Target) {
        // While another target is on, it alone decides which targets follow it.
        for (const auto& dependency : node->orderedDependencies(state, false)) {
            auto* target = dynamic_cast<PowerTarget*>(dependency.first);
            if (target && target->isEnabled())
                return remember(node, state, target->isReachable(static_cast<const PowerTarget*>(node)));
        }
    }
    // Another module holding the node on forbids any change but enabling.
    const QHash<QString, VelaPowerModuleActions::Enum> actions = node->moduleActions();
    for (auto it = actions.cbegin(); it != actions.cend(); ++it) {
        if (!m_module.isEmpty() && it.key() == m_module)
            continue;
        if (it.value() == VelaPowerModuleActions::hold && state != VelaPowerNodeStates::enabled
            && state != node->state())
            return remember(node, state, false);
    }
    if (!m_recursive)
        return remember(node, state, true);
    walk.push_back(Frame{node, state, node->orderedDependencies(state, false), 0});
    return std::nullopt;
}

// Asks `node` through its virtual, as the recursive rule does: a subclass's
// own answer is taken as it is; one of the two rules hands the node back and
// it is opened here.
std::optional<bool> ReachabilityQuestion::ask(const PowerNode* node, State state, std::vector<Frame>& walk)
{
    m_asking = true;
    m_askedNode = node;
    m_askedState = state;
    m_handedBack.reset();
    const bool answer = node->isStateReachable(state, m_module, m_recursive);
    m_asking = false;
    if (!m_handedBack)
        return answer;
    const Rule rule = *m_handedBack;
    m_handedBack.reset();
    return open(node, state, rule, walk);
}

bool PowerNodeGraph::isStateReachable(const PowerNode* node, VelaPowerNodeStates::Enum state, const QString& module,
                                      bool recursive, ReachabilityRule rule)
{
    if (ReachabilityQuestion* question = ReachabilityQuestion::running(module, recursive)) {
        if (const std::optional<bool> known = question->known(node, state))
            return *known;
        if (question->takeOver(node, state, rule))
            return false; // not an answer: the walk decides the node itself
        return question->decide(node, state, rule);
    }
    ReachabilityQuestion question(module, recursive);
    return question.decide(node, state, rule);
}
