#include "dsp/AdaptiveLimiter.h"

namespace Zelmar {

AdaptiveLimiter::AdaptiveLimiter(Tools::String const& id) : VolumeAdaptiveModule<Limiter>(id, "threshold") {}

} // namespace Zelmar
