#include "dsp/ChainProfile.h"

#include <chrono>

namespace Zelmar {

ChainProfile::ChainProfile(std::size_t numModules)
    : m_numModules(numModules), m_nanoseconds(new std::atomic<uint64_t>[numModules])
{
    for (std::size_t module = 0; module < numModules; ++module)
        m_nanoseconds[module].store(0, std::memory_order_relaxed);
}

uint64_t ChainProfile::now()
{
    auto const since = std::chrono::steady_clock::now().time_since_epoch();
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

} // namespace Zelmar
