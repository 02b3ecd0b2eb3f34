#include "base/VolumeConversion.h"

#include <algorithm>
#include <cmath>

namespace Zelmar {
namespace HW {
namespace VolumeConversion {

namespace {
constexpr double c_silentDb = -100.0;
} // namespace

double mapToDb(double volume)
{
    if (!(volume > 0.0))
        return c_silentDb;
    // Volume 1 gives -80 dB, so the floor keeps the curve monotonic.
    return 40.0 * std::log10(std::min(volume, 100.0) / 100.0);
}

} // namespace VolumeConversion
} // namespace HW
} // namespace Zelmar
