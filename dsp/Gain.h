#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

#include <atomic>
#include <cstdint>

namespace Zelmar {

// Mono gain stage. Levels follow six decibels per doubling (2^(dB/6)), so +6 dB is exactly 2.0.
// setParameters jumps to a level; fadeTo ramps the factor linearly, just under 1.0 per second.
// Both are control-thread calls: they hand a snapshot to the audio thread, which takes it at the start
// of the next period, so several between two periods act as if made one after another.
class ORVANDELDSP_EXPORT Gain : public Module
{
public:
    explicit Gain(Tools::String const& name) : Module(name) {}
    ~Gain() override = default;

    void setParameters(Parameters const& params, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    // dB as a Q4.27 number, so only levels inside (-16, +16) dB can be asked for.
    void fadeTo(tSample dB);
    // The level last asked for, by setParameters or fadeTo, whether or not a period has begun it yet.
    tSample getTargetGain() const { return m_requested.target; }
    // Whether the factor of the last period differs from the level last asked for. Factors that differ
    // only below float precision count as equal, on purpose.
    bool isFading() const;
    tSample calcGainChangeIncrement(unsigned int sampleRate) const;

    // Audio thread.
    void processFading(AudioBuffer& buffer);
    void processWithoutFade(AudioBuffer& out, AudioBuffer const& in);

protected:
    void checkParameters(Parameters const& parameters, unsigned int sampleRate) const override;

private:
    // A jump is applied once, however many snapshots repeat it, so that a fade asked for after a jump
    // that no period has seen yet still starts from the jumped-to level.
    struct Request : ParameterSet
    {
        tSample target;
        tSample increment;
        uint32_t jump = 0;
        tSample jumpLevel;
    };

    void handOver();
    void takeRequest();
    bool isFadingNow() const;

    Request m_requested; // control thread
    tSample m_currentGain;
    tSample m_targetGain;
    // Unsigned size of one per-sample ramp step.
    tSample m_gainChangeIncrement;
    uint32_t m_appliedJump = 0;
    std::atomic<int32_t> m_lastPeriodGain{0};
};

} // namespace Zelmar
