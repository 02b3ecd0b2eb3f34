#pragma once

#include "dsp/DriftCompensator.h"
#include "tools/RunFeature.h"

#include <memory>

namespace Zelmar {

class Chain;
class TimeStretcher;

namespace Host {

// A playback clock running fast or slow against the file's timeline. After every period the chain's
// output is compared with what that clock has consumed so far; the difference (ahead +, behind -)
// goes to a time-stretching compensator, which drops frames while the output runs ahead and inserts
// them while it lags, so the output ends up longer for a fast clock and shorter for a slow one.
class DriftSimulation : public RunFeature
{
public:
    DriftSimulation(Chain& chain, std::string const& config, double ppm, unsigned int fileRate,
                    unsigned int chainRate);

    void beforePeriod() override;
    void afterPeriod(sf_count_t framesIn, sf_count_t framesOut) override;
    std::string describeResult() const override;

private:
    std::unique_ptr<DriftCompensator> m_compensator;
    TimeStretcher* m_stretcher = nullptr;
    double m_ppm;
    double m_framesPerInputFrame;
    unsigned int m_producedBefore = 0;
    sf_count_t m_inserted = 0;
    sf_count_t m_dropped = 0;
};

} // namespace Host
} // namespace Zelmar
