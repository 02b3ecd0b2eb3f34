#pragma once

#include "dsp/Export.h"
#include "dsp/Limiter.h"
#include "dsp/VolumeAdaptiveModule.h"

namespace Zelmar {

// A limiter whose "threshold" is a curve over the device volume in dB. Unlike the adaptive biquad it
// reports the threshold last applied, as a number, among its parameters.
class ORVANDELDSP_EXPORT AdaptiveLimiter : public VolumeAdaptiveModule<Limiter>
{
public:
    explicit AdaptiveLimiter(Tools::String const& id);
};

} // namespace Zelmar
