#include "base/VolumeConversion.h"

#include <gtest/gtest.h>

using namespace Zelmar::HW;

TEST(VolumeConversionTest, FollowsTheDocumentedPointsAndRisesThroughout)
{
    EXPECT_EQ(VolumeConversion::mapToDb(100), 0.0);
    EXPECT_EQ(VolumeConversion::mapToDb(0), -100.0);
    EXPECT_NEAR(VolumeConversion::mapToDb(1), -80.0, 1e-9);
    EXPECT_NEAR(VolumeConversion::mapToDb(10), -40.0, 1e-9);
    EXPECT_NEAR(VolumeConversion::mapToDb(25), -24.08, 0.005);
    EXPECT_NEAR(VolumeConversion::mapToDb(50), -12.04, 0.005);
    EXPECT_NEAR(VolumeConversion::mapToDb(75), -5.00, 0.005);
    for (double volume = 0.5; volume <= 100; volume += 0.5)
        EXPECT_GT(VolumeConversion::mapToDb(volume), VolumeConversion::mapToDb(volume - 0.5)) << volume;
    EXPECT_EQ(VolumeConversion::mapToDb(-5), -100.0);
    EXPECT_EQ(VolumeConversion::mapToDb(150), 0.0);
}
