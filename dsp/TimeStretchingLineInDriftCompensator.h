#pragma once

#include "dsp/Export.h"
#include "dsp/TimeStretchingDriftCompensator.h"

#include <cstdint>

namespace Zelmar {

// The time-stretching compensator of the line-in path; it also lets the host count the frames
// that path has produced.
class ORVANDELDSP_EXPORT TimeStretchingLineInDriftCompensator : public TimeStretchingDriftCompensator
{
public:
    TimeStretchingLineInDriftCompensator() = default;
    ~TimeStretchingLineInDriftCompensator() override = default;

    Tools::String getTimeStretcherModuleID() const override { return "line-in-timestretcher"; }

    // The left (or only) stretcher's 32-bit count, else the right one's, else 0.
    uint64_t getNumSamplesProduced() const;
    void resetNumSamplesProduced();
};

} // namespace Zelmar
