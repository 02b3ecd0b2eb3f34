#pragma once

#include <vector>

namespace Zelmar {

// Ring of the most recent level values (dB). Statistics cover the filled part only, so they are
// meaningful before the ring has wrapped once.
class ThetaBuffer
{
public:
    explicit ThetaBuffer(unsigned int size = 0) { reset(size); }

    // Allocates: call it outside the audio thread.
    void reset(unsigned int size);

    void addValue(float value);
    unsigned int getCount() const;
    float calcMean() const;
    // Sample standard deviation (divisor count - 1); 0 for fewer than three values.
    float calcDeviation(float const& mean) const;

private:
    unsigned int m_writeIndex = 0;
    bool m_full = false;
    std::vector<float> m_values;
};

} // namespace Zelmar
