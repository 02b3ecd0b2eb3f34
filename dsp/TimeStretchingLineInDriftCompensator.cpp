#include "dsp/TimeStretchingLineInDriftCompensator.h"

namespace Zelmar {

uint64_t TimeStretchingLineInDriftCompensator::getNumSamplesProduced() const
{
    if (m_leftStretcher)
        return m_leftStretcher->getNumSamplesProduced();
    if (m_rightStretcher)
        return m_rightStretcher->getNumSamplesProduced();
    return 0;
}

void TimeStretchingLineInDriftCompensator::resetNumSamplesProduced()
{
    if (m_leftStretcher)
        m_leftStretcher->resetNumSamplesProduced();
    if (m_rightStretcher)
        m_rightStretcher->resetNumSamplesProduced();
}

} // namespace Zelmar
