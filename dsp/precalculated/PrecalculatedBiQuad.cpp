#include "dsp/precalculated/PrecalculatedBiQuad.h"

namespace Zelmar {

PrecalculatedBiQuadEntry const* findPrecalculatedBiQuadEntry(tSample b0, tSample b1, tSample b2, tSample a1,
                                                             tSample a2)
{
    int32_t const key[5] = {quantisePrecalculatedBiQuadKey(b0), quantisePrecalculatedBiQuadKey(b1),
                            quantisePrecalculatedBiQuadKey(b2), quantisePrecalculatedBiQuadKey(a1),
                            quantisePrecalculatedBiQuadKey(a2)};
    for (unsigned int i = 0; i < c_numPrecalculatedBiQuads; ++i) {
        int32_t const* entry = c_precalculatedBiQuads[i].key;
        if (entry[0] == key[0] && entry[1] == key[1] && entry[2] == key[2] && entry[3] == key[3] &&
            entry[4] == key[4])
            return &c_precalculatedBiQuads[i];
    }
    return nullptr;
}

tBiQuadKernel findPrecalculatedBiQuad(tSample b0, tSample b1, tSample b2, tSample a1, tSample a2)
{
    PrecalculatedBiQuadEntry const* entry = findPrecalculatedBiQuadEntry(b0, b1, b2, a1, a2);
    return entry ? entry->kernel : nullptr;
}

} // namespace Zelmar
