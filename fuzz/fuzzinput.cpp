#include "fuzzinput.h"

#include <cstdio>
#include <cstdlib>

FuzzInput::FuzzInput(const uint8_t* data, size_t size)
    : m_data(data)
    , m_size(size)
{
}

int FuzzInput::pick(int count)
{
    if (exhausted())
        return 0;
    const int byte = m_data[m_position++];
    return count < 2 ? 0 : byte % count;
}

int FuzzInput::between(int low, int high)
{
    return low + pick(high - low + 1);
}

bool FuzzInput::oneIn(int outOf)
{
    // pick() gives 0 once exhausted: the rarer branch is the non-zero one.
    return outOf > 0 && pick(outOf) == outOf - 1;
}

bool FuzzInput::exhausted() const
{
    return m_position >= m_size;
}

void FuzzInput::trace(const std::string& line)
{
    static const bool tracing = std::getenv("VELA_FUZZ_TRACE") != nullptr;
    if (tracing)
        std::fprintf(stderr, "%s\n", line.c_str());
}
