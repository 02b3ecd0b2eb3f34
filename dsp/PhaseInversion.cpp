#include "dsp/PhaseInversion.h"

namespace Zelmar {

void PhaseInversion::process()
{
    AudioBuffer const& in = inBuffer(0);
    AudioBuffer& out = outBuffer(0);
    unsigned int const n = in.getNumSampleFrames();
    out.setSize(n);
    tSample const* input = in.getRawData();
    tSample* output = out.getRawData();
    // Element-wise, so input and output may be the same memory.
    for (unsigned int i = 0; i < n; ++i)
        output[i] = -input[i];
}

} // namespace Zelmar
