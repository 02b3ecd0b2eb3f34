#pragma once

#include "dsp/Export.h"
#include "dsp/InputStage.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace Zelmar {

namespace DETAIL {
struct StandardModulo;
}
template <class T, class Modulo> class RingBuffer;

// An input stage for a capture source running at another rate than the chain: each channel's recent
// input is kept in a history and read back at the chain's rate by two-point linear interpolation.
// At equal rates it is a plain InputStage.
class ORVANDELDSP_EXPORT Resampler : public InputStage
{
public:
    using tStep = FixedPoint<5, 27, false>;
    using tHistory = RingBuffer<tSample, DETAIL::StandardModulo>;

    explicit Resampler(Tools::String const& id);
    ~Resampler() override;

    // Restarts the histories from the next period on; read position and phase run on.
    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    void process() override;

    // As last configured.
    unsigned int getSourceRate() const { return m_requestedSourceRate; }
    double getRatio() const;
    tStep getStep() const { return m_requestedStep; }

    // Audio thread: the sample between positions m_readPosition - 1 and m_readPosition at the current phase.
    tSample getInSample(tHistory& history) const;

protected:
    // The step source/chain has five integer bits.
    void checkParameters(Parameters const& parameters, unsigned int sampleRate) const override;

private:
    // New histories come along only when their size changes, so that they are allocated here and the
    // replaced ones freed with the snapshot, on the main loop.
    struct Conversion : ParameterSet
    {
        uint32_t sourceRate;
        uint32_t chainRate;
        tStep step;
        std::vector<tSample> leftStorage;
        std::vector<tSample> rightStorage;
    };

    void takeConversion();

    uint32_t m_requestedSourceRate = 0;
    tStep m_requestedStep;
    unsigned int m_requestedCapacity = 0;
    // Published by the audio thread, so that storage is sent whenever it might not have the size asked for.
    std::atomic<unsigned int> m_historyCapacity{0};

    uint32_t m_sourceRate = 0;
    uint32_t m_chainRate = 0;
    tStep m_phase;
    tStep m_step;
    // Absolute input position of the later interpolation sample.
    uint64_t m_readPosition = 1;
    // Held by pointer so that hosts including this header need not see the ring buffer.
    std::unique_ptr<tHistory> m_leftHistory;
    std::unique_ptr<tHistory> m_rightHistory;
};

} // namespace Zelmar
