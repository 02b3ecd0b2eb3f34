#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

#include <cstdint>
#include <vector>

namespace Zelmar {

// Delays a signal by a whole number of frames, configured in microseconds ("delay").
// Needs setParameters before it processes: until then its line is empty and it outputs silence.
class ORVANDELDSP_EXPORT Delay : public Module
{
public:
    // A 32-bit product divided by 10^6 is at most 4294 frames, whose ring is 8192.
    static constexpr uint32_t c_maxRingSize = 8192;

    explicit Delay(Tools::String const& id) : Module(id), m_ring(c_maxRingSize) {}
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

private:
    struct Line : ParameterSet
    {
        uint32_t frames;
        uint32_t size;
    };

    void takeLine();

    // The audio thread's: the ring is allocated once at its largest and used up to m_size; growing
    // keeps the samples and clears the new slots, as a resized line would.
    std::vector<tSample> m_ring;
    uint32_t m_size = 0;
    uint32_t m_mask = 0;
    // Free-running counters; they wrap at 2^32, which the power-of-two mask makes harmless.
    uint32_t m_readIndex = 0;
    uint32_t m_writeIndex = 0;
};

} // namespace Zelmar
