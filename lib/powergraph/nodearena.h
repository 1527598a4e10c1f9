#ifndef VELA_POWERGRAPH_NODEARENA_H
#define VELA_POWERGRAPH_NODEARENA_H

#include <cstddef>

/*
 * Memory for a graph's nodes at the same addresses on every run.
 *
 * The library keeps nodes in sets keyed by their addresses, so the order in
 * which it visits them (and therefore the order of simultaneous writes and
 * revoke messages) follows where the nodes live. Placed one after another
 * from a fixed base address, in the file's order, nodes get the same
 * addresses in every process, and two runs of one graph behave alike.
 * When the fixed range is taken, the arena falls back to ordinary memory:
 * the run still works, only its order of simultaneous events may vary.
 *
 *   NodeArena arena(sizeof(PowerResource) * count);
 *   auto* node = new (arena.allocate(sizeof(PowerResource), alignof(PowerResource))) PowerResource(...);
 *   ...
 *   node->~PowerResource();   // the arena frees the memory, not the objects
 */
class NodeArena
{
public:
    explicit NodeArena(std::size_t capacity);
    ~NodeArena();
    NodeArena(const NodeArena&) = delete;
    NodeArena& operator=(const NodeArena&) = delete;

    // Room for one object; null when the arena is full.
    void* allocate(std::size_t size, std::size_t alignment);
    // Whether the nodes live at the fixed addresses.
    bool isAtFixedAddress() const { return m_fixed; }

private:
    char* m_base = nullptr;
    std::size_t m_capacity = 0;
    std::size_t m_used = 0;
    bool m_fixed = false;
};

#endif
