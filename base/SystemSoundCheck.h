#pragma once

namespace Zelmar {
namespace HW {

// True for the values of the ten system sounds, 0 to 9; callers get the number from outside (D-Bus).
bool isValidSystemSound(int sound);

} // namespace HW
} // namespace Zelmar
