#pragma once

#include "dsp/FixedPoint.h"

namespace Zelmar {

// PID controller in Q11.20 (range +-2048) for steering a clock from its measured deviation.
// Called once per measurement; the sampling interval is fixed at 0.01.
class FixedPointClosedLoopControl
{
public:
    using tValue = FixedPoint<11, 20, true>;

    // Gains are scaled by 2^20 without a range check.
    FixedPointClosedLoopControl(float kp, float ki, float kd);

    // Set point and limits must stay below 2048 (fixed-point range assertion).
    void setPoint(float setPoint);
    void setMinMax(float min, float max);

    void processValue(tValue const& value);
    void process(float value);
    void process(int value);
    // Clears the history after a discontinuity; gains, limits and set point stay.
    void reset();

    tValue getOutput() const { return m_output; }

private:
    tValue m_setPoint;
    tValue m_lastError;
    tValue m_integral;
    tValue m_output;
    tValue m_kp;
    tValue m_ki;
    tValue m_kd;
    // Both 0 until setMinMax, which keeps the output at 0.
    tValue m_min;
    tValue m_max;
};

} // namespace Zelmar
