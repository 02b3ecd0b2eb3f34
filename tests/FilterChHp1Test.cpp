#include "dsp/FilterChHp1.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

using namespace Zelmar;

namespace {

// The filter runs on every eighth sample of 44.1 kHz input.
constexpr double c_rate = 44100.0 / 8;

double gainDbAt(double frequency)
{
    FilterChHp1 filter;
    double peak = 0.0;
    int const settle = 4000;
    for (int i = 0; i < settle + 20000; ++i) {
        double const y = filter.step(tSample(0.5 * std::cos(2.0 * M_PI * frequency * i / c_rate))).toDouble();
        if (i >= settle)
            peak = std::max(peak, std::fabs(y));
    }
    return 20.0 * std::log10(peak / 0.5);
}

} // namespace

TEST(FilterChHp1Test, PassesHighFrequenciesAndHasItsCornerAtFiftyHertz)
{
    EXPECT_NEAR(gainDbAt(50.0), -3.01, 0.05);
    EXPECT_NEAR(gainDbAt(1000.0), 0.0, 0.05);
    EXPECT_NEAR(gainDbAt(c_rate / 2), 0.0, 0.001) << "unity at the Nyquist frequency";
    EXPECT_LT(gainDbAt(5.0), -19.0);

    FilterChHp1 filter;
    tSample y;
    for (int i = 0; i < 2000; ++i)
        y = filter.step(tSample(0.25));
    EXPECT_LT(std::fabs(y.toDouble()), 1e-6) << "DC is removed";
}
