#pragma once

#include "base/Signal.h"
#include "tools/RunFeature.h"

namespace Zelmar {

class Chain;
class SignalDetector;

namespace Host {

// Drives the detector's poll by the file's clock instead of the main loop's timer, so that a run
// reports the same transitions at the same audio times however fast it goes.
class DetectionReport : public RunFeature
{
public:
    DetectionReport(Chain const& chain, std::string const& config, unsigned int fileRate);

    void afterPeriod(sf_count_t framesIn, sf_count_t framesOut) override;
    std::string describeResult() const override;

private:
    void poll();

    SignalDetector* m_detector = nullptr;
    Tools::Connection m_connection;
    sf_count_t m_pollFrames;
    sf_count_t m_nextPoll = 0;
    unsigned int m_fileRate;
    bool m_changed = false;
    bool m_active = false;
    unsigned int m_transitions = 0;
};

} // namespace Host
} // namespace Zelmar
