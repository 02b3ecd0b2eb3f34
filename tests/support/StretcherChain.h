#pragma once

#include "MemoryAlsaBuffers.h"
#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/StereoWrapper.h"
#include "dsp/TimeStretcher.h"

#include <vector>

namespace Zelmar {
namespace Testing {

// A compiled chain "in" -> time stretcher `id` (mono on the left channel, or stereo-wrapped) -> meters,
// fed the same period on both capture channels.
class StretcherChain
{
public:
    StretcherChain(Tools::String const& id, bool stereo) : chain(48000)
    {
        chain.addModule("input", "in");
        module = stereo ? chain.addStereoModule("timestretcher", id) : chain.addModule("timestretcher", id);
        chain.addModule("meter", "m0");
        chain.addModule("meter", "m1");
        chain.pullWire(id + "[0]", "in[0]");
        chain.pullWire("m0[0]", id + "[0]");
        chain.pullWire(stereo ? id + "[1]" : Tools::String("m1[0]"), "in[1]");
        if (stereo)
            chain.pullWire("m1[0]", id + "[1]");
        chain.compile();
        std::dynamic_pointer_cast<InputStage>(chain.findModule("in"))->setInput(&capture);
        if (auto const wrapper = std::dynamic_pointer_cast<StereoWrapper>(module))
            stretchers = {std::dynamic_pointer_cast<TimeStretcher>(wrapper->getLeft()),
                          std::dynamic_pointer_cast<TimeStretcher>(wrapper->getRight())};
        else
            stretchers = {std::dynamic_pointer_cast<TimeStretcher>(module)};
    }

    // One period with an order for every stretcher; returns the output of port 0.
    std::vector<tSample> run(std::vector<tSample> const& period, TimeStretcher::TaskForNextBuffer task)
    {
        for (auto& stretcher : stretchers)
            stretcher->setTaskForNextBuffer(task);
        return run(period);
    }

    std::vector<tSample> run(std::vector<tSample> const& period)
    {
        capture.getChannel(0).setPeriod(period);
        capture.getChannel(1).setPeriod(period);
        chain.process();
        return output(0);
    }

    std::vector<tSample> output(unsigned int port) const
    {
        AudioBuffer const& out = *module->getOutPort(port);
        return std::vector<tSample>(out.getRawData(), out.getRawData() + out.getNumSampleFrames());
    }

    Chain chain;
    MemoryAlsaBuffers capture{2};
    std::shared_ptr<Module> module;
    std::vector<std::shared_ptr<TimeStretcher>> stretchers;
};

} // namespace Testing
} // namespace Zelmar
