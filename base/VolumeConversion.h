#pragma once

namespace Zelmar {
namespace HW {
namespace VolumeConversion {

// The device volume curve: user volume 0..100 (values outside are clamped) to dB of attenuation.
// Amplitude follows the square of the volume fraction, 40 * log10(volume / 100), which spreads the
// steps evenly to the ear; 0 is a floor well below audibility rather than minus infinity, so the
// result always fits a Q12.19 number. Strictly increasing:
//
//   volume    0     1     10    25       50       75      100
//   dB     -100   -80    -40   -24.08   -12.04   -5.00     0
double mapToDb(double volume);

} // namespace VolumeConversion
} // namespace HW
} // namespace Zelmar
