#include "dsp/DeviceVolume.h"

#include "base/HardwaredClient.h"
#include "base/Tracer.h"
#include "base/VolumeConversion.h"

#include <algorithm>
#include <cmath>

namespace Zelmar {

namespace {
constexpr char const* c_volumeProperty = "volume";
constexpr char const* c_logPrefix = "DbusServiceWatcher::getProperty: property";
} // namespace

DeviceVolume::tDb DeviceVolume::read()
{
    double volume = 0.0;
    switch (HardwaredClient::get().tryGetProperty(c_volumeProperty, volume)) {
    case HardwaredClient::PropertyState::Found:
        break;
    case HardwaredClient::PropertyState::NoProxy:
        Tools::trace(Tools::Tracer::Error, c_logPrefix, c_volumeProperty, " - no proxy.");
        volume = 0.0;
        break;
    case HardwaredClient::PropertyState::Missing:
        Tools::trace(Tools::Tracer::Error, c_logPrefix, c_volumeProperty, "does not exist (yet).");
        volume = 0.0;
        break;
    }
    return toDb(volume);
}

DeviceVolume::tDb DeviceVolume::toDb(double volume)
{
    // The daemon's volume steps are whole numbers; anything else (NaN included) is read as silence.
    long const step = volume > 0.0 ? std::lround(std::min(volume, 100.0)) : 0;
    return tDb(HW::VolumeConversion::mapToDb(static_cast<double>(step)));
}

} // namespace Zelmar
