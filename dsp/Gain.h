#pragma once

#include "dsp/Module.h"

namespace Zelmar {

// Mono gain stage. Levels follow six decibels per doubling (2^(dB/6)), so +6 dB is exactly 2.0.
// setParameters jumps to a level; fadeTo ramps the factor linearly, just under 1.0 per second.
class Gain : public Module
{
public:
    explicit Gain(Tools::String const& name) : Module(name) {}
    ~Gain() override = default;

    void setParameters(Parameters const& params, unsigned int sampleRate) override;
    void validateParameters(Parameters const& parameters, unsigned int sampleRate) const override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    // dB as a Q4.27 number, so only levels inside (-16, +16) dB can be asked for.
    void fadeTo(tSample dB);
    tSample getTargetGain() const { return m_targetGain; }
    // Factors that differ only below float precision count as equal, on purpose.
    bool isFading() const;
    tSample calcGainChangeIncrement(unsigned int sampleRate) const;

    void processFading(AudioBuffer& buffer);
    void processWithoutFade(AudioBuffer& out, AudioBuffer const& in);

private:
    tSample m_currentGain;
    tSample m_targetGain;
    // Unsigned size of one per-sample ramp step.
    tSample m_gainChangeIncrement;
};

} // namespace Zelmar
