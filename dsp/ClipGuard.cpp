#include "dsp/ClipGuard.h"

namespace Zelmar {

void ClipGuard::process()
{
    AudioBuffer const* in = &inBuffer(0);
    AudioBuffer* out = &outBuffer(0);
    out->setSize(in->getNumSampleFrames());
    ZELMAR_ASSERT(out->getNumSampleFrames() >= in->getNumSampleFrames());

    tSample const* input = in->getRawData();
    tSample* output = out->getRawData();
    unsigned int const n = in->getNumSampleFrames();
    for (unsigned int i = 0; i < n; ++i) {
        tSample const x = input[i];
        output[i] = x > m_max ? m_max : (x < m_min ? m_min : x);
    }
}

} // namespace Zelmar
