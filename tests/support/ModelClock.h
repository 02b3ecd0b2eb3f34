#pragma once

#include <cmath>
#include <cstdlib>

namespace Zelmar {
namespace Testing {

// A playback clock that a host measures every 100 ms tick at 48 kHz as its phase rounded to whole
// frames. Remembers the tick from which that delta has stayed within +-1 frame (-1 while it has not).
class ModelClock
{
public:
    explicit ModelClock(double phase = 0.0) : m_phase(phase) {}

    int measureDelta()
    {
        int const delta = static_cast<int>(std::lround(m_phase));
        if (std::abs(delta) > 1)
            m_settledAt = -1;
        else if (m_settledAt < 0)
            m_settledAt = m_tick;
        ++m_tick;
        return delta;
    }

    // One tick at this rate against the host, in parts per million.
    void run(double ppm) { m_phase += ppm * 48000 * 0.1 * 1e-6; }

    int getSettledAt() const { return m_settledAt; }

private:
    double m_phase;
    int m_tick = 0;
    int m_settledAt = -1;
};

} // namespace Testing
} // namespace Zelmar
