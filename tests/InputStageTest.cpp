#include "dsp/InputStage.h"

#include "dsp/Chain.h"
#include "support/MemoryAlsaBuffers.h"

#include <gtest/gtest.h>

using namespace Zelmar;

namespace {

// A compiled input stage reading two in-memory capture channels.
class CapturingStage
{
public:
    CapturingStage()
    {
        stage.setInput(&capture);
        stage.preSetup(chain, 1280);
        stage.postSetup(1280);
    }

    Chain chain{48000};
    InputStage stage{"in"};
    Testing::MemoryAlsaBuffers capture{2};
};

} // namespace

TEST(InputStageTest, PeriodLengthTravelsAsTheBufferFrameCount)
{
    CapturingStage host;
    host.capture.getChannel(0).setPeriod({tSample(0.5), tSample(0.25), tSample(-1.0)});
    host.capture.getChannel(1).setPeriod({tSample(0.125), tSample(0.0), tSample(1.0)});
    host.stage.process();
    EXPECT_EQ(host.stage.getOutPortBuffer(0)->getNumSampleFrames(), 3u);
    EXPECT_EQ(host.stage.getOutPortBuffer(0)->getRawData()[2], tSample(-1.0));
    EXPECT_EQ(host.stage.getOutPortBuffer(1)->getRawData()[2], tSample(1.0));
    EXPECT_EQ(host.stage.getOutPortBuffer(1)->getNumSampleFramesCapacity(), 1280u);
}

TEST(InputStageDeathTest, ChannelsOfDifferentLengthsAssert)
{
    CapturingStage host;
    host.capture.getChannel(0).setPeriod(std::vector<tSample>(4));
    host.capture.getChannel(1).setPeriod(std::vector<tSample>(5));
    EXPECT_DEATH(host.stage.process(),
                 "leftOut->getNumSampleFrames\\(\\) == rightOut->getNumSampleFrames\\(\\)");
}
