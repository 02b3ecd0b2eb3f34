#include "tools/DetectionReport.h"

#include "dsp/SignalDetector.h"
#include "tools/ChainStages.h"

#include <cstdio>

namespace Zelmar {
namespace Host {

DetectionReport::DetectionReport(Chain const& chain, std::string const& config, unsigned int fileRate)
    : m_pollFrames(sf_count_t(fileRate) * SignalDetector::c_pollMilliseconds / 1000), m_fileRate(fileRate)
{
    auto const detectors = findStages<SignalDetector>(chain);
    if (detectors.empty())
        throw configError(config, "--detect needs a module of type \"signal-detector\"");
    m_detector = detectors.front();
    m_connection = m_detector->onThresholdTriggered([this](bool active) {
        m_changed = true;
        m_active = active;
    });
    m_nextPoll = m_pollFrames;
}

void DetectionReport::afterPeriod(sf_count_t framesIn, sf_count_t)
{
    for (; framesIn >= m_nextPoll; m_nextPoll += m_pollFrames)
        poll();
}

void DetectionReport::poll()
{
    // The poll consumes the result; read it first, and put it back, for the reason it carries.
    SignalDetector::DetectionInfo info;
    m_detector->presetDetectionResult(m_detector->consumeDetectionResult(info));
    m_changed = false;
    m_detector->pollSignal();
    if (!m_changed)
        return;
    ++m_transitions;
    double const seconds = double(m_nextPoll) / m_fileRate;
    if (m_active)
        std::printf("orvandeldsp detect %.3f s: active, reason %u (%s)\n", seconds, unsigned(info.reason),
                    SignalDetector::reasonAsString(info.reason));
    else
        std::printf("orvandeldsp detect %.3f s: silent\n", seconds);
}

std::string DetectionReport::describeResult() const
{
    return ", " + std::to_string(m_transitions) + " signal transitions";
}

} // namespace Host
} // namespace Zelmar
