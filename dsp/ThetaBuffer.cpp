#include "dsp/ThetaBuffer.h"

#include <cmath>

namespace Zelmar {

void ThetaBuffer::reset(unsigned int size)
{
    m_values.assign(size, 0.0f);
    m_writeIndex = 0;
    m_full = false;
}

void ThetaBuffer::addValue(float value)
{
    if (m_values.empty())
        return;
    m_values[m_writeIndex] = value;
    if (++m_writeIndex == m_values.size()) {
        m_writeIndex = 0;
        m_full = true;
    }
}

unsigned int ThetaBuffer::getCount() const
{
    return m_full ? static_cast<unsigned int>(m_values.size()) : m_writeIndex;
}

float ThetaBuffer::calcMean() const
{
    unsigned int const count = getCount();
    if (count == 0)
        return 0.0f;
    // Summed in double: 3000 float levels would otherwise lose the last digits of the mean.
    double sum = 0.0;
    for (unsigned int i = 0; i < count; ++i)
        sum += m_values[i];
    return static_cast<float>(sum / count);
}

float ThetaBuffer::calcDeviation(float const& mean) const
{
    unsigned int const count = getCount();
    if (count < 3)
        return 0.0f;
    double sum = 0.0;
    for (unsigned int i = 0; i < count; ++i) {
        double const d = double(m_values[i]) - mean;
        sum += d * d;
    }
    return static_cast<float>(std::sqrt(sum / (count - 1)));
}

} // namespace Zelmar
