#include "dsp/Meter.h"

#include "dsp/Chain.h"

#include <gtest/gtest.h>

using namespace Zelmar;

TEST(MeterTest, HoldsThePeakUntilExchanged)
{
    Chain chain(48000);
    auto in = chain.addModule("input", "in");
    auto meter = std::dynamic_pointer_cast<Meter>(chain.addModule("meter", "m"));
    chain.pullWire("m[0]", "in[0]");
    chain.compile();
    auto& buffer = *in->getOutPortBuffer(0);
    buffer.setSize(2);
    buffer.getRawData()[1] = tSample(-0.5);
    meter->process();
    buffer.getRawData()[1] = tSample(0.25);
    meter->process();
    EXPECT_FLOAT_EQ(meter->exchange(0.0f), 0.5f);
    meter->process();
    EXPECT_FLOAT_EQ(meter->exchange(0.0f), 0.25f);
}
