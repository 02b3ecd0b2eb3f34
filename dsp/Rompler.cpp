#include "dsp/Rompler.h"

namespace Zelmar {

std::atomic<unsigned int> Rompler::s_numLiveVoices{0};

Rompler::Rompler(RomplerData const& data) : m_data(data)
{
    s_numLiveVoices.fetch_add(1);
}

Rompler::~Rompler()
{
    s_numLiveVoices.fetch_sub(1);
}

unsigned int Rompler::process(tSample* left, tSample* right, unsigned int numFrames)
{
    if (!m_data.isLoaded())
        return 0;
    std::vector<int16_t> const& samples = m_data.getSamples();
    uint32_t const frames = static_cast<uint32_t>(samples.size() / 2);
    if (numFrames == 0) {
        m_finished.store(false);
        return 0;
    }
    uint32_t position = m_position;
    uint32_t index = position >> RomplerData::c_stepFractionBits;
    if (index >= frames) {
        m_finished.store(true);
        return 0;
    }
    uint32_t const step = m_data.getStep();
    for (unsigned int i = 0;; ++i) {
        // Plain 32-bit adds: two voices at full scale may wrap, as any sum of samples may.
        left[i] += tSample(int32_t(samples[2 * index]) * (int32_t(1) << c_sampleShift));
        right[i] += tSample(int32_t(samples[2 * index + 1]) * (int32_t(1) << c_sampleShift));
        position += step;
        index = position >> RomplerData::c_stepFractionBits;
        if (i + 1 == numFrames) {
            m_position = position;
            m_finished.store(false);
            return numFrames;
        }
        if (index >= frames) {
            m_position = position;
            m_finished.store(true);
            return i + 1;
        }
    }
}

} // namespace Zelmar
