#include "dsp/Chain.h"

#include "dsp/InputStage.h"
#include "dsp/Meter.h"
#include "dsp/OutputStage.h"
#include "dsp/ParsingException.h"
#include "support/MemoryAlsaBuffers.h"

#include <gtest/gtest.h>

using namespace Zelmar;

TEST(ChainTest, DefaultConfigPassesAudioFromInputToOutput)
{
    Chain chain(48000, PROJECT_SOURCE_DIR "/configs/default.xml");
    Testing::MemoryAlsaBuffers capture(2), playback(2);
    std::dynamic_pointer_cast<InputStage>(chain.findModule("in"))->setInput(&capture);
    auto output = std::dynamic_pointer_cast<OutputStage>(chain.findModule("out"));
    output->setOutput(&playback);
    output->setMute(false);
    capture.getChannel(0).setPeriod(std::vector<tSample>(256, tSample(0.5)));
    capture.getChannel(1).setPeriod(std::vector<tSample>(256, tSample(-0.25)));
    chain.process();
    EXPECT_EQ(playback.getChannel(0).samples[255], tSample(0.5));
    EXPECT_EQ(playback.getChannel(1).samples[255], tSample(-0.25));
    EXPECT_FLOAT_EQ(std::dynamic_pointer_cast<Meter>(chain.findModule("level"))->exchange(0.0f), 0.5f);
}
