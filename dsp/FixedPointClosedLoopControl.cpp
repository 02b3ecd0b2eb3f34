#include "dsp/FixedPointClosedLoopControl.h"

namespace Zelmar {

namespace {

using tValue = FixedPointClosedLoopControl::tValue;

// The sampling interval, 0.01.
const tValue c_interval{int32_t(10485)};
// Errors within +-0.05 leave the integral alone, so jitter does not wind it up.
const uint32_t c_deadBand = 52428;

tValue gainFromFloat(float gain)
{
    return tValue(static_cast<int32_t>(gain * 1048576.0f));
}

} // namespace

FixedPointClosedLoopControl::FixedPointClosedLoopControl(float kp, float ki, float kd)
    : m_kp(gainFromFloat(kp)), m_ki(gainFromFloat(ki)), m_kd(gainFromFloat(kd))
{
}

void FixedPointClosedLoopControl::setPoint(float setPoint)
{
    m_setPoint = tValue(setPoint);
}

void FixedPointClosedLoopControl::setMinMax(float min, float max)
{
    m_min = tValue(min);
    m_max = tValue(max);
}

void FixedPointClosedLoopControl::process(float value)
{
    processValue(tValue(value));
}

void FixedPointClosedLoopControl::process(int value)
{
    processValue(tValue(static_cast<float>(value)));
}

void FixedPointClosedLoopControl::reset()
{
    m_lastError = tValue::s_Zero;
    m_integral = tValue::s_Zero;
    m_output = tValue::s_Zero;
}

// Q11.20 throughout; products and sums wrap silently. No anti-windup beyond the dead band.
void FixedPointClosedLoopControl::processValue(tValue const& value)
{
    tValue const e = m_setPoint - value;
    uint32_t const raw = static_cast<uint32_t>(e.getRaw());
    uint32_t const magnitude = e.getRaw() < 0 ? 0u - raw : raw;
    if (magnitude > c_deadBand)
        m_integral += e * c_interval;
    tValue const d = (e - m_lastError) / c_interval;
    tValue const u = m_kp * e + m_ki * m_integral + m_kd * d;
    m_output = u > m_max ? m_max : (u < m_min ? m_min : u);
    m_lastError = e;
}

} // namespace Zelmar
