#include "dsp/PatchBay.h"

#include "base/ConversionTools.h"

namespace Zelmar {

// Does not store the parameters in the module base, unlike the other routing modules; kept so.
void PatchBay::setParameters(Parameters const& parameters, unsigned int)
{
    HW::ChannelConfiguration const mode =
        HW::ConversionTools::mapFromLegacyRoutingString(parameters.getString("routing"));
    if (mode != HW::ChannelConfiguration::Unknown && mode != getRoutingMode())
        setRoutingMode(mode);
}

void PatchBay::setRoutingMode(HW::ChannelConfiguration mode)
{
    m_routingMode.store(mode, std::memory_order_relaxed);
}

void PatchBay::process()
{
    AudioBuffer const* inLeft = &inBuffer(0);
    AudioBuffer const* inRight = &inBuffer(1);
    AudioBuffer& outLeft = outBuffer(0);
    AudioBuffer& outRight = outBuffer(1);
    ZELMAR_ASSERT_CMPUINT(inLeft->getNumSampleFrames(), ==, inRight->getNumSampleFrames());
    outLeft.setSize(inLeft->getNumSampleFrames());
    outRight.setSize(inRight->getNumSampleFrames());

    // Outputs may share memory with their own inputs (in-place), so each case reads an input
    // before the output that aliases it is overwritten.
    switch (getRoutingMode()) {
    case HW::ChannelConfiguration::Stereo:
        outLeft.copyFrom(inLeft);
        outRight.copyFrom(inRight);
        break;
    case HW::ChannelConfiguration::Swapped:
        outLeft.copyFrom(inLeft);
        outRight.copyFrom(inRight);
        outLeft.swap(outRight);
        break;
    case HW::ChannelConfiguration::BothLeft:
        outLeft.copyFrom(inLeft);
        outRight.copyFrom(inLeft);
        break;
    case HW::ChannelConfiguration::BothRight:
        outLeft.copyFrom(inRight);
        outRight.copyFrom(inRight);
        break;
    case HW::ChannelConfiguration::Mono:
        // Summed before halving, so the sum wraps like any other addition.
        outLeft.copyFrom(inLeft);
        outLeft.add(*inRight);
        outLeft.amplify(tSample::s_Half);
        outRight.copyFrom(&outLeft);
        break;
    default:
        break;
    }
}

} // namespace Zelmar
