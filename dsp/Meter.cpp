#include "dsp/Meter.h"

namespace Zelmar {

void Meter::process()
{
    float const level = inBuffer(0).getMaxLevel();
    if (level > m_level.load(std::memory_order_relaxed))
        m_level.store(level, std::memory_order_relaxed);
}

} // namespace Zelmar
