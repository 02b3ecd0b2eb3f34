#pragma once

#include <cmath>
#include <cstdint>

namespace Zelmar {
namespace Host {

// A sine whose frequency changes in steps without a jump in phase, so that a chain running on from
// one frequency to the next is disturbed as little as possible. It is read at two rates: the input's,
// where it is played, and the chain's, where the output is compared with it. Frame 0 of both is the
// same instant, so whatever delays the signal (a resampler, a delay line) shows as phase.
class SteppedSine
{
public:
    SteppedSine(unsigned int inputRate, unsigned int outputRate)
        : m_inputRate(inputRate), m_outputRate(outputRate)
    {
    }

    // From input frame `frame` on, the sine runs at `frequency`, on from the phase reached there.
    void retune(double frequency, uint64_t frame)
    {
        double const cycles = cyclesAtInput(frame);
        m_startCycles = cycles - std::floor(cycles);
        m_startFrame = frame;
        m_frequency = frequency;
    }

    // Phases in radians, and the phase steps from one frame to the next.
    double phaseAtInput(uint64_t frame) const { return toRadians(cyclesAtInput(frame)); }
    double phaseAtOutput(uint64_t frame) const
    {
        // Both frame counts as one exact integer time, in units of 1 / (inputRate * outputRate) s;
        // an output frame may lie before the last step when the chain delays.
        int64_t const ticks = int64_t(frame * m_inputRate) - int64_t(m_startFrame * m_outputRate);
        return toRadians(m_startCycles + m_frequency * double(ticks) / (double(m_inputRate) * m_outputRate));
    }
    double inputStep() const { return 2.0 * M_PI * m_frequency / m_inputRate; }
    double outputStep() const { return 2.0 * M_PI * m_frequency / m_outputRate; }

private:
    double cyclesAtInput(uint64_t frame) const
    {
        return m_startCycles + m_frequency * double(frame - m_startFrame) / m_inputRate;
    }
    static double toRadians(double cycles) { return 2.0 * M_PI * (cycles - std::floor(cycles)); }

    uint64_t m_inputRate;
    uint64_t m_outputRate;
    double m_frequency = 0.0;
    uint64_t m_startFrame = 0;
    double m_startCycles = 0.0; // the phase at m_startFrame, in cycles from 0 up to 1
};

} // namespace Host
} // namespace Zelmar
