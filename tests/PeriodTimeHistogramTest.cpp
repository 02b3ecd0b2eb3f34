#include "tools/PeriodTimeHistogram.h"

#include <gtest/gtest.h>
#include <memory>

using Zelmar::Host::PeriodTimeHistogram;

TEST(PeriodTimeHistogramTest, QuantilesReadBackWithinATenthOfAPercent)
{
    auto const histogram = std::make_unique<PeriodTimeHistogram>();
    EXPECT_EQ(histogram->quantile(0.5), 0u);
    // 1 us to 10 ms in 10 ns steps, then one period 20 minutes long, beyond the last bin.
    for (uint64_t ns = 1000; ns <= 10000000; ns += 10)
        histogram->record(ns);
    uint64_t const longest = 1200000000000;
    histogram->record(longest);
    struct Case
    {
        double q;
        double expected;
    } const cases[] = {
        {0.0, 1000}, {0.5, 5000500}, {0.99, 9900100}, {0.999, 9990010}, {1.0, double(longest)}};
    for (auto const& c : cases) {
        SCOPED_TRACE(c.q);
        EXPECT_NEAR(double(histogram->quantile(c.q)), c.expected, c.expected / 1024);
    }
    EXPECT_EQ(histogram->getMax(), longest);
    EXPECT_EQ(histogram->getCount(), 999902u);
}
