#include "dsp/FilterChHp1.h"

namespace Zelmar {

tSample FilterChHp1::step(tSample x)
{
    static constexpr tSample gain{c_gainRaw};
    static constexpr tSample feedback{c_feedbackRaw};
    tSample const w = gain * x + feedback * m_state;
    tSample const y = w - m_state;
    m_state = w;
    return y;
}

} // namespace Zelmar
