#pragma once

#include "dsp/DriftCompensator.h"
#include "dsp/Export.h"
#include "dsp/TimeStretcher.h"

#include <memory>

namespace Zelmar {

// Corrects drift where no clock can be trimmed: once the smoothed sign of the deltas leaves the
// dead band (+-0.5) the chain's time stretchers drop (ahead) or insert (behind) one frame per period.
class ORVANDELDSP_EXPORT TimeStretchingDriftCompensator : public DriftCompensator
{
public:
    TimeStretchingDriftCompensator() = default;
    ~TimeStretchingDriftCompensator() override = default;

    // Binds the stretchers with the module ID: a stereo-wrapped pair or a single mono one.
    void initChain(Chain& chain) override;
    int setFrameDelta(int delta) override;
    virtual Tools::String getTimeStretcherModuleID() const { return "timestretcher"; }

    double getFilteredDelta() const { return m_filteredDelta; }

protected:
    // Only the sign counts, so one large outlier weighs no more than a delta of one frame.
    void adjustTimestretchFilter(int delta);
    TimeStretcher::TaskForNextBuffer getTaskForNextBuffer() const;

    double m_filteredDelta = 0.0;
    std::shared_ptr<TimeStretcher> m_leftStretcher;
    std::shared_ptr<TimeStretcher> m_rightStretcher;
    tTimePoint m_lastLog{};
};

} // namespace Zelmar
