#pragma once

#include "base/String.h"
#include "dsp/Export.h"
#include "dsp/FixedPoint.h"

#include <map>

namespace Zelmar {

// A curve through breakpoints, read between them on straight lines and held flat beyond both ends.
// Keys and values are Q12.19 (range +-4096, 19 fraction bits), loaded from text like "-60=9,-30=4,0=0".
class ORVANDELDSP_EXPORT LinearInterpolator
{
public:
    using tKey = FixedPoint<12, 19, true>;
    using tValue = FixedPoint<12, 19, true>;

    // Replaces the curve by the pieces of `text` separated by ",".
    void load(Tools::String const& text);
    // "key=value" sets one breakpoint (a repeated key overwrites); a piece without "=" is ignored.
    // Either number as std::stod reads it, so bad text throws std::invalid_argument or std::out_of_range;
    // 4096 or more does not fit Q12.19 and asserts.
    void loadBreakpoint(Tools::String const& piece);

    // Throws std::invalid_argument when no breakpoint was loaded.
    tValue getInterpolated(tKey key) const;

    std::map<tKey, tValue> const& getBreakpoints() const { return m_breakpoints; }

private:
    std::map<tKey, tValue> m_breakpoints;
};

} // namespace Zelmar
