#pragma once

#include "dsp/FixedPoint.h"

namespace Zelmar {

// First-order high-pass that strips hum and offset before level detection. It runs on every eighth
// sample, where its corner lies at 50 Hz for 44.1 kHz input. The input gain is (1 + feedback) / 2,
// so the gain is exactly 1 at the decimated Nyquist frequency and 0 at DC. The state settles at
// gain / (1 - feedback), about 17.5 times a DC offset, so an offset beyond 0.45 of full scale wraps
// Q4.27's integer bits; line inputs are AC-coupled, so that is accepted. Products truncate.
class FilterChHp1
{
public:
    tSample step(tSample x);
    void reset() { m_state = tSample(); }

    static constexpr int32_t c_gainRaw = 0x07C73FE0;     // 0.9722898006
    static constexpr int32_t c_feedbackRaw = 0x078E7FC0; // 0.9445796013

private:
    tSample m_state;
};

} // namespace Zelmar
