#include "dsp/Delay.h"

#include <algorithm>

namespace Zelmar {

uint32_t Delay::calcDelayFrames(unsigned int sampleRate, int microseconds)
{
    uint32_t const product = static_cast<uint32_t>(sampleRate) * static_cast<uint32_t>(microseconds);
    return product / 1000000u;
}

uint32_t Delay::calcRingSize(uint32_t frames)
{
    for (int bit = 30; bit >= 0; --bit) {
        if (frames & (1u << bit))
            return 1u << (bit + 1);
    }
    return 1;
}

void Delay::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    Module::setParameters(parameters, sampleRate);
    Line line;
    line.frames = calcDelayFrames(sampleRate, parameters.getInt("delay"));
    line.size = calcRingSize(line.frames);
    setFutureParameterSet(new Line(line));
}

void Delay::takeLine()
{
    auto const* line = static_cast<Line const*>(takeNewParameterSet());
    if (!line)
        return;
    // Existing samples are kept (the line is not cleared); only new elements start at zero.
    if (line->size > m_size)
        std::fill(m_ring.begin() + m_size, m_ring.begin() + line->size, tSample::s_Zero);
    m_size = line->size;
    m_mask = m_size - 1;
    m_writeIndex = line->frames;
    m_readIndex = 0;
}

void Delay::process()
{
    AudioBuffer const* in = &inBuffer(0);
    AudioBuffer* out = &outBuffer(0);
    out->setSize(in->getNumSampleFrames());
    ZELMAR_ASSERT(out->getNumSampleFrames() >= in->getNumSampleFrames());
    takeLine();
    if (m_size == 0) {
        out->silence();
        return;
    }

    tSample const* input = in->getRawData();
    tSample* output = out->getRawData();
    tSample* ring = m_ring.data();
    unsigned int const n = in->getNumSampleFrames();
    // Write before read, so a delay of 0 frames passes the input through; in-place safe per sample.
    for (unsigned int i = 0; i < n; ++i) {
        ring[m_writeIndex++ & m_mask] = input[i];
        output[i] = ring[m_readIndex++ & m_mask];
    }
}

} // namespace Zelmar
