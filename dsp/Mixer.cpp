#include "dsp/Mixer.h"

namespace Zelmar {

void Mixer::process()
{
    AudioBuffer const& first = inBuffer(0);
    AudioBuffer const& second = inBuffer(1);
    AudioBuffer& out = outBuffer(0);
    if (first.getNumSampleFrames() == 0) {
        out.copyFrom(&second);
    } else if (second.getNumSampleFrames() == 0) {
        out.copyFrom(&first);
    } else {
        out.copyFrom(&first);
        out.add(second);
    }
}

} // namespace Zelmar
