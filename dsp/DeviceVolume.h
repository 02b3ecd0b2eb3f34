#pragma once

#include "dsp/Export.h"
#include "dsp/FixedPoint.h"

namespace Zelmar {

// The device volume in dB, the key of the volume-adaptive modules' curves. Main loop thread only.
class ORVANDELDSP_EXPORT DeviceVolume
{
public:
    using tDb = FixedPoint<12, 19, true>;

    // What the hardware daemon reports now. When it cannot be asked or does not report a volume, says
    // why at tracer level 4 and takes volume 0.
    static tDb read();

    // A volume on the 0..100 scale, rounded to a whole step and clamped, through the device volume curve.
    static tDb toDb(double volume);
};

} // namespace Zelmar
