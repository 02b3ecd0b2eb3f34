#pragma once

#include "base/Expiration.h"
#include "dsp/DriftCompensator.h"
#include "dsp/Export.h"
#include "dsp/FixedPointClosedLoopControl.h"

#include <alsa/asoundlib.h>

namespace Zelmar {

// Steers the codec's clock through the integer mixer control "Drift compensator" on the "default"
// control device: every 100 ms the frame delta runs through a PID controller limited to +-1000.
class ORVANDELDSP_EXPORT AlsaDriftCompensator : public DriftCompensator
{
public:
    static char const* const s_controlName;

    AlsaDriftCompensator();
    ~AlsaDriftCompensator() override;

    void start() override;
    void stop() override;

    // One tick of the 100 ms timer; false when there is no control and the timer ends.
    bool writeClock();
    bool initAlsaControl();
    // Leaves the clock untrimmed.
    void resetDriftCompensator();

private:
    void writeValue(int32_t value);

    Tools::Expiration m_expiration;
    FixedPointClosedLoopControl m_control;
    snd_ctl_t* m_ctl = nullptr;
    snd_ctl_elem_value_t* m_value = nullptr;
};

} // namespace Zelmar
