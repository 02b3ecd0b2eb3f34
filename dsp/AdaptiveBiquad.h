#pragma once

#include "dsp/BiQuad.h"
#include "dsp/Export.h"
#include "dsp/VolumeAdaptiveModule.h"

namespace Zelmar {

// A biquad whose "gain" is a curve over the device volume in dB, for example more bass at low volume.
class ORVANDELDSP_EXPORT AdaptiveBiquad : public VolumeAdaptiveModule<BiQuad>
{
public:
    explicit AdaptiveBiquad(Tools::String const& id);

    // The configuration as given, curve included, rather than the gain it currently yields.
    Parameters const& getParameters() const override;
};

} // namespace Zelmar
