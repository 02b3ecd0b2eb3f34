#pragma once

#include "dsp/Export.h"
#include "dsp/FixedPoint.h"

#include <memory>
#include <utility>
#include <vector>

namespace Zelmar {

// One mono block of samples. The element count is the number of frames of the current period;
// the reserved capacity is sized once at compile time so that processing never reallocates.
class ORVANDELDSP_EXPORT AudioBuffer
{
public:
    using tStorage = std::vector<tSample>;

    AudioBuffer() : AudioBuffer(0, 0) {}
    explicit AudioBuffer(unsigned int size) : AudioBuffer(size, size) {}
    AudioBuffer(unsigned int capacity, unsigned int size);
    virtual ~AudioBuffer() = default;

    void setSize(unsigned int n) { m_samples.resize(n); }
    tSample* getRawData() { return m_samples.data(); }
    tSample const* getRawData() const { return m_samples.data(); }
    unsigned int getNumSampleFrames() const { return static_cast<unsigned int>(m_samples.size()); }
    unsigned int getNumSampleFramesCapacity() const
    {
        return static_cast<unsigned int>(m_samples.capacity());
    }
    tStorage& getUnderlyingStorage() { return m_samples; }

    void silence();
    void amplify(tSample const& gain);
    void generateSine(float amplitude, float frequency, float sampleRate);

    // Peak as a fraction of full scale. The absolute value wraps for the most negative raw word.
    float getMaxLevel() const;
    static std::pair<int, int> getMinMax(int const* samples, unsigned int count);
    static int getMaxLevel(int const* samples, unsigned int count);

    void copyFrom(AudioBuffer const* other);
    void copyFrom(std::shared_ptr<AudioBuffer const> other) { copyFrom(other.get()); }
    void add(std::shared_ptr<AudioBuffer const> other) { add(*other); }
    void add(AudioBuffer const& other);
    void swap(std::shared_ptr<AudioBuffer> other) { swap(*other); }
    void swap(AudioBuffer& other) { m_samples.swap(other.m_samples); }
    void renderToStereoInterleaved(tSample* out) const;

private:
    tStorage m_samples;
};

using tAudioBufferPtr = std::shared_ptr<AudioBuffer>;

} // namespace Zelmar
