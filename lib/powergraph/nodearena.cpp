#include "nodearena.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace {

// Far from where the loader, the heap, thread stacks and the sanitizers'
// shadow memory are placed on x86-64 and AArch64 Linux.
constexpr std::uintptr_t fixedBase = 0x3e0000000000ULL;

std::size_t roundedToPages(std::size_t size)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return (size + page - 1) / page * page;
}

} // namespace

NodeArena::NodeArena(std::size_t capacity)
    : m_capacity(roundedToPages(capacity == 0 ? 1 : capacity))
{
    void* wanted = reinterpret_cast<void*>(fixedBase);
#ifdef MAP_FIXED_NOREPLACE
    const int fixedFlag = MAP_FIXED_NOREPLACE;
#else
    const int fixedFlag = 0;
#endif
    void* mapped = mmap(wanted, m_capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | fixedFlag, -1, 0);
    if (mapped != MAP_FAILED && mapped != wanted) {
        // An older kernel took the address as a hint only and put it elsewhere.
        munmap(mapped, m_capacity);
        mapped = MAP_FAILED;
    }
    if (mapped == MAP_FAILED)
        mapped = mmap(nullptr, m_capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
        m_capacity = 0;
        return;
    }
    m_base = static_cast<char*>(mapped);
    m_fixed = mapped == wanted;
}

NodeArena::~NodeArena()
{
    if (m_base)
        munmap(m_base, m_capacity);
}

void* NodeArena::allocate(std::size_t size, std::size_t alignment)
{
    const std::size_t start = (m_used + alignment - 1) / alignment * alignment;
    if (!m_base || start + size > m_capacity)
        return nullptr;
    m_used = start + size;
    return m_base + start;
}
