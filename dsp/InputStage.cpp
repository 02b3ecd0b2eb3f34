#include "dsp/InputStage.h"

namespace Zelmar {

void InputStage::process()
{
    AudioBuffer* const leftOut = &outBuffer(0);
    AudioBuffer* const rightOut = &outBuffer(1);
    AlsaChannel& leftIn = m_input->getChannel(0);
    AlsaChannel& rightIn = m_input->getChannel(1);

    // The period length travels through the chain as the buffers' frame counts.
    leftOut->setSize(leftIn.getNumFrames());
    rightOut->setSize(rightIn.getNumFrames());
    ZELMAR_ASSERT(leftOut->getNumSampleFrames() == rightOut->getNumSampleFrames());
    ZELMAR_ASSERT(leftOut->getNumSampleFrames() == leftIn.getNumFrames());
    ZELMAR_ASSERT(rightIn.getNumFrames() == leftIn.getNumFrames());

    leftIn.read(leftOut->getRawData());
    rightIn.read(rightOut->getRawData());
}

} // namespace Zelmar
