#include "dsp/TimeStretcher.h"

#include "support/StretcherChain.h"

#include <gtest/gtest.h>

#include <vector>

using namespace Zelmar;

namespace {

std::vector<tSample> samples(std::vector<double> const& values)
{
    return std::vector<tSample>(values.begin(), values.end());
}

std::vector<tSample> raw(std::vector<int32_t> const& values)
{
    return std::vector<tSample>(values.begin(), values.end());
}

} // namespace

TEST(TimeStretcherTest, ChangesOneFrameWhereTheStepIsSmallest)
{
    Testing::StretcherChain rig("ts", false);
    auto const input = samples({0, 5, 5, 9});
    rig.run(input);
    EXPECT_EQ(rig.stretchers[0]->findSmallestChangeInBuffer(), 2u);
    EXPECT_EQ(rig.run(input, TimeStretcher::Skip), samples({0, 5, 9}));
    EXPECT_EQ(rig.run(input, TimeStretcher::Stretch), samples({0, 5, 5, 5, 9}));
    // The order is used up by the period it changed.
    EXPECT_EQ(rig.run(input), input);
    EXPECT_EQ(rig.run(input, TimeStretcher::None), input);

    // Equal steps: the first pair wins.
    EXPECT_EQ(rig.run(samples({1, 2, 3, 4}), TimeStretcher::Skip), samples({1, 3, 4}));
    // The jump across the whole range wraps to a step of 2 raw units and so counts as the smallest.
    EXPECT_EQ(rig.run(raw({INT32_MIN + 1, INT32_MAX, INT32_MAX - 4, 0}), TimeStretcher::Skip),
              raw({INT32_MIN + 1, INT32_MAX - 4, 0}));

    EXPECT_EQ(rig.run(samples({1, 2}), TimeStretcher::Skip), samples({1}));
    EXPECT_EQ(rig.run(samples({1, 2}), TimeStretcher::Stretch), samples({1, 1.5, 2}));
    EXPECT_EQ(rig.stretchers[0]->getNumSamplesProduced(), 4u + 3 + 5 + 4 + 4 + 3 + 3 + 1 + 3);
    rig.stretchers[0]->resetNumSamplesProduced();
    EXPECT_EQ(rig.stretchers[0]->getNumSamplesProduced(), 0u);
}

TEST(TimeStretcherTest, OneFramePeriodLeavesTheOrderPending)
{
    Testing::StretcherChain rig("ts", false);
    EXPECT_EQ(rig.run(samples({0.25}), TimeStretcher::Skip), samples({0.25}));
    EXPECT_EQ(rig.run({}), std::vector<tSample>{});
    EXPECT_EQ(rig.run(samples({0, 5, 5, 9})), samples({0, 5, 9}));
    EXPECT_EQ(rig.run(samples({0, 5, 5, 9})), samples({0, 5, 5, 9}));
    EXPECT_EQ(rig.stretchers[0]->getNumSamplesProduced(), 1u + 0 + 3 + 4);
}

TEST(TimeStretcherTest, InsertedValueRoundsTowardZero)
{
    Testing::StretcherChain rig("ts", false);
    EXPECT_EQ(rig.run(samples({-1.0, 0.5}), TimeStretcher::Stretch), samples({-1.0, -0.25, 0.5}));
    // The sum is -2^-27: halving toward zero gives 0, not -2^-27.
    EXPECT_EQ(rig.run(raw({-3, 2}), TimeStretcher::Stretch), raw({-3, 0, 2}));
    // The sum wraps in 32 bits before it is halved.
    EXPECT_EQ(rig.run(raw({INT32_MAX, 1}), TimeStretcher::Stretch), raw({INT32_MAX, -(1 << 30), 1}));
}

TEST(TimeStretcherTest, OutputStorageNeverMovesEvenForAFullPeriod)
{
    std::vector<tSample> const full(Chain::getMaxNumFramesPerProcessCall(), tSample(0.125));
    for (bool stereo : {false, true}) {
        Testing::StretcherChain rig("ts", stereo);
        tSample const* const left = rig.module->getOutPort(0)->getRawData();
        tSample const* const right = rig.module->getOutPort(stereo ? 1 : 0)->getRawData();
        for (auto task : {TimeStretcher::Stretch, TimeStretcher::Skip, TimeStretcher::Stretch}) {
            rig.run(full, task);
            EXPECT_EQ(rig.module->getOutPort(0)->getRawData(), left);
            EXPECT_EQ(rig.module->getOutPort(stereo ? 1 : 0)->getRawData(), right);
        }
        EXPECT_EQ(rig.output(0).size(), full.size() + 1);
        if (stereo) {
            EXPECT_EQ(rig.output(1), rig.output(0));
        }
    }
}

TEST(TimeStretcherTest, MovedStorageIsFatal)
{
    Testing::StretcherChain rig("ts", false);
    // Without the reserved frame an insertion into a full period has to reallocate.
    rig.module->getOutPort(0)->getUnderlyingStorage().shrink_to_fit();
    std::vector<tSample> const full(Chain::getMaxNumFramesPerProcessCall(), tSample(0.125));
    EXPECT_DEATH(rig.run(full, TimeStretcher::Stretch), "oldOutPtr == getOutPort\\(0\\)->getRawData\\(\\)");
}
