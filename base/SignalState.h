#pragma once

namespace Zelmar {
namespace Tools {

// Whether the host wants encoded frames. Receivers act on these two values and ignore any other.
enum SignalState : int
{
    FramesWanted = 0,
    FramesNotWanted = 1
};

} // namespace Tools
} // namespace Zelmar
