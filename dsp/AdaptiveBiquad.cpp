#include "dsp/AdaptiveBiquad.h"

namespace Zelmar {

AdaptiveBiquad::AdaptiveBiquad(Tools::String const& id) : VolumeAdaptiveModule<BiQuad>(id, "gain") {}

Parameters const& AdaptiveBiquad::getParameters() const
{
    return getConfiguredParameters();
}

} // namespace Zelmar
