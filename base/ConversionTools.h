#pragma once

#include "base/ChannelConfiguration.h"
#include "base/String.h"

namespace Zelmar {
namespace HW {
namespace ConversionTools {

// Maps the routing text of the device settings to a channel configuration:
//   "stereo" -> Stereo, "swapped" -> Swapped, "left" -> BothLeft, "right" -> BothRight, "mono" -> Mono.
// Letters match without regard to case and spaces or tabs around the word are ignored;
// any other text, the empty one included, gives Unknown.
ChannelConfiguration mapFromLegacyRoutingString(Tools::String const& routing);

} // namespace ConversionTools
} // namespace HW
} // namespace Zelmar
