#include "dsp/AudioBuffer.h"

#include "dsp/VectorLoops.h"

#include <cmath>
#include <stdexcept>

namespace Zelmar {

namespace {

// The largest frame count a 32-bit target can hold in one vector of 32-bit words.
constexpr unsigned int c_maxFrames = 0x3fffffff;

void assertSameLength(unsigned int a, unsigned int b)
{
    ZELMAR_ASSERT(a == b);
}

// Negation on the raw word: the most negative value stays negative.
int wrappingAbs(int value)
{
    return value < 0 ? static_cast<int>(0u - static_cast<unsigned int>(value)) : value;
}

} // namespace

AudioBuffer::AudioBuffer(unsigned int capacity, unsigned int size)
{
    unsigned int const reserved = capacity > size ? capacity : size;
    if (reserved > c_maxFrames)
        throw std::length_error("vector::reserve");
    m_samples.reserve(reserved);
    m_samples.resize(size);
}

void AudioBuffer::silence()
{
    for (auto& sample : m_samples)
        sample = tSample::s_Zero;
}

void AudioBuffer::amplify(tSample const& gain)
{
    // Taken once: the gain might be one of the frames.
    tSample const factor = gain;
    tSample* samples = m_samples.data();
    unsigned int const n = getNumSampleFrames();
    if (VectorLoops const* vector = vectorLoops())
        return vector->amplify(samples, n, factor);
    for (unsigned int i = 0; i < n; ++i)
        samples[i] = samples[i] * factor;
}

void AudioBuffer::generateSine(float amplitude, float frequency, float sampleRate)
{
    constexpr double twoPi = 6.283185307179586;
    for (unsigned int i = 0; i < m_samples.size(); ++i) {
        double const value =
            double(amplitude) * std::sin(double(i) * twoPi * double(frequency) / double(sampleRate));
        m_samples[i] = tSample(static_cast<float>(value));
    }
}

float AudioBuffer::getMaxLevel() const
{
    if (m_samples.empty())
        return 0.0f;
    int const peak = getMaxLevel(reinterpret_cast<int const*>(m_samples.data()), getNumSampleFrames());
    return tSample(peak).toFloat();
}

std::pair<int, int> AudioBuffer::getMinMax(int const* samples, unsigned int count)
{
    int minimum = samples[0];
    int maximum = samples[0];
    unsigned int i = 1;
    // Pairs first: one comparison decides which of the two can be a new minimum or maximum.
    for (; i + 1 < count; i += 2) {
        int const a = samples[i];
        int const b = samples[i + 1];
        int const smaller = a < b ? a : b;
        int const larger = a < b ? b : a;
        if (smaller < minimum)
            minimum = smaller;
        if (larger > maximum)
            maximum = larger;
    }
    if (i < count) {
        if (samples[i] < minimum)
            minimum = samples[i];
        if (samples[i] > maximum)
            maximum = samples[i];
    }
    return {minimum, maximum};
}

int AudioBuffer::getMaxLevel(int const* samples, unsigned int count)
{
    auto const [minimum, maximum] = getMinMax(samples, count);
    int const a = wrappingAbs(maximum);
    int const b = wrappingAbs(minimum);
    return a > b ? a : b;
}

void AudioBuffer::copyFrom(AudioBuffer const* other)
{
    if (other == this)
        return;
    m_samples.assign(other->m_samples.begin(), other->m_samples.end());
}

void AudioBuffer::add(AudioBuffer const& other)
{
    assertSameLength(getNumSampleFrames(), other.getNumSampleFrames());
    for (unsigned int i = 0; i < m_samples.size(); ++i)
        m_samples[i] += other.m_samples[i];
}

void AudioBuffer::renderToStereoInterleaved(tSample* out) const
{
    for (unsigned int i = 0; i < m_samples.size(); ++i) {
        out[2 * i] = m_samples[i];
        out[2 * i + 1] = m_samples[i];
    }
}

} // namespace Zelmar
