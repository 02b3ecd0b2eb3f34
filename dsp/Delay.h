#pragma once

#include "dsp/Module.h"

#include <vector>

namespace Zelmar {

// Delays a signal by a whole number of frames, configured in microseconds ("delay").
// Needs setParameters before it processes: until then its line is empty and it outputs silence.
class Delay : public Module
{
public:
    explicit Delay(Tools::String const& id) : Module(id) {}
    ~Delay() override = default;

    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    // Frames for `microseconds`; the product is 32-bit and wraps, so at 48 kHz anything above
    // 89478 us comes out as a short delay. Kept that way for compatibility with existing settings.
    static uint32_t calcDelayFrames(unsigned int sampleRate, int microseconds);
    // Smallest power of two strictly above `frames`.
    static uint32_t calcRingSize(uint32_t frames);

    uint32_t getDelayFrames() const { return m_writeIndex - m_readIndex; }
    uint32_t getRingSize() const { return static_cast<uint32_t>(m_ring.size()); }

private:
    uint32_t m_mask = 0;
    // Free-running counters; they wrap at 2^32, which the power-of-two mask makes harmless.
    uint32_t m_readIndex = 0;
    uint32_t m_writeIndex = 0;
    std::vector<tSample> m_ring;
};

} // namespace Zelmar
