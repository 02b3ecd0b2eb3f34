#pragma once

#include "dsp/Export.h"
#include "dsp/FixedPoint.h"

#include <alsa/asoundlib.h>
#include <cstddef>
#include <glib.h>

namespace Zelmar {

// Converts between samples and packed little-endian PCM (S32_LE, S24_3LE, S16_LE) for the host's
// buffer wrappers. PCM full scale is [-1.0, 1.0) of a sample: the four integer bits of headroom are
// clipped away on output and never produced on input. Any other format is a broken invariant.
class ORVANDELDSP_EXPORT FormatConversion
{
public:
    // count is a number of samples, not bytes.
    static void convertTo(snd_pcm_format_t format, tSample const* in, guint8* out, size_t count);
    static void convertFrom(snd_pcm_format_t format, guint8 const* in, tSample* out, size_t count);
};

} // namespace Zelmar
