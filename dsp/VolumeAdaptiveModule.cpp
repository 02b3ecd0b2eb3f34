#include "dsp/VolumeAdaptiveModule.h"

#include "base/HardwaredClient.h"
#include "base/Tracer.h"

namespace Zelmar {
namespace VolumeFollowing {

Tools::Connection subscribe(std::function<void(double)> follower)
{
    return HardwaredClient::get().onVolumeChanged(std::move(follower));
}

void reportFailure(Tools::String const& id, char const* what)
{
    Tools::trace(Tools::Tracer::Error, id, "cannot follow the volume:", what);
}

} // namespace VolumeFollowing
} // namespace Zelmar
