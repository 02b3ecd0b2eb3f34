#pragma once

#include "dsp/InputStage.h"
#include "dsp/RingBuffer.h"

#include <cstdint>

namespace Zelmar {

// An input stage for a capture source running at another rate than the chain: each channel's recent
// input is kept in a history and read back at the chain's rate by two-point linear interpolation.
// At equal rates it is a plain InputStage.
class Resampler : public InputStage
{
public:
    using tStep = FixedPoint<5, 27, false>;
    using tHistory = RingBuffer<tSample, DETAIL::StandardModulo>;

    explicit Resampler(Tools::String const& id) : InputStage(id) {}
    ~Resampler() override = default;

    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    void validateParameters(Parameters const& parameters, unsigned int sampleRate) const override;
    void process() override;

    unsigned int getSourceRate() const { return m_sourceRate; }
    double getRatio() const;
    tStep getStep() const { return m_step; }

    // The sample between positions m_readPosition - 1 and m_readPosition at the current phase.
    tSample getInSample(tHistory& history) const;

private:
    uint32_t m_sourceRate = 0;
    tStep m_phase;
    tStep m_step;
    // Absolute input position of the later interpolation sample.
    uint64_t m_readPosition = 1;
    tHistory m_leftHistory;
    tHistory m_rightHistory;
};

} // namespace Zelmar
