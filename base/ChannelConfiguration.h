#pragma once

#include <cstdint>

namespace Zelmar {
namespace HW {

// How the two input channels of a stereo device reach its two outputs. Stored in one byte.
enum class ChannelConfiguration : uint8_t
{
    Stereo = 0,    // left to left, right to right
    Swapped = 1,   // left and right exchanged
    BothLeft = 2,  // the left input on both outputs
    BothRight = 3, // the right input on both outputs
    Mono = 4,      // the mean of both inputs on both outputs
    Unknown = 5,   // not a routing: a setting that could not be read
};

} // namespace HW
} // namespace Zelmar
