#pragma once

namespace Zelmar {
namespace Tools {
namespace Hardware {

// How a device keeps its playback clock in step with the multi-room clock.
enum class DriftCompensatorType : int
{
    HardwareClock = 0,       // a clock DAC trimmed through sysfs
    AlsaControl = 1,         // the codec's "Drift compensator" mixer control
    TimeStretching = 2,      // single frames dropped or inserted in the playback chain
    TimeStretchingLineIn = 3 // the same on the line-in path
};

} // namespace Hardware
} // namespace Tools
} // namespace Zelmar
